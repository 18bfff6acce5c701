#include "sysdns/ResolvedSwitch.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "sysdns/Files.h"
#include "sysdns/OwnLink.h"
#include "sysdns/ResolvConf.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

namespace {

constexpr const char* kService = "org.freedesktop.resolve1";
constexpr const char* kPath = "/org/freedesktop/resolve1";
constexpr const char* kManager = "org.freedesktop.resolve1.Manager";
constexpr const char* kLink = "org.freedesktop.resolve1.Link";

std::string addressText(int family, const void* bytes, std::size_t size) {
    char text[INET6_ADDRSTRLEN] = {};
    if ((family == AF_INET && size == 4) || (family == AF_INET6 && size == 16)) {
        ::inet_ntop(family, bytes, text, sizeof text);
    }
    return text;
}

std::string linkName(int ifindex) {
    char name[IF_NAMESIZE] = {};
    return ::if_indextoname(static_cast<unsigned>(ifindex), name) != nullptr ? name : "";
}

}  // namespace

struct ResolvedSwitch::Record {
    std::string link;
    std::string proxyAddress;
    std::vector<std::string> originalServers;
    // Links whose default route the switch took away, by index and name (an index may be
    // reused by another link after a reconnect; the name tells).
    std::vector<std::pair<int, std::string>> demoted;
};

ResolvedSwitch::ResolvedSwitch(Options options) : options_(std::move(options)) {
    Record record;
    if (loadRecord(record)) {
        originalServers_ = record.originalServers;
    }
}

ResolvedSwitch::~ResolvedSwitch() = default;

void ResolvedSwitch::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    }
}

std::filesystem::path ResolvedSwitch::recordPath() const {
    return options_.stateDirectory / "resolved.json";
}

bool ResolvedSwitch::loadRecord(Record& record) const {
    const auto text = readWholeFile(recordPath());
    if (!text) {
        return false;
    }
    const auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) {
        return false;
    }
    record.link = json.value("link", options_.linkName);
    record.proxyAddress = json.value("proxyAddress", std::string());
    for (const auto& server : json.value("originalServers", nlohmann::json::array())) {
        if (server.is_string()) {
            record.originalServers.push_back(server.get<std::string>());
        }
    }
    for (const auto& link : json.value("demoted", nlohmann::json::array())) {
        if (link.is_object()) {
            record.demoted.emplace_back(link.value("ifindex", 0),
                                        link.value("name", std::string()));
        }
    }
    return true;
}

bool ResolvedSwitch::saveRecord(const Record& record, std::string& error) const {
    nlohmann::json demoted = nlohmann::json::array();
    for (const auto& [ifindex, name] : record.demoted) {
        demoted.push_back({{"ifindex", ifindex}, {"name", name}});
    }
    const nlohmann::json json{{"link", record.link},
                              {"proxyAddress", record.proxyAddress},
                              {"originalServers", record.originalServers},
                              {"demoted", demoted}};
    return writeFileAtomically(recordPath(), json.dump(), 0600, error);
}

bool ResolvedSwitch::connect(std::string& error) {
    if (!bus_) {
        bus_ = SystemBus::open(options_.busTimeout, error);
    }
    return bus_ != nullptr;
}

bool ResolvedSwitch::linkPath(int ifindex, std::string& path, std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "GetLink",
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "i", ifindex) >= 0; },
        [&](sd_bus_message* reply) {
            const char* text = nullptr;
            if (sd_bus_message_read(reply, "o", &text) < 0) {
                return false;
            }
            path = text;
            return true;
        },
        error);
}

bool ResolvedSwitch::servers(std::vector<Server>& result, std::string& error) {
    if (!connect(error)) {
        return false;
    }
    result.clear();
    // Link by link: the manager's list of all servers does not tell their links apart
    // reliably in every version.
    struct if_nameindex* links = ::if_nameindex();
    if (links == nullptr) {
        error = "Cannot list the network links";
        return false;
    }
    bool ok = true;
    for (auto* link = links; ok && link->if_index != 0; ++link) {
        const int ifindex = static_cast<int>(link->if_index);
        std::string path;
        std::string ignored;
        if (!linkPath(ifindex, path, ignored)) {
            continue;  // resolved does not manage it (loopback)
        }
        ok = bus_->getProperty(
            kService, path, kLink, "DNSEx", "a(iayqs)",
            [&](sd_bus_message* reply) {
                if (sd_bus_message_enter_container(reply, 'a', "(iayqs)") < 0) {
                    return false;
                }
                while (sd_bus_message_enter_container(reply, 'r', "iayqs") > 0) {
                    int family = 0;
                    const void* bytes = nullptr;
                    std::size_t size = 0;
                    std::uint16_t port = 0;
                    const char* serverName = nullptr;
                    if (sd_bus_message_read(reply, "i", &family) < 0 ||
                        sd_bus_message_read_array(reply, 'y', &bytes, &size) < 0 ||
                        sd_bus_message_read(reply, "qs", &port, &serverName) < 0 ||
                        sd_bus_message_exit_container(reply) < 0) {
                        return false;
                    }
                    result.push_back({ifindex, addressText(family, bytes, size),
                                      static_cast<std::uint16_t>(port == 0 ? 53 : port)});
                }
                return sd_bus_message_exit_container(reply) >= 0;
            },
            error);
    }
    ::if_freenameindex(links);
    return ok;
}

