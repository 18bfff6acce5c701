#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "core/Dependencies.h"

namespace morvane {

/// A lazily resolved reference to a service: nothing is made until the first read, which
/// takes the one shared instance from the container in place at that moment and keeps it.
/// So a member may be declared before the service table exists, as long as it is read after.
template <class T>
class Injected {
public:
    using Delayed = std::function<std::shared_ptr<T>()>;

    Injected() : delayed_([] { return Dependencies::shared()->resolve<T>(); }) {}
    /// A reference resolved by the given callback; an empty callback is a fault that stops
    /// the process at the first read.
    explicit Injected(Delayed delayed) : delayed_(std::move(delayed)) {}
    Injected(const Injected&) = delete;
    Injected& operator=(const Injected&) = delete;

    T* operator->() { return get().get(); }
    T& operator*() { return *get(); }

    std::shared_ptr<T> get() {
        Delayed delayed;
        {
            std::lock_guard lock(mutex_);
            if (service_) {
                return service_;
            }
            if (!delayed_) {
                fatalError("MorvaneCloud/Dependencies");
            }
            delayed = delayed_;
        }
        // Resolved without holding the lock: a factory on another thread may read this very
        // member, and the container hands both the same instance.
        auto resolved = delayed();
        std::lock_guard lock(mutex_);
        if (!service_) {
            service_ = std::move(resolved);
        }
        return service_;
    }

    bool isResolved() const {
        std::lock_guard lock(mutex_);
        return service_ != nullptr;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<T> service_;
    Delayed delayed_;
};

}  // namespace morvane
