#pragma once

#include <optional>
#include <string>
#include <vector>

namespace morvane {

class JSONObjectReader;
class JSONWriter;

/// One entry of the policy's "filters". The client never evaluates a rule: it collects the
/// resolvers and hands the rules on to the DNS proxy, which matches them against traffic.
struct ForwardingRule {
    std::optional<std::string> domain{};
    std::optional<std::vector<std::string>> resolvers{};  // IP addresses of DNS servers
    std::optional<std::string> rule{};                    // an IP address or a CIDR block

    static ForwardingRule readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const ForwardingRule&) const = default;
};

}  // namespace morvane
