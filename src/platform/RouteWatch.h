#pragma once

#include <functional>
#include <memory>
#include <string>

namespace morvane::platform {

class NetlinkEvents;

/// Hears every change of the machine's primary IPv4 route: a default route of the main table
/// added, replaced or removed, or one of the two halves (0.0.0.0/1, 128.0.0.0/1) with which
/// many VPN clients cover the default route without replacing it. The stand-in for a watch
/// on the system's global IPv4 state; what changed is not told.
class RouteWatch {
public:
    /// Nothing, with the reason in `error`, when netlink cannot be had.
    static std::unique_ptr<RouteWatch> open(std::string& error);
    ~RouteWatch();
    RouteWatch(const RouteWatch&) = delete;
    RouteWatch& operator=(const RouteWatch&) = delete;

    /// Calls onChange, on the calling thread, once per batch of messages that holds such a
    /// change. Returns after stop() (true) or when reading failed for good (false).
    bool run(const std::function<void()>& onChange);
    /// Makes run() return; callable from any thread, before or during run().
    void stop();

private:
    RouteWatch() = default;
    std::unique_ptr<NetlinkEvents> events_;
};

}  // namespace morvane::platform
