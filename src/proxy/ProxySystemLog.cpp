#include "proxy/ProxySystemLog.h"

#include "platform/SystemLog.h"

namespace morvane {

namespace {

std::mutex listenerMutex;
std::shared_ptr<ProxySystemLog::Listener> listener;

}  // namespace

ProxySystemLog::ProxySystemLog(std::string subsystem_, std::string category_)
    : subsystem(std::move(subsystem_)), category(std::move(category_)) {}

void ProxySystemLog::setListener(Listener newListener) {
    std::lock_guard lock(listenerMutex);
    listener = newListener ? std::make_shared<Listener>(std::move(newListener)) : nullptr;
}

void ProxySystemLog::write(Type type, const std::string& line) const {
    const char* level = type == Type::debug ? "debug" : type == Type::info ? "info" : "default";
    platform::writeSystemLog("[" + subsystem + ":" + category + "] <" + level + "> " + line);
    std::shared_ptr<Listener> current;
    {
        std::lock_guard lock(listenerMutex);
        current = listener;
    }
    if (current) {
        (*current)(type, line);
    }
}

}  // namespace morvane
