#include "sysdns/NetworkManagerServices.h"

#include <systemd/sd-bus.h>

#include "sysdns/NetworkManagerSettings.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

namespace {

constexpr const char* kService = "org.freedesktop.NetworkManager";
constexpr const char* kPath = "/org/freedesktop/NetworkManager";
constexpr const char* kConnection = "org.freedesktop.NetworkManager.Settings.Connection";
constexpr const char* kDevice = "org.freedesktop.NetworkManager.Device";

bool inUse(const std::string& method) {
    return !method.empty() && method != "disabled" && method != "ignore";
}

}  // namespace

NetworkManagerServices::NetworkManagerServices(Options options)
    : options_(std::move(options)), lock_(options_.lockFile, options_.log) {}

NetworkManagerServices::~NetworkManagerServices() = default;

void NetworkManagerServices::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    }
}

void NetworkManagerServices::lock() {
    lock_.lock();
}

void NetworkManagerServices::unlock() {
    lock_.unlock();
}

bool NetworkManagerServices::connect() {
    std::string error;
    if (!bus_) {
        bus_ = SystemBus::open(options_.busTimeout, error);
        if (!bus_) {
            log(error);
        }
    }
    return bus_ != nullptr;
}

std::vector<NetworkManagerServices::Profile> NetworkManagerServices::profiles() {
    std::vector<Profile> result;
    std::vector<std::string> paths;
    std::string error;
    if (!connect() ||
        !bus_->call(
            kService, std::string(kPath) + "/Settings", "org.freedesktop.NetworkManager.Settings",
            "ListConnections", {},
            [&](sd_bus_message* reply) { return readObjectPaths(reply, paths); }, error)) {
        if (!error.empty()) {
            log(error);
        }
        return result;
    }
    for (const auto& path : paths) {
        Profile profile;
        profile.path = path;
        if (!bus_->call(
                kService, path, kConnection, "GetSettings", {},
                [&](sd_bus_message* reply) { return readConnection(reply, profile); }, error)) {
            log(error);
            continue;
        }
        result.push_back(std::move(profile));
    }
    return result;
}

