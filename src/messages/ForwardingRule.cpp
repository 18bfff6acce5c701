#include "messages/ForwardingRule.h"

#include "messages/JSONCoding.h"

namespace morvane {

ForwardingRule ForwardingRule::readFields(JSONObjectReader& in) {
    return {.domain = in.optional<std::string>("domain"),
            .resolvers = in.optional<std::vector<std::string>>("resolvers"),
            .rule = in.optional<std::string>("rule")};
}

void ForwardingRule::writeFields(JSONWriter& out) const {
    out.field("domain", domain);
    out.field("resolvers", resolvers);
    out.field("rule", rule);
}

}  // namespace morvane
