#pragma once

#include <optional>
#include <string>
#include <vector>

struct sd_bus_message;

namespace morvane::sysdns {

/// The DNS part of a NetworkManager connection that the switch and the services write.
struct DnsOverride {
    /// IPv4 ones go to ipv4.dns, IPv6 ones to ipv6.dns.
    std::vector<std::string> servers;
    bool ignoreAutoDns = false;
    /// Replaces ipv4.dns-search when set; kept as it is otherwise.
    std::optional<std::vector<std::string>> searches;
    /// Replaces ipv4/ipv6.dns-priority when set; kept as it is otherwise.
    std::optional<int> priority;
};

/// Copies a connection's settings (a{sa{sv}}, the reader standing before it) into `to`, with
/// the DNS keys of ipv4 and ipv6 replaced. Everything else passes unchanged.
bool copyConnectionWithDns(sd_bus_message* from, sd_bus_message* to, const DnsOverride& dns);

/// What services read of a connection's settings (a{sa{sv}}, the reader standing before it).
struct ConnectionSummary {
    std::string uuid;
    std::string id;
    std::string type;
    std::string interface;
    std::string ipv4Method;
    std::string ipv6Method;
    std::vector<std::string> servers;
    std::vector<std::string> searches;
};
bool readConnection(sd_bus_message* from, ConnectionSummary& summary);

}  // namespace morvane::sysdns
