#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "provider/Endpoint.h"
#include "provider/Policy.h"
#include "provider/QueryReader.h"

namespace morvane::provider {

/// Where one kind of query goes.
struct Route {
    std::string description;  // for log lines: "default", "domain corp.example", ...
    std::vector<Endpoint> resolvers;
    bool identity = false;        // the default resolvers: queries carry the device's identity
    bool networkServers = false;  // a matching rule without resolvers: the network's own servers
};

/// A policy made ready for the hot path: rule domains in lower-case wire form in a hash table,
/// so that a name is matched by looking up each of its suffixes at label boundaries, and rule
/// networks as integer ranges.
class Router {
public:
    /// No policy: every query takes the default route, which has no resolvers.
    Router();
    /// Parts of the policy that cannot be used (a domain or network that does not read, a
    /// resolver that is no address) are left out, each with a line in `problems`.
    Router(const Policy& policy, std::vector<std::string>& problems);

    /// The most specific domain rule; else, for an in-addr.arpa name, the smallest rule
    /// network holding the whole block the name stands for; else the default route.
    const Route& route(const ClientQuery& query) const;
    const std::vector<std::uint8_t>& identity() const { return identity_; }

    /// "corp.Example.com." -> lower-case wire form; absent text when it is not a usable name.
    static bool domainToWire(std::string_view domain, std::string& wire);

private:
    struct Network {
        std::uint32_t low = 0;
        std::uint32_t high = 0;
        std::size_t route = 0;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };
    const Route* reverseRoute(const ClientQuery& query) const;

    std::vector<Route> routes_;  // the first is the default route
    std::unordered_map<std::string, std::size_t, Hash, std::equal_to<>> domains_;
    std::vector<Network> networks_;
    std::vector<std::uint8_t> identity_;
};

}  // namespace morvane::provider
