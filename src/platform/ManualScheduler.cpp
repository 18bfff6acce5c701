#include "platform/ManualScheduler.h"

namespace morvane::platform {

ManualScheduler::ManualScheduler()
    : now_(Clock::time_point() + std::chrono::hours(1)), mainThread_(std::this_thread::get_id()) {}

void ManualScheduler::post(Task task) {
    std::lock_guard lock(mutex_);
    if (!closed_) {
        ready_.push_back(std::move(task));
    }
}

void ManualScheduler::postAfter(Clock::duration delay, Task task) {
    std::lock_guard lock(mutex_);
    if (closed_) {
        return;
    }
    delayed_.emplace(std::make_pair(now_ + delay, sequence_++), std::move(task));
}

void ManualScheduler::close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
}

Clock::time_point ManualScheduler::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

bool ManualScheduler::isMainThread() const {
    return std::this_thread::get_id() == mainThread_;
}

bool ManualScheduler::runOne() {
    Task task;
    {
        std::lock_guard lock(mutex_);
        if (ready_.empty()) {
            return false;
        }
        task = std::move(ready_.front());
        ready_.pop_front();
    }
    task();
    return true;
}

std::size_t ManualScheduler::runPending() {
    std::size_t count = 0;
    while (runOne()) {
        ++count;
    }
    return count;
}

void ManualScheduler::advance(Clock::duration duration) {
    const auto target = now() + duration;
    for (;;) {
        runPending();
        Task task;
        {
            std::lock_guard lock(mutex_);
            if (delayed_.empty() || delayed_.begin()->first.first > target) {
                now_ = target;
                break;
            }
            auto first = delayed_.begin();
            now_ = first->first.first;
            task = std::move(first->second);
            delayed_.erase(first);
        }
        task();
    }
    runPending();
}

std::optional<Clock::duration> ManualScheduler::nextDelay() const {
    std::lock_guard lock(mutex_);
    if (delayed_.empty()) {
        return std::nullopt;
    }
    return delayed_.begin()->first.first - now_;
}

std::size_t ManualScheduler::delayedCount() const {
    std::lock_guard lock(mutex_);
    return delayed_.size();
}

}  // namespace morvane::platform
