#include "provider/ProxyConfigurationStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "sys/SystemPaths.h"

namespace morvane::provider {

namespace {

// Far above any real configuration; a bigger file is not ours.
constexpr off_t kMaxFileBytes = 4 * 1024 * 1024;

std::string errnoText(int error) {
    return std::strerror(error);
}

bool writeAllBytes(int fd, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t written = ::write(fd, content.data() + done, content.size() - done);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

bool writeFileAtomically(const std::filesystem::path& file, const std::string& content, mode_t mode,
                         std::string& error) {
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) {
        error = "cannot create " + file.parent_path().string() + ": " + ec.message();
        return false;
    }
    std::string temporary =
        (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        error = "cannot create a file in " + file.parent_path().string() + ": " + errnoText(errno);
        return false;
    }
    bool ok = ::fchmod(fd, mode) == 0 && writeAllBytes(fd, content) && ::fsync(fd) == 0;
    const int writeError = errno;
    ok = (::close(fd) == 0) && ok;
    if (!ok) {
        error = "cannot write " + temporary + ": " + errnoText(writeError);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        error = "cannot replace " + file.string() + ": " + errnoText(errno);
        ::unlink(temporary.c_str());
        return false;
    }
    // The rename itself reaches the disk only with the folder.
    const int folder = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    return true;
}

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
    return writeFileAtomically(file_, configuration.toStored().dump(2) + "\n", 0600, error);
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
