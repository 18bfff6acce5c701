#pragma once

#include <optional>
#include <string>

namespace morvane {

/// What `morvanecloud --status` tells: the agent's standing as its files and the provider see
/// it. Collecting it reads and never writes: no setting, file or socket state changes.
struct StatusReport {
    bool enrolled = false;
    std::optional<std::string> deviceKey;
    std::optional<std::string> serverURL;
    bool hasPolicy = false;
    std::optional<std::string> locationTag;
    /// The provider's own answer to `status`, or why there is none.
    bool providerReachable = false;
    std::string providerProblem;
    bool proxyEnabled = false;
    std::string listening;
    std::string switchInForce;
    /// Whether a VPN client runs as the agent would judge it; none when it cannot be told.
    std::optional<bool> vpnRunning;
    std::string vpnNote;
    std::optional<std::string> externalIP;

    /// Reads the user's files and asks the provider's control socket.
    static StatusReport collect();
    /// The report as the command prints it.
    std::string text() const;
};

}  // namespace morvane
