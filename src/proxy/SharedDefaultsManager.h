#pragma once

#include <filesystem>
#include <optional>

#include "messages/DeviceConfiguration.h"

namespace morvane {

/// The suite shared by the agent and the DNS proxy provider.
inline constexpr const char* kSharedDefaultsSuite = "QN8XK2TR5V.com.lorvex.DNSProxy.app-group";
/// The one key of the suite: the device configuration as JSON text.
inline constexpr const char* kNetworkExtensionKey = "network_extension_key";

/// The operations of a store of the shared defaults; the agent only writes.
class UserDefaultsProtocol {
public:
    virtual ~UserDefaultsProtocol() = default;
    virtual void storeDeviceConfiguration(const DeviceConfiguration& configuration) = 0;
    virtual std::optional<DeviceConfiguration> readDeviceConfiguration() = 0;
    virtual void removeDeviceConfiguration() = 0;
    virtual std::optional<std::filesystem::path> suiteURL() = 0;
};

/// Puts the latest device configuration where the provider reads it: a JSON file of the
/// suite's name in $XDG_CONFIG_HOME/MorvaneCloud, holding {"network_extension_key": "<the
/// configuration as JSON text>"}, written atomically and readable by its owner only. The
/// provider, running as root, reads it from the home of the user who saved its configuration.
class SharedDefaultsManager : public UserDefaultsProtocol {
public:
    /// Never reports to the caller: a configuration that does not encode is said on standard
    /// output, a suite that cannot be opened makes the call do nothing; the earlier entry
    /// stays in both cases.
    void storeDeviceConfiguration(const DeviceConfiguration& configuration) override;
    /// The stored configuration; nothing when none is stored or it does not decode.
    std::optional<DeviceConfiguration> readDeviceConfiguration() override;
    void removeDeviceConfiguration() override;
    /// Where the suite lives; nothing when there is no configuration folder to put it in.
    std::optional<std::filesystem::path> suiteURL() override;
};

}  // namespace morvane
