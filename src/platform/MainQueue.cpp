#include "platform/MainQueue.h"

#include <mutex>

#include "platform/QtScheduler.h"

namespace morvane::platform {

namespace {

std::mutex& schedulerMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<Scheduler>& installed() {
    static std::shared_ptr<Scheduler> scheduler;
    return scheduler;
}

}  // namespace

std::shared_ptr<Scheduler> MainQueue::scheduler() {
    std::lock_guard lock(schedulerMutex());
    auto& scheduler = installed();
    if (!scheduler) {
        scheduler = std::make_shared<QtScheduler>();
    }
    return scheduler;
}

void MainQueue::setScheduler(std::shared_ptr<Scheduler> scheduler) {
    std::lock_guard lock(schedulerMutex());
    installed() = std::move(scheduler);
}

void MainQueue::async(Task task) {
    scheduler()->post(std::move(task));
}

void MainQueue::after(Clock::duration delay, Task task) {
    scheduler()->postAfter(delay, std::move(task));
}

Clock::time_point MainQueue::now() {
    return scheduler()->now();
}

bool MainQueue::isCurrent() {
    return scheduler()->isMainThread();
}

void MainQueue::close() {
    scheduler()->close();
}

}  // namespace morvane::platform
