#include "core/NotificationPublisher.h"

#include <string>

#include "platform/MainQueue.h"

namespace morvane {

void NotificationPublisher::post(ChangeType changeType) const {
    post(changeType, std::any());
}

void NotificationPublisher::post(ChangeType changeType, std::any object) const {
    platform::MainQueue::async(
        [center = nCenter, name = std::string(rawValue(changeType)),
         object = std::move(object)]() mutable { center->post(name, std::move(object)); });
}

}  // namespace morvane
