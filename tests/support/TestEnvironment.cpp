#include "support/TestEnvironment.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace morvane::test {

namespace fs = std::filesystem;

fs::path sourceDir() {
    if (const char* dir = std::getenv("MORVANE_SOURCE_DIR"); dir && *dir) {
        return dir;
    }
    return MORVANE_TEST_SOURCE_DIR;
}

fs::path binaryDir() {
    if (const char* dir = std::getenv("MORVANE_BINARY_DIR"); dir && *dir) {
        return dir;
    }
    return MORVANE_TEST_BINARY_DIR;
}

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
    if (saved_.count(name) != 0) {
        return;
    }
    const char* old = std::getenv(name.c_str());
    saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
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
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = buffer.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

TempHome::TempHome() : dir_("morvane-home") {
    for (const auto& folder : {home(), configHome(), dataHome(), cacheHome(), sysroot()}) {
        fs::create_directories(folder);
    }
    env_.set("HOME", home().string());
    env_.set("XDG_CONFIG_HOME", configHome().string());
    env_.set("XDG_DATA_HOME", dataHome().string());
    env_.set("XDG_CACHE_HOME", cacheHome().string());
    env_.set("MORVANECLOUD_SYSROOT", sysroot().string());
    // A test runs as the agent unless it says otherwise: these two mark a command-line run.
    env_.unset("PWD");
    env_.unset("SUDO_COMMAND");
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
