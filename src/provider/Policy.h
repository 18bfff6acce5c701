#pragma once

#include <optional>
#include <string>
#include <vector>

namespace morvane::provider {

/// One forwarding rule of the device's policy as the forwarder applies it.
///
/// A resolver is an address with an optional port: "9.9.9.9", "2620:fe::fe", "127.0.0.1:5353"
/// or "[::1]:5353"; without a port it is 53. Texts that read as none of these are left out
/// of the rule (and said so in the log) rather than failing the whole policy.
struct PolicyRule {
    /// A query for this name or any name below it (label boundary, letters in any case) takes
    /// this rule; the most specific domain of the policy wins. An empty text counts as absent.
    std::optional<std::string> domain;
    /// An IPv4 address, CIDR block or range ("10.0.0.0/8", "10.1.1.1-10.1.1.9") as
    /// `ip::IPNetworkv4` reads it: a reverse query (in-addr.arpa) for an address inside it
    /// takes this rule. A text that does not read is left out, with a log line.
    std::optional<std::string> network;
    /// Where the rule's queries go, raced in this order. Empty: the network's own servers
    /// (see `Forwarder::setNetworkServers`).
    std::vector<std::string> resolvers;

    friend bool operator==(const PolicyRule&, const PolicyRule&) = default;
};

/// The policy of the forwarder: where each query goes and who the device is.
///
/// Queries that no rule with a `domain` or `network` takes go to the default resolvers: the
/// resolvers of the rules that have neither, in order; with none, `serverAddress`; with no
/// server address either, such queries are answered SERVFAIL. Only queries to the default
/// resolvers carry the identity (EDNS options 65073 `locationTag` and 65074 `uuid`, UTF-8;
/// an empty text sends no option).
struct Policy {
    std::vector<PolicyRule> rules;
    std::optional<std::string> serverAddress;
    std::string locationTag;
    std::string uuid;

    /// The default resolvers as described above, in order, each address once.
    std::vector<std::string> defaultResolvers() const;

    friend bool operator==(const Policy&, const Policy&) = default;
};

}  // namespace morvane::provider
