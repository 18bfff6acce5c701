#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "messages/DeviceConfiguration.h"
#include "provider/Policy.h"

namespace morvane::provider {

/// Builds the forwarder's policy from what the agent saved: the provider configuration
/// dictionary ("filters", "locationTag", "uuid", "localDNS", ...) and the server address,
/// with the shared device configuration filling in what the dictionary lacks.
class PolicyBuilder {
public:
    struct Result {
        Policy policy;
        /// "localDNS" of the dictionary: the servers the agent saw before any switch, the
        /// network's own servers when the switch has none to offer.
        std::vector<std::string> localDNS;
        /// Where each part came from, for the log.
        std::string source;
    };

    /// Nothing, with the reason in `error`, when the dictionary's keys have the wrong shape
    /// ("filters" not a list of {"filter": [...]} entries, texts that are not texts): such a
    /// configuration is refused as invalid rather than half applied.
    static std::optional<Result> build(const nlohmann::json& providerConfiguration,
                                       const std::optional<std::string>& serverAddress,
                                       const std::optional<DeviceConfiguration>& shared,
                                       std::string& error);

    /// The rules of a device configuration's "filters", in order.
    static std::vector<PolicyRule> rulesOf(const DeviceConfiguration& configuration);
};

}  // namespace morvane::provider
