#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "platform/DispatchQueue.h"
#include "watch/NCSICheck.h"
#include "watch/NetworkCheck.h"

namespace morvane {

/// The parameters of a periodic check, owned by the proxy control. It holds values only:
/// nothing here checks anything, and building it resolves none of its references.
struct SanityCheck {
    std::shared_ptr<platform::DispatchQueue> concurrentQueue = platform::DispatchQueue::create(
        "SanityCheck.queue", platform::DispatchQueue::Kind::concurrent);
    std::optional<std::vector<std::string>> resolvers;
    Injected<NetworkCheck> networkCheck;
    Injected<NotificationPublisher> notificationPublisher;
    Injected<NCSICheck> ncsiCheck;
    int checkTime = 20;
    int tolerance = 3;
};

}  // namespace morvane
