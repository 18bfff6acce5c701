#pragma once

#include <string>
#include <vector>

namespace morvane::sysdns {

/// The lines of a resolv.conf(5) file that matter to the switch.
struct ResolvConf {
    std::vector<std::string> nameservers;
    /// "search", "domain" and "options" lines as they were, to be kept in a file we write.
    std::vector<std::string> keptLines;
    /// The header NetworkManager writes is there.
    bool generatedByNetworkManager = false;

    static ResolvConf parse(const std::string& text);
};

/// Whether the address is a local stub that forwards elsewhere (systemd-resolved's), so that
/// it never counts as one of the network's own servers.
bool isStubAddress(const std::string& address);

/// The servers worth remembering as the network's own: not the proxy, not a stub, no repeats.
std::vector<std::string> networkServers(const std::vector<std::string>& candidates,
                                        const std::string& proxyAddress);

}  // namespace morvane::sysdns
