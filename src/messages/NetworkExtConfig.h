#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "messages/DeviceConfiguration.h"

namespace morvane {

class JSONObjectReader;
class JSONWriter;

/// What the DNS proxy is to work with: the device's identity, the location in force, the
/// resolvers of every forwarding rule and the whole policy. The agent writes it, the provider
/// reads it from `updateConfigWithConfig:completionHandler:`. Every key is required.
struct NetworkExtConfig {
    std::string UDDID;  // two D's: the device's identity as the provider reads it
    std::string locationKey;
    std::vector<std::string> resolvers;
    DeviceConfiguration deviceConfig;

    static NetworkExtConfig readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    /// Nothing, with the reason in `error`, unless the text is such a record.
    static std::optional<NetworkExtConfig> decode(std::string_view text, std::string& error);
    bool operator==(const NetworkExtConfig&) const = default;
};

}  // namespace morvane
