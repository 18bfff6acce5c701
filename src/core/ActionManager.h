#pragma once

#include <optional>
#include <string>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "messages/Actions.h"
#include "messages/DeviceConfiguration.h"

namespace morvane {

/// A marker for what the server may ask of the agent; it asks nothing of its adopters.
struct ActionProtocol {};

/// Where a configuration with the server's one-shot orders is received. This build takes
/// the orders in only to show them in the log: none of them is carried out, so a policy that
/// asks to disable, move, shut down, uninstall or upgrade the agent leaves it running as
/// before. Versions whose numbering the orders were not written for refuse them whole.
class ActionManager {
public:
    /// Gated on this build's own version.
    explicit ActionManager(std::optional<DeviceConfiguration> configuration,
                           std::optional<bool> isShutdown = std::nullopt);
    /// Gated on the given version text, as if this build carried it.
    ActionManager(std::optional<DeviceConfiguration> configuration, std::optional<bool> isShutdown,
                  const std::optional<std::string>& versionText);

    /// Whether a build of this version text takes the orders in. Absent text, or text without
    /// a leading number, is refused.
    static bool handlesVersion(const std::optional<std::string>& versionText);

    std::optional<DeviceConfiguration> deviceConfiguration;
    std::optional<bool> isShutdown;
    bool notHandledInThisVersion = false;
    Injected<TarnLogger> logger;
};

/// The one-line text of the orders, as the change observer logs it.
std::string description(const Actions& actions);

}  // namespace morvane
