#pragma once

#include <optional>
#include <string>
#include <vector>

#include "messages/DeviceConfiguration.h"

namespace morvane {

class JSONObjectReader;
class JSONWriter;

/// What the DNS proxy is to work with: the device's identity, the location in force, the
/// resolvers of every forwarding rule and the whole policy. Every key is required.
struct NetworkExtConfig {
    std::string UDDID;  // two D's: the device's identity as the provider reads it
    std::string locationKey;
    std::vector<std::string> resolvers;
    DeviceConfiguration deviceConfig;

    static NetworkExtConfig readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const NetworkExtConfig&) const = default;
};

}  // namespace morvane
