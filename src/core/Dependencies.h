#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <typeindex>
#include <vector>

namespace morvane {

class Dependencies;

/// Stops the process because of a fault of the program itself (a service with no row, a
/// reference with no way to resolve it). No input can lead here.
[[noreturn]] void fatalError(std::string_view file, std::string_view detail = {});

/// One row of the service table: how a service is made and shared.
struct Service {
    enum class LifeCycle {
        global,  ///< one instance for the life of the process
        oneOf,   ///< a new instance on every resolution
    };
    using Factory = std::function<std::shared_ptr<void>(Dependencies&)>;

    LifeCycle cycle;
    std::type_index name;
    Factory resolve;
    std::shared_ptr<void> instance;

    /// A row for service type T with the given factory.
    template <class T, class F>
    static Service make(LifeCycle cycle, F factory) {
        return Service{
            cycle, std::type_index(typeid(T)),
            [factory = std::move(factory)](Dependencies& dependencies) {
                return std::static_pointer_cast<void>(std::shared_ptr<T>(factory(dependencies)));
            },
            nullptr};
    }
    /// A global row for T built with its default constructor.
    template <class T>
    static Service global() {
        return make<T>(LifeCycle::global, [](Dependencies&) { return std::make_shared<T>(); });
    }
};

/// The process-wide container of the application's long-lived services. Services are made
/// on first use, in whatever order code first touches them, and kept to the end.
class Dependencies {
public:
    Dependencies() = default;
    explicit Dependencies(std::vector<Service> services);
    Dependencies(const Dependencies&) = delete;
    Dependencies& operator=(const Dependencies&) = delete;

    /// The container every `Injected` member resolves through; empty until `build`.
    static std::shared_ptr<Dependencies> shared();
    /// Makes a new container of the rows, in order (a later row for the same type replaces
    /// an earlier one), and puts it in place of the shared one.
    static void build(std::vector<Service> services);
    static void build(Service service);

    /// The instance of T: the kept one for a global row, a new one for a oneOf row.
    /// Stops the process when T has no row.
    template <class T>
    std::shared_ptr<T> resolve() {
        return std::static_pointer_cast<T>(resolve(std::type_index(typeid(T))));
    }

    std::shared_ptr<void> resolve(std::type_index type);
    std::size_t size() const;

private:
    // Held while a factory runs, so that two threads resolving one global service for the
    // first time get one instance; recursive because factories resolve what they need.
    mutable std::recursive_mutex mutex_;
    std::map<std::type_index, Service> factories_;
};

}  // namespace morvane
