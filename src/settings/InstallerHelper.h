#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "platform/DispatchQueue.h"
#include "settings/CommmonValidator.h"
#include "settings/MorvaneServerInfoSection.h"
#include "settings/Settings.h"

namespace morvane {

class ComputerNameManager;
class DeviceConfigManager;

/// Takes the install command's KEY=VALUE arguments into the settings, and is the road by
/// which the agent asks for enrolment and a fresh device configuration.
class InstallerHelper : public std::enable_shared_from_this<InstallerHelper> {
public:
    InstallerHelper();

    /// The arguments that are KEY=VALUE with a known key; a later one replaces an earlier.
    static std::map<MorvaneServerInfoSection, std::string> parseArguments(
        const std::vector<std::string>& arguments);
    /// Checks `saveInstallerDict` and stores what it may. False when a required value is
    /// missing or invalid.
    bool validateAndStoreParameters();
    /// An install key that has not yet been turned into a device key.
    bool needToGetMainConfig();
    /// Asks the server for the policy of the known device key, if there is one.
    void refreshDeviceConfiguration();
    /// Enrols when needed (always with `force`) and refreshes the policy, on this helper's
    /// queue; `completion` runs when that is done, unless the helper is gone by then.
    void runInstallCheck(bool force, std::function<void()> completion);
    /// Logs every stored setting but the device key.
    void logSavedDefaults();

    // Declared and never read: the validator's checks are static, and the device's name is
    // worked out by the configuration manager.
    Injected<CommmonValidator> validator;
    Injected<Settings> settings;
    Injected<TarnLogger> logger;
    Injected<ComputerNameManager> computerNameManager;
    Injected<DeviceConfigManager> deviceConfiguration;
    Injected<NotificationPublisher> notificationPublisher;

    std::shared_ptr<platform::DispatchQueue> concurrentQueue;
    std::size_t numberOfArguments = 0;
    std::map<MorvaneServerInfoSection, std::string> saveInstallerDict;

private:
    void log(const std::string& message);
};

}  // namespace morvane
