#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "device/ComputerNameManager.h"
#include "messages/DeviceConfiguration.h"
#include "messages/DeviceError.h"
#include "device/DeviceServerAPI.h"
#include "messages/MainConfiguration.h"
#include "platform/DispatchQueue.h"
#include "settings/ConfigFileWriter.h"
#include "settings/Settings.h"

namespace morvane {

/// Enrolment and configuration: an install key becomes a device key through one enrolment
/// exchange, the device key becomes the device's policy through one configuration exchange.
/// The main configuration is kept in Settings, the policy in "device.json", and each new
/// policy is announced as `deviceConfigRefreshed`.
///
/// Nothing is retried here: every operation does one pass, and the next start, hand-over or
/// change event tries again. The object keeps no state of its own; where a device stands
/// (not enrolled, enrolled without policy, configured) follows from the stores alone.
class DeviceConfigManager : public std::enable_shared_from_this<DeviceConfigManager> {
public:
    DeviceConfigManager();

    /// "DEVICE_KEY" from the defaults, else the device of the stored main configuration.
    std::optional<std::string> deviceKey();
    /// The name to enrol under: "DEVICE_NAME" or the computer's name, behind the prefix and
    /// a dash unless the prefix is the name itself.
    std::string deviceName(const std::optional<std::string>& prefix);
    /// One enrolment exchange. A refusal comes back like any other answer.
    std::optional<MainConfiguration> addDevice(const std::string& installKey,
                                               const std::string& name);
    /// The stored main configuration, or a new enrolment that replaces it.
    std::optional<MainConfiguration> mainConfiguration(bool force);
    /// With an install key, the device key of the main configuration; else the stored one.
    std::optional<std::string> resolveDeviceKey(bool force);
    /// One configuration exchange for the device key, and what its answer calls for.
    void configure(const std::string& key);
    void handleDeviceConfiguration(const std::optional<DeviceConfiguration>& configuration,
                                   const std::optional<DeviceError>& deviceError);
    /// Writes "device.json" whole, with sorted keys.
    void saveDeviceConfiguration(const DeviceConfiguration& configuration);
    /// The whole sequence, on `concurrentQueue` as a barrier, so that two refreshes never
    /// overlap. The completion runs there too, unless the manager is gone by then.
    void refresh(bool force, std::function<void()> completion);

    Injected<Settings> settings;
    Injected<DeviceServerAPI> deviceInteraction;
    Injected<TarnLogger> logger;
    Injected<ComputerNameManager> computerNameManager;
    Injected<NotificationPublisher> notificationPublisher;
    Injected<ConfigFileWriter> configWriter;
    const std::shared_ptr<platform::DispatchQueue> concurrentQueue;
};

}  // namespace morvane
