#include "sysdns/ResolvedSwitch.h"

#include <net/if.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "sys/Files.h"
#include "sysdns/OwnLink.h"
#include "sysdns/ResolvConf.h"
#include "sysdns/ResolvedClient.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

namespace {

constexpr const char* kChanges =
    "type='signal',sender='org.freedesktop.resolve1',"
    "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'";

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
    const auto text = sys::readWholeFile(recordPath());
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
    return sys::writeFileAtomically(recordPath(), json.dump(), 0600, error);
}

bool ResolvedSwitch::connect(std::string& error) {
    if (!resolved_) {
        if (auto bus = SystemBus::open(options_.busTimeout, error)) {
            std::string ignored;
            bus->watchSignals(kChanges, ignored);
            bus_ = bus;
            resolved_ = std::make_unique<ResolvedClient>(std::move(bus));
        }
    }
    return resolved_ != nullptr;
}

bool ResolvedSwitch::servers(std::vector<Server>& result, std::string& error) {
    return connect(error) && resolved_->allLinkServers(result, error);
}

bool ResolvedSwitch::configureOwnLink(int ifindex, const SwitchTarget& target, std::string& error) {
    return resolved_->setLinkServers(ifindex, {{ifindex, target.address, target.port}}, error) &&
           resolved_->setLinkDomains(ifindex, {{".", true}}, error) &&
           resolved_->setDefaultRoute(ifindex, true, error) &&
           // Nothing but unicast DNS to the proxy leaves through this link.
           resolved_->setLinkText("SetLinkLLMNR", ifindex, "no", error) &&
           resolved_->setLinkText("SetLinkMulticastDNS", ifindex, "no", error) &&
           resolved_->setLinkText("SetLinkDNSSEC", ifindex, "no", error);
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
    if (!ownInPlace || !resolved_->defaultRoute(ifindex, ownDefaultRoute, error) ||
        !ownDefaultRoute) {
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
        if (!resolved_->defaultRoute(server.ifindex, defaultRoute, error)) {
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
        if (!resolved_->setDefaultRoute(server.ifindex, false, error)) {
            return false;
        }
        log("Link " + name + " no longer takes queries for all domains while the switch is on");
    }
    resolved_->flushCaches(error);
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
    if (connect(busError) && resolved_->answers()) {
        for (const auto& [ifindex, name] : record.demoted) {
            if (name.empty() || linkName(ifindex) != name) {
                continue;  // gone, or its index now belongs to another link
            }
            if (!resolved_->setDefaultRoute(ifindex, true, busError)) {
                log("Cannot give link " + name + " its default route back: " + busError);
            }
        }
        resolved_->flushCaches(busError);
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
    if (own == 0 || !servers(known, error)) {
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
            (!resolved_->defaultRoute(server.ifindex, defaultRoute, error) || defaultRoute)) {
            return false;
        }
    }
    bool ownDefaultRoute = false;
    return ownServer && resolved_->defaultRoute(own, ownDefaultRoute, error) && ownDefaultRoute;
}

int ResolvedSwitch::changeDescriptor() {
    std::lock_guard lock(mutex_);
    return bus_ ? bus_->descriptor() : -1;
}

void ResolvedSwitch::takeChanges() {
    std::lock_guard lock(mutex_);
    if (bus_) {
        bus_->takeSignals();
    }
}

}  // namespace morvane::sysdns
