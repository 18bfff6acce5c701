#include "provider/Router.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "ip/IPNetworkv4.h"
#include "provider/MessageWriter.h"

namespace morvane::provider {

namespace {

constexpr std::uint16_t kDnsPort = 53;
// "\7in-addr\4arpa\0"
constexpr std::uint8_t kInAddrArpa[] = {7,   'i', 'n', '-', 'a', 'd', 'd',
                                        'r', 4,   'a', 'r', 'p', 'a', 0};

std::vector<Endpoint> readResolvers(const std::vector<std::string>& texts, const std::string& where,
                                    std::vector<std::string>& problems) {
    std::vector<Endpoint> result;
    for (const auto& text : texts) {
        auto endpoint = Endpoint::parse(text, kDnsPort);
        if (!endpoint) {
            problems.push_back("Resolver \"" + text + "\" of " + where +
                               " is not an address; left out");
            continue;
        }
        if (std::find(result.begin(), result.end(), *endpoint) == result.end()) {
            result.push_back(std::move(*endpoint));
        }
    }
    return result;
}

}  // namespace

Router::Router() {
    routes_.push_back(Route{"default", {}, true, false});
}

bool Router::domainToWire(std::string_view domain, std::string& wire) {
    wire.clear();
    if (domain.size() >= 2 && domain.substr(0, 2) == "*.") {
        domain.remove_prefix(2);
    }
    if (!domain.empty() && domain.back() == '.') {
        domain.remove_suffix(1);
    }
    while (!domain.empty()) {
        const auto dot = domain.find('.');
        const auto label = domain.substr(0, dot);
        if (label.empty() || label.size() > 63) {
            return false;
        }
        wire.push_back(static_cast<char>(label.size()));
        for (char c : label) {
            wire.push_back((c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c);
        }
        if (dot == std::string_view::npos) {
            break;
        }
        domain.remove_prefix(dot + 1);
        if (domain.empty()) {
            return false;  // "a..": an empty label
        }
    }
    wire.push_back('\0');
    return wire.size() <= 255;
}

Router::Router(const Policy& policy, std::vector<std::string>& problems) {
    Route defaults{"default", {}, true, false};
    std::vector<std::string> defaultTexts = policy.defaultResolvers();
    defaults.resolvers = readResolvers(defaultTexts, "the default resolvers", problems);
    routes_.push_back(std::move(defaults));
    identity_ = identityOptions(policy.locationTag, policy.uuid);

    for (const auto& rule : policy.rules) {
        const bool hasDomain = rule.domain && !rule.domain->empty();
        const bool hasNetwork = rule.network && !rule.network->empty();
        if (!hasDomain && !hasNetwork) {
            continue;
        }
        Route route;
        route.description = hasDomain ? "domain " + *rule.domain : "network " + *rule.network;
        route.resolvers = readResolvers(rule.resolvers, "rule " + route.description, problems);
        route.networkServers = rule.resolvers.empty();
        if (!rule.resolvers.empty() && route.resolvers.empty()) {
            problems.push_back("Rule " + route.description + " has no usable resolver; left out");
            continue;
        }
        const std::size_t index = routes_.size();
        bool used = false;
        if (hasDomain) {
            std::string wire;
            if (!domainToWire(*rule.domain, wire)) {
                problems.push_back("Domain \"" + *rule.domain + "\" is not a name; left out");
            } else if (domains_.emplace(std::move(wire), index).second) {
                used = true;
            } else {
                problems.push_back("Domain \"" + *rule.domain +
                                   "\" has an earlier rule; the later one is left out");
            }
        }
        if (hasNetwork) {
            try {
                const ip::IPNetworkv4 network(*rule.network);
                if (network.count() > 0) {
                    networks_.push_back({network.networkAddress().integer(),
                                         network.broadcastAddress().integer(), index});
                    used = true;
                } else {
                    problems.push_back("Network \"" + *rule.network +
                                       "\" holds no address; left out");
                }
            } catch (const std::exception&) {
                problems.push_back("Network \"" + *rule.network + "\" is not a network; left out");
            }
        }
        if (used) {
            routes_.push_back(std::move(route));
        }
    }
}

const Route& Router::route(const ClientQuery& query) const {
    if (!domains_.empty()) {
        const char* name = reinterpret_cast<const char*>(query.lowerName.data());
        std::size_t offset = 0;
        while (offset < query.nameLength) {
            const std::string_view suffix(name + offset, query.nameLength - offset);
            if (const auto found = domains_.find(suffix); found != domains_.end()) {
                return routes_[found->second];
            }
            const std::uint8_t length = query.lowerName[offset];
            if (length == 0) {
                break;
            }
            offset += 1 + std::size_t{length};
        }
    }
    if (!networks_.empty()) {
        if (const Route* reverse = reverseRoute(query)) {
            return *reverse;
        }
    }
    return routes_.front();
}

const Route* Router::reverseRoute(const ClientQuery& query) const {
    constexpr std::size_t suffixLength = sizeof kInAddrArpa;
    if (query.nameLength < suffixLength ||
        std::memcmp(query.lowerName.data() + query.nameLength - suffixLength, kInAddrArpa,
                    suffixLength) != 0) {
        return nullptr;
    }
    // The labels before the suffix are the address's bytes, last byte first.
    std::uint8_t bytes[4] = {};
    std::size_t count = 0;
    std::size_t offset = 0;
    const std::size_t end = query.nameLength - suffixLength;
    while (offset < end) {
        const std::size_t length = query.lowerName[offset];
        if (count == 4 || length == 0 || length > 3 || offset + 1 + length > end) {
            return nullptr;
        }
        unsigned value = 0;
        for (std::size_t i = 0; i < length; ++i) {
            const std::uint8_t c = query.lowerName[offset + 1 + i];
            if (c < '0' || c > '9') {
                return nullptr;
            }
            value = value * 10 + (c - '0');
        }
        if (value > 255 || (length > 1 && query.lowerName[offset + 1] == '0')) {
            return nullptr;
        }
        bytes[count++] = static_cast<std::uint8_t>(value);
        offset += 1 + length;
    }
    std::uint32_t low = 0;
    for (std::size_t i = 0; i < count; ++i) {
        low |= std::uint32_t{bytes[count - 1 - i]} << (24 - 8 * i);
    }
    const std::uint32_t span =
        count == 0 ? 0xFFFFFFFFu : (count == 4 ? 0 : (std::uint32_t{1} << (32 - 8 * count)) - 1);
    const std::uint32_t high = low | span;
    const Network* best = nullptr;
    for (const auto& network : networks_) {
        if (network.low <= low && high <= network.high &&
            (best == nullptr || network.high - network.low < best->high - best->low)) {
            best = &network;
        }
    }
    return best == nullptr ? nullptr : &routes_[best->route];
}

}  // namespace morvane::provider
