#include "platform/QtScheduler.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace morvane::platform {

namespace {

QCoreApplication& application() {
    auto* app = QCoreApplication::instance();
    if (app == nullptr) {
        // A block posted with no event loop to run it would be lost without a trace.
        std::fputs("MainQueue: a block was posted while no application event loop exists\n",
                   stderr);
        std::abort();
    }
    return *app;
}

}  // namespace

void QtScheduler::post(Task task) {
    std::shared_lock lock(gate_);
    if (closed_) {
        return;
    }
    QMetaObject::invokeMethod(&application(), std::move(task), Qt::QueuedConnection);
}

void QtScheduler::postAfter(Clock::duration delay, Task task) {
    const auto due = now() + delay;
    // Timers belong to the thread that starts them, so the timer is started on the main
    // thread; the hop there is subtracted from the delay.
    post([due, task = std::move(task)]() mutable {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
        const int milliseconds = static_cast<int>(std::max<std::int64_t>(0, left.count()));
        QTimer::singleShot(milliseconds, Qt::PreciseTimer, &application(), std::move(task));
    });
}

Clock::time_point QtScheduler::now() const {
    return Clock::now();
}

void QtScheduler::close() {
    std::unique_lock lock(gate_);
    closed_ = true;
}

bool QtScheduler::isMainThread() const {
    auto* app = QCoreApplication::instance();
    return app != nullptr && QThread::currentThread() == app->thread();
}

}  // namespace morvane::platform
