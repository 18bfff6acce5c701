#pragma once

#include <optional>
#include <string_view>

#include "logging/Filter.h"
#include "logging/Level.h"

namespace morvane::logging {

/// What a destination asks of each of its filters.
class FilterType {
public:
    virtual ~FilterType() = default;

    /// Whether the value meets the filter's condition; an absent value never does.
    virtual bool apply(std::optional<std::string_view> value) const = 0;
    virtual const Filter::TargetType& getTarget() const = 0;
    virtual bool isRequired() const = 0;
    virtual bool isExcluded() const = 0;
    virtual bool reachedMinLevel(Level level) const = 0;
};

}  // namespace morvane::logging
