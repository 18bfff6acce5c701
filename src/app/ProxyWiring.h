#pragma once

#include <memory>

#include "proxy/NetworkExtensionManager.h"

namespace morvane {

/// The shared DNS proxy manager, with its questions about the world answered by the network
/// watch, the VPN monitor, the resolver and the local test rules. Everything in the agent that
/// drives the proxy takes it from here, so the questions are wired before the first is asked.
std::shared_ptr<NetworkExtensionManager> sharedProxyManager();

}  // namespace morvane
