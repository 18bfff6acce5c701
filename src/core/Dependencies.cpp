#include "core/Dependencies.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace morvane {

namespace {

std::mutex& sharedMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<Dependencies>& sharedSlot() {
    static std::shared_ptr<Dependencies> slot;
    return slot;
}

std::string readableName(std::type_index type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : type.name();
    std::free(demangled);
    return name;
}

}  // namespace

void fatalError(std::string_view file, std::string_view detail) {
    std::fprintf(stderr, "%.*s: Fatal error%s%.*s\n", static_cast<int>(file.size()), file.data(),
                 detail.empty() ? "" : ": ", static_cast<int>(detail.size()), detail.data());
    std::fflush(stderr);
    std::abort();
}

Dependencies::Dependencies(std::vector<Service> services) {
    for (auto& service : services) {
        const auto name = service.name;
        factories_.insert_or_assign(name, std::move(service));
    }
}

std::shared_ptr<Dependencies> Dependencies::shared() {
    std::lock_guard lock(sharedMutex());
    auto& slot = sharedSlot();
    if (!slot) {
        slot = std::make_shared<Dependencies>();
    }
    return slot;
}

void Dependencies::build(std::vector<Service> services) {
    auto built = std::make_shared<Dependencies>(std::move(services));
    std::lock_guard lock(sharedMutex());
    sharedSlot() = std::move(built);
}

void Dependencies::build(Service service) {
    std::vector<Service> services;
    services.push_back(std::move(service));
    build(std::move(services));
}

std::shared_ptr<void> Dependencies::resolve(std::type_index type) {
    std::lock_guard lock(mutex_);
    auto found = factories_.find(type);
    if (found == factories_.end()) {
        fatalError("MorvaneCloud/Dependencies", "no service registered for " + readableName(type));
    }
    Service copy = found->second;
    if (copy.instance && copy.cycle == Service::LifeCycle::global) {
        return copy.instance;
    }
    copy.instance = copy.resolve(*this);
    auto instance = copy.instance;
    // The factory may have resolved other services meanwhile; look the row up again.
    factories_.insert_or_assign(copy.name, std::move(copy));
    return instance;
}

std::size_t Dependencies::size() const {
    std::lock_guard lock(mutex_);
    return factories_.size();
}

}  // namespace morvane
