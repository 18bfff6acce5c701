#include "sysdns/ResolvedServices.h"

#include <net/if.h>
#include <systemd/sd-bus.h>

#include "sysdns/OwnLink.h"
#include "sysdns/ResolvedClient.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

ResolvedServices::ResolvedServices(Options options)
    : options_(std::move(options)), lock_(options_.lockFile, options_.log) {}

ResolvedServices::~ResolvedServices() = default;

void ResolvedServices::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    }
}

void ResolvedServices::lock() {
    lock_.lock();
}

void ResolvedServices::unlock() {
    lock_.unlock();
}

bool ResolvedServices::connect() {
    if (!resolved_) {
        std::string error;
        bus_ = SystemBus::open(options_.busTimeout, error);
        if (!bus_) {
            log(error);
            return false;
        }
        resolved_ = std::make_unique<ResolvedClient>(bus_);
    }
    return true;
}

bool ResolvedServices::isService(const std::string& name) const {
    return !name.empty() && name != "lo" && name.rfind(options_.ownLinkName, 0) != 0;
}

std::optional<NetworkService> ResolvedServices::describe(const std::string& name) {
    const int ifindex = OwnLink::index(name);
    if (!isService(name) || ifindex == 0 || !connect()) {
        return std::nullopt;
    }
    std::string path;
    std::string error;
    NetworkService service;
    service.identifier = name;
    service.name = name;
    service.enabled = true;
    service.hasInterface = true;
    service.interfaceCarriesDns = true;
    // resolved keeps DNS settings for every link it manages.
    service.dnsEnabled = resolved_->linkPath(ifindex, path, error);
    return service;
}

std::vector<NetworkService> ResolvedServices::currentServices() {
    std::vector<NetworkService> result;
    struct if_nameindex* links = ::if_nameindex();
    if (links == nullptr) {
        return result;
    }
    for (auto* link = links; link->if_index != 0; ++link) {
        if (auto service = describe(link->if_name)) {
            result.push_back(*service);
        }
    }
    ::if_freenameindex(links);
    return result;
}

std::optional<NetworkService> ResolvedServices::service(const std::string& identifier) {
    return describe(identifier);
}

std::optional<DnsConfiguration> ResolvedServices::dnsConfiguration(const std::string& identifier) {
    if (const auto staged = staged_.find(identifier); staged != staged_.end()) {
        return staged->second;
    }
    const int ifindex = OwnLink::index(identifier);
    if (!isService(identifier) || ifindex == 0 || !connect()) {
        return std::nullopt;
    }
    std::vector<ResolvedClient::Server> servers;
    std::vector<std::pair<std::string, bool>> domains;
    std::string error;
    if (!resolved_->linkServers(ifindex, servers, error) ||
        !resolved_->linkDomains(ifindex, domains, error)) {
        return std::nullopt;
    }
    DnsConfiguration configuration;
    for (const auto& server : servers) {
        configuration.serverAddresses.push_back(server.address);
    }
    for (const auto& [domain, routeOnly] : domains) {
        if (!routeOnly) {
            configuration.searchDomains.push_back(domain);
        }
    }
    if (configuration.serverAddresses.empty() && configuration.searchDomains.empty()) {
        return std::nullopt;
    }
    return configuration;
}

bool ResolvedServices::setDnsConfiguration(const std::string& identifier,
                                           const std::optional<DnsConfiguration>& configuration) {
    if (!describe(identifier)) {
        return false;
    }
    staged_[identifier] = configuration;
    return true;
}

bool ResolvedServices::commitAndApply() {
    auto staged = std::move(staged_);
    staged_.clear();
    if (staged.empty()) {
        return true;
    }
    if (!connect()) {
        return false;
    }
    bool ok = true;
    for (const auto& [name, configuration] : staged) {
        const int ifindex = OwnLink::index(name);
        std::string error;
        bool done = ifindex != 0;
        if (done && configuration) {
            std::vector<ResolvedClient::Server> servers;
            for (const auto& address : configuration->serverAddresses) {
                servers.push_back({ifindex, address, 53});
            }
            std::vector<std::pair<std::string, bool>> domains;
            for (const auto& domain : configuration->searchDomains) {
                domains.emplace_back(domain, false);
            }
            done = resolved_->setLinkServers(ifindex, servers, error) &&
                   resolved_->setLinkDomains(ifindex, domains, error);
        } else if (done) {
            done = resolved_->revertLink(ifindex, error);
        }
        if (!done) {
            log("Cannot set the DNS of link " + name + ": " + (error.empty() ? "gone" : error));
            ok = false;
        }
    }
    std::string error;
    resolved_->flushCaches(error);
    return ok;
}

void ResolvedServices::refreshInterfaces() {
    // networkd renews a link's configuration on request; without it there is nobody to ask.
    if (!connect() || !bus_->nameHasOwner("org.freedesktop.network1")) {
        log("No systemd-networkd to renew the links' configuration");
        return;
    }
    for (const auto& service : currentServices()) {
        const int ifindex = OwnLink::index(service.identifier);
        std::string error;
        if (!bus_->call(
                "org.freedesktop.network1", "/org/freedesktop/network1",
                "org.freedesktop.network1.Manager", "ReconfigureLink",
                [&](sd_bus_message* m) { return sd_bus_message_append(m, "i", ifindex) >= 0; }, {},
                error)) {
            log("Cannot renew link " + service.identifier + ": " + error);
        }
    }
}

}  // namespace morvane::sysdns
