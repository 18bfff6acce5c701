#include "core/ChangeType.h"

namespace morvane {

namespace {

constexpr std::array<std::string_view, 17> kRawValues = {
    "connected",
    "disconnected",
    "ipAddressChanged",
    "onStartup",
    "onShutdown",
    "pollingInterval",
    "intranet",
    "didAwake",
    "willSleep",
    "VPNDidStart",
    "VPNDidStop",
    "missingDeviceKey",
    "deviceConfigRefreshed",
    "deviceConfigEditedLocally",
    "waitingOnUserSecurity",
    "installCompleted",
    "dnsProxyFailed",
};

}  // namespace

std::string_view rawValue(ChangeType type) {
    return kRawValues.at(static_cast<std::size_t>(type));
}

std::optional<ChangeType> changeTypeFromRawValue(std::string_view text) {
    for (std::size_t i = 0; i < kRawValues.size(); ++i) {
        if (kRawValues[i] == text) {
            return change_type::allCases[i];
        }
    }
    return std::nullopt;
}

}  // namespace morvane
