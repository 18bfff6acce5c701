#include "watch/NetworkCheck.h"

#include "platform/InterfaceAddresses.h"
#include "platform/MainQueue.h"

namespace morvane {

using platform::NetworkPath;

NetworkCheck::NetworkCheck() : NetworkCheck(std::make_shared<platform::PathMonitor>()) {}

NetworkCheck::NetworkCheck(std::shared_ptr<platform::PathMonitor> pathMonitor)
    : monitor(std::move(pathMonitor)), anchor_(std::make_shared<NetworkCheck*>(this)) {
    if (!monitor) {
        return;
    }
    monitor->setPathUpdateHandler(
        [weak = std::weak_ptr<NetworkCheck*>(anchor_)](const NetworkPath& path) {
            if (auto anchor = weak.lock()) {
                (*anchor)->pathUpdateHandler(path);
            }
        });
    monitor->start();
}

NetworkCheck::~NetworkCheck() {
    if (monitor) {
        monitor->cancel();
    }
}

void NetworkCheck::pathUpdateHandler(const NetworkPath& path) {
    platform::MainQueue::async([weak = std::weak_ptr<NetworkCheck*>(anchor_), path] {
        if (auto anchor = weak.lock()) {
            (*anchor)->pathUpdated(path);
        }
    });
}

void NetworkCheck::pathUpdated(const NetworkPath& path) {
    if (path.status == NetworkPath::Status::satisfied) {
        // Every satisfied path counts, also while connected: a new network or address is
        // one more reason to apply the policy.
        lastStatus = ChangeType::connected;
        notificationPublisher->post(ChangeType::connected, path);
        return;
    }
    if (lastStatus == ChangeType::disconnected) {
        return;
    }
    lastStatus = ChangeType::disconnected;
    notificationPublisher->post(ChangeType::disconnected, path);
}

std::optional<std::string> NetworkCheck::localIPv4Address() const {
    return platform::firstLocalIPv4Address();
}

}  // namespace morvane
