#include "helper/PolkitAuthority.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "helper/AuthorizationToken.h"

namespace morvane {

namespace {

constexpr std::uint64_t kPolkitTimeoutMicroseconds = 30'000'000;  // the user may be asked
constexpr std::uint32_t kAllowUserInteraction = 1;

/// Errors after which polkit has no say here and the rights database decides.
bool meansNoPolkit(const sd_bus_error& error) {
    static constexpr const char* names[] = {
        "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
        "org.freedesktop.DBus.Error.NoServer", "org.freedesktop.DBus.Error.Disconnected"};
    for (const char* name : names) {
        if (sd_bus_error_has_name(&error, name) != 0) {
            return true;
        }
    }
    // An action that is not installed: polkitd answers with its generic failure.
    return sd_bus_error_has_name(&error, "org.freedesktop.PolicyKit1.Error.Failed") != 0 &&
           error.message != nullptr && std::strstr(error.message, "is not registered") != nullptr;
}

/// Whether the details of polkit's answer say that the user dismissed the dialog.
int readDismissed(sd_bus_message* reply, bool& dismissed) {
    int r = sd_bus_message_enter_container(reply, 'a', "{ss}");
    const char* key = nullptr;
    const char* value = nullptr;
    while (r >= 0 && (r = sd_bus_message_read(reply, "{ss}", &key, &value)) > 0) {
        // polkitd sets it to a non-empty text when the dialog was dismissed.
        dismissed = dismissed || (std::strcmp(key, "polkit.dismissed") == 0 && *value != '\0');
    }
    return r < 0 ? r : sd_bus_message_exit_container(reply);
}

}  // namespace

std::optional<unsigned long long> PolkitAuthority::processStartTime(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) {
        return std::nullopt;
    }
    // The command name may hold blanks and parentheses: fields count from the last ')'.
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    // Field 3 (state) is the first after the name; the start time is field 22.
    for (int index = 3; index < 22 && (fields >> field); ++index) {
    }
    unsigned long long start = 0;
    if (!(fields >> start)) {
        return std::nullopt;
    }
    return start;
}

std::optional<int> PolkitAuthority::checkAuthorization(const std::string& action,
                                                       const sys::PeerCredentials& peer,
                                                       std::string& detail) {
    const auto startTime = processStartTime(peer.pid);
    if (!startTime) {
        detail = "the calling process " + std::to_string(peer.pid) + " is gone";
        return authorization_status::denied;
    }
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_system(&bus); r < 0) {
        detail = std::string("no system bus: ") + std::strerror(-r);
        return std::nullopt;
    }
    sd_bus_message* request = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error{};  // SD_BUS_ERROR_NULL, which is C syntax
    std::optional<int> status;
    int r = sd_bus_message_new_method_call(
        bus, &request, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
        "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
    if (r >= 0) {
        r = sd_bus_message_append(request, "(sa{sv})", "unix-process", 3, "pid", "u",
                                  static_cast<std::uint32_t>(peer.pid), "start-time", "t",
                                  static_cast<std::uint64_t>(*startTime), "uid", "i",
                                  static_cast<std::int32_t>(peer.uid));
    }
    if (r >= 0) {
        r = sd_bus_message_append(request, "sa{ss}us", action.c_str(), 0, kAllowUserInteraction,
                                  "");
    }
    if (r >= 0) {
        r = sd_bus_call(bus, request, kPolkitTimeoutMicroseconds, &error, &reply);
    }
    if (r < 0) {
        if (sd_bus_error_is_set(&error) != 0) {
            detail = std::string(error.name) + ": " + (error.message ? error.message : "");
            if (!meansNoPolkit(error)) {
                status = authorization_status::internal;
            }
        } else {
            detail = std::string("polkit: ") + std::strerror(-r);
        }
    } else {
        int authorized = 0;
        int challenge = 0;
        bool dismissed = false;
        r = sd_bus_message_enter_container(reply, 'r', "bba{ss}");
        if (r >= 0) {
            r = sd_bus_message_read(reply, "bb", &authorized, &challenge);
        }
        if (r >= 0) {
            r = readDismissed(reply, dismissed);
        }
        if (r < 0) {
            detail = "polkit's answer could not be read";
            status = authorization_status::internal;
        } else if (authorized != 0) {
            detail = "polkit granted " + action;
            status = authorization_status::success;
        } else if (dismissed) {
            // The user closed the authentication dialog: a cancellation, not a refusal.
            detail = "the authentication for " + action + " was dismissed";
            status = authorization_status::canceled;
        } else if (challenge != 0) {
            detail = "polkit wants authentication for " + action + " and nobody can be asked";
            status = authorization_status::interactionNotAllowed;
        } else {
            detail = "polkit refused " + action;
            status = authorization_status::denied;
        }
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(request);
    sd_bus_flush_close_unref(bus);
    return status;
}

}  // namespace morvane
