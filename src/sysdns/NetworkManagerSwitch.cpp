#include "sysdns/NetworkManagerSwitch.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "sys/Files.h"
#include "sysdns/NetworkManagerSettings.h"
#include "sysdns/ResolvConf.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

namespace {

constexpr const char* kService = "org.freedesktop.NetworkManager";
constexpr const char* kPath = "/org/freedesktop/NetworkManager";
constexpr const char* kManager = "org.freedesktop.NetworkManager";
constexpr const char* kDevice = "org.freedesktop.NetworkManager.Device";

}  // namespace

struct NetworkManagerSwitch::Record {
    std::string proxyAddress;
    std::vector<std::string> originalServers;
    std::vector<std::pair<std::string, std::string>> devices;  // object path, interface
};

NetworkManagerSwitch::NetworkManagerSwitch(Options options) : options_(std::move(options)) {
    Record record;
    if (loadRecord(record)) {
        originalServers_ = record.originalServers;
    }
}

NetworkManagerSwitch::~NetworkManagerSwitch() = default;

void NetworkManagerSwitch::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    }
}

bool NetworkManagerSwitch::loadRecord(Record& record) const {
    const auto text = sys::readWholeFile(options_.stateDirectory / "networkmanager.json");
    if (!text) {
        return false;
    }
    const auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) {
        return false;
    }
    record.proxyAddress = json.value("proxyAddress", std::string());
    for (const auto& server : json.value("originalServers", nlohmann::json::array())) {
        if (server.is_string()) {
            record.originalServers.push_back(server.get<std::string>());
        }
    }
    for (const auto& device : json.value("devices", nlohmann::json::array())) {
        if (device.is_object()) {
            record.devices.emplace_back(device.value("path", std::string()),
                                        device.value("interface", std::string()));
        }
    }
    return true;
}

bool NetworkManagerSwitch::saveRecord(const Record& record, std::string& error) const {
    nlohmann::json devices = nlohmann::json::array();
    for (const auto& [path, interface] : record.devices) {
        devices.push_back({{"path", path}, {"interface", interface}});
    }
    const nlohmann::json json{{"proxyAddress", record.proxyAddress},
                              {"originalServers", record.originalServers},
                              {"devices", devices}};
    return sys::writeFileAtomically(options_.stateDirectory / "networkmanager.json", json.dump(), 0600,
                               error);
}

bool NetworkManagerSwitch::connect(std::string& error) {
    if (!bus_) {
        bus_ = SystemBus::open(options_.busTimeout, error);
        std::string ignored;
        if (bus_) {
            bus_->watchSignals(
                "type='signal',sender='org.freedesktop.NetworkManager',"
                "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'",
                ignored);
        }
    }
    return bus_ != nullptr;
}

bool NetworkManagerSwitch::activeDevices(std::vector<Device>& result, std::string& error) {
    if (!connect(error)) {
        return false;
    }
    std::vector<std::string> paths;
    if (!bus_->call(
            kService, kPath, kManager, "GetDevices", {},
            [&](sd_bus_message* reply) { return readObjectPaths(reply, paths); }, error)) {
        return false;
    }
    result.clear();
    for (const auto& path : paths) {
        Device device{path, {}, {}, {}};
        std::string active;
        const auto property = [&](const char* name, const char* type, std::string& value) {
            return bus_->getProperty(
                kService, path, kDevice, name, type,
                [&](sd_bus_message* reply) { return readBusText(reply, type, value); }, error);
        };
        if (!property("ActiveConnection", "o", active) ||
            !property("Interface", "s", device.interface) ||
            !property("Ip4Config", "o", device.ip4Config) ||
            !property("Ip6Config", "o", device.ip6Config)) {
            return false;
        }
        if (active != "/" && device.interface != "lo") {
            result.push_back(device);
        }
    }
    return true;
}

bool NetworkManagerSwitch::deviceServers(const Device& device, std::vector<std::string>& result,
                                         std::string& error) {
    result.clear();
    if (device.ip4Config != "/" && !device.ip4Config.empty()) {
        const bool ok = bus_->getProperty(
            kService, device.ip4Config, "org.freedesktop.NetworkManager.IP4Config",
            "NameserverData", "aa{sv}",
            [&](sd_bus_message* reply) {
                if (sd_bus_message_enter_container(reply, 'a', "a{sv}") < 0) {
                    return false;
                }
                while (sd_bus_message_enter_container(reply, 'a', "{sv}") > 0) {
                    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
                        std::string key;
                        if (!readBusText(reply, "s", key)) {
                            return false;
                        }
                        if (key == "address" &&
                            sd_bus_message_enter_container(reply, 'v', "s") > 0) {
                            std::string address;
                            if (!readBusText(reply, "s", address)) {
                                return false;
                            }
                            result.push_back(address);
                            sd_bus_message_exit_container(reply);
                        } else {
                            sd_bus_message_skip(reply, "v");
                        }
                        sd_bus_message_exit_container(reply);
                    }
                    sd_bus_message_exit_container(reply);
                }
                return sd_bus_message_exit_container(reply) >= 0;
            },
            error);
        if (!ok) {
            return false;
        }
    }
    if (device.ip6Config != "/" && !device.ip6Config.empty()) {
        return bus_->getProperty(
            kService, device.ip6Config, "org.freedesktop.NetworkManager.IP6Config", "Nameservers",
            "aay",
            [&](sd_bus_message* reply) {
                if (sd_bus_message_enter_container(reply, 'a', "ay") < 0) {
                    return false;
                }
                const void* bytes = nullptr;
                std::size_t size = 0;
                while (sd_bus_message_read_array(reply, 'y', &bytes, &size) > 0) {
                    char text[INET6_ADDRSTRLEN] = {};
                    if (size == 16 && ::inet_ntop(AF_INET6, bytes, text, sizeof text)) {
                        result.emplace_back(text);
                    }
                }
                return sd_bus_message_exit_container(reply) >= 0;
            },
            error);
    }
    return true;
}

