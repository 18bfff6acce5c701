#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "logging/FilterType.h"
#include "logging/Level.h"

namespace morvane::logging {

/// Tests one kind of filters (exclusions, required ones, the others) against a line and
/// says whether all, some or none of that kind match.
class FilterValidator {
public:
    enum class ValidationType { excluded, required, nonRequired };

    struct PartialMatchData {
        int fullMatchCount = 0;
        int conditionMatchCount = 0;
        int logLevelMatchCount = 0;
    };
    struct SomeFiltersMatch {
        PartialMatchData data;
    };
    struct AllFiltersMatch {};
    struct NoFiltersMatchingType {};
    using Result = std::variant<SomeFiltersMatch, AllFiltersMatch, NoFiltersMatchingType>;

    static Result validate(const std::vector<std::shared_ptr<FilterType>>& filters,
                           ValidationType type, Level level, std::string_view path,
                           std::string_view function, const std::optional<std::string>& message);
};

}  // namespace morvane::logging
