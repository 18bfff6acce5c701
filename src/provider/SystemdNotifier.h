#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace morvane::provider {

/// The service manager's notifications (Type=notify): ready, the watchdog's keep-alive,
/// stopping, and a status line. Without systemd (no NOTIFY_SOCKET) every call does nothing.
class SystemdNotifier {
public:
    void ready(const std::string& status) const;
    void watchdog() const;
    void stopping() const;
    void status(const std::string& status) const;

    /// How often the watchdog wants to hear from us (half its time-out), when it is on for
    /// this process.
    static std::optional<std::chrono::microseconds> watchdogInterval();
};

}  // namespace morvane::provider
