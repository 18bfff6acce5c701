#include "platform/Files.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace morvane::platform {

namespace fs = std::filesystem;

namespace {

fs::path xdgFolder(const char* variable, const char* fallbackBelowHome) {
    // Relative values are invalid by the XDG rules and must be ignored.
    if (const char* value = std::getenv(variable); value != nullptr && value[0] == '/') {
        return value;
    }
    return userHomeDirectory() / fallbackBelowHome;
}

std::optional<passwd> lookUpAccount(const char* name, uid_t uid, std::vector<char>& buffer) {
    passwd entry{};
    passwd* found = nullptr;
    buffer.resize(16384);
    const int failed = name != nullptr
                           ? ::getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found)
                           : ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (failed != 0 || found == nullptr) {
        return std::nullopt;
    }
    return entry;
}

}  // namespace

fs::path applicationSupportDirectory() {
    return xdgFolder("XDG_DATA_HOME", ".local/share");
}

fs::path cachesDirectory() {
    return xdgFolder("XDG_CACHE_HOME", ".cache");
}

fs::path accountHomeDirectory() {
    std::vector<char> buffer;
    if (auto account = lookUpAccount(nullptr, ::getuid(), buffer); account && account->pw_dir) {
        return account->pw_dir;
    }
    return "/";
}

fs::path userHomeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
        return home;
    }
    return accountHomeDirectory();
}

std::optional<std::string> readTextFile(const fs::path& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error != nullptr) {
            *error = "The file \"" + path.filename().string() +
                     "\" couldn't be opened: " + std::strerror(errno);
        }
        return std::nullopt;
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) {
        if (error != nullptr) {
            *error = "The file \"" + path.filename().string() + "\" couldn't be read.";
        }
        return std::nullopt;
    }
    return content.str();
}

std::optional<std::string> changeOwner(const fs::path& path, const std::string& accountName) {
    std::vector<char> buffer;
    const auto account = lookUpAccount(accountName.c_str(), 0, buffer);
    if (!account) {
        return "no account named \"" + accountName + "\"";
    }
    // Root hands files under the user's own folder to the user: a link the user planted there
    // must not hand root's file at its other end, so the link itself changes owner.
    if (::lchown(path.c_str(), account->pw_uid, account->pw_gid) != 0) {
        return std::string(std::strerror(errno));
    }
    return std::nullopt;
}

}  // namespace morvane::platform
