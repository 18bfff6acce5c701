#include "watch/SleepWakeMonitor.h"

#include "platform/MainQueue.h"
#include "platform/SleepWatch.h"

namespace morvane {

SleepWakeMonitor::SleepWakeMonitor() : SleepWakeMonitor(std::string()) {}

SleepWakeMonitor::SleepWakeMonitor(const std::string& busAddress)
    : anchor_(std::make_shared<SleepWakeMonitor*>(this)) {
    platform::SleepWatch::Handlers handlers;
    handlers.willSleep = [this] { onSleepNote(); };
    handlers.didWake = [this] { onWakeNote(); };
    watch_ = std::make_unique<platform::SleepWatch>(std::move(handlers), busAddress);
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
