#pragma once

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace morvane::provider {

/// The stored proxy configuration: what the agent saves over the control socket, and the uid
/// that saved it first (the owner, who with root alone may load, save and remove it).
struct ProxyConfiguration {
    bool enabled = false;
    std::optional<std::string> serverAddress;
    std::string providerBundleIdentifier;
    /// The provider configuration dictionary, kept as the agent sent it.
    nlohmann::json providerConfiguration = nlohmann::json::object();
    std::string localizedDescription;
    uid_t ownerUid = 0;

    /// Reads the arguments of a `save`: "enabled" (boolean), "providerBundleIdentifier"
    /// (text), "providerConfiguration" (object) are required; "serverAddress" (text) may be
    /// absent or null; "localizedDescription" (text) may be absent. Wrong types fail it, with
    /// the reason in `error`. The owner is not read from the wire.
    static std::optional<ProxyConfiguration> fromArguments(const nlohmann::json& arguments,
                                                           std::string& error);
    /// The form `load` replies with: the saved keys, no owner.
    nlohmann::json toArguments() const;

    /// The stored file's form: the saved keys and "ownerUid".
    static std::optional<ProxyConfiguration> fromStored(const nlohmann::json& stored,
                                                        std::string& error);
    nlohmann::json toStored() const;

    friend bool operator==(const ProxyConfiguration&, const ProxyConfiguration&) = default;
};

}  // namespace morvane::provider
