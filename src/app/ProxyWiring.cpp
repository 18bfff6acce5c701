#include "app/ProxyWiring.h"

#include <mutex>

#include "core/Dependencies.h"
#include "core/TestData.h"
#include "dns/DNSResolver.h"
#include "watch/NetworkCheck.h"
#include "watch/VPNMonitor.h"

namespace morvane {

std::shared_ptr<NetworkExtensionManager> sharedProxyManager() {
    static std::once_flag wired;
    auto manager = NetworkExtensionManager::shared();
    std::call_once(wired, [&manager] {
        NetworkQuestions questions;
        questions.pathIsSatisfied = [] {
            auto check = Dependencies::shared()->resolve<NetworkCheck>();
            return check && check->monitor &&
                   check->monitor->currentPath().status == platform::NetworkPath::Status::satisfied;
        };
        questions.isVPNRunning = [] { return Dependencies::shared()->resolve<VPNMonitor>()->isVPNRunning(); };
        questions.getDNSAddresses = [] { return dns::DNSResolver::create()->getDNSAddresses(); };
        questions.testForwardingRules = [] { return Dependencies::shared()->resolve<TestData>()->testForwardingRules; };
        questions.localIPv4Address = [] { return Dependencies::shared()->resolve<NetworkCheck>()->localIPv4Address(); };
        manager->networkQuestions = std::move(questions);
    });
    return manager;
}

}  // namespace morvane
