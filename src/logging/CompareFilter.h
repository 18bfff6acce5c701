#pragma once

#include <optional>
#include <string_view>

#include "logging/Filter.h"
#include "logging/FilterType.h"

namespace morvane::logging {

/// A filter that compares the path, the function or the message with its strings (or asks
/// its predicate).
class CompareFilter final : public Filter, public FilterType {
public:
    CompareFilter(TargetType target, bool required, Level minLevel);

    bool apply(std::optional<std::string_view> value) const override;
    const TargetType& getTarget() const override { return Filter::getTarget(); }
    bool isRequired() const override { return Filter::isRequired(); }
    /// True for an Excludes comparison only.
    bool isExcluded() const override;
    bool reachedMinLevel(Level level) const override { return Filter::reachedMinLevel(level); }

    const ComparisonType& filterComparisonType() const { return getTarget().comparison; }
};

}  // namespace morvane::logging
