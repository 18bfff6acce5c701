#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core/ChangeType.h"
#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "platform/PathMonitor.h"

namespace morvane {

/// Keeps a watch on the network path and turns its changes into `connected` and
/// `disconnected`. Its monitor is where the rest of the agent asks whether the network is
/// usable right now: `monitor->currentPath().status`.
///
/// Watching begins with construction; there is no start and no stop. Two objects live in
/// the agent (the start helper's and the container's), each publishing by itself.
class NetworkCheck {
public:
    /// Makes a netlink path monitor and starts it.
    NetworkCheck();
    /// Works with the given monitor, started here; none leaves the object waiting for
    /// pathUpdateHandler() calls (tests drive it that way).
    explicit NetworkCheck(std::shared_ptr<platform::PathMonitor> monitor);
    ~NetworkCheck();
    NetworkCheck(const NetworkCheck&) = delete;
    NetworkCheck& operator=(const NetworkCheck&) = delete;

    /// The monitor's handler: callable from any thread, it hands the path to the main queue.
    /// A path that arrives after the object is gone does nothing.
    void pathUpdateHandler(const platform::NetworkPath& path);
    /// The machine's own IPv4 address for the provider configuration; nothing without one.
    std::optional<std::string> localIPv4Address() const;

    Injected<NotificationPublisher> notificationPublisher;
    std::shared_ptr<platform::PathMonitor> monitor;
    /// The last event this object raised. Main thread only.
    ChangeType lastStatus = ChangeType::disconnected;

private:
    void pathUpdated(const platform::NetworkPath& path);

    // What the monitor's handler holds: weakly, so that a late path finds nothing.
    std::shared_ptr<NetworkCheck*> anchor_;
};

}  // namespace morvane
