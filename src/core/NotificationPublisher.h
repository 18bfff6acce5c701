#pragma once

#include <any>
#include <memory>

#include "core/ChangeType.h"
#include "platform/NotificationCenter.h"

namespace morvane {

/// How every producer announces a change: callable from any thread, it returns at once and
/// the notification is posted from the main queue, so producers never run subscriber code
/// and two posts from one thread arrive in the order they were made.
struct NotificationPublisher {
    std::shared_ptr<platform::NotificationCenter> nCenter;

    void post(ChangeType changeType) const;
    void post(ChangeType changeType, std::any object) const;
};

}  // namespace morvane
