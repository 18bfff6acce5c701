#include "platform/RunningInstances.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace morvane::platform {

namespace fs = std::filesystem;

namespace {

// The executable of a process; "(deleted)" is dropped so that an agent still running the
// binary an upgrade replaced counts as this program.
std::string executableOf(const fs::path& process) {
    std::error_code error;
    std::string target = fs::read_symlink(process / "exe", error).string();
    constexpr std::string_view deleted = " (deleted)";
    if (target.size() > deleted.size() && target.ends_with(deleted)) {
        target.resize(target.size() - deleted.size());
    }
    return error ? std::string() : target;
}

// The relocated root a process runs under ($MORVANECLOUD_SYSROOT), empty for the real one.
// An agent of a test's or a demo's own root is another installation: it is neither ended by,
// nor told apart from, the agent of the machine.
std::string sysrootOf(const fs::path& process) {
    std::ifstream environment(process / "environ", std::ios::binary);
    constexpr std::string_view key = "MORVANECLOUD_SYSROOT=";
    std::string entry;
    while (std::getline(environment, entry, '\0')) {
        if (entry.starts_with(key)) {
            return entry.substr(key.size());
        }
    }
    return {};
}

std::vector<pid_t> scan(bool agentsOnly) {
    std::vector<pid_t> found;
    const std::string ours = executableOf("/proc/self");
    if (ours.empty()) {
        return found;
    }
    const pid_t self = ::getpid();
    const char* ownSysroot = std::getenv("MORVANECLOUD_SYSROOT");
    const std::string sysroot = ownSysroot != nullptr ? ownSysroot : "";
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename().string();
        char* end = nullptr;
        const long pid = std::strtol(name.c_str(), &end, 10);
        if (end == name.c_str() || *end != '\0' || pid == self) {
            continue;
        }
        struct stat info {};
        if (::stat(entry.path().c_str(), &info) != 0 || info.st_uid != ::getuid()) {
            continue;
        }
        if (executableOf(entry.path()) != ours || sysrootOf(entry.path()) != sysroot) {
            continue;
        }
        if (agentsOnly) {
            // argv[0] and its terminating zero, nothing after it.
            std::ifstream cmdline(entry.path() / "cmdline", std::ios::binary);
            std::string programName;
            if (!std::getline(cmdline, programName, '\0') ||
                cmdline.peek() != std::ifstream::traits_type::eof()) {
                continue;
            }
        }
        found.push_back(static_cast<pid_t>(pid));
    }
    return found;
}

}  // namespace

std::vector<pid_t> otherInstances() {
    return scan(false);
}

std::vector<pid_t> runningAgents() {
    return scan(true);
}

}  // namespace morvane::platform