bool ResolvedSwitch::linkDefaultRoute(int ifindex, bool& value, std::string& error) {
    std::string path;
    if (!linkPath(ifindex, path, error)) {
        return false;
    }
    return bus_->getProperty(
        kService, path, kLink, "DefaultRoute", "b",
        [&](sd_bus_message* reply) {
            int flag = 0;
            if (sd_bus_message_read(reply, "b", &flag) < 0) {
                return false;
            }
            value = flag != 0;
            return true;
        },
        error);
}

bool ResolvedSwitch::setLinkDefaultRoute(int ifindex, bool value, std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "SetLinkDefaultRoute",
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "ib", ifindex, value) >= 0; }, {},
        error);
}

bool ResolvedSwitch::configureOwnLink(int ifindex, const SwitchTarget& target, std::string& error) {
    unsigned char bytes[16] = {};
    int family = AF_INET;
    std::size_t size = 4;
    if (::inet_pton(AF_INET, target.address.c_str(), bytes) != 1) {
        family = AF_INET6;
        size = 16;
        if (::inet_pton(AF_INET6, target.address.c_str(), bytes) != 1) {
            error = "Not an IP address: " + target.address;
            return false;
        }
    }
    const auto setText = [&](const char* member, const char* value) {
        return bus_->call(
            kService, kPath, kManager, member,
            [&](sd_bus_message* m) { return sd_bus_message_append(m, "is", ifindex, value) >= 0; },
            {}, error);
    };
    return bus_->call(
               kService, kPath, kManager, "SetLinkDNSEx",
               [&](sd_bus_message* m) {
                   return sd_bus_message_append(m, "i", ifindex) >= 0 &&
                          sd_bus_message_open_container(m, 'a', "(iayqs)") >= 0 &&
                          sd_bus_message_open_container(m, 'r', "iayqs") >= 0 &&
                          sd_bus_message_append(m, "i", family) >= 0 &&
                          sd_bus_message_append_array(m, 'y', bytes, size) >= 0 &&
                          sd_bus_message_append(m, "qs", target.port, "") >= 0 &&
                          sd_bus_message_close_container(m) >= 0 &&
                          sd_bus_message_close_container(m) >= 0;
               },
               {}, error) &&
           bus_->call(
               kService, kPath, kManager, "SetLinkDomains",
               [&](sd_bus_message* m) {
                   return sd_bus_message_append(m, "ia(sb)", ifindex, 1, ".", 1) >= 0;
               },
               {}, error) &&
           setLinkDefaultRoute(ifindex, true, error) &&
           // Nothing but unicast DNS to the proxy leaves through this link.
           setText("SetLinkLLMNR", "no") && setText("SetLinkMulticastDNS", "no") &&
           setText("SetLinkDNSSEC", "no");
}

