#pragma once

#include <memory>

#include "platform/Scheduler.h"

namespace morvane::platform {

/// The main queue: the one serial queue of the main thread on which the change loop, the
/// notification centre's deliveries and every user-interface step run.
///
/// By default it is the Qt event loop of the main thread (a QCoreApplication must exist
/// before the first block is posted). setScheduler swaps it, which is how tests drive time.
class MainQueue {
public:
    static void async(Task task);
    static void after(Clock::duration delay, Task task);
    static Clock::time_point now();
    /// True when the caller runs on the main queue's thread.
    static bool isCurrent();
    /// Drops every block posted from now on. The program calls it when its loop has ended,
    /// before the application object goes: a worker finishing a request late must not post
    /// into an application that no longer exists.
    static void close();

    static std::shared_ptr<Scheduler> scheduler();
    /// Installs a scheduler; passing nullptr goes back to the Qt event loop.
    static void setScheduler(std::shared_ptr<Scheduler> scheduler);
};

}  // namespace morvane::platform
