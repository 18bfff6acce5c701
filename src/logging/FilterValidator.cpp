#include "logging/FilterValidator.h"

namespace morvane::logging {

namespace {

bool picks(FilterValidator::ValidationType type, const FilterType& filter) {
    switch (type) {
        case FilterValidator::ValidationType::excluded:
            return filter.isExcluded();
        case FilterValidator::ValidationType::required:
            return filter.isRequired() && !filter.isExcluded();
        case FilterValidator::ValidationType::nonRequired:
            return !filter.isRequired() && !filter.isExcluded();
    }
    return false;
}

bool conditionHolds(const FilterType& filter, std::string_view path, std::string_view function,
                    const std::optional<std::string>& message) {
    switch (filter.getTarget().kind) {
        case Filter::TargetType::Kind::Path:
            return filter.apply(path);
        case Filter::TargetType::Kind::Function:
            return filter.apply(function);
        case Filter::TargetType::Kind::Message:
            // Without the message text the condition fails; the filter is never asked.
            return message.has_value() && filter.apply(std::string_view(*message));
    }
    return false;
}

}  // namespace

FilterValidator::Result FilterValidator::validate(
    const std::vector<std::shared_ptr<FilterType>>& filters, ValidationType type, Level level,
    std::string_view path, std::string_view function, const std::optional<std::string>& message) {
    int picked = 0;
    PartialMatchData counts;
    for (const auto& filter : filters) {
        if (!filter || !picks(type, *filter)) {
            continue;
        }
        ++picked;
        const bool condition = conditionHolds(*filter, path, function, message);
        const bool levelReached = filter->reachedMinLevel(level);
        if (condition && levelReached) {
            ++counts.fullMatchCount;
        } else if (condition) {
            ++counts.conditionMatchCount;
        } else if (levelReached) {
            ++counts.logLevelMatchCount;
        }
    }
    if (picked == 0) {
        return NoFiltersMatchingType{};
    }
    if (counts.fullMatchCount == picked) {
        return AllFiltersMatch{};
    }
    return SomeFiltersMatch{counts};
}

}  // namespace morvane::logging