bool ResolvedSwitch::apply(const SwitchTarget& target, std::string& error) {
    std::lock_guard lock(mutex_);
    if (!connect(error)) {
        return false;
    }
    Record record;
    if (!loadRecord(record)) {
        record.link = options_.linkName;
        record.proxyAddress = target.address;
        std::vector<Server> known;
        if (!servers(known, error)) {
            return false;
        }
        const int own = OwnLink::index(options_.linkName);
        std::vector<std::string> candidates;
        for (const auto& server : known) {
            if (server.ifindex != own || own == 0) {
                candidates.push_back(server.address);
            }
        }
        record.originalServers = networkServers(candidates, target.address);
        // Written before anything changes, so that a crash at any point can be undone.
        if (!saveRecord(record, error)) {
            return false;
        }
        originalServers_ = record.originalServers;
        std::string list;
        for (const auto& server : originalServers_) {
            list += (list.empty() ? "" : " ") + server;
        }
        log("The network's own DNS servers before the switch: " + (list.empty() ? "none" : list));
    }
    const int ifindex = OwnLink::ensure(record.link, error);
    if (ifindex == 0) {
        return false;
    }
    std::vector<Server> known;
    if (!servers(known, error)) {
        return false;
    }
    // Setting the link again while it is right would make resolved start over with its
    // server (probing it anew): when re-asserting, only what was taken is given again.
    bool ownInPlace = false;
    for (const auto& server : known) {
        ownInPlace = ownInPlace || (server.ifindex == ifindex && server.address == target.address &&
                                    server.port == target.port);
    }
    bool ownDefaultRoute = false;
    if (!ownInPlace || !linkDefaultRoute(ifindex, ownDefaultRoute, error) || !ownDefaultRoute) {
        if (!configureOwnLink(ifindex, target, error)) {
            return false;
        }
    }
    // Every other link with servers would still get queries in parallel: they lose the
    // default route (their routing domains, if any, still apply: split DNS stays intact).
    for (const auto& server : known) {
        if (server.ifindex <= 0 || server.ifindex == ifindex) {
            continue;
        }
        bool defaultRoute = false;
        if (!linkDefaultRoute(server.ifindex, defaultRoute, error)) {
            return false;
        }
        if (!defaultRoute) {
            continue;
        }
        const auto name = linkName(server.ifindex);
        if (std::find(record.demoted.begin(), record.demoted.end(),
                      std::make_pair(server.ifindex, name)) == record.demoted.end()) {
            record.demoted.emplace_back(server.ifindex, name);
            if (!saveRecord(record, error)) {
                return false;
            }
        }
        if (!setLinkDefaultRoute(server.ifindex, false, error)) {
            return false;
        }
        log("Link " + name + " no longer takes queries for all domains while the switch is on");
    }
    bus_->call(kService, kPath, kManager, "FlushCaches", {}, {}, error);
    applied_ = target;
    return true;
}

bool ResolvedSwitch::restore(std::string& error) {
    std::lock_guard lock(mutex_);
    Record record;
    if (!loadRecord(record)) {
        // Nothing recorded, but a link of ours may be left from a run that died while
        // recording: it carries nothing else, so it goes.
        applied_.reset();
        return OwnLink::remove(options_.linkName, error);
    }
    // The link's settings vanish with it.
    if (!OwnLink::remove(record.link, error)) {
        return false;
    }
    std::string busError;
    if (connect(busError) && bus_->nameHasOwner(kService)) {
        for (const auto& [ifindex, name] : record.demoted) {
            if (name.empty() || linkName(ifindex) != name) {
                continue;  // gone, or its index now belongs to another link
            }
            if (!setLinkDefaultRoute(ifindex, true, busError)) {
                log("Cannot give link " + name + " its default route back: " + busError);
            }
        }
        bus_->call(kService, kPath, kManager, "FlushCaches", {}, {}, busError);
    } else {
        // resolved is not running: it starts again without the settings of its last run.
        log("systemd-resolved does not answer; the links' settings go with its restart");
    }
    std::error_code ignored;
    std::filesystem::remove(recordPath(), ignored);
    applied_.reset();
    log("Removed link " + record.link + " and gave the other links their default route back");
    return true;
}

std::vector<std::string> ResolvedSwitch::originalServers() const {
    std::lock_guard lock(mutex_);
    return originalServers_;
}

bool ResolvedSwitch::stillApplied() {
    std::lock_guard lock(mutex_);
    if (!applied_) {
        return true;
    }
    const int own = OwnLink::index(options_.linkName);
    std::string error;
    std::vector<Server> known;
    if (own == 0 || !bus_ || !servers(known, error)) {
        return false;
    }
    bool ownServer = false;
    for (const auto& server : known) {
        if (server.ifindex == own) {
            ownServer =
                ownServer || (server.address == applied_->address && server.port == applied_->port);
            continue;
        }
        bool defaultRoute = false;
        if (server.ifindex > 0 &&
            (!linkDefaultRoute(server.ifindex, defaultRoute, error) || defaultRoute)) {
            return false;
        }
    }
    bool ownDefaultRoute = false;
    return ownServer && linkDefaultRoute(own, ownDefaultRoute, error) && ownDefaultRoute;
}

}  // namespace morvane::sysdns
