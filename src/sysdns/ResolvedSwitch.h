#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sysdns/DnsSwitch.h"
#include "sysdns/ResolvedClient.h"

namespace morvane::sysdns {

class SystemBus;

/// The switch for machines where systemd-resolved is the resolver: a link of the provider's
/// own carries the proxy as its DNS server with the routing domain "~." and the default route,
/// and the other links that have servers lose the default route while it is on. All of it is
/// run-time state of resolved that vanishes with the link or with a reboot. Split DNS is
/// possible here: resolved routes other domains by their links' own routing domains.
class ResolvedSwitch : public DnsSwitch {
public:
    struct Options {
        std::string linkName = "morvane0";
        std::filesystem::path stateDirectory;
        std::function<void(const std::string&)> log;
        std::chrono::milliseconds busTimeout{std::chrono::seconds(5)};
    };

    explicit ResolvedSwitch(Options options);
    ~ResolvedSwitch() override;

    std::string name() const override { return "resolved"; }
    bool supportsSplitDns() const override { return true; }
    bool apply(const SwitchTarget& target, std::string& error) override;
    bool restore(std::string& error) override;
    std::vector<std::string> originalServers() const override;
    bool stillApplied() override;
    /// The bus connection, which brings the daemon's PropertiesChanged signals.
    int changeDescriptor() override;
    void takeChanges() override;

    /// The servers resolved has for each link; for tests and the log. (Global servers from
    /// resolved.conf are not changed by the switch and not listed.)
    using Server = ResolvedClient::Server;
    bool servers(std::vector<Server>& result, std::string& error);

private:
    struct Record;
    bool connect(std::string& error);
    bool loadRecord(Record& record) const;
    bool saveRecord(const Record& record, std::string& error) const;
    std::filesystem::path recordPath() const;
    bool configureOwnLink(int ifindex, const SwitchTarget& target, std::string& error);
    void log(const std::string& line) const;

    Options options_;
    mutable std::mutex mutex_;
    std::shared_ptr<SystemBus> bus_;
    std::unique_ptr<ResolvedClient> resolved_;
    std::vector<std::string> originalServers_;
    std::optional<SwitchTarget> applied_;
};

}  // namespace morvane::sysdns
