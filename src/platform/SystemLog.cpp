#include "platform/SystemLog.h"

#include <syslog.h>

#include <mutex>
#include <set>

namespace morvane::platform {

namespace {

std::mutex& identMutex() {
    static std::mutex mutex;
    return mutex;
}

// syslog keeps the ident pointer it was opened with, and the ident is process-wide: each
// line re-opens under its own subsystem, and every ident text lives to the end.
const char* keptIdent(const std::string& subsystem) {
    static std::set<std::string> idents;
    return idents.insert(subsystem).first->c_str();
}

}  // namespace

SystemLog::SystemLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void SystemLog::error(const std::string& message) const {
    std::lock_guard lock(identMutex());
    ::openlog(keptIdent(subsystem_), LOG_PID, LOG_USER);
    ::syslog(LOG_ERR, "[%s] %s", category_.c_str(), message.c_str());
}

}  // namespace morvane::platform
