#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "device/ComputerNameManager.h"
#include "messages/DeviceConfiguration.h"
#include "messages/DeviceError.h"
#include "messages/DeviceRequestModel.h"
#include "messages/MainConfiguration.h"
#include "device/Networking.h"
#include "messages/Payload.h"
#include "platform/DispatchQueue.h"
#include "platform/HttpsClient.h"
#include "platform/NetworkInterfaces.h"
#include "settings/Settings.h"

namespace morvane {

/// The two device server calls, each looking synchronous to its caller: the request is
/// built here, the exchange runs on a background queue and the caller waits for it.
///
/// Off the main thread the wait lasts as long as the exchange, which its idle time-out
/// bounds. On the main thread it lasts at most `kMainThreadWait`: the main thread carries the
/// change loop and the tray and must not stall for a slow server, so the call then comes
/// back empty-handed, as after any failed exchange, and the late reply is dropped. The reply
/// is never delivered through the main queue, so a waiting main thread can't lock against it.
class DeviceServerAPI {
public:
    struct RegisterResult {
        std::optional<MainConfiguration> configuration;
        std::optional<platform::HttpsError> error;
    };
    struct ConfigureResult {
        std::optional<DeviceConfiguration> configuration;
        std::optional<platform::HttpsError> error;
        std::optional<DeviceError> deviceError;
    };

    static constexpr std::chrono::milliseconds kMainThreadWait{1000};

    DeviceServerAPI();

    /// A new client for the "RPC_URL" and "ALLOW_WEAK_KEY" settings; without a usable URL the
    /// current client stays.
    void configureNetworking();
    /// Enrols with an install key under a name (`account_add_device`).
    RegisterResult registerDevice(const std::string& key, const std::string& name);
    /// Asks for the device's policy (`device_configure`). With no location, the server picks
    /// one at random.
    ConfigureResult configureDevice(const std::string& key,
                                    const std::optional<std::string>& location);

    std::optional<std::string> dataFromPayload(const Payload& payload);
    std::optional<std::string> dataFromConfigRequest(const DeviceRequestModel& request);

    /// Every interface that has a name and a display name, in order; only wireless ones are
    /// "enabled".
    static std::vector<NIC> nicsFrom(const std::vector<platform::InterfaceDescription>& list);

    std::shared_ptr<Networking> networking() const;

    Injected<Settings> settings;
    Injected<TarnLogger> logger;
    Injected<ComputerNameManager> computerNameManager;
    /// Made with the object, as the other services' queues are; no exchange runs on it.
    const std::shared_ptr<platform::DispatchQueue> concurrentQueue;

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Networking> networking_;
};

}  // namespace morvane
