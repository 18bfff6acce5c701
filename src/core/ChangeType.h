#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace morvane {

/// Everything that can make the agent apply its policy again. The raw text of a case is also
/// the name under which it travels through the notification centre.
enum class ChangeType {
    connected,
    disconnected,
    ipAddressChanged,
    onStartup,
    onShutdown,
    pollingInterval,
    intranet,
    didAwake,
    willSleep,
    VPNDidStart,
    VPNDidStop,
    missingDeviceKey,
    deviceConfigRefreshed,
    deviceConfigEditedLocally,
    waitingOnUserSecurity,
    installCompleted,
    dnsProxyFailed,
};

namespace change_type {

/// Every case in declaration order; the position is the case's ordinal.
inline constexpr std::array<ChangeType, 17> allCases = {
    ChangeType::connected,
    ChangeType::disconnected,
    ChangeType::ipAddressChanged,
    ChangeType::onStartup,
    ChangeType::onShutdown,
    ChangeType::pollingInterval,
    ChangeType::intranet,
    ChangeType::didAwake,
    ChangeType::willSleep,
    ChangeType::VPNDidStart,
    ChangeType::VPNDidStop,
    ChangeType::missingDeviceKey,
    ChangeType::deviceConfigRefreshed,
    ChangeType::deviceConfigEditedLocally,
    ChangeType::waitingOnUserSecurity,
    ChangeType::installCompleted,
    ChangeType::dnsProxyFailed,
};

}  // namespace change_type

std::string_view rawValue(ChangeType type);
/// The case with this raw text; nothing for an unknown text.
std::optional<ChangeType> changeTypeFromRawValue(std::string_view text);

}  // namespace morvane
