#include "provider/DnsSwitchFactory.h"

#include "sysdns/SystemSwitch.h"

namespace morvane::provider {

DnsSwitchFactory defaultDnsSwitchFactory() {
    return [](ServiceLog& log) -> std::unique_ptr<sysdns::DnsSwitch> {
        auto environment = sysdns::SwitchEnvironment::system();
        environment.log = [&log](const std::string& line) { log.info(line); };
        return sysdns::makeSystemSwitch(environment);
    };
}

}  // namespace morvane::provider
