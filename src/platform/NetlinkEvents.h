#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct nlmsghdr;

namespace morvane::platform {

/// A subscription to groups of the kernel's routing netlink (RTNLGRP_*), read on the thread
/// that calls run() until another thread calls stop(). Shared by the path monitor and the
/// route watch, which differ only in what they make of the messages.
class NetlinkEvents {
public:
    using MessageHandler = std::function<void(const nlmsghdr& message)>;
    using BatchHandler = std::function<void()>;

    /// Nothing, with the reason in `error`, when the socket cannot be had.
    static std::unique_ptr<NetlinkEvents> open(const std::vector<int>& groups, std::string& error);
    ~NetlinkEvents();
    NetlinkEvents(const NetlinkEvents&) = delete;
    NetlinkEvents& operator=(const NetlinkEvents&) = delete;

    /// Hands every message to onMessage, then calls onBatch once the socket has nothing more
    /// to read at that moment. An overrun of the socket's buffer loses messages, so it counts
    /// as a batch on its own: the listener looks at the whole state again. Returns after
    /// stop(), or false when reading failed for good.
    bool run(const MessageHandler& onMessage, const BatchHandler& onBatch);
    /// Makes run() return; callable from any thread, before or during run().
    void stop();

private:
    NetlinkEvents() = default;
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace morvane::platform
