#include "helper/DNSModifyHelper.h"

#include <nlohmann/json.hpp>

#include "helper/ResolverCache.h"
#include "helper/TarnLogHelper.h"

namespace morvane {

namespace {

constexpr const char* kServerAddresses = "ServerAddresses";
constexpr const char* kSearchDomains = "SearchDomains";

void log(const std::string& line) {
    TarnLogHelper::sharedInstance()->log(line);
}

nlohmann::json toDictionary(const sysdns::DnsConfiguration& configuration) {
    nlohmann::json dictionary = nlohmann::json::object();
    dictionary[kServerAddresses] = configuration.serverAddresses;
    if (!configuration.searchDomains.empty()) {
        dictionary[kSearchDomains] = configuration.searchDomains;
    }
    return dictionary;
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) {
        out += (out.empty() ? "" : ", ") + item;
    }
    return out;
}

/// The server list of a stored backup; none when it has none or it is no list of texts.
std::optional<std::vector<std::string>> storedAddresses(const nlohmann::json& backup) {
    const auto found = backup.find(kServerAddresses);
    if (!backup.is_object() || found == backup.end() || !found->is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> addresses;
    for (const auto& item : *found) {
        if (!item.is_string()) {
            return std::nullopt;
        }
        addresses.push_back(item.get<std::string>());
    }
    return addresses;
}

/// Exclusive use of the preferences while the services are walked.
class PreferencesLock {
public:
    explicit PreferencesLock(sysdns::NetworkServices& services) : services_(services) {
        services_.lock();
    }
    ~PreferencesLock() { services_.unlock(); }
    PreferencesLock(const PreferencesLock&) = delete;
    PreferencesLock& operator=(const PreferencesLock&) = delete;

private:
    sysdns::NetworkServices& services_;
};

}  // namespace

DNSModifyHelper::DNSModifyHelper(std::shared_ptr<sysdns::NetworkServices> services,
                                 HelperDefaults defaults)
    : services_(std::move(services)), defaults_(std::move(defaults)) {}

std::string DNSModifyHelper::backupKey(const std::string& identifier) {
    return "TarnDNSModifier:Backup/Network/Service/" + identifier + "/IPv4";
}

bool DNSModifyHelper::dnsSupportForNetworkService(const sysdns::NetworkService& service) {
    return service.enabled && service.hasInterface && service.interfaceCarriesDns;
}

bool DNSModifyHelper::setResolversTo(const std::optional<std::vector<std::string>>& addresses,
                                     const sysdns::NetworkService& service, bool backupDNS) {
    if (!dnsSupportForNetworkService(service)) {
        return false;
    }
    if (!service.dnsEnabled) {
        log(service.name + " is disabled");
        return false;
    }
    const bool toDHCP = !addresses || addresses->empty();

    nlohmann::json backupCandidate;
    std::optional<sysdns::DnsConfiguration> newConfiguration;
    if (const auto existing = services_->dnsConfiguration(service.identifier)) {
        backupCandidate = toDictionary(*existing);
        log(service.name + " had an existing configuration");
        if (!toDHCP) {
            newConfiguration = *existing;
            newConfiguration->serverAddresses = *addresses;
        }
    } else {
        backupCandidate = {{kServerAddresses, nlohmann::json::array()}};
        log(service.name + " had no existing configuration");
        if (!toDHCP) {
            newConfiguration = sysdns::DnsConfiguration{*addresses, {}};
        }
    }

    if (backupDNS) {
        const std::string key = backupKey(service.identifier);
        if (const auto previous = defaults_.objectForKey(key)) {
            log(service.name +
                "'s configuration was already there won't overwrite, previous "
                "value: " +
                previous->dump());
        } else {
            defaults_.setObject(backupCandidate, key);
            log(service.name + "'s configuration is backed up, values: " + backupCandidate.dump());
        }
    }

    const bool result = services_->setDnsConfiguration(service.identifier, newConfiguration);
    if (toDHCP) {
        log("Setting " + service.name + "'s resolvers to DHCP");
    } else {
        log("Setting " + service.name + "'s resolvers to [" + joined(*addresses) + "]");
    }
    return result;
}

bool DNSModifyHelper::rollbackResolversFor(const sysdns::NetworkService& service) {
    const std::string key = backupKey(service.identifier);
    const auto backup = defaults_.objectForKey(key);
    if (!backup) {
        return true;
    }
    setResolversTo(storedAddresses(*backup), service, false);
    defaults_.removeObjectForKey(key);
    return true;
}

bool DNSModifyHelper::applyToNetworkServices(const ServiceBlock& block, bool commit) {
    bool result = true;
    {
        const PreferencesLock lock(*services_);
        for (const auto& service : services_->currentServices()) {
            result = block(service) && result;
        }
    }
    if (commit) {
        services_->commitAndApply();
        touchDynamicStore();
    }
    return result;
}

bool DNSModifyHelper::applyToPartNetworkServices(const ServiceBlock& block,
                                                 const std::vector<std::string>& networkServices,
                                                 bool commit) {
    bool result = true;
    {
        const PreferencesLock lock(*services_);
        for (const auto& identifier : networkServices) {
            if (const auto service = services_->service(identifier)) {
                result = block(*service) && result;
            }
        }
    }
    if (commit) {
        services_->commitAndApply();
        touchDynamicStore();
    }
    return result;
}

bool DNSModifyHelper::setResolvers(const std::optional<std::vector<std::string>>& addresses) {
    const bool result = applyToNetworkServices(
        [&](const sysdns::NetworkService& service) {
            return setResolversTo(addresses, service, true);
        },
        true);
    post("CONFIGURATION_CHANGED");
    return result;
}

bool DNSModifyHelper::rollbackResolvers() {
    const bool result = applyToNetworkServices(
        [&](const sysdns::NetworkService& service) { return rollbackResolversFor(service); }, true);
    post("CONFIGURATION_CHANGED");
    return result;
}

bool DNSModifyHelper::setResolversForServices(
    const std::optional<std::vector<std::string>>& addresses,
    const std::vector<std::string>& networkServices) {
    return applyToPartNetworkServices(
        [&](const sysdns::NetworkService& service) {
            return setResolversTo(addresses, service, true);
        },
        networkServices, true);
}

bool DNSModifyHelper::rollbackResolversForServices(
    const std::vector<std::string>& networkServices) {
    return applyToPartNetworkServices(
        [&](const sysdns::NetworkService& service) { return rollbackResolversFor(service); },
        networkServices, true);
}

void DNSModifyHelper::touchDynamicStore() {
    // The mechanisms put what was committed into force themselves; what is left is the line
    // that tells the log the walk is over.
    log("DynamicStore updated");
}

void DNSModifyHelper::forceDHCPUpdate() {
    log("Forcing DHCP update");
    services_->refreshInterfaces();
}

bool DNSModifyHelper::flushDNS() {
    for (const auto& [command, output] : helper::flushResolverCaches()) {
        log("Command " + command + " output " + output);
    }
    return true;
}

void DNSModifyHelper::post(const std::string& name) {
    if (notificationObserver) {
        notificationObserver(name);
    }
}

}  // namespace morvane
