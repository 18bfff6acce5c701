#include "app/ChangeObserver.h"

#include <charconv>
#include <chrono>
#include <thread>

#include "platform/MainQueue.h"

namespace morvane {

using platform::MainQueue;

std::string formatSeconds(double seconds) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, seconds);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".en") == std::string::npos) {
        text += ".0";
    }
    return text;
}

ChangeObserver::ChangeObserver()
    : concurrentQueue(platform::DispatchQueue::create("ChangeObserver.queue",
                                                      platform::DispatchQueue::Kind::concurrent)),
      startTime(MainQueue::now()) {
    // The VPN watch owns a thread of its own for the life of the process; nothing keeps
    // the thread object, and the monitor stays alive as long as the watch runs. Its
    // publisher is resolved here, while the service table is surely in place: the watch
    // may hear its first change at any later time.
    auto monitor = vpnMonitor.get();
    monitor->notificationPublisher.get();
    std::thread([monitor] { monitor->startMonitoring(); }).detach();
}

ChangeObserver::~ChangeObserver() = default;

void ChangeObserver::log(const std::string& message) {
    logger->log(message, LogLevel::production);
}

void ChangeObserver::startObserving() {
    schedulePollingTick(timerVariance.timeInterval[timerVariance.index]);
    for (const ChangeType changeType : change_type::allCases) {
        subscribe(changeType);
    }
}

void ChangeObserver::schedulePollingTick(double delaySeconds) {
    const auto scheduledAt = MainQueue::now();
    const auto delay = std::chrono::duration_cast<platform::Clock::duration>(
        std::chrono::duration<double>(delaySeconds));
    MainQueue::after(delay, [weak = weak_from_this(), scheduledAt] {
        // Each step looks the observer up anew: it may be gone by then.
        if (auto self = weak.lock()) {
            const std::chrono::duration<double> elapsed = MainQueue::now() - scheduledAt;
            self->log("Firing polling interval after " + formatSeconds(elapsed.count()));
        }
        if (auto self = weak.lock()) {
            auto& ladder = self->timerVariance;
            ladder.index += 1;
            if (ladder.index >= ladder.timeInterval.size()) {
                ladder.index = ladder.timeInterval.size() - 1;
            }
        }
        if (auto self = weak.lock()) {
            self->onChange(ChangeType::pollingInterval, std::nullopt);
        }
        if (auto self = weak.lock()) {
            self->schedulePollingTick(self->timerVariance.timeInterval[self->timerVariance.index]);
        }
    });
}

void ChangeObserver::subscribe(ChangeType changeType) {
    if (changeType == ChangeType::pollingInterval) {
        return;
    }
    auto center = notificationPublisher->nCenter;
    cancellables[changeType] = center->subscribe(
        std::string(rawValue(changeType)),
        [weak = weak_from_this(), changeType](const platform::Notification& notification) {
            if (auto self = weak.lock()) {
                self->onChange(changeType, notification);
            }
        });
}

void ChangeObserver::cancelSubscriptions(const std::map<ChangeType, Subscription>& subscriptions) {
    for (const auto& [changeType, live] : cancellables) {
        if (auto given = subscriptions.find(changeType);
            given != subscriptions.end() && given->second) {
            given->second->cancel();
        }
    }
}

void ChangeObserver::onChange(ChangeType changeType,
                              const std::optional<platform::Notification>& notification) {
    log("received change of type " + std::string(rawValue(changeType)));
    if (changeType == ChangeType::pollingInterval) {
        log("next poll in " + formatSeconds(timerVariance.timeInterval[timerVariance.index]) +
            " seconds");
    }
    const bool accepted = userAcceptedExtension();
    resetTimerIfNeeded(changeType);
    reloadConfigIfNeeded(changeType);
    showChangeNotification(changeType);
    handleOnChange(notification, changeType, accepted);
}

void ChangeObserver::resetTimerIfNeeded(ChangeType changeType) {
    if (changeType == ChangeType::willSleep || changeType == ChangeType::connected) {
        log("resetting timer becasue of change " + std::string(rawValue(changeType)));
        timerVariance.index = 0;
    }
}

bool ChangeObserver::userAcceptedExtension() {
    return false;
}

void ChangeObserver::reloadConfigIfNeeded(ChangeType) {}

void ChangeObserver::showChangeNotification(ChangeType) {}

void ChangeObserver::handleOnChange(const std::optional<platform::Notification>&, ChangeType,
                                    bool) {}

}  // namespace morvane
