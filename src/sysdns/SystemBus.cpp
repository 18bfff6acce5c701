#include "sysdns/SystemBus.h"

#include <systemd/sd-bus.h>

#include <cstring>

namespace morvane::sysdns {

namespace {

struct ErrorHolder {
    sd_bus_error error{};  // all empty, as SD_BUS_ERROR_NULL (a C compound literal) has it
    ~ErrorHolder() { sd_bus_error_free(&error); }
};

struct MessageHolder {
    sd_bus_message* message = nullptr;
    ~MessageHolder() { sd_bus_message_unref(message); }
};

}  // namespace

bool readBusText(sd_bus_message* message, const char* type, std::string& value) {
    const char* text = nullptr;
    if (sd_bus_message_read(message, type, &text) < 0) {
        return false;
    }
    value = text != nullptr ? text : "";
    return true;
}

bool readObjectPaths(sd_bus_message* message, std::vector<std::string>& paths) {
    if (sd_bus_message_enter_container(message, 'a', "o") < 0) {
        return false;
    }
    const char* path = nullptr;
    while (sd_bus_message_read(message, "o", &path) > 0) {
        paths.emplace_back(path);
    }
    return sd_bus_message_exit_container(message) >= 0;
}

std::string busErrorText(int code) {
    return std::strerror(code < 0 ? -code : code);
}

std::shared_ptr<SystemBus> SystemBus::open(std::chrono::milliseconds timeout, std::string& error) {
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_system(&bus);
    if (result < 0) {
        error = "Cannot connect to the system bus: " + busErrorText(result);
        return nullptr;
    }
    sd_bus_set_method_call_timeout(
        bus, static_cast<std::uint64_t>(
                 std::chrono::duration_cast<std::chrono::microseconds>(timeout).count()));
    return std::shared_ptr<SystemBus>(new SystemBus(bus));
}

SystemBus::~SystemBus() {
    sd_bus_flush_close_unref(bus_);
}

bool SystemBus::nameHasOwner(const std::string& name) {
    ErrorHolder error;
    MessageHolder reply;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "NameHasOwner", &error.error, &reply.message,
                           "s", name.c_str()) < 0) {
        return false;
    }
    int has = 0;
    return sd_bus_message_read(reply.message, "b", &has) >= 0 && has != 0;
}

bool SystemBus::call(const std::string& destination, const std::string& path,
                     const std::string& interface, const std::string& member,
                     const Arguments& arguments, const ReplyReader& reader, std::string& error) {
    MessageHolder request;
    int result = sd_bus_message_new_method_call(bus_, &request.message, destination.c_str(),
                                                path.c_str(), interface.c_str(), member.c_str());
    if (result < 0) {
        error = member + ": " + busErrorText(result);
        return false;
    }
    // A call must never start a service that is not running.
    sd_bus_message_set_auto_start(request.message, 0);
    if (arguments && !arguments(request.message)) {
        error = member + ": cannot build the call's arguments";
        return false;
    }
    ErrorHolder callError;
    MessageHolder reply;
    result = sd_bus_call(bus_, request.message, 0, &callError.error, &reply.message);
    if (result < 0) {
        error =
            member + " on " + destination + " failed: " +
            (callError.error.message != nullptr ? callError.error.message : busErrorText(result));
        return false;
    }
    if (reader && !reader(reply.message)) {
        error = member + " on " + destination + " gave a reply of an unexpected form";
        return false;
    }
    return true;
}

sd_bus_message* SystemBus::newCall(const std::string& destination, const std::string& path,
                                   const std::string& interface, const std::string& member) {
    sd_bus_message* request = nullptr;
    if (sd_bus_message_new_method_call(bus_, &request, destination.c_str(), path.c_str(),
                                       interface.c_str(), member.c_str()) < 0) {
        return nullptr;
    }
    sd_bus_message_set_auto_start(request, 0);
    return request;
}

bool SystemBus::send(sd_bus_message* request, const ReplyReader& reader, std::string& error) {
    MessageHolder owned;
    owned.message = request;
    const char* member = sd_bus_message_get_member(request);
    const std::string name = member != nullptr ? member : "call";
    ErrorHolder callError;
    MessageHolder reply;
    const int result = sd_bus_call(bus_, request, 0, &callError.error, &reply.message);
    if (result < 0) {
        error =
            name + " failed: " +
            (callError.error.message != nullptr ? callError.error.message : busErrorText(result));
        return false;
    }
    if (reader && !reader(reply.message)) {
        error = name + " gave a reply of an unexpected form";
        return false;
    }
    return true;
}

bool SystemBus::watchSignals(const std::string& match, std::string& error) {
    const int result = sd_bus_add_match(
        bus_, nullptr, match.c_str(),
        [](sd_bus_message*, void* userdata, sd_bus_error*) {
            static_cast<SystemBus*>(userdata)->signalled_ = true;
            return 0;
        },
        this);
    if (result < 0) {
        error = "Cannot watch for " + match + ": " + busErrorText(result);
        return false;
    }
    return true;
}

int SystemBus::descriptor() const {
    return sd_bus_get_fd(bus_);
}

bool SystemBus::takeSignals() {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    const bool signalled = signalled_;
    signalled_ = false;
    return signalled;
}

bool SystemBus::getProperty(const std::string& destination, const std::string& path,
                            const std::string& interface, const std::string& property,
                            const std::string& signature, const ReplyReader& reader,
                            std::string& error) {
    return call(
        destination, path, "org.freedesktop.DBus.Properties", "Get",
        [&](sd_bus_message* message) {
            return sd_bus_message_append(message, "ss", interface.c_str(), property.c_str()) >= 0;
        },
        [&](sd_bus_message* reply) {
            return sd_bus_message_enter_container(reply, 'v', signature.c_str()) >= 0 &&
                   reader(reply);
        },
        error);
}

}  // namespace morvane::sysdns
