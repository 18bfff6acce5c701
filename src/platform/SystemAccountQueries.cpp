#include "platform/SystemAccountQueries.h"

#include <limits.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

namespace morvane::platform {

namespace {

// getpwnam_r and getpwuid_r with a buffer that grows until the entry fits.
template <class Query>
AccountQueries::Lookup query(Query&& run) {
    AccountQueries::Lookup lookup;
    std::vector<char> buffer(4096);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        const int failed = run(entry, buffer, found);
        if (failed == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        // "Not found" is reported in several ways by the name services; none is a failure.
        if (failed != 0 && failed != ENOENT && failed != ESRCH && failed != EBADF &&
            failed != EPERM) {
            lookup.errorCode = failed;
            lookup.errorDescription = std::strerror(failed);
        } else if (found != nullptr) {
            lookup.account = AccountQueries::Account{entry.pw_name ? entry.pw_name : "",
                                                     entry.pw_gecos ? entry.pw_gecos : ""};
        }
        return lookup;
    }
}

}  // namespace

std::shared_ptr<SystemAccountQueries> SystemAccountQueries::shared() {
    static const auto queries = std::make_shared<SystemAccountQueries>();
    return queries;
}

SystemAccountQueries::SystemAccountQueries(std::string localAccountFile)
    : localAccountFile_(std::move(localAccountFile)) {}

std::string SystemAccountQueries::currentUserName() const {
    const uid_t uid = ::getuid();
    auto lookup = query([uid](passwd& entry, std::vector<char>& buffer, passwd*& found) {
        return ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    });
    if (lookup.account && !lookup.account->name.empty()) {
        return lookup.account->name;
    }
    // An account with no entry (a container's bare uid) still needs a stable name.
    for (const char* variable : {"USER", "LOGNAME"}) {
        if (const char* value = std::getenv(variable); value != nullptr && *value != '\0') {
            return value;
        }
    }
    return std::to_string(uid);
}

AccountQueries::Lookup SystemAccountQueries::lookUp(const std::string& name) const {
    return query([&name](passwd& entry, std::vector<char>& buffer, passwd*& found) {
        return ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    });
}

bool SystemAccountQueries::isInLocalAccountFiles(const std::string& name) const {
    if (name.empty()) {
        return false;
    }
    std::ifstream file(localAccountFile_);
    const std::string prefix = name + ":";
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return true;
        }
    }
    return false;
}

std::string SystemAccountQueries::hostName() const {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "localhost";
    }
    return name;
}

std::optional<std::string> SystemAccountQueries::environment(const std::string& name) const {
    if (const char* value = std::getenv(name.c_str())) {
        return std::string(value);
    }
    return std::nullopt;
}

}  // namespace morvane::platform
