#include "platform/ProcessInfo.h"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace morvane::platform {

std::string executableName() {
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error && !target.filename().empty()) {
        return target.filename().string();
    }
    const char* shortName = program_invocation_short_name;
    return shortName != nullptr ? std::string(shortName) : std::string();
}

bool isMainThread() {
    // Asked on every log call: two system calls once per thread, not per call.
    thread_local const bool isMain = ::syscall(SYS_gettid) == ::getpid();
    return isMain;
}

}  // namespace morvane::platform