bool NetworkManagerSwitch::reapplyWithProxy(const Device& device, const SwitchTarget& target,
                                            std::string& error) {
    in6_addr parsed{};
    if (::inet_pton(AF_INET, target.address.c_str(), &parsed) != 1 &&
        ::inet_pton(AF_INET6, target.address.c_str(), &parsed) != 1) {
        error = "Not an IP address: " + target.address;
        return false;
    }
    DnsOverride dns;
    dns.servers = {target.address};
    dns.ignoreAutoDns = true;
    // Ahead of any other connection's servers, should NetworkManager merge some in.
    dns.priority = -1000;
    sd_bus_message* reapply = nullptr;
    const bool read = bus_->call(
        kService, device.path, kDevice, "GetAppliedConnection",
        [](sd_bus_message* m) { return sd_bus_message_append(m, "u", 0u) >= 0; },
        [&](sd_bus_message* reply) {
            reapply = bus_->newCall(kService, device.path, kDevice, "Reapply");
            std::uint64_t version = 0;
            return reapply != nullptr && copyConnectionWithDns(reply, reapply, dns) &&
                   sd_bus_message_read(reply, "t", &version) >= 0 &&
                   sd_bus_message_append(reapply, "tu", version, 0u) >= 0;
        },
        error);
    if (!read) {
        sd_bus_message_unref(reapply);
        return false;
    }
    return bus_->send(reapply, {}, error);
}

bool NetworkManagerSwitch::apply(const SwitchTarget& target, std::string& error) {
    std::lock_guard lock(mutex_);
    if (target.port != 53) {
        error =
            "NetworkManager can only name servers on port 53, not " + std::to_string(target.port);
        return false;
    }
    std::vector<Device> devices;
    if (!activeDevices(devices, error)) {
        return false;
    }
    Record record;
    if (!loadRecord(record)) {
        record.proxyAddress = target.address;
        std::vector<std::string> candidates;
        for (const auto& device : devices) {
            std::vector<std::string> servers;
            if (!deviceServers(device, servers, error)) {
                return false;
            }
            candidates.insert(candidates.end(), servers.begin(), servers.end());
        }
        record.originalServers = networkServers(candidates, target.address);
        originalServers_ = record.originalServers;
        std::string list;
        for (const auto& server : originalServers_) {
            list += (list.empty() ? "" : " ") + server;
        }
        log("The network's own DNS servers before the switch: " + (list.empty() ? "none" : list));
    }
    for (const auto& device : devices) {
        const auto entry = std::make_pair(device.path, device.interface);
        if (std::find(record.devices.begin(), record.devices.end(), entry) ==
            record.devices.end()) {
            record.devices.push_back(entry);
        }
    }
    // Recorded before anything changes, so that a crash at any point can be undone.
    if (!saveRecord(record, error)) {
        return false;
    }
    for (const auto& device : devices) {
        if (!reapplyWithProxy(device, target, error)) {
            error = device.interface + ": " + error;
            return false;
        }
    }
    applied_ = target;
    return true;
}

bool NetworkManagerSwitch::restore(std::string& error) {
    std::lock_guard lock(mutex_);
    Record record;
    if (!loadRecord(record)) {
        applied_.reset();
        return true;
    }
    if (!connect(error)) {
        return false;
    }
    if (!bus_->nameHasOwner(kService)) {
        // Not running: it starts again from the profiles, which the switch never changed.
        log("NetworkManager does not answer; its devices start again from their profiles");
    } else {
        for (const auto& [path, interface] : record.devices) {
            std::string failure;
            // An empty connection makes the device take its profile's settings again.
            const bool ok = bus_->call(
                kService, path, kDevice, "Reapply",
                [](sd_bus_message* m) {
                    return sd_bus_message_append(m, "a{sa{sv}}tu", 0, std::uint64_t{0}, 0u) >= 0;
                },
                {}, failure);
            if (!ok) {
                // The device may be gone, or run another connection by now: either way it no
                // longer carries the switch's settings.
                log("Device " + interface + " was not reapplied: " + failure);
            }
        }
    }
    std::error_code ignored;
    std::filesystem::remove(options_.stateDirectory / "networkmanager.json", ignored);
    applied_.reset();
    log("Gave NetworkManager's devices their own DNS settings back");
    return true;
}

std::vector<std::string> NetworkManagerSwitch::originalServers() const {
    std::lock_guard lock(mutex_);
    return originalServers_;
}

bool NetworkManagerSwitch::stillApplied() {
    std::lock_guard lock(mutex_);
    if (!applied_) {
        return true;
    }
    const auto file = sys::readWholeFile(options_.resolvConf);
    if (!file ||
        ResolvConf::parse(*file).nameservers != std::vector<std::string>{applied_->address}) {
        return false;
    }
    std::vector<Device> devices;
    std::string error;
    if (!activeDevices(devices, error)) {
        return false;
    }
    for (const auto& device : devices) {
        std::vector<std::string> servers;
        if (!deviceServers(device, servers, error) ||
            servers != std::vector<std::string>{applied_->address}) {
            return false;
        }
    }
    return true;
}

int NetworkManagerSwitch::changeDescriptor() {
    std::lock_guard lock(mutex_);
    return bus_ ? bus_->descriptor() : -1;
}

void NetworkManagerSwitch::takeChanges() {
    std::lock_guard lock(mutex_);
    if (bus_) {
        bus_->takeSignals();
    }
}

}  // namespace morvane::sysdns
