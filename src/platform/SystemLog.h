#pragma once

#include <string_view>

namespace morvane::platform {

/// Writes one line to the system log (syslog, as the running executable, user facility).
void writeSystemLog(std::string_view line);

}  // namespace morvane::platform
