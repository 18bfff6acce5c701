#include "sysdns/NetworkManagerStandIn.h"

#include <arpa/inet.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "sysdns/PrivateWorld.h"

namespace morvane::sysdns::test {

struct NetworkManagerStandIn::Entry {
    NetworkManagerStandIn* owner = nullptr;
    int number = 0;
    Connection profile;
    Connection applied;
    std::uint64_t version = 1;

    std::string devicePath() const {
        return "/org/freedesktop/NetworkManager/Devices/" + std::to_string(number);
    }
    std::string ip4Path() const {
        return "/org/freedesktop/NetworkManager/IP4Config/" + std::to_string(number);
    }
    std::string activePath() const {
        return "/org/freedesktop/NetworkManager/ActiveConnection/" + std::to_string(number);
    }
    std::string settingsPath() const {
        return "/org/freedesktop/NetworkManager/Settings/" + std::to_string(number);
    }
    std::vector<std::string> servers() const {
        auto result = applied.dns;
        if (!applied.ignoreAutoDns) {
            result.insert(result.end(), applied.dhcpServers.begin(), applied.dhcpServers.end());
        }
        return result;
    }
};

struct StandInAccess {
    using Entry = NetworkManagerStandIn::Entry;

    static std::mutex& mutex(Entry* entry) { return entry->owner->mutex_; }
    static std::vector<Entry*>& entries(NetworkManagerStandIn* standIn) {
        return standIn->entries_;
    }

    // a{sa{sv}} of a connection, as NetworkManager gives its settings.
    static int appendSettings(sd_bus_message* m, const NetworkManagerStandIn::Connection& c) {
        std::vector<std::uint32_t> dns;
        for (const auto& server : c.dns) {
            in_addr address{};
            ::inet_pton(AF_INET, server.c_str(), &address);
            dns.push_back(address.s_addr);
        }
        int r = sd_bus_message_open_container(m, 'a', "{sa{sv}}");
        r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sa{sv}");
        r = r < 0
                ? r
                : sd_bus_message_append(m, "sa{sv}", "connection", 4, "id", "s", c.id.c_str(),
                                        "uuid", "s", c.uuid.c_str(), "type", "s", "802-3-ethernet",
                                        "interface-name", "s", c.interface.c_str());
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sa{sv}");
        r = r < 0 ? r : sd_bus_message_append(m, "s", "ipv4");
        r = r < 0 ? r : sd_bus_message_open_container(m, 'a', "{sv}");
        r = r < 0 ? r : sd_bus_message_append(m, "{sv}", "method", "s", "auto");
        r = r < 0 ? r : sd_bus_message_append(m, "{sv}", "ignore-auto-dns", "b", c.ignoreAutoDns);
        r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sv");
        r = r < 0 ? r : sd_bus_message_append(m, "s", "dns");
        r = r < 0 ? r : sd_bus_message_open_container(m, 'v', "au");
        r = r < 0 ? r : sd_bus_message_append_array(m, 'u', dns.data(), dns.size() * 4);
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sv");
        r = r < 0 ? r : sd_bus_message_append(m, "s", "dns-search");
        r = r < 0 ? r : sd_bus_message_open_container(m, 'v', "as");
        r = r < 0 ? r : sd_bus_message_open_container(m, 'a', "s");
        for (const auto& search : c.searches) {
            r = r < 0 ? r : sd_bus_message_append(m, "s", search.c_str());
        }
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_close_container(m);  // ipv4's a{sv}
        r = r < 0 ? r : sd_bus_message_close_container(m);  // its entry
        r = r < 0 ? r : sd_bus_message_append(m, "{sa{sv}}", "ipv6", 1, "method", "s", "ignore");
        return r < 0 ? r : sd_bus_message_close_container(m);
    }

