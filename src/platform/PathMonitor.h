#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace morvane::platform {

class NetlinkEvents;

/// Whether the network can be used: the stand-in for the platform's path and its status.
struct NetworkPath {
    enum class Status { satisfied, unsatisfied };

    Status status = Status::unsatisfied;
    /// What made the status, in words: the default routes on interfaces that are up and
    /// the addresses of those interfaces ("ipv4 default via 10.9.0.2 dev veth0; veth0
    /// 10.9.0.1/24"). A change of this text is a change of the path.
    std::string description;

    bool operator==(const NetworkPath&) const = default;
};

/// Watches the routing table through netlink. The path is satisfied while a default route,
/// IPv4 or IPv6, leads out through an interface that is up (administratively up and with a
/// carrier). The handler hears the path once at start and again at every change of it (a
/// default route coming or going, an interface going up or down, an address added to an
/// interface that carries a default route), on the monitor's own thread. The current path
/// can be read from any thread.
class PathMonitor {
public:
    using Handler = std::function<void(const NetworkPath&)>;

    PathMonitor();
    ~PathMonitor();
    PathMonitor(const PathMonitor&) = delete;
    PathMonitor& operator=(const PathMonitor&) = delete;

    /// Set before start().
    void setPathUpdateHandler(Handler handler);
    /// Starts the watch thread; a second call does nothing. When netlink cannot be had, the
    /// path stays unsatisfied, the handler hears that once, and the reason is in error().
    void start();
    /// Stops the watch and waits for its thread. The handler is not called after this.
    void cancel();
    NetworkPath currentPath() const;
    std::optional<std::string> error() const;

    /// Reads the routing table once, as the watch does (for tools and tests).
    static std::optional<NetworkPath> readPath(std::string& error);

private:
    void watch();
    void update(const NetworkPath& path, bool always);

    mutable std::mutex mutex_;
    Handler handler_;
    NetworkPath current_;
    std::optional<std::string> error_;
    std::unique_ptr<NetlinkEvents> events_;
    std::thread thread_;
    bool started_ = false;
    bool cancelled_ = false;
};

}  // namespace morvane::platform
