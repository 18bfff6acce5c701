#pragma once

#include <string>

namespace morvane {

/// The service's plain-http hosts that are values of the deployment, not of the policy: an
/// environment variable wins, else the value given to CMake when the agent was built.
struct ServiceHosts {
    /// The connectivity probe's status page: MORVANECLOUD_NCSI_HOST, else MORVANE_NCSI_HOST.
    static std::string ncsiHost();
    /// The public address echo endpoint ("host" or "host:port"): MORVANECLOUD_ECHO_HOST, else
    /// MORVANE_ECHO_HOST. Empty when neither is set: the echo route then fails with a line in
    /// the system log.
    static std::string echoHost();
};

}  // namespace morvane
