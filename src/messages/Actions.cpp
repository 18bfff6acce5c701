#include "messages/Actions.h"

#include "messages/JSONCoding.h"

namespace morvane {

MigrateToANewRPCServer MigrateToANewRPCServer::readFields(JSONObjectReader& in) {
    return {.key = in.optional<std::string>("key"),
            .location = in.optional<Location>("location"),
            .rpc = in.optional<std::string>("rpc")};
}

void MigrateToANewRPCServer::writeFields(JSONWriter& out) const {
    out.field("key", key);
    out.field("location", location);
    out.field("rpc", rpc);
}

Upgrade Upgrade::readFields(JSONObjectReader& in) {
    return {.args = in.optional<std::string>("args"),
            .url = in.optional<std::string>("url"),
            .version = in.optional<std::string>("version")};
}

void Upgrade::writeFields(JSONWriter& out) const {
    out.field("args", args);
    out.field("url", url);
    out.field("version", version);
}

Actions Actions::readFields(JSONObjectReader& in) {
    return {.disable = in.optional<bool>("disable"),
            .move = in.optional<MigrateToANewRPCServer>("move"),
            .shutdown = in.optional<bool>("shutdown"),
            .uninstall = in.optional<bool>("uninstall"),
            .upgrade = in.optional<Upgrade>("upgrade")};
}

void Actions::writeFields(JSONWriter& out) const {
    out.field("disable", disable);
    out.field("move", move);
    out.field("shutdown", shutdown);
    out.field("uninstall", uninstall);
    out.field("upgrade", upgrade);
}

}  // namespace morvane
