#include "messages/NetworkExtConfig.h"

#include "messages/JSONCoding.h"

namespace morvane {

NetworkExtConfig NetworkExtConfig::readFields(JSONObjectReader& in) {
    NetworkExtConfig config;
    config.UDDID = in.required<std::string>("UDDID");
    config.deviceConfig = in.required<DeviceConfiguration>("deviceConfig");
    config.locationKey = in.required<std::string>("locationKey");
    config.resolvers = in.required<std::vector<std::string>>("resolvers");
    return config;
}

void NetworkExtConfig::writeFields(JSONWriter& out) const {
    out.field("UDDID", UDDID);
    out.field("deviceConfig", deviceConfig);
    out.field("locationKey", locationKey);
    out.field("resolvers", resolvers);
}

std::optional<NetworkExtConfig> NetworkExtConfig::decode(std::string_view text,
                                                         std::string& error) {
    return decodeJSON<NetworkExtConfig>(text, &error);
}

}  // namespace morvane
