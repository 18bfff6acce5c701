#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/HelperDefaults.h"
#include "sysdns/NetworkServices.h"

namespace morvane {

/// Changes the DNS servers of the machine's network services (NetworkManager connections or
/// systemd-resolved links, through `sysdns::NetworkServices`), with a backup of what each
/// service had before its first change, and puts them back. The backups are entries of the
/// helper's defaults keyed "TarnDNSModifier:Backup/Network/Service/<identifier>/IPv4", holding
/// the service's DNS configuration as {"ServerAddresses": [...], "SearchDomains": [...]}; they
/// survive restarts. Nothing is kept in memory between calls.
class DNSModifyHelper {
public:
    using ServiceBlock = std::function<bool(const sysdns::NetworkService&)>;

    explicit DNSModifyHelper(std::shared_ptr<sysdns::NetworkServices> services,
                             HelperDefaults defaults = HelperDefaults());

    /// Every service of the set in force; true only when every one of them said true.
    bool setResolvers(const std::optional<std::vector<std::string>>& addresses);
    bool rollbackResolvers();
    /// The given services only; unknown identifiers are skipped and do not change the result.
    bool setResolversForServices(const std::optional<std::vector<std::string>>& addresses,
                                 const std::vector<std::string>& networkServices);
    bool rollbackResolversForServices(const std::vector<std::string>& networkServices);

    /// Empties systemd-resolved's cache where it runs and the proxy's cache through its control
    /// socket; true whatever they said, the detail is in the helper log.
    static bool flushDNS();
    void forceDHCPUpdate();

    static bool dnsSupportForNetworkService(const sysdns::NetworkService& service);
    /// `addresses` count only with at least one entry; anything else is a return to DHCP.
    bool setResolversTo(const std::optional<std::vector<std::string>>& addresses,
                        const sysdns::NetworkService& service, bool backupDNS);
    /// Always true: a service without backup is left alone.
    bool rollbackResolversFor(const sysdns::NetworkService& service);
    bool applyToNetworkServices(const ServiceBlock& block, bool commit);
    bool applyToPartNetworkServices(const ServiceBlock& block,
                                    const std::vector<std::string>& networkServices, bool commit);
    void touchDynamicStore();

    static std::string backupKey(const std::string& identifier);

    /// Told "CONFIGURATION_CHANGED" after the all-services operations, as the process's
    /// in-process notification.
    std::function<void(const std::string& name)> notificationObserver;

private:
    void post(const std::string& name);

    std::shared_ptr<sysdns::NetworkServices> services_;
    HelperDefaults defaults_;
};

}  // namespace morvane
