#include "provider/ProxyConfigurationStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "sys/SystemPaths.h"
#include "sys/Files.h"

namespace morvane::provider {

namespace {

// Far above any real configuration; a bigger file is not ours.
constexpr off_t kMaxFileBytes = 4 * 1024 * 1024;

std::string errnoText(int error) {
    return std::strerror(error);
}

}  // namespace

std::filesystem::path ProxyConfigurationStore::defaultFile() {
    return sys::systemPath("/var/lib/morvanecloud/dnsproxy.json");
}

ProxyConfigurationStore::ProxyConfigurationStore(std::filesystem::path file)
    : file_(std::move(file)) {}

std::optional<ProxyConfiguration> ProxyConfigurationStore::load(std::string& problem) const {
    problem.clear();
    const int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (errno != ENOENT) {
            problem = "cannot open " + file_.string() + ": " + errnoText(errno);
        }
        return std::nullopt;
    }
    struct stat status {};
    std::string text;
    bool readable =
        ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= kMaxFileBytes;
    if (readable) {
        char buffer[8192];
        for (;;) {
            const ssize_t got = ::read(fd, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                readable = false;
                break;
            }
            if (got == 0) {
                break;
            }
            text.append(buffer, static_cast<std::size_t>(got));
            if (text.size() > static_cast<std::size_t>(kMaxFileBytes)) {
                readable = false;
                break;
            }
        }
    }
    ::close(fd);
    if (!readable) {
        problem = file_.string() + " is not a readable configuration file";
        return std::nullopt;
    }
    nlohmann::json stored = nlohmann::json::parse(text, nullptr, false);
    if (stored.is_discarded()) {
        problem = file_.string() + " is not valid JSON (a torn or damaged write)";
        return std::nullopt;
    }
    std::string error;
    std::optional<ProxyConfiguration> configuration = ProxyConfiguration::fromStored(stored, error);
    if (!configuration) {
        problem = file_.string() + " is not a proxy configuration: " + error;
    }
    return configuration;
}

bool ProxyConfigurationStore::save(const ProxyConfiguration& configuration,
                                   std::string& error) const {
    // Only root reads it: the policy is the owner's business and root's.
    return sys::writeFileAtomically(file_, configuration.toStored().dump(2) + "\n", 0600, error);
}

bool ProxyConfigurationStore::remove(std::string& error) const {
    if (::unlink(file_.c_str()) != 0 && errno != ENOENT) {
        error = "cannot remove " + file_.string() + ": " + errnoText(errno);
        return false;
    }
    return true;
}

std::optional<std::filesystem::path> ProxyConfigurationStore::setAside(std::string& error) const {
    std::filesystem::path aside = file_;
    aside += ".bad";
    if (::rename(file_.c_str(), aside.c_str()) != 0) {
        error = "cannot move " + file_.string() + " aside: " + errnoText(errno);
        return std::nullopt;
    }
    return aside;
}

}  // namespace morvane::provider
