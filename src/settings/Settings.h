#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "messages/DeviceConfiguration.h"
#include "messages/MainConfiguration.h"
#include "platform/UserDefaults.h"
#include "settings/ConfigFileWriter.h"
#include "settings/MorvaneServerInfoSection.h"

namespace morvane {

/// The agent's key and value settings, kept in the user defaults, and the two JSON documents
/// in memory: the enrolment answer ("config.json") and the policy ("device.json").
///
/// Every value stored through setValue is also collected in `saveDictionary`, which a run as
/// root hands to the user's agent through the hand-over file. Safe to use from any thread.
class Settings {
public:
    Settings();

    /// Stores a value. A device key goes into the enrolment answer while one is in memory,
    /// and nowhere else.
    void setValue(const std::string& value, MorvaneServerInfoSection key);
    /// The stored text; for `identifier` and `deviceKey` the enrolment answer stands in.
    std::optional<std::string> getValue(MorvaneServerInfoSection key) const;
    /// Reads both documents from disk again. A missing or undecodable "config.json" leaves a
    /// bare answer with no result in memory.
    void reloadConfiguration();
    /// Writes the enrolment answer as "config.json", or the collected values as the hand-over
    /// file.
    void saveConfig(bool quiet, bool toHandOverFile);
    /// The status bar display type; 1 for anything that is not an unsigned 32-bit number.
    std::uint32_t trayType() const;

    std::optional<MainConfiguration> configFile() const;
    void setConfigFile(std::optional<MainConfiguration> configuration);
    std::optional<DeviceConfiguration> deviceConfig() const;
    std::map<std::string, std::string> saveDictionary() const;

    const std::shared_ptr<platform::UserDefaults> userDefaults;
    const std::optional<std::string> installKey;
    Injected<ConfigFileWriter> configWriter;
    Injected<TarnLogger> logger;

private:
    mutable std::mutex mutex_;
    std::optional<MainConfiguration> configFile_;
    std::optional<DeviceConfiguration> deviceConfig_;
    std::map<std::string, std::string> saveDictionary_;
};

/// The user's defaults object, taken once per process.
struct UserDefaultsHelper {
    std::shared_ptr<platform::UserDefaults> userDefaults = platform::UserDefaults::standard();
};

}  // namespace morvane
