#include "messages/LogLevel.h"

namespace morvane {

std::string_view rawValue(LogLevel level) {
    switch (level) {
        case LogLevel::none:
            return "none";
        case LogLevel::warning:
            return "warning";
        case LogLevel::production:
            return "production";
        case LogLevel::diagnose:
            return "diagnose";
    }
    return "none";
}

template <>
std::optional<LogLevel> enumFromRawValue<LogLevel>(std::string_view raw) {
    for (LogLevel level :
         {LogLevel::none, LogLevel::warning, LogLevel::production, LogLevel::diagnose}) {
        if (rawValue(level) == raw) {
            return level;
        }
    }
    return std::nullopt;
}

}  // namespace morvane
