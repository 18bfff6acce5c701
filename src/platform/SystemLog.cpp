#include "platform/SystemLog.h"

#include <syslog.h>

#include <string>

namespace morvane::platform {

void writeSystemLog(std::string_view line) {
    // The line is data, never a format: a "%" in a message must come out as it is.
    const std::string text(line);
    ::syslog(LOG_USER | LOG_NOTICE, "%s", text.c_str());
}

}  // namespace morvane::platform
