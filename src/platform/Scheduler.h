#pragma once

#include <chrono>
#include <functional>

namespace morvane::platform {

/// The clock of the main queue. Delays and "seconds since" are measured on it, so that tests
/// can drive time with a ManualScheduler instead of waiting.
using Clock = std::chrono::steady_clock;
using Task = std::function<void()>;

/// Where the main queue's blocks run. The application uses QtScheduler (the Qt event loop of
/// the main thread); tests may install a ManualScheduler and drive it by hand.
class Scheduler {
public:
    virtual ~Scheduler() = default;

    /// Runs the task on the main thread after the tasks posted before it. Callable from any
    /// thread; tasks posted by one thread run in the order they were posted.
    virtual void post(Task task) = 0;
    /// Runs the task on the main thread once the delay has passed on this scheduler's clock.
    virtual void postAfter(Clock::duration delay, Task task) = 0;
    virtual Clock::time_point now() const = 0;
    /// True on the thread that runs the posted tasks.
    virtual bool isMainThread() const = 0;
    /// Takes no more tasks: later posts are dropped. For the end of the program, when worker
    /// threads may still finish a request after the loop that would run their reply is gone.
    virtual void close() = 0;
};

}  // namespace morvane::platform
