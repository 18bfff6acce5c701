#include "PolkitStandIn.h"

#include <systemd/sd-bus.h>

#include "sysdns/PrivateWorld.h"

namespace morvane::test {

namespace {

// The subject (sa{sv}): its kind and the keys a unix-process subject has. A key of another type
// than polkitd takes is left out, so that the test sees it missing.
int readSubject(sd_bus_message* m, PolkitStandIn::Check& check) {
    const char* kind = nullptr;
    int r = sd_bus_message_enter_container(m, 'r', "sa{sv}");
    r = r < 0 ? r : sd_bus_message_read(m, "s", &kind);
    r = r < 0 ? r : sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) {
        return r;
    }
    check.subjectKind = kind;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        const char* contents = nullptr;
        char type = 0;
        r = sd_bus_message_read(m, "s", &key);
        r = r < 0 ? r : sd_bus_message_peek_type(m, &type, &contents);
        if (r < 0) {
            return r;
        }
        const std::string name = key;
        const std::string signature = contents != nullptr ? contents : "";
        if (name == "pid" && signature == "u") {
            std::uint32_t pid = 0;
            r = sd_bus_message_read(m, "v", "u", &pid);
            check.pid = pid;
        } else if (name == "start-time" && signature == "t") {
            std::uint64_t start = 0;
            r = sd_bus_message_read(m, "v", "t", &start);
            check.startTime = start;
        } else if (name == "uid" && signature == "i") {
            std::int32_t uid = 0;
            r = sd_bus_message_read(m, "v", "i", &uid);
            check.uid = uid;
        } else {
            r = sd_bus_message_skip(m, "v");
        }
        r = r < 0 ? r : sd_bus_message_exit_container(m);
        if (r < 0) {
            return r;
        }
    }
    r = r < 0 ? r : sd_bus_message_exit_container(m);
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

int readRest(sd_bus_message* m, PolkitStandIn::Check& check) {
    const char* action = nullptr;
    int r = sd_bus_message_read(m, "s", &action);
    r = r < 0 ? r : sd_bus_message_enter_container(m, 'a', "{ss}");
    if (r < 0) {
        return r;
    }
    check.actionId = action;
    const char* key = nullptr;
    const char* value = nullptr;
    while ((r = sd_bus_message_read(m, "{ss}", &key, &value)) > 0) {
        check.details[key] = value;
    }
    r = r < 0 ? r : sd_bus_message_exit_container(m);
    const char* cancellation = nullptr;
    r = r < 0 ? r : sd_bus_message_read(m, "us", &check.flags, &cancellation);
    if (r >= 0) {
        check.cancellationId = cancellation;
    }
    return r;
}

int checkAuthorization(sd_bus_message* m, void* self, sd_bus_error* error) {
    PolkitStandIn::Check check;
    int r = readSubject(m, check);
    r = r < 0 ? r : readRest(m, check);
    if (r < 0) {
        return sd_bus_error_set(error, "org.freedesktop.DBus.Error.InvalidArgs",
                                "the stand-in could not read the question");
    }
    const auto reply = static_cast<PolkitStandIn*>(self)->take(std::move(check));
    switch (reply.answer) {
        case PolkitStandIn::Answer::authorized:
            return sd_bus_reply_method_return(m, "(bba{ss})", 1, 0, 0);
        case PolkitStandIn::Answer::notAuthorized:
            return sd_bus_reply_method_return(m, "(bba{ss})", 0, 0, 0);
        case PolkitStandIn::Answer::dismissed:
            return sd_bus_reply_method_return(m, "(bba{ss})", 0, 0, 1, "polkit.dismissed", "true");
        case PolkitStandIn::Answer::challenge:
            return sd_bus_reply_method_return(m, "(bba{ss})", 0, 1, 0);
        case PolkitStandIn::Answer::error:
            return sd_bus_error_set(error, reply.errorName.c_str(), reply.errorMessage.c_str());
        case PolkitStandIn::Answer::vanish:
            break;
    }
    return 1;
}

const sd_bus_vtable kAuthority[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})", checkAuthorization,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

PolkitStandIn::~PolkitStandIn() {
    stop();
}

PolkitStandIn::Reply PolkitStandIn::take(Check check) {
    const std::lock_guard lock(mutex_);
    checks_.push_back(std::move(check));
    if (answer_ == Answer::vanish) {
        // No answer: the serving loop leaves the bus, and the bus tells the caller.
        vanishing_ = true;
    }
    return {answer_, errorName_, errorMessage_};
}

bool PolkitStandIn::start(std::string& error) {
    int r = sd_bus_open_system(&bus_);
    if (r < 0) {
        error = "the polkit stand-in cannot reach the system bus";
        return false;
    }
    r = sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/PolicyKit1/Authority",
                                 "org.freedesktop.PolicyKit1.Authority", kAuthority, this);
    r = r < 0 ? r : sd_bus_request_name(bus_, "org.freedesktop.PolicyKit1", 0);
    if (r < 0) {
        error = "the polkit stand-in cannot take its bus name";
        return false;
    }
    thread_ = std::thread([this] { serve(); });
    return true;
}

void PolkitStandIn::serve() {
    sysdns::test::serveBus(bus_, [this] { return stopping_ || vanishing_; });
    if (vanishing_) {
        sd_bus_close_unref(bus_);
        bus_ = nullptr;
        gone_ = true;
    }
}

void PolkitStandIn::stop() {
    sysdns::test::endServing(thread_, stopping_, bus_);
    gone_ = true;
}

void PolkitStandIn::answer(Answer answer, std::string errorName, std::string errorMessage) {
    const std::lock_guard lock(mutex_);
    answer_ = answer;
    errorName_ = std::move(errorName);
    errorMessage_ = std::move(errorMessage);
}

std::vector<PolkitStandIn::Check> PolkitStandIn::checks() {
    const std::lock_guard lock(mutex_);
    return checks_;
}

}  // namespace morvane::test
