#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace morvane::platform {

/// One posted notification: its name and an untyped payload, handed over unchanged.
struct Notification {
    std::string name;
    std::any object;
};

/// An in-process publish and subscribe keyed by name. Delivery is asynchronous, on the main
/// queue, in the order of posting; subscribers never run on the poster's thread.
class NotificationCenter : public std::enable_shared_from_this<NotificationCenter> {
public:
    using Observer = std::function<void(const Notification&)>;

    /// A live subscription. Cancelling it (or destroying it) stops deliveries that have not
    /// started yet; cancelling twice is harmless.
    class Subscription {
    public:
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;
        ~Subscription();
        void cancel();
        bool isCancelled() const;

    private:
        friend class NotificationCenter;
        Subscription(std::weak_ptr<NotificationCenter> center, std::uint64_t id);
        std::weak_ptr<NotificationCenter> center_;
        std::uint64_t id_;
        mutable std::mutex mutex_;
        bool cancelled_ = false;
    };

    static std::shared_ptr<NotificationCenter> defaultCenter();
    static std::shared_ptr<NotificationCenter> create();

    /// Subscribes to every notification of the given name, whoever posts it.
    std::shared_ptr<Subscription> subscribe(const std::string& name, Observer observer);
    /// Callable from any thread; returns at once.
    void post(const std::string& name, std::any object = {});

private:
    NotificationCenter() = default;
    void remove(std::uint64_t id);
    void deliver(const Notification& notification);

    struct Entry {
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    std::mutex mutex_;
    std::map<std::uint64_t, Entry> observers_;
    std::uint64_t nextId_ = 1;
};

}  // namespace morvane::platform
