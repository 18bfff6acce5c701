#include "provider/SystemdNotifier.h"

#include <systemd/sd-daemon.h>

namespace morvane::provider {

void SystemdNotifier::ready(const std::string& status) const {
    sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void SystemdNotifier::watchdog() const {
    sd_notify(0, "WATCHDOG=1");
}

void SystemdNotifier::stopping() const {
    sd_notify(0, "STOPPING=1");
}

void SystemdNotifier::status(const std::string& status) const {
    sd_notify(0, ("STATUS=" + status).c_str());
}

std::optional<std::chrono::microseconds> SystemdNotifier::watchdogInterval() {
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0) {
        return std::nullopt;
    }
    return std::chrono::microseconds(usec / 2);
}

}  // namespace morvane::provider
