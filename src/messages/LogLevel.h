#pragma once

#include <optional>
#include <string_view>

#include "messages/RawValue.h"

namespace morvane {

/// How much the agent logs, from least to most verbose. The declaration order is the
/// verbosity order, so `a >= b` compares levels the way the logger needs.
enum class LogLevel { none, warning, production, diagnose };

std::string_view rawValue(LogLevel level);

template <>
std::optional<LogLevel> enumFromRawValue<LogLevel>(std::string_view raw);

}  // namespace morvane
