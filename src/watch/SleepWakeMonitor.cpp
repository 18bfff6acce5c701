#include "watch/SleepWakeMonitor.h"

#include "platform/MainQueue.h"
#include "platform/SleepWatch.h"
#include "platform/StandardOutput.h"

namespace morvane {

SleepWakeMonitor::SleepWakeMonitor() : SleepWakeMonitor(std::string()) {}

SleepWakeMonitor::SleepWakeMonitor(const std::string& busAddress)
    : anchor_(std::make_shared<SleepWakeMonitor*>(this)) {
    platform::SleepWatch::Handlers handlers;
    handlers.willSleep = [this] { onSleepNote(); };
    handlers.didWake = [this] { onWakeNote(); };
    watch_ = std::make_unique<platform::SleepWatch>(std::move(handlers), busAddress);
    if (!watch_->isWatching()) {
        // Without logind (a container, a session without a system bus) the agent still
        // works; it only misses the two events.
        platform::printLine("Sleep and wake are not watched: " + watch_->error().value_or(""));
    }
}

SleepWakeMonitor::~SleepWakeMonitor() = default;

void SleepWakeMonitor::onSleepNote() {
    notificationPublisher->post(ChangeType::willSleep);
}

void SleepWakeMonitor::onWakeNote() {
    platform::MainQueue::after(kWakeDelay, [weak = std::weak_ptr<SleepWakeMonitor*>(anchor_)] {
        if (auto anchor = weak.lock()) {
            (*anchor)->notificationPublisher->post(ChangeType::didAwake);
        }
    });
}

}  // namespace morvane
