#include "provider/DnsSwitchFactory.h"

namespace morvane::provider {

DnsSwitchFactory defaultDnsSwitchFactory() {
    return [](ServiceLog& log) -> std::unique_ptr<sysdns::DnsSwitch> {
        log.warning(
            "No system DNS switch is built into this program: the machine's DNS is not "
            "switched to the proxy");
        return nullptr;
    };
}

}  // namespace morvane::provider
