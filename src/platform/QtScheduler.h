#pragma once

#include <shared_mutex>

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
    void close() override;

private:
    // Posts hold it shared while they hand a task to Qt, so once close() has it exclusively no
    // post can still reach an application that is being destroyed.
    std::shared_mutex gate_;
    bool closed_ = false;
};

}  // namespace morvane::platform
