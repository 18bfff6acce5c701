#pragma once

#include <QCoreApplication>
#include <QEventLoop>
#include <chrono>
#include <functional>
#include <memory>

#include "platform/MainQueue.h"

namespace morvane::test {

/// Runs the Qt event loop of the main thread until the condition holds or the time is up.
/// Returns whether the condition held. The limit only guards against a hang; no test relies
/// on how long anything takes.
inline bool runMainLoopUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}

/// Installs a scheduler as the main queue for the life of the object, then goes back to the
/// Qt event loop.
class ScopedScheduler {
public:
    explicit ScopedScheduler(std::shared_ptr<platform::Scheduler> scheduler) {
        platform::MainQueue::setScheduler(std::move(scheduler));
    }
    ~ScopedScheduler() { platform::MainQueue::setScheduler(nullptr); }
    ScopedScheduler(const ScopedScheduler&) = delete;
    ScopedScheduler& operator=(const ScopedScheduler&) = delete;
};

}  // namespace morvane::test
