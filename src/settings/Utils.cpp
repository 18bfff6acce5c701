#include "settings/Utils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "platform/StandardOutput.h"
#include "sys/SystemPaths.h"
#include "settings/KeyValueText.h"
#include "settings/Settings.h"

extern char** environ;

namespace morvane {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> environmentValue(const char* name) {
    if (const char* value = std::getenv(name)) {
        return std::string(value);
    }
    return std::nullopt;
}

// Whether `path` is `folder` itself or lies below it, comparing whole components.
std::optional<fs::path> relativeBelow(const fs::path& path, const fs::path& folder) {
    auto p = path.begin();
    for (const auto& component : folder) {
        if (component.empty()) {
            continue;  // a trailing separator of the folder
        }
        if (p == path.end() || *p != component) {
            return std::nullopt;
        }
        ++p;
    }
    fs::path rest;
    for (; p != path.end(); ++p) {
        rest /= *p;
    }
    return rest;
}

}  // namespace

fs::path Utils::rootHome() {
    return sys::systemPath("/root");
}

std::optional<fs::path> Utils::homeFromPWD() {
    const auto pwd = environmentValue("PWD");
    if (!pwd) {
        return std::nullopt;
    }
    // Under a test or demo sysroot the rule applies to the path inside the sysroot.
    const fs::path sysroot = sys::systemPath("/");
    fs::path path = *pwd;
    fs::path prefix;
    if (sysroot != "/") {
        if (auto inside = relativeBelow(path, sysroot)) {
            prefix = sysroot;
            path = fs::path("/") / *inside;
        }
    }
    fs::path home;
    int count = 0;
    for (const auto& component : path) {
        if (component.empty()) {
            continue;
        }
        if (++count > 3) {
            break;
        }
        home /= component;
    }
    if (prefix.empty()) {
        return home;
    }
    return prefix / home.relative_path();
}

fs::path Utils::redirectedOutOfRootsHome(const fs::path& path) {
    const auto home = homeFromPWD();
    if (!home) {
        return path;
    }
    if (auto inside = relativeBelow(path, rootHome())) {
        return inside->empty() ? *home : *home / *inside;
    }
    return path;
}

std::optional<fs::path> Utils::supportFileURL(const std::string& name) {
    const fs::path folder =
        redirectedOutOfRootsHome(platform::applicationSupportDirectory()) / "MorvaneCloud";
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        platform::printLine("failed to create directory at " + error.message());
        return std::nullopt;
    }
    fixOwner(folder);
    return folder / name;
}

std::optional<fs::path> Utils::configFileURL() {
    return supportFileURL("config.json");
}

std::optional<fs::path> Utils::deviceFileURL() {
    return supportFileURL("device.json");
}

fs::path Utils::installerConfigurationURL() {
    return platform::userHomeDirectory() / ".cache" / "config.json";
}

fs::path Utils::installerValuesURL() {
    return platform::userHomeDirectory() / ".cache" / "com.lorvex.tarnConfig";
}

std::optional<DeviceConfiguration> Utils::readDeviceConfiguration() {
    const auto url = deviceFileURL();
    if (!url) {
        return std::nullopt;
    }
    const auto text = platform::readTextFile(*url);
    if (!text) {
        return std::nullopt;
    }
    auto configuration = decodeJSON<DeviceConfiguration>(*text);
    if (!configuration) {
        platform::printLine(
            "device config doesnt exist at ~Library/Caches/config.json. Recreating");
    }
    return configuration;
}

std::optional<DeviceConfiguration> Utils::readTestDeviceConfiguration(const Settings& settings) {
    const auto path = settings.userDefaults->stringForKey(
        std::string(rawValue(MorvaneServerInfoSection::testDeviceConfigPath)));
    if (!path) {
        return std::nullopt;
    }
    const auto text = platform::readTextFile(*path);
    if (!text) {
        return std::nullopt;
    }
    auto configuration = decodeJSON<DeviceConfiguration>(*text);
    if (!configuration) {
        platform::printLine("Failed to read JSON config for device config");
    }
    return configuration;
}

std::optional<DeviceConfiguration> Utils::readDeviceConfigurationWithOverlay(
    const Settings& settings) {
    auto base = readDeviceConfiguration();
    const auto overlay = settings.userDefaults->stringForKey(
        std::string(rawValue(MorvaneServerInfoSection::testDeviceInputConfig)));
    if (overlay) {
        if (auto cfg = decodeJSON<Configuration>(*overlay); cfg && base && base->result) {
            base->result->cfg = std::move(*cfg);
        }
    }
    return base;
}

void Utils::getValuesFromInstaller(Settings& settings) {
    const auto text = readInstallerValues();
    if (!text) {
        return;
    }
    for (const auto& [key, value] : key_value_text::parse(*text)) {
        platform::printLine("getValuesFromInstaller:  saving value " + value + " for key " +
                            std::string(rawValue(key)));
        settings.setValue(value, key);
    }
}

std::optional<std::string> Utils::readInstallerValues() {
    auto text = platform::readTextFile(installerValuesURL());
    if (!text) {
        platform::printLine("Log file doesnt exist at ~Library/Caches/config.json. Recreating");
    }
    return text;
}

void Utils::fixOwner(const fs::path& path) {
    const auto home = homeFromPWD();
    if (!home) {
        return;
    }
    const std::string account = home->filename().string();
    if (auto failure = platform::changeOwner(path, account)) {
        platform::printLine("failed to set the owner of " + path.string() + " to " + account +
                            ": " + *failure);
    }
}

bool Utils::wasRunFromCommandLine() {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const char* equals = std::strchr(*entry, '=');
        if (equals == nullptr) {
            continue;
        }
        platform::printLine("key " +
                            std::string(*entry, static_cast<std::size_t>(equals - *entry)) +
                            " value " + std::string(equals + 1));
    }
    return environmentValue("SUDO_COMMAND").has_value() || environmentValue("PWD").has_value();
}

bool Utils::isRunningAsRoot() {
    return platform::accountHomeDirectory().string().find("root") != std::string::npos;
}

}  // namespace morvane
