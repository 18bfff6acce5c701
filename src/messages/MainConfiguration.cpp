#include "messages/MainConfiguration.h"

#include "messages/JSONCoding.h"

namespace morvane {

DCResult DCResult::readFields(JSONObjectReader& in) {
    return {.device = in.required<std::string>("device"),
            .name = in.required<std::string>("name"),
            .type = in.required<std::string>("type")};
}

void DCResult::writeFields(JSONWriter& out) const {
    out.field("device", device);
    out.field("name", name);
    out.field("type", type);
}

MainConfiguration MainConfiguration::readFields(JSONObjectReader& in) {
    return {.error = in.optional<DeviceError>("error"),
            .id = in.optional<std::int64_t>("id"),
            .jsonrpc = in.required<std::string>("jsonrpc"),
            .result = in.optional<DCResult>("result")};
}

void MainConfiguration::writeFields(JSONWriter& out) const {
    out.field("error", error);
    out.field("id", id);
    out.field("jsonrpc", jsonrpc);
    out.field("result", result);
}

}  // namespace morvane
