#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "messages/DeviceConfiguration.h"

namespace morvane {
class JSONObjectReader;
}

namespace morvane::provider {

/// What the agent may hand over with `updateConfigWithConfig:completionHandler:`: the
/// device's identity, the location tag, the policy's resolvers and the device configuration.
/// All four keys are required; the provider only ever decodes it.
struct NetworkExtConfig {
    std::string UDDID;
    std::string locationKey;
    std::vector<std::string> resolvers;
    DeviceConfiguration deviceConfig;

    static NetworkExtConfig readFields(JSONObjectReader& in);
    /// Nothing, with the reason in `error`, unless the text is such a record.
    static std::optional<NetworkExtConfig> decode(std::string_view text, std::string& error);
};

}  // namespace morvane::provider
