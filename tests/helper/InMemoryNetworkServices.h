#pragma once

#include <map>
#include <mutex>

#include "sysdns/NetworkServices.h"

namespace morvane::test {

/// Network preferences held in memory, for the DNS changer's logic: changes are staged and
/// become the stored state only at commit, as with the real mechanisms. It stands in for
/// NetworkManager or systemd-resolved, which this machine does not run.
class InMemoryNetworkServices : public sysdns::NetworkServices {
public:
    struct Entry {
        sysdns::NetworkService service;
        std::optional<sysdns::DnsConfiguration> dns;
    };

    std::string name() const override { return "memory"; }
    void lock() override {
        mutex.lock();
        ++locks;
    }
    void unlock() override { mutex.unlock(); }

    std::vector<sysdns::NetworkService> currentServices() override {
        std::vector<sysdns::NetworkService> out;
        for (const auto& [id, entry] : staged) {
            out.push_back(entry.service);
        }
        return out;
    }
    std::optional<sysdns::NetworkService> service(const std::string& identifier) override {
        const auto found = staged.find(identifier);
        return found == staged.end() ? std::nullopt : std::optional(found->second.service);
    }
    std::optional<sysdns::DnsConfiguration> dnsConfiguration(
        const std::string& identifier) override {
        const auto found = staged.find(identifier);
        return found == staged.end() ? std::nullopt : found->second.dns;
    }
    bool setDnsConfiguration(
        const std::string& identifier,
        const std::optional<sysdns::DnsConfiguration>& configuration) override {
        const auto found = staged.find(identifier);
        if (found == staged.end() || refuseSets) {
            return false;
        }
        found->second.dns = configuration;
        return true;
    }
    bool commitAndApply() override {
        committed = staged;
        ++commits;
        return true;
    }
    void refreshInterfaces() override { ++refreshes; }

    void add(const std::string& id, std::optional<sysdns::DnsConfiguration> dns = std::nullopt,
             bool enabled = true, bool dnsEnabled = true) {
        Entry entry{{id, "Service " + id, enabled, true, true, dnsEnabled}, std::move(dns)};
        staged[id] = entry;
        committed[id] = entry;
    }
    std::optional<sysdns::DnsConfiguration> stored(const std::string& id) const {
        return committed.at(id).dns;
    }

    std::recursive_mutex mutex;
    std::map<std::string, Entry> staged;
    std::map<std::string, Entry> committed;
    bool refuseSets = false;
    int locks = 0;
    int commits = 0;
    int refreshes = 0;
};

}  // namespace morvane::test

namespace morvane::sysdns {

inline bool operator==(const DnsConfiguration& a, const DnsConfiguration& b) {
    return a.serverAddresses == b.serverAddresses && a.searchDomains == b.searchDomains;
}

}  // namespace morvane::sysdns
