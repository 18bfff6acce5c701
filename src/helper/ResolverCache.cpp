#include "helper/ResolverCache.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdlib>

#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"

namespace morvane::helper {

namespace {

constexpr std::uint64_t kBusTimeoutMicroseconds = 5'000'000;

std::string flushResolved() {
    // With a sysroot the machine's own resolver is not ours to touch; a test that wants it
    // flushed names the bus of its own world.
    const char* sysroot = std::getenv("MORVANECLOUD_SYSROOT");
    if (sysroot != nullptr && *sysroot != '\0' &&
        std::getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        return "skipped: not the machine's resolver under a sysroot";
    }
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_system(&bus); r < 0) {
        return std::string("no system bus: ") + strerror(-r);
    }
    sd_bus_message* request = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error{};  // SD_BUS_ERROR_NULL, which is C syntax
    std::string outcome = "done";
    int r = sd_bus_message_new_method_call(bus, &request, "org.freedesktop.resolve1",
                                           "/org/freedesktop/resolve1",
                                           "org.freedesktop.resolve1.Manager", "FlushCaches");
    if (r >= 0) {
        r = sd_bus_call(bus, request, kBusTimeoutMicroseconds, &error, &reply);
    }
    if (r < 0) {
        outcome = sd_bus_error_is_set(&error) != 0
                      ? std::string(error.name) + ": " + (error.message ? error.message : "")
                      : std::string(strerror(-r));
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(request);
    sd_bus_flush_close_unref(bus);
    return outcome;
}

std::string flushProvider() {
    sys::MessageClient client(sys::runtimeDirectory() / "dnsproxy.control");
    std::string error;
    if (!client.connect(std::chrono::seconds(2), error)) {
        return "not listening: " + error;
    }
    const auto reply =
        client.call("flush", nlohmann::json::object(), std::chrono::seconds(5), error);
    if (!reply) {
        return "failed: " + error;
    }
    return reply->dump();
}

}  // namespace

std::vector<std::pair<std::string, std::string>> flushResolverCaches() {
    return {{"org.freedesktop.resolve1.Manager.FlushCaches", flushResolved()},
            {"dnsproxy.control flush", flushProvider()}};
}

}  // namespace morvane::helper
