#include "proxy/SharedDefaultsManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "platform/StandardOutput.h"

namespace morvane {

namespace fs = std::filesystem;

namespace {

/// The suite's entries; an empty set when the file is missing, torn or not an object.
nlohmann::json readSuite(const fs::path& url) {
    const auto text = platform::readTextFile(url);
    if (!text) {
        return nlohmann::json::object();
    }
    auto suite = nlohmann::json::parse(*text, nullptr, false);
    return suite.is_object() ? suite : nlohmann::json::object();
}

/// Temporary file beside the target, owner-only from its creation, synced, renamed over the
/// target: a reader sees the old suite or the new one, never half of one, and never a copy
/// that others could read.
bool writeSuite(const fs::path& url, const std::string& content) {
    std::error_code error;
    fs::create_directories(url.parent_path(), error);
    if (error) {
        return false;
    }
    std::string temporary = url.string() + ".XXXXXX";
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        return false;
    }
    bool written = ::fchmod(fd, 0600) == 0;
    std::size_t offset = 0;
    while (written && offset < content.size()) {
        const auto count = ::write(fd, content.data() + offset, content.size() - offset);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        written = count > 0;
        offset += written ? static_cast<std::size_t>(count) : 0;
    }
    written = written && ::fsync(fd) == 0;
    written = ::close(fd) == 0 && written;
    if (!written || ::rename(temporary.c_str(), url.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

std::optional<fs::path> SharedDefaultsManager::suiteURL() {
    fs::path base;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/') {
        base = config;
    } else {
        const auto home = platform::userHomeDirectory();
        if (home.empty()) {
            return std::nullopt;
        }
        base = home / ".config";
    }
    return base / "MorvaneCloud" / (std::string(kSharedDefaultsSuite) + ".json");
}

void SharedDefaultsManager::storeDeviceConfiguration(const DeviceConfiguration& configuration) {
    std::string error;
    const auto text = encodeJSON(configuration, &error);
    if (!text) {
        platform::printLine("Unable to Encode device config (" + error + ")");
        return;
    }
    const auto url = suiteURL();
    if (!url) {
        return;
    }
    auto suite = readSuite(*url);
    suite[kNetworkExtensionKey] = *text;
    writeSuite(*url, suite.dump());
}

std::optional<DeviceConfiguration> SharedDefaultsManager::readDeviceConfiguration() {
    const auto url = suiteURL();
    if (!url) {
        return std::nullopt;
    }
    const auto suite = readSuite(*url);
    const auto entry = suite.find(kNetworkExtensionKey);
    if (entry == suite.end() || !entry->is_string()) {
        return std::nullopt;
    }
    return decodeJSON<DeviceConfiguration>(entry->get<std::string>());
}

void SharedDefaultsManager::removeDeviceConfiguration() {
    const auto url = suiteURL();
    if (!url) {
        return;
    }
    auto suite = readSuite(*url);
    if (suite.erase(kNetworkExtensionKey) > 0) {
        writeSuite(*url, suite.dump());
    }
}

}  // namespace morvane
