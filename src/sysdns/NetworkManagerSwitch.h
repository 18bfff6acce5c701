#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sysdns/DnsSwitch.h"

namespace morvane::sysdns {

class SystemBus;

/// The switch for machines where NetworkManager writes /etc/resolv.conf (without resolved):
/// every device with an active connection gets the connection it runs with (the applied
/// connection, never the stored profile) reapplied with the proxy as its only DNS server and
/// the servers from DHCP and router adverts ignored. Nothing is written to disk, so a reboot or
/// a reconnect comes back with the profile; restore reapplies the profile itself. The global
/// DNS configuration was not used because NetworkManager stores it on disk, where it would
/// outlive a power cut.
class NetworkManagerSwitch : public DnsSwitch {
public:
    struct Options {
        /// Read to see that NetworkManager wrote what the switch asked for.
        std::filesystem::path resolvConf = "/etc/resolv.conf";
        std::filesystem::path stateDirectory;
        std::chrono::milliseconds busTimeout{std::chrono::seconds(5)};
        std::function<void(const std::string&)> log;
    };

    explicit NetworkManagerSwitch(Options options);
    ~NetworkManagerSwitch() override;

    std::string name() const override { return "networkmanager"; }
    /// NetworkManager writes one list of servers into resolv.conf: no per-domain routing.
    bool supportsSplitDns() const override { return false; }
    bool apply(const SwitchTarget& target, std::string& error) override;
    bool restore(std::string& error) override;
    std::vector<std::string> originalServers() const override;
    bool stillApplied() override;
    /// The bus connection, which brings the daemon's PropertiesChanged signals.
    int changeDescriptor() override;
    void takeChanges() override;

    struct Device {
        std::string path;
        std::string interface;
        std::string ip4Config;
        std::string ip6Config;
    };
    /// Devices with an active connection.
    bool activeDevices(std::vector<Device>& result, std::string& error);
    /// The DNS servers a device runs with now.
    bool deviceServers(const Device& device, std::vector<std::string>& result, std::string& error);

private:
    struct Record;
    bool connect(std::string& error);
    bool loadRecord(Record& record) const;
    bool saveRecord(const Record& record, std::string& error) const;
    bool reapplyWithProxy(const Device& device, const SwitchTarget& target, std::string& error);
    void log(const std::string& line) const;

    Options options_;
    mutable std::mutex mutex_;
    std::shared_ptr<SystemBus> bus_;
    std::vector<std::string> originalServers_;
    std::optional<SwitchTarget> applied_;
};

}  // namespace morvane::sysdns
