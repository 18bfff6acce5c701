#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "helper/TarnHelperProxy.h"
#include "messages/DeviceConfiguration.h"

namespace morvane {

/// Where a local Unbound resolver's control tool and configuration would lie. Nothing runs,
/// configures or reads them: the filtering goes through the DNS proxy. The paths are the
/// product's own texts and name files of its bundle on the other platform; no operation on
/// them exists, so none was given a Linux place.
struct UnboundControl {
    std::string unboundPath = "/Applications/MorvaneCloud.app/Contents/MacOS/unbound-control";
    std::string unboundConfigPath =
        "/Applications/MorvaneCloud.app/Contents/Resources/unbound.conf";
};

/// The stateless helper of the local resolver controller.
class UnboundUtils {
public:
    Injected<TarnLogger> _logger;
};

/// The local resolver's place in the service container: the change observer declares it and
/// nothing calls it. Building one opens a helper client of its own, which registers the
/// agent's rights with the helper as every client does.
class UnboundControlManager {
public:
    UnboundControlManager();

    Injected<TarnLogger> _logger;
    std::shared_ptr<TarnHelperProxy> tarnhelperProxy;
    UnboundControl unbound;
    Injected<UnboundUtils> _unboundUtils;
    std::optional<DeviceConfiguration> config;
};

}  // namespace morvane
