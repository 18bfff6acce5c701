#include "settings/Settings.h"

#include <charconv>

#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "settings/Utils.h"

namespace morvane {

Settings::Settings() : userDefaults(platform::UserDefaults::standard()) {}

void Settings::setValue(const std::string& value, MorvaneServerInfoSection key) {
    const std::string raw(rawValue(key));
    if (key == MorvaneServerInfoSection::deviceKey) {
        std::lock_guard lock(mutex_);
        if (configFile_) {
            if (configFile_->result) {
                configFile_->result->device = value;
            }
            return;
        }
    }
    userDefaults->setValue(value, raw);
    userDefaults->synchronize();
    if (key != MorvaneServerInfoSection::userName) {
        std::lock_guard lock(mutex_);
        saveDictionary_[raw] = value;
    }
}

std::optional<std::string> Settings::getValue(MorvaneServerInfoSection key) const {
    if (auto stored = userDefaults->stringForKey(std::string(rawValue(key)))) {
        return stored;
    }
    std::lock_guard lock(mutex_);
    if (key == MorvaneServerInfoSection::identifier) {
        if (configFile_ && configFile_->id) {
            return std::to_string(*configFile_->id);
        }
        return "0";
    }
    if (key == MorvaneServerInfoSection::deviceKey && configFile_ && configFile_->result) {
        return configFile_->result->device;
    }
    return std::nullopt;
}

void Settings::reloadConfiguration() {
    if (const auto url = Utils::configFileURL()) {
        std::string error;
        std::optional<MainConfiguration> loaded;
        if (auto text = platform::readTextFile(*url, &error)) {
            loaded = decodeJSON<MainConfiguration>(*text, &error);
        }
        if (!loaded) {
            logger->log("missing config file " + error, LogLevel::production);
            loaded = MainConfiguration{};
            loaded->jsonrpc = "2.0";
        }
        std::lock_guard lock(mutex_);
        configFile_ = std::move(loaded);
    }
    auto device = Utils::readDeviceConfiguration();
    std::lock_guard lock(mutex_);
    deviceConfig_ = std::move(device);
}

void Settings::saveConfig(bool quiet, bool toHandOverFile) {
    if (toHandOverFile) {
        configWriter->writeHandOverFile(saveDictionary());
        return;
    }
    if (auto configuration = configFile()) {
        configWriter->saveConfiguration(*configuration, quiet);
    }
}

std::uint32_t Settings::trayType() const {
    const std::string text = userDefaults->stringForKey("TRAY_TYPE").value_or("1");
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return 1;
    }
    return value;
}

std::optional<MainConfiguration> Settings::configFile() const {
    std::lock_guard lock(mutex_);
    return configFile_;
}

void Settings::setConfigFile(std::optional<MainConfiguration> configuration) {
    std::lock_guard lock(mutex_);
    configFile_ = std::move(configuration);
}

std::optional<DeviceConfiguration> Settings::deviceConfig() const {
    std::lock_guard lock(mutex_);
    return deviceConfig_;
}

std::map<std::string, std::string> Settings::saveDictionary() const {
    std::lock_guard lock(mutex_);
    return saveDictionary_;
}

}  // namespace morvane
