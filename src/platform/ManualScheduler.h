#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "platform/Scheduler.h"

namespace morvane::platform {

/// A main queue whose time stands still until the test moves it. The thread that creates it
/// is its main thread; other threads may post to it at any time, and the main thread runs
/// what is due with runPending() or advance().
class ManualScheduler final : public Scheduler {
public:
    ManualScheduler();

    void post(Task task) override;
    void postAfter(Clock::duration delay, Task task) override;
    Clock::time_point now() const override;
    bool isMainThread() const override;
    void close() override;

    /// Runs every posted block, including blocks posted while running, until none is left.
    /// Returns how many ran.
    std::size_t runPending();
    /// Moves the clock forward, running each delayed block at its due time in due order, and
    /// whatever they post, as the real loop would.
    void advance(Clock::duration duration);
    /// How far away the earliest delayed block is; nothing when none is pending.
    std::optional<Clock::duration> nextDelay() const;
    std::size_t delayedCount() const;

private:
    bool runOne();

    mutable std::mutex mutex_;
    std::deque<Task> ready_;
    // Keyed by due time and then by posting order, so that equal times keep their order.
    std::map<std::pair<Clock::time_point, std::uint64_t>, Task> delayed_;
    std::uint64_t sequence_ = 0;
    Clock::time_point now_;
    bool closed_ = false;
    const std::thread::id mainThread_;
};

}  // namespace morvane::platform
