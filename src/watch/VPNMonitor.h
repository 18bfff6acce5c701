#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "messages/DeviceConfiguration.h"
#include "settings/Settings.h"

namespace morvane {

namespace platform {
class RouteWatch;
}

/// Knows whether a VPN client runs. It raises `VPNDidStart` and `VPNDidStop` when the
/// primary IPv4 route changes while a tunnel does or no longer does hold an address, and it
/// answers `isVPNRunning`: a tunnel holds an address and a running program's name contains
/// the name of a known VPN client. Events only wake the change loop; decisions ask.
class VPNMonitor {
public:
    /// What the monitor needs of the machine, replaceable for tests.
    struct Machine {
        /// Interfaces holding an IPv4 address; nothing when the list cannot be read.
        std::function<std::optional<std::set<std::string>>()> interfacesWithIPv4Address;
        std::function<std::vector<std::string>()> runningApplicationNames;
    };

    /// The clients every policy counts, matched without regard to case.
    static const std::set<std::string>& builtInNames();
    /// The number of tunnel interfaces looked at: `tun0` to `tun20`.
    static constexpr int kTunnelCount = 21;

    VPNMonitor();
    explicit VPNMonitor(Machine machine);
    ~VPNMonitor();
    VPNMonitor(const VPNMonitor&) = delete;
    VPNMonitor& operator=(const VPNMonitor&) = delete;

    /// Watches the primary IPv4 route on the calling thread; does not return while the
    /// watch runs, which in the agent is for the life of the process.
    void startMonitoring();
    /// Ends startMonitoring (tests and an orderly end); the agent never calls it.
    void stopMonitoring();
    /// The change callback of the watch: runs on the monitoring thread.
    void ipv4StateChanged();

    /// Does a tunnel interface (`tun0` to `tun20`) hold an IPv4 address? Any tunnel counts.
    bool hasRunningVPN();
    /// The built-in names and those of the policy's "interfaces_to_ignore", in no order.
    std::vector<std::string> vpnNames();
    /// The question of the policy pass and the proxy control. The caller's thread.
    bool isVPNRunning();

    Injected<NotificationPublisher> notificationPublisher;
    Injected<Settings> settings;
    Injected<TarnLogger> logger;
    /// The current policy, written by the policy pass on the main thread.
    std::optional<DeviceConfiguration> deviceConfig;
    /// Whether the last change saw a tunnel. The monitoring thread only.
    bool vpnWasRunning = false;

private:
    Machine machine_;
    std::mutex watchMutex_;
    std::unique_ptr<platform::RouteWatch> watch_;
    bool stopped_ = false;
};

}  // namespace morvane