    // Reads what a caller sends (Reapply, Update) into `c`; an empty dictionary changes nothing
    // and says so.
    static int readSettings(sd_bus_message* m, NetworkManagerStandIn::Connection& c, bool& empty) {
        empty = true;
        int r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}");
        if (r < 0) {
            return r;
        }
        while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
            empty = false;
            const char* setting = nullptr;
            sd_bus_message_read(m, "s", &setting);
            sd_bus_message_enter_container(m, 'a', "{sv}");
            while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
                const char* key = nullptr;
                sd_bus_message_read(m, "s", &key);
                const std::string name = key;
                if (std::string(setting) == "ipv4" && name == "dns") {
                    sd_bus_message_enter_container(m, 'v', "au");
                    const void* data = nullptr;
                    std::size_t size = 0;
                    sd_bus_message_read_array(m, 'u', &data, &size);
                    c.dns.clear();
                    for (std::size_t i = 0; i < size / 4; ++i) {
                        in_addr address{};
                        std::memcpy(&address.s_addr, static_cast<const char*>(data) + 4 * i, 4);
                        c.dns.emplace_back(::inet_ntoa(address));
                    }
                    sd_bus_message_exit_container(m);
                } else if (std::string(setting) == "ipv4" && name == "ignore-auto-dns") {
                    int flag = 0;
                    sd_bus_message_read(m, "v", "b", &flag);
                    c.ignoreAutoDns = flag != 0;
                } else if (std::string(setting) == "ipv4" && name == "dns-search") {
                    sd_bus_message_enter_container(m, 'v', "as");
                    sd_bus_message_enter_container(m, 'a', "s");
                    c.searches.clear();
                    const char* search = nullptr;
                    while (sd_bus_message_read(m, "s", &search) > 0) {
                        c.searches.emplace_back(search);
                    }
                    sd_bus_message_exit_container(m);
                    sd_bus_message_exit_container(m);
                } else {
                    sd_bus_message_skip(m, "v");
                }
                sd_bus_message_exit_container(m);
            }
            sd_bus_message_exit_container(m);
            sd_bus_message_exit_container(m);
        }
        return r < 0 ? r : sd_bus_message_exit_container(m);
    }

    static int getDevices(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* standIn = static_cast<NetworkManagerStandIn*>(userdata);
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        sd_bus_message_open_container(reply, 'a', "o");
        for (auto* entry : entries(standIn)) {
            sd_bus_message_append(reply, "o", entry->devicePath().c_str());
        }
        sd_bus_message_close_container(reply);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    static int listConnections(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* standIn = static_cast<NetworkManagerStandIn*>(userdata);
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        sd_bus_message_open_container(reply, 'a', "o");
        for (auto* entry : entries(standIn)) {
            sd_bus_message_append(reply, "o", entry->settingsPath().c_str());
        }
        sd_bus_message_close_container(reply);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    static int managerProperty(sd_bus*, const char*, const char*, const char* property,
                               sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* standIn = static_cast<NetworkManagerStandIn*>(userdata);
        if (std::string(property) == "Version") {
            return sd_bus_message_append(reply, "s", "1.42.4");
        }
        sd_bus_message_open_container(reply, 'a', "o");
        for (auto* entry : entries(standIn)) {
            sd_bus_message_append(reply, "o", entry->activePath().c_str());
        }
        return sd_bus_message_close_container(reply);
    }

    static int deviceProperty(sd_bus*, const char*, const char*, const char* property,
                              sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* entry = static_cast<Entry*>(userdata);
        std::lock_guard lock(mutex(entry));
        const std::string name = property;
        if (name == "Interface") {
            return sd_bus_message_append(reply, "s", entry->applied.interface.c_str());
        }
        if (name == "State") {
            return sd_bus_message_append(reply, "u", 100u);
        }
        if (name == "ActiveConnection") {
            return sd_bus_message_append(reply, "o", entry->activePath().c_str());
        }
        if (name == "Ip4Config") {
            return sd_bus_message_append(reply, "o", entry->ip4Path().c_str());
        }
        return sd_bus_message_append(reply, "o", "/");
    }

    static int getApplied(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* entry = static_cast<Entry*>(userdata);
        std::lock_guard lock(mutex(entry));
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        appendSettings(reply, entry->applied);
        sd_bus_message_append(reply, "t", entry->version);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    static int reapply(sd_bus_message* m, void* userdata, sd_bus_error* error) {
        auto* entry = static_cast<Entry*>(userdata);
        {
            std::lock_guard lock(mutex(entry));
            auto next = entry->applied;
            bool empty = true;
            if (readSettings(m, next, empty) < 0) {
                return sd_bus_error_set(error, "org.freedesktop.NetworkManager.Device.Failed",
                                        "bad connection");
            }
            std::uint64_t version = 0;
            sd_bus_message_read(m, "t", &version);
            if (version != 0 && version != entry->version) {
                return sd_bus_error_set(error,
                                        "org.freedesktop.NetworkManager.Device.VersionIdMismatch",
                                        "the applied connection changed");
            }
            entry->applied = empty ? entry->profile : next;
            ++entry->version;
            entry->owner->reapplies_++;
            entry->owner->writeResolvConf();
        }
        return sd_bus_reply_method_return(m, "");
    }

    static int ip4Property(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void* userdata, sd_bus_error*) {
        auto* entry = static_cast<Entry*>(userdata);
        std::lock_guard lock(mutex(entry));
        sd_bus_message_open_container(reply, 'a', "a{sv}");
        for (const auto& server : entry->servers()) {
            sd_bus_message_append(reply, "a{sv}", 1, "address", "s", server.c_str());
        }
        return sd_bus_message_close_container(reply);
    }

    static int activeProperty(sd_bus*, const char*, const char*, const char* property,
                              sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* entry = static_cast<Entry*>(userdata);
        std::lock_guard lock(mutex(entry));
        const std::string name = property;
        if (name == "Uuid") {
            return sd_bus_message_append(reply, "s", entry->profile.uuid.c_str());
        }
        if (name == "Id") {
            return sd_bus_message_append(reply, "s", entry->profile.id.c_str());
        }
        if (name == "Connection") {
            return sd_bus_message_append(reply, "o", entry->settingsPath().c_str());
        }
        return sd_bus_message_append(reply, "ao", 1, entry->devicePath().c_str());
    }

    static int getSettings(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* entry = static_cast<Entry*>(userdata);
        std::lock_guard lock(mutex(entry));
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        appendSettings(reply, entry->profile);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    static int update(sd_bus_message* m, void* userdata, sd_bus_error* error) {
        auto* entry = static_cast<Entry*>(userdata);
        {
            std::lock_guard lock(mutex(entry));
            // Update replaces the whole profile: what is not sent is reset.
            auto next = entry->profile;
            next.dns.clear();
            next.ignoreAutoDns = false;
            next.searches.clear();
            bool empty = true;
            if (readSettings(m, next, empty) < 0) {
                return sd_bus_error_set(error, "org.freedesktop.NetworkManager.Settings.Failed",
                                        "bad settings");
            }
            entry->profile = next;
        }
        return sd_bus_reply_method_return(m, "");
    }
};

namespace {

const sd_bus_vtable kManager[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetDevices", "", "ao", StandInAccess::getDevices, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("ActiveConnections", "ao", StandInAccess::managerProperty, 0, 0),
    SD_BUS_PROPERTY("Version", "s", StandInAccess::managerProperty, 0, 0), SD_BUS_VTABLE_END};

const sd_bus_vtable kSettings[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("ListConnections", "", "ao", StandInAccess::listConnections,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kDevice[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetAppliedConnection", "u", "a{sa{sv}}t", StandInAccess::getApplied,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Reapply", "a{sa{sv}}tu", "", StandInAccess::reapply, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Interface", "s", StandInAccess::deviceProperty, 0, 0),
    SD_BUS_PROPERTY("State", "u", StandInAccess::deviceProperty, 0, 0),
    SD_BUS_PROPERTY("ActiveConnection", "o", StandInAccess::deviceProperty, 0, 0),
    SD_BUS_PROPERTY("Ip4Config", "o", StandInAccess::deviceProperty, 0, 0),
    SD_BUS_PROPERTY("Ip6Config", "o", StandInAccess::deviceProperty, 0, 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kIp4Config[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("NameserverData", "aa{sv}", StandInAccess::ip4Property, 0, 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kActive[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Uuid", "s", StandInAccess::activeProperty, 0, 0),
    SD_BUS_PROPERTY("Id", "s", StandInAccess::activeProperty, 0, 0),
    SD_BUS_PROPERTY("Connection", "o", StandInAccess::activeProperty, 0, 0),
    SD_BUS_PROPERTY("Devices", "ao", StandInAccess::activeProperty, 0, 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kSettingsConnection[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetSettings", "", "a{sa{sv}}", StandInAccess::getSettings,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Update", "a{sa{sv}}", "", StandInAccess::update, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

}  // namespace

NetworkManagerStandIn::NetworkManagerStandIn(std::filesystem::path resolvConf)
    : resolvConf_(std::move(resolvConf)) {}

NetworkManagerStandIn::~NetworkManagerStandIn() {
    stop();
    for (auto* entry : entries_) {
        delete entry;
    }
}

void NetworkManagerStandIn::addConnection(Connection connection) {
    auto* entry = new Entry;
    entry->owner = this;
    entry->number = static_cast<int>(entries_.size()) + 1;
    entry->profile = connection;
    entry->applied = connection;
    entries_.push_back(entry);
}

bool NetworkManagerStandIn::start(std::string& error) {
    int r = sd_bus_open_system(&bus_);
    if (r < 0) {
        error = "the stand-in cannot reach the system bus";
        return false;
    }
    const char* manager = "/org/freedesktop/NetworkManager";
    r = sd_bus_add_object_vtable(bus_, nullptr, manager, "org.freedesktop.NetworkManager", kManager,
                                 this);
    r = r < 0
            ? r
            : sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/NetworkManager/Settings",
                                       "org.freedesktop.NetworkManager.Settings", kSettings, this);
    for (auto* entry : entries_) {
        r = r < 0
                ? r
                : sd_bus_add_object_vtable(bus_, nullptr, entry->devicePath().c_str(),
                                           "org.freedesktop.NetworkManager.Device", kDevice, entry);
        r = r < 0 ? r
                  : sd_bus_add_object_vtable(bus_, nullptr, entry->ip4Path().c_str(),
                                             "org.freedesktop.NetworkManager.IP4Config", kIp4Config,
                                             entry);
        r = r < 0 ? r
                  : sd_bus_add_object_vtable(bus_, nullptr, entry->activePath().c_str(),
                                             "org.freedesktop.NetworkManager.Connection.Active",
                                             kActive, entry);
        r = r < 0 ? r
                  : sd_bus_add_object_vtable(bus_, nullptr, entry->settingsPath().c_str(),
                                             "org.freedesktop.NetworkManager.Settings.Connection",
                                             kSettingsConnection, entry);
    }
    r = r < 0 ? r : sd_bus_request_name(bus_, "org.freedesktop.NetworkManager", 0);
    if (r < 0) {
        error = "the stand-in cannot take its bus name";
        return false;
    }
    {
        std::lock_guard lock(mutex_);
        writeResolvConf();
    }
    thread_ = std::thread([this] { serve(); });
    return true;
}

void NetworkManagerStandIn::serve() {
    serveBus(bus_, [this] { return stopping_.load(); });
}

void NetworkManagerStandIn::stop() {
    endServing(thread_, stopping_, bus_);
}

void NetworkManagerStandIn::reconnect() {
    std::lock_guard lock(mutex_);
    for (auto* entry : entries_) {
        entry->applied = entry->profile;
        ++entry->version;
    }
    writeResolvConf();
}

std::vector<std::string> NetworkManagerStandIn::appliedServers(const std::string& uuid) {
    std::lock_guard lock(mutex_);
    for (auto* entry : entries_) {
        if (entry->profile.uuid == uuid) {
            return entry->servers();
        }
    }
    return {};
}

NetworkManagerStandIn::Connection NetworkManagerStandIn::profile(const std::string& uuid) {
    std::lock_guard lock(mutex_);
    for (auto* entry : entries_) {
        if (entry->profile.uuid == uuid) {
            return entry->profile;
        }
    }
    return {};
}

void NetworkManagerStandIn::writeResolvConf() {
    std::string text = "# Generated by NetworkManager\n";
    std::vector<std::string> searches;
    std::vector<std::string> servers;
    for (auto* entry : entries_) {
        for (const auto& search : entry->applied.searches) {
            if (std::find(searches.begin(), searches.end(), search) == searches.end()) {
                searches.push_back(search);
            }
        }
        for (const auto& server : entry->servers()) {
            if (std::find(servers.begin(), servers.end(), server) == servers.end()) {
                servers.push_back(server);
            }
        }
    }
    if (!searches.empty()) {
        text += "search";
        for (const auto& search : searches) {
            text += " " + search;
        }
        text += "\n";
    }
    for (const auto& server : servers) {
        text += "nameserver " + server + "\n";
    }
    // In place: the file may be a bind mount, as in the tests.
    std::ofstream(resolvConf_, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace morvane::sysdns::test
