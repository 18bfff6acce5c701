#include "sysdns/NetworkServices.h"

#include "sys/SystemPaths.h"
#include "sysdns/NetworkManagerServices.h"
#include "sysdns/ResolvedServices.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

std::shared_ptr<NetworkServices> makeNetworkServices(
    const std::function<void(const std::string&)>& log, std::string& error) {
    const auto lockFile = sys::systemPath("/run/morvanecloud/network-services.lock");
    const auto timeout = std::chrono::seconds(5);
    const auto bus = SystemBus::open(timeout, error);
    if (!bus) {
        return nullptr;
    }
    if (bus->nameHasOwner("org.freedesktop.NetworkManager")) {
        NetworkManagerServices::Options options;
        options.lockFile = lockFile;
        options.busTimeout = timeout;
        options.log = log;
        return std::make_shared<NetworkManagerServices>(options);
    }
    if (bus->nameHasOwner("org.freedesktop.resolve1")) {
        ResolvedServices::Options options;
        options.lockFile = lockFile;
        options.busTimeout = timeout;
        options.log = log;
        return std::make_shared<ResolvedServices>(options);
    }
    error = "Neither NetworkManager nor systemd-resolved answers on the system bus";
    return nullptr;
}

}  // namespace morvane::sysdns
