#include "provider/NetworkExtConfig.h"

#include "messages/JSONCoding.h"

namespace morvane::provider {

NetworkExtConfig NetworkExtConfig::readFields(JSONObjectReader& in) {
    NetworkExtConfig config;
    config.UDDID = in.required<std::string>("UDDID");
    config.deviceConfig = in.required<DeviceConfiguration>("deviceConfig");
    config.locationKey = in.required<std::string>("locationKey");
    config.resolvers = in.required<std::vector<std::string>>("resolvers");
    return config;
}

std::optional<NetworkExtConfig> NetworkExtConfig::decode(std::string_view text,
                                                         std::string& error) {
    return decodeJSON<NetworkExtConfig>(text, &error);
}

}  // namespace morvane::provider
