#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "sysdns/DnsSwitch.h"

namespace morvane::sysdns {

/// Keeps a switch in force while it is engaged: when another program (NetworkManager after a
/// reconnect, a DHCP client, resolved after sleep) changes the settings under it, the switch
/// is applied again, promptly. A program that keeps fighting gets its way for a while: after
/// `maxReasserts` within `window` the guard logs it and waits out the window.
class SwitchGuard {
public:
    struct Options {
        int maxReasserts = 10;
        std::chrono::milliseconds window{std::chrono::seconds(60)};
        /// How often the settings are looked at when the mechanism gives no descriptor (and
        /// as a backstop when it does).
        std::chrono::milliseconds checkInterval{250};
        std::function<void(const std::string&)> log;
    };

    SwitchGuard(DnsSwitch& dnsSwitch, Options options);
    ~SwitchGuard();  // disengages without restoring
    SwitchGuard(const SwitchGuard&) = delete;
    SwitchGuard& operator=(const SwitchGuard&) = delete;

    /// Applies the switch and starts watching it.
    bool engage(const SwitchTarget& target, std::string& error);
    /// Stops watching and restores.
    bool release(std::string& error);
    bool engaged() const;
    /// How many times the switch was applied again since it was engaged.
    int reasserts() const;

private:
    void run();
    void stopWatching(std::unique_lock<std::mutex>& lock);

    DnsSwitch& switch_;
    Options options_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    SwitchTarget target_;
    bool engaged_ = false;
    bool stopping_ = false;
    int reasserts_ = 0;
    std::deque<std::chrono::steady_clock::time_point> recent_;
    int wakeFds_[2] = {-1, -1};
    std::thread thread_;
};

}  // namespace morvane::sysdns
