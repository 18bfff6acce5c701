#include "provider/SharedDefaultsReader.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "messages/JSONCoding.h"

namespace morvane::provider {

namespace {

constexpr off_t kMaxFileBytes = 4 * 1024 * 1024;

}  // namespace

std::optional<std::filesystem::path> SharedDefaultsReader::fileFor(uid_t owner,
                                                                   std::string& problem) {
    std::filesystem::path configHome;
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    if (owner == ::geteuid() && xdg != nullptr && xdg[0] == '/') {
        configHome = xdg;
    } else {
        std::vector<char> buffer(16384);
        struct passwd entry {};
        struct passwd* found = nullptr;
        if (::getpwuid_r(owner, &entry, buffer.data(), buffer.size(), &found) != 0 ||
            found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/') {
            problem = "no home folder is known for uid " + std::to_string(owner);
            return std::nullopt;
        }
        configHome = std::filesystem::path(found->pw_dir) / ".config";
    }
    return configHome / "MorvaneCloud" / (std::string(kAppGroup) + ".json");
}

std::optional<DeviceConfiguration> SharedDefaultsReader::read(uid_t owner, std::string& problem) {
    std::optional<std::filesystem::path> file = fileFor(owner, problem);
    if (!file) {
        return std::nullopt;
    }
    return readFile(*file, owner, problem);
}

std::optional<DeviceConfiguration> SharedDefaultsReader::readFile(const std::filesystem::path& file,
                                                                  uid_t owner,
                                                                  std::string& problem) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        problem = "cannot open " + file.string() + ": " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat status {};
    std::string text;
    bool ok = ::fstat(fd, &status) == 0;
    if (ok && (!S_ISREG(status.st_mode) || status.st_uid != owner)) {
        problem = file.string() + " is not a regular file of uid " + std::to_string(owner);
        ok = false;
    } else if (ok && status.st_size > kMaxFileBytes) {
        problem = file.string() + " is too big";
        ok = false;
    }
    if (ok) {
        text.resize(static_cast<std::size_t>(status.st_size));
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t got = ::read(fd, text.data() + done, text.size() - done);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            done += static_cast<std::size_t>(got);
        }
        text.resize(done);
    }
    ::close(fd);
    if (!ok) {
        return std::nullopt;
    }
    // Parse errors are reported without the parser's text: it quotes bytes of the file,
    // which are the user's business and not the system log's.
    nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        problem = file.string() + " is not a JSON object";
        return std::nullopt;
    }
    auto value = document.find(kKey);
    if (value == document.end() || !value->is_string()) {
        problem = file.string() + " holds no \"" + std::string(kKey) + "\" text";
        return std::nullopt;
    }
    std::string error;
    std::optional<DeviceConfiguration> configuration =
        decodeJSON<DeviceConfiguration>(value->get_ref<const std::string&>(), &error);
    if (!configuration) {
        problem = "the shared device configuration does not decode: " + error;
    }
    return configuration;
}

}  // namespace morvane::provider
