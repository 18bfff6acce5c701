#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "sysdns/NetworkServices.h"
#include "sysdns/ServicesLock.h"

namespace morvane::sysdns {

class ResolvedClient;
class SystemBus;

/// Network services where NetworkManager does not run: the links systemd-resolved manages,
/// each one a service whose identifier is the interface name. A configuration is set over
/// resolved's D-Bus interface (servers, and search domains as domains that are not only for
/// routing); none reverts the link to what its network manager (networkd, a DHCP client)
/// gave it. resolved keeps such settings until the link goes or the machine restarts: there is
/// no profile on disk to store them in.
class ResolvedServices : public NetworkServices {
public:
    struct Options {
        std::filesystem::path lockFile;
        /// The switch's own link, which is no network service.
        std::string ownLinkName = "morvane0";
        std::chrono::milliseconds busTimeout{std::chrono::seconds(5)};
        std::function<void(const std::string&)> log;
    };

    explicit ResolvedServices(Options options);
    ~ResolvedServices() override;

    std::string name() const override { return "resolved"; }
    void lock() override;
    void unlock() override;
    std::vector<NetworkService> currentServices() override;
    std::optional<NetworkService> service(const std::string& identifier) override;
    std::optional<DnsConfiguration> dnsConfiguration(const std::string& identifier) override;
    bool setDnsConfiguration(const std::string& identifier,
                             const std::optional<DnsConfiguration>& configuration) override;
    bool commitAndApply() override;
    void refreshInterfaces() override;

private:
    bool connect();
    bool isService(const std::string& name) const;
    std::optional<NetworkService> describe(const std::string& name);
    void log(const std::string& line) const;

    Options options_;
    ServicesLock lock_;
    std::shared_ptr<SystemBus> bus_;
    std::unique_ptr<ResolvedClient> resolved_;
    std::map<std::string, std::optional<DnsConfiguration>> staged_;
};

}  // namespace morvane::sysdns
