#include "support/TestEnvironment.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace morvane::test {

namespace fs = std::filesystem;

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
