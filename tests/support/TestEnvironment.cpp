#include "support/TestEnvironment.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>
#include <sstream>
#include <stdexcept>

namespace morvane::test {

namespace fs = std::filesystem;

namespace {

// The processes of this user started with MORVANECLOUD_SYSROOT=`sysroot` that have not ended
// (a zombie has: its parent reaps it).
std::vector<pid_t> processesUnder(const fs::path& sysroot) {
    const std::string wanted = "MORVANECLOUD_SYSROOT=" + sysroot.string();
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const auto pid = static_cast<pid_t>(std::stol(name));
        struct stat info {};
        if (pid == ::getpid() || ::stat(entry.path().c_str(), &info) != 0 ||
            info.st_uid != ::getuid()) {
            continue;
        }
        const std::string stat = readFile(entry.path() / "stat");
        const auto state = stat.rfind(") ");
        if (state == std::string::npos || stat.compare(state + 2, 1, "Z") == 0) {
            continue;
        }
        std::ifstream environment(entry.path() / "environ", std::ios::binary);
        for (std::string variable; std::getline(environment, variable, '\0');) {
            if (variable == wanted) {
                found.push_back(pid);
                break;
            }
        }
    }
    return found;
}

}  // namespace

ScopedEnv::~ScopedEnv() {
    for (const auto& [name, value] : saved_) {
        if (value) {
            ::setenv(name.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name.c_str());
        }
    }
}

void ScopedEnv::remember(const std::string& name) {
    const char* old = std::getenv(name.c_str());
    saved_.try_emplace(name, old ? std::optional<std::string>(old) : std::nullopt);
}

void ScopedEnv::set(const std::string& name, const std::string& value) {
    remember(name);
    ::setenv(name.c_str(), value.c_str(), 1);
}

void ScopedEnv::unset(const std::string& name) {
    remember(name);
    ::unsetenv(name.c_str());
}

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

TempHome::TempHome() : dir_("morvane-home") {
    for (const auto& [name, folder] : {std::pair{"HOME", home()},
                                       {"XDG_CONFIG_HOME", configHome()},
                                       {"XDG_DATA_HOME", dataHome()},
                                       {"XDG_CACHE_HOME", cacheHome()},
                                       {"MORVANECLOUD_SYSROOT", sysroot()}}) {
        fs::create_directories(folder);
        env_.set(name, folder.string());
    }
    // A test runs as the agent unless it says otherwise: these two mark a command-line run.
    env_.unset("PWD");
    env_.unset("SUDO_COMMAND");
}

TempHome::~TempHome() {
    // A provider the agent started outlives the agent by design; in a test it would hold the
    // proxy's address and a later test's provider could not start. SIGTERM lets it restore
    // what it changed under this sysroot; what does not end in five seconds is killed.
    auto left = processesUnder(sysroot());
    for (const pid_t pid : left) {
        ::kill(pid, SIGTERM);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!left.empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        left = processesUnder(sysroot());
    }
    for (const pid_t pid : left) {
        ::kill(pid, SIGKILL);
    }
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const fs::path& path, const std::string& content) {
    if (path.has_parent_path()) {
        fs::create_directories(path.parent_path());
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

}  // namespace morvane::test
