#include "logging/Filter.h"

namespace morvane::logging {

Filter::Filter(TargetType targetType, bool required, Level minLevel)
    : targetType_(std::move(targetType)), required_(required), minLevel_(minLevel) {}

}  // namespace morvane::logging
