#pragma once

namespace morvane {

enum class LogLevel { none, warning, production, diagnose };

}  // namespace morvane
