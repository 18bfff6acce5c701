#include "platform/NotificationCenter.h"

#include <vector>

#include "platform/MainQueue.h"

namespace morvane::platform {

NotificationCenter::Subscription::Subscription(std::weak_ptr<NotificationCenter> center,
                                               std::uint64_t id)
    : center_(std::move(center)), id_(id) {}

NotificationCenter::Subscription::~Subscription() {
    cancel();
}

void NotificationCenter::Subscription::cancel() {
    {
        std::lock_guard lock(mutex_);
        if (cancelled_) {
            return;
        }
        cancelled_ = true;
    }
    if (auto center = center_.lock()) {
        center->remove(id_);
    }
}

bool NotificationCenter::Subscription::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter() {
    static const auto center = create();
    return center;
}

std::shared_ptr<NotificationCenter> NotificationCenter::create() {
    return std::shared_ptr<NotificationCenter>(new NotificationCenter());
}

std::shared_ptr<NotificationCenter::Subscription> NotificationCenter::subscribe(
    const std::string& name, Observer observer) {
    std::lock_guard lock(mutex_);
    const auto id = nextId_++;
    observers_.emplace(id, Entry{name, std::make_shared<Observer>(std::move(observer))});
    return std::shared_ptr<Subscription>(new Subscription(weak_from_this(), id));
}

void NotificationCenter::post(const std::string& name, std::any object) {
    MainQueue::async(
        [self = shared_from_this(), notification = Notification{name, std::move(object)}] {
            self->deliver(notification);
        });
}

void NotificationCenter::remove(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    observers_.erase(id);
}

void NotificationCenter::deliver(const Notification& notification) {
    std::vector<std::pair<std::uint64_t, std::shared_ptr<Observer>>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [id, entry] : observers_) {
            if (entry.name == notification.name) {
                targets.emplace_back(id, entry.observer);
            }
        }
    }
    for (const auto& [id, observer] : targets) {
        // An observer may cancel another one while this delivery runs; the cancelled one must
        // not hear of it any more.
        {
            std::lock_guard lock(mutex_);
            if (observers_.count(id) == 0) {
                continue;
            }
        }
        (*observer)(notification);
    }
}

}  // namespace morvane::platform
