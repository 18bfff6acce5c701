#pragma once

#include <memory>
#include <string>

#include "platform/HttpsClient.h"

namespace morvane {

/// The record of the connectivity probe: where a probe would look and which body proves
/// that the network reaches the outside. The agent performs no probe; the settings that tune
/// one travel to the provider inside the policy.
struct NCSICheck {
    /// "http://" + the probe host (see ServiceHosts) + "/".
    static std::string defaultStatusURL();

    /// The session of a probe; none until someone probes.
    std::shared_ptr<platform::HttpsClient> session;
    std::string statusURL = defaultStatusURL();
    std::string excpectedReply = "Connect_test_succeeded";
};

}  // namespace morvane
