#pragma once

#include <nlohmann/json.hpp>

namespace morvane::provider {

// The errors the agent receives from the control socket, in the domains and with the codes
// the agent's proxy control acts on: removal code 4 makes it fall back to disabling, save code
// 10 counts as the user refusing, any other code as a failed installation.

/// The DNS proxy manager's own domain and its codes.
inline constexpr const char* kDnsProxyErrorDomain = "NEDNSProxyErrorDomain";
inline constexpr int kConfigurationInvalid = 1;
inline constexpr int kConfigurationDisabled = 2;
inline constexpr int kConfigurationStale = 3;
inline constexpr int kConfigurationCannotBeRemoved = 4;

/// The configuration store's domain: a save or removal refused for this caller, or one that
/// could not be written.
inline constexpr const char* kConfigurationErrorDomain = "NEConfigurationErrorDomain";
inline constexpr int kConfigurationPermissionDenied = 10;
inline constexpr int kConfigurationWriteFailed = 11;

/// Errors of the provider itself, sent up the provider link.
inline constexpr const char* kPosixErrorDomain = "NSPOSIXErrorDomain";

/// The stop reasons the provider reports with `proxyStoppedWithReason:`.
enum class StopReason : int {
    None = 0,
    UserInitiated = 1,
    ProviderFailed = 2,
    ConfigurationDisabled = 9,
    ConfigurationRemoved = 10,
};

}  // namespace morvane::provider
