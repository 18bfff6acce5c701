#include "messages/DeviceRequestModel.h"

#include "messages/JSONCoding.h"

namespace morvane {

Device Device::readFields(JSONObjectReader& in) {
    return {.key = in.required<std::string>("key"), .version = in.optional<std::string>("version")};
}

void Device::writeFields(JSONWriter& out) const {
    out.field("key", key);
    out.field("version", version);
}

NIC NIC::readFields(JSONObjectReader& in) {
    return {.nicDescription = in.required<std::string>("description"),
            .enabled = in.optional<bool>("enabled"),
            .ipv4 = in.optional<std::string>("ipv4"),
            .ipv6 = in.optional<std::string>("ipv6")};
}

void NIC::writeFields(JSONWriter& out) const {
    out.field("description", nicDescription);
    out.field("enabled", enabled);
    out.field("ipv4", ipv4);
    out.field("ipv6", ipv6);
}

OperatingSystemInfo OperatingSystemInfo::readFields(JSONObjectReader& in) {
    return {.type = in.required<std::string>("type"),
            .version = in.required<std::string>("version")};
}

void OperatingSystemInfo::writeFields(JSONWriter& out) const {
    out.field("type", type);
    out.field("version", version);
}

PublicIP PublicIP::readFields(JSONObjectReader& in) {
    return {.ipv4 = in.optional<std::string>("ipv4"), .ipv6 = in.optional<std::string>("ipv6")};
}

void PublicIP::writeFields(JSONWriter& out) const {
    out.field("ipv4", ipv4);
    out.field("ipv6", ipv6);
}

Extra Extra::readFields(JSONObjectReader& in) {
    return {.nics = in.required<std::vector<NIC>>("nics"),
            .os = in.required<OperatingSystemInfo>("os"),
            .publicIP = in.optional<PublicIP>("public_ip")};
}

void Extra::writeFields(JSONWriter& out) const {
    out.field("nics", nics);
    out.field("os", os);
    out.field("public_ip", publicIP);
}

Location Location::readFields(JSONObjectReader& in) {
    return {.name = in.optional<std::string>("name"), .randomize = in.optional<bool>("randomize")};
}

void Location::writeFields(JSONWriter& out) const {
    out.field("name", name);
    out.field("randomize", randomize);
}

User User::readFields(JSONObjectReader& in) {
    return {.email = in.required<std::string>("email"),
            .name = in.optional<std::string>("name"),
            .uuid = in.optional<std::string>("uuid")};
}

void User::writeFields(JSONWriter& out) const {
    out.field("email", email);
    out.field("name", name);
    out.field("uuid", uuid);
}

ConfigParams ConfigParams::readFields(JSONObjectReader& in) {
    return {.device = in.required<Device>("device"),
            .extra = in.optional<Extra>("extra"),
            .location = in.optional<Location>("location"),
            .user = in.optional<User>("user")};
}

void ConfigParams::writeFields(JSONWriter& out) const {
    out.field("device", device);
    out.field("extra", extra);
    out.field("location", location);
    out.field("user", user);
}

DeviceRequestModel DeviceRequestModel::readFields(JSONObjectReader& in) {
    return {.jsonrpc = in.required<std::string>("jsonrpc"),
            .method = in.required<std::string>("method"),
            .params = in.required<ConfigParams>("params")};
}

void DeviceRequestModel::writeFields(JSONWriter& out) const {
    out.field("jsonrpc", jsonrpc);
    out.field("method", method);
    out.field("params", params);
}

}  // namespace morvane
