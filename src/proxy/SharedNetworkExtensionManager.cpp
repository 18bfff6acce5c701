// The process-wide manager on this machine's platform. Kept apart from the state machine so
// that its tests link without the Linux ends.

#include <cstdlib>
#include <string>

#include "proxy/ChildProcessActivation.h"
#include "proxy/ControlSocketPreferences.h"
#include "proxy/IPCConnection.h"
#include "proxy/NetworkExtensionManager.h"
#include "proxy/SystemdActivation.h"

namespace morvane {

namespace {

/// systemd where it runs this machine; a child process elsewhere.
/// $MORVANECLOUD_DNSPROXY_ACTIVATION ("systemd" or "child") overrides the choice, for a
/// system bus of a test's own or a demo.
std::shared_ptr<ExtensionActivation> chooseActivation() {
    const char* forced = std::getenv("MORVANECLOUD_DNSPROXY_ACTIVATION");
    const std::string choice = forced != nullptr ? forced : "";
    if (choice == "systemd" || (choice != "child" && SystemdActivation::available())) {
        return std::make_shared<SystemdActivation>();
    }
    return std::make_shared<ChildProcessActivation>(ChildProcessActivation::defaultOptions());
}

}  // namespace

std::shared_ptr<NetworkExtensionManager> NetworkExtensionManager::shared() {
    static const auto instance = [] {
        auto activation = chooseActivation();
        Platform platform{
            std::make_shared<ControlSocketPreferences>(), activation, IPCConnection::shared(),
            [] { return ExtensionBundle::find(ExtensionBundle::extensionsDirectory()); }};
        auto manager = std::make_shared<NetworkExtensionManager>(std::move(platform));
        manager->log.info("TarnNetExtMgr: the DNS proxy is activated through " +
                          activation->name());
        manager->logApp("DNS proxy activation: " + activation->name(), LogLevel::production);
        return manager;
    }();
    return instance;
}

}  // namespace morvane
