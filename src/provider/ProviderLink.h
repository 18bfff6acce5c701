#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "messages/NetworkExtConfig.h"
#include "provider/ProviderErrors.h"
#include "provider/ServiceLog.h"

namespace morvane::provider {

/// The provider's end of the provider link, apart from the socket: it answers `register:` and
/// `updateConfigWithConfig:completionHandler:`, follows the agent's connection (the latest one
/// accepted is the current one, as a new connection replaces the old), and sends the upward
/// calls `proxyStoppedWithReason:` and `connectionErrorWithReason:` to it.
class ProviderLink {
public:
    /// Sends an upward call (no reply) to one connection; false when it is gone.
    using Send = std::function<bool(std::uint64_t connection, const std::string& message,
                                    const nlohmann::json& arguments)>;
    /// Where the link's standard output lines go (the process's standard output by default).
    using Print = std::function<void(const std::string&)>;

    ProviderLink(std::optional<std::string> displayName, ServiceLog& log, Send send,
                 Print print = {});

    /// "Tarn DNS Proxy", or "unknown" when the bundle has no display name or an empty one.
    const std::string& name() const { return name_; }

    void connectionOpened(std::uint64_t connection);
    void connectionClosed(std::uint64_t connection);

    /// The reply object of a request; none for a selector the link does not know.
    std::optional<nlohmann::json> handle(std::uint64_t connection, const std::string& selector,
                                         const nlohmann::json& arguments);

    /// Tells the agent that the proxy stopped; false when no agent is connected.
    bool proxyStopped(StopReason reason);
    /// Tells the agent that the provider lost its way to the resolvers.
    bool connectionError(const nlohmann::json& error);

    std::optional<NetworkExtConfig> networkConfig() const;
    std::optional<std::uint64_t> currentConnection() const;

private:
    bool sendUp(const std::string& message, const nlohmann::json& arguments);

    std::string name_;
    ServiceLog& log_;
    Send send_;
    Print print_;
    mutable std::mutex mutex_;
    std::optional<std::uint64_t> currentConnection_;
    std::optional<NetworkExtConfig> networkConfig_;
};

}  // namespace morvane::provider
