#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"

namespace morvane {

namespace platform {
class SleepWatch;
}

/// Passes the system's sleep and wake announcements on as `willSleep` and `didAwake`.
/// Registered for the life of the object from its construction on; the start helper keeps
/// one for the life of the process.
class SleepWakeMonitor {
public:
    /// How long after the wake announcement `didAwake` is published.
    static constexpr std::chrono::milliseconds kWakeDelay{10};

    /// Listens to logind on the system bus.
    SleepWakeMonitor();
    /// Listens on the bus at this address (a private bus in tests); an empty text is the
    /// system bus. Main thread.
    explicit SleepWakeMonitor(const std::string& busAddress);
    ~SleepWakeMonitor();
    SleepWakeMonitor(const SleepWakeMonitor&) = delete;
    SleepWakeMonitor& operator=(const SleepWakeMonitor&) = delete;

    /// Publishes `didAwake` 10 ms from now, on the main queue.
    void onWakeNote();
    /// Publishes `willSleep` at once.
    void onSleepNote();

    /// The platform's watch, for a look at its state (is it listening, does it hold the
    /// inhibitor lock, why not).
    const platform::SleepWatch& watch() const { return *watch_; }

    Injected<NotificationPublisher> notificationPublisher;

private:
    std::shared_ptr<SleepWakeMonitor*> anchor_;
    std::unique_ptr<platform::SleepWatch> watch_;
};

}  // namespace morvane
