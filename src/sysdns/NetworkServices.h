#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace morvane::sysdns {

/// The DNS settings of one network service: on Linux a NetworkManager connection (identifier:
/// its UUID) or, where NetworkManager does not run, a systemd-resolved link (identifier: the
/// interface name).
struct DnsConfiguration {
    std::vector<std::string> serverAddresses;
    std::vector<std::string> searchDomains;
};

struct NetworkService {
    std::string identifier;
    std::string name;
    bool enabled = false;
    bool hasInterface = false;
    bool interfaceCarriesDns = false;  // the interface's protocols include DNS
    bool dnsEnabled = false;           // the service's DNS protocol exists and is in use
};

/// The system's network preferences as the helper's DNS settings changer needs them: the services
/// of the set in force, their DNS configuration, and exclusive access while they are walked.
class NetworkServices {
public:
    virtual ~NetworkServices() = default;

    virtual std::string name() const = 0;  // "networkmanager", "resolved"
    /// Exclusive access among changers in this and other processes; waits.
    virtual void lock() = 0;
    virtual void unlock() = 0;

    virtual std::vector<NetworkService> currentServices() = 0;
    virtual std::optional<NetworkService> service(const std::string& identifier) = 0;
    /// None: the service takes its DNS from DHCP.
    virtual std::optional<DnsConfiguration> dnsConfiguration(const std::string& identifier) = 0;
    /// None removes the service's DNS configuration (back to DHCP). False when refused.
    virtual bool setDnsConfiguration(const std::string& identifier,
                                     const std::optional<DnsConfiguration>& configuration) = 0;
    /// Stores and puts into force what was set since the last commit.
    virtual bool commitAndApply() = 0;
    /// Makes every interface renew its configuration.
    virtual void refreshInterfaces() = 0;
};

/// The services of this machine: NetworkManager's connections where NetworkManager answers on
/// the system bus, else systemd-resolved's links; nothing, with `error` set, when neither
/// answers. Changers lock each other out through /run/morvanecloud/network-services.lock.
std::shared_ptr<NetworkServices> makeNetworkServices(
    const std::function<void(const std::string&)>& log, std::string& error);

}  // namespace morvane::sysdns
