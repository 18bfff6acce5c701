#pragma once

#include <functional>
#include <memory>

#include "provider/ServiceLog.h"
#include "sysdns/DnsSwitch.h"

namespace morvane::provider {

/// Chooses the mechanism that makes the provider the machine's resolver, logging its trail
/// of decisions. None: the machine is not switched, and the provider says so.
using DnsSwitchFactory = std::function<std::unique_ptr<sysdns::DnsSwitch>(ServiceLog&)>;

/// The program's choice. No mechanism is built into this program yet, so it gives none and
/// logs why: the proxy then serves only the clients that ask it directly.
DnsSwitchFactory defaultDnsSwitchFactory();

}  // namespace morvane::provider
