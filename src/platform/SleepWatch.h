#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace morvane::platform {

/// The system's sleep and wake announcements, from logind's `PrepareForSleep` signal on the
/// system bus. While it watches it holds a `delay` inhibitor lock, so that logind waits for
/// the agent before the machine sleeps: on the announcement of sleep the lock is let go once
/// the willSleep handler has run and the main queue has carried its consequences through
/// (logind's own limit, a few seconds, caps the wait in any case); on wake it is taken again.
/// Lives on the main thread, and calls its handlers there.
class SleepWatch {
public:
    struct Handlers {
        std::function<void()> willSleep;
        std::function<void()> didWake;
    };

    /// Watches the bus at `busAddress`, or the system bus when it is empty. A bus that cannot
    /// be reached leaves a watch that hears nothing, with the reason in error().
    SleepWatch(Handlers handlers, const std::string& busAddress = {});
    ~SleepWatch();
    SleepWatch(const SleepWatch&) = delete;
    SleepWatch& operator=(const SleepWatch&) = delete;

    bool isWatching() const;
    bool holdsLock() const;
    std::optional<std::string> error() const;

    class Receiver;

private:
    std::unique_ptr<Receiver> receiver_;
};

}  // namespace morvane::platform
