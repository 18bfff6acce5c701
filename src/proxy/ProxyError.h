#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace morvane {

/// A failure reported by the platform's DNS proxy preferences or extension requests: what the
/// log lines and the state machine read of it. It travels on the wire as
/// `{"domain": ..., "code": ..., "description": ...}`; whatever else the object holds is kept
/// as its user information.
struct ProxyError {
    std::string domain;
    long long code = 0;
    /// The human text of the failure.
    std::string localizedDescription;
    nlohmann::json userInfo = nlohmann::json::object();

    /// "Error Domain=<domain> Code=<code> "<text>"": the error's full description.
    std::string description() const;
    /// The user information as compact JSON text ("{}" when there is none).
    std::string userInfoText() const;

    /// Reads the wire form; nothing when it lacks a domain or an integer code.
    static std::optional<ProxyError> fromJson(const nlohmann::json& object);
    nlohmann::json toJson() const;
};

/// Domains of the failures this side raises itself.
namespace proxy_error {
/// The proxy's control socket or the provider link could not be reached.
inline constexpr const char* kConnectionDomain = "MorvaneCloud.ProviderConnection";
/// The extension requests: the codes follow the system extension framework's numbering.
inline constexpr const char* kExtensionDomain = "OSSystemExtensionErrorDomain";
inline constexpr long long kUnknown = 1;
inline constexpr long long kExtensionNotFound = 4;
inline constexpr long long kRequestCanceled = 11;
inline constexpr long long kAuthorizationRequired = 13;
}  // namespace proxy_error

}  // namespace morvane
