#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "sysdns/NetworkManagerSettings.h"
#include "sysdns/NetworkServices.h"
#include "sysdns/ServicesLock.h"

namespace morvane::sysdns {

class SystemBus;

/// Network services as NetworkManager has them: one per connection profile, its identifier the
/// connection's UUID. DNS changes are staged by `setDnsConfiguration` and stored into the
/// profiles by `commitAndApply` (Settings.Connection.Update; NetworkManager keeps a profile's
/// secrets when an update carries none), then put into force on the devices that run them
/// (Device.Reapply).
class NetworkManagerServices : public NetworkServices {
public:
    struct Options {
        std::filesystem::path lockFile;
        std::chrono::milliseconds busTimeout{std::chrono::seconds(5)};
        std::function<void(const std::string&)> log;
    };

    explicit NetworkManagerServices(Options options);
    ~NetworkManagerServices() override;

    std::string name() const override { return "networkmanager"; }
    void lock() override;
    void unlock() override;
    std::vector<NetworkService> currentServices() override;
    std::optional<NetworkService> service(const std::string& identifier) override;
    std::optional<DnsConfiguration> dnsConfiguration(const std::string& identifier) override;
    bool setDnsConfiguration(const std::string& identifier,
                             const std::optional<DnsConfiguration>& configuration) override;
    bool commitAndApply() override;
    void refreshInterfaces() override;

    /// A profile's settings as far as services need them, and where it lives on the bus.
    struct Profile : ConnectionSummary {
        std::string path;
    };

private:
    bool connect();
    std::vector<Profile> profiles();
    std::optional<Profile> profile(const std::string& uuid);
    std::map<std::string, std::string> activeDevices();  // uuid -> device path
    NetworkService describe(const Profile& profile, bool active) const;
    bool update(const Profile& profile, const std::optional<DnsConfiguration>& configuration);
    void log(const std::string& line) const;

    Options options_;
    ServicesLock lock_;
    std::shared_ptr<SystemBus> bus_;
    std::map<std::string, std::optional<DnsConfiguration>> staged_;
};

}  // namespace morvane::sysdns
