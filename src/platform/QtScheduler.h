#pragma once

#include "platform/Scheduler.h"

namespace morvane::platform {

/// The main queue of the running application: blocks run on the Qt event loop of the
/// thread that owns the QCoreApplication. Posted events keep their order, so blocks posted
/// by one thread run in the order of posting.
class QtScheduler final : public Scheduler {
public:
    void post(Task task) override;
    void postAfter(Clock::duration delay, Task task) override;
    Clock::time_point now() const override;
    bool isMainThread() const override;
};

}  // namespace morvane::platform