std::optional<NetworkManagerServices::Profile> NetworkManagerServices::profile(
    const std::string& uuid) {
    for (auto& candidate : profiles()) {
        if (candidate.uuid == uuid) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::map<std::string, std::string> NetworkManagerServices::activeDevices() {
    std::map<std::string, std::string> result;
    std::vector<std::string> actives;
    std::string error;
    if (!connect() ||
        !bus_->getProperty(
            kService, kPath, "org.freedesktop.NetworkManager", "ActiveConnections", "ao",
            [&](sd_bus_message* reply) { return readObjectPaths(reply, actives); }, error)) {
        return result;
    }
    for (const auto& active : actives) {
        std::string uuid;
        std::vector<std::string> devices;
        const char* interface = "org.freedesktop.NetworkManager.Connection.Active";
        const bool ok =
            bus_->getProperty(
                kService, active, interface, "Uuid", "s",
                [&](sd_bus_message* reply) { return readBusText(reply, "s", uuid); }, error) &&
            bus_->getProperty(
                kService, active, interface, "Devices", "ao",
                [&](sd_bus_message* reply) { return readObjectPaths(reply, devices); }, error);
        if (ok && !devices.empty()) {
            result[uuid] = devices.front();
        }
    }
    return result;
}

NetworkService NetworkManagerServices::describe(const Profile& profile, bool active) const {
    NetworkService service;
    service.identifier = profile.uuid;
    service.name = profile.id;
    // A profile is a service of the set in force; NetworkManager has no switched-off profiles
    // (a loopback profile is no network service).
    service.enabled = profile.type != "loopback";
    service.hasInterface = active || !profile.interface.empty();
    service.interfaceCarriesDns = profile.type != "loopback" && profile.type != "bridge-slave";
    service.dnsEnabled = inUse(profile.ipv4Method) || inUse(profile.ipv6Method);
    return service;
}

std::vector<NetworkService> NetworkManagerServices::currentServices() {
    const auto active = activeDevices();
    std::vector<NetworkService> result;
    for (const auto& profile : profiles()) {
        result.push_back(describe(profile, active.count(profile.uuid) != 0));
    }
    return result;
}

std::optional<NetworkService> NetworkManagerServices::service(const std::string& identifier) {
    const auto found = profile(identifier);
    if (!found) {
        return std::nullopt;
    }
    return describe(*found, activeDevices().count(identifier) != 0);
}

std::optional<DnsConfiguration> NetworkManagerServices::dnsConfiguration(
    const std::string& identifier) {
    if (const auto staged = staged_.find(identifier); staged != staged_.end()) {
        return staged->second;
    }
    const auto found = profile(identifier);
    if (!found || (found->servers.empty() && found->searches.empty())) {
        return std::nullopt;
    }
    return DnsConfiguration{found->servers, found->searches};
}

bool NetworkManagerServices::setDnsConfiguration(
    const std::string& identifier, const std::optional<DnsConfiguration>& configuration) {
    if (!profile(identifier)) {
        return false;
    }
    staged_[identifier] = configuration;
    return true;
}

bool NetworkManagerServices::update(const Profile& profile,
                                    const std::optional<DnsConfiguration>& configuration) {
    DnsOverride dns;
    if (configuration) {
        dns.servers = configuration->serverAddresses;
        // Servers of its own replace what DHCP gives, as on a service with manual DNS.
        dns.ignoreAutoDns = !dns.servers.empty();
        dns.searches = configuration->searchDomains;
    } else {
        dns.searches = std::vector<std::string>{};  // back to DHCP: the whole DNS part goes
    }
    std::string error;
    sd_bus_message* request = nullptr;
    const bool read = bus_->call(
        kService, profile.path, kConnection, "GetSettings", {},
        [&](sd_bus_message* reply) {
            request = bus_->newCall(kService, profile.path, kConnection, "Update");
            return request != nullptr && copyConnectionWithDns(reply, request, dns);
        },
        error);
    if (!read) {
        sd_bus_message_unref(request);
        log("Cannot read connection " + profile.id + ": " + error);
        return false;
    }
    if (!bus_->send(request, {}, error)) {
        log("Cannot store connection " + profile.id + ": " + error);
        return false;
    }
    return true;
}

bool NetworkManagerServices::commitAndApply() {
    auto staged = std::move(staged_);
    staged_.clear();
    if (staged.empty()) {
        return true;
    }
    if (!connect()) {
        return false;
    }
    bool ok = true;
    const auto active = activeDevices();
    for (const auto& [uuid, configuration] : staged) {
        const auto found = profile(uuid);
        if (!found || !update(*found, configuration)) {
            ok = false;
            continue;
        }
        if (const auto device = active.find(uuid); device != active.end()) {
            std::string error;
            // An empty connection: the device takes the profile just stored.
            if (!bus_->call(
                    kService, device->second, kDevice, "Reapply",
                    [](sd_bus_message* m) {
                        return sd_bus_message_append(m, "a{sa{sv}}tu", 0, std::uint64_t{0}, 0u) >=
                               0;
                    },
                    {}, error)) {
                log("Cannot put connection " + found->id + " into force: " + error);
                ok = false;
            }
        }
    }
    return ok;
}

void NetworkManagerServices::refreshInterfaces() {
    for (const auto& [uuid, device] : activeDevices()) {
        std::string error;
        if (!bus_->call(
                kService, device, kDevice, "Reapply",
                [](sd_bus_message* m) {
                    return sd_bus_message_append(m, "a{sa{sv}}tu", 0, std::uint64_t{0}, 0u) >= 0;
                },
                {}, error)) {
            log("Cannot refresh device " + device + ": " + error);
        }
    }
}

}  // namespace morvane::sysdns
