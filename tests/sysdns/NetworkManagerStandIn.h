#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct sd_bus;

namespace morvane::sysdns::test {

/// A stand-in for NetworkManager on the private system bus, offering only the D-Bus calls the
/// switch and the per-service settings use (NetworkManager itself is never installed on the
/// machine and needs far more than a test namespace to run):
///   Manager: GetDevices, property ActiveConnections; Settings: ListConnections;
///   Device: GetAppliedConnection, Reapply, properties Interface, State, ActiveConnection,
///           Ip4Config, Ip6Config ("/");
///   IP4Config: NameserverData; Connection.Active: Uuid, Id, Connection, Devices;
///   Settings.Connection: GetSettings, Update (ipv4 dns, ignore-auto-dns, dns-search).
/// One device per connection, all active. Like NetworkManager with rc-manager=file, it writes
/// the resolv.conf it is given from what its devices run with, after every change.
class NetworkManagerStandIn {
public:
    struct Connection {
        std::string uuid;
        std::string id;
        std::string interface;
        /// What DHCP gives the device (used unless ignore-auto-dns).
        std::vector<std::string> dhcpServers;
        /// ipv4.dns, ipv4.ignore-auto-dns, ipv4.dns-search of the profile.
        std::vector<std::string> dns;
        bool ignoreAutoDns = false;
        std::vector<std::string> searches;
    };

    explicit NetworkManagerStandIn(std::filesystem::path resolvConf);
    ~NetworkManagerStandIn();
    NetworkManagerStandIn(const NetworkManagerStandIn&) = delete;
    NetworkManagerStandIn& operator=(const NetworkManagerStandIn&) = delete;

    /// Before `start`.
    void addConnection(Connection connection);
    /// Takes org.freedesktop.NetworkManager on the bus of $DBUS_SYSTEM_BUS_ADDRESS and serves
    /// on a thread of its own; writes the file once.
    bool start(std::string& error);
    void stop();

    /// What NetworkManager does after a reconnect or a wake: every device runs its stored
    /// profile again, and the file is written again.
    void reconnect();
    /// The servers a device runs with now, and its stored profile.
    std::vector<std::string> appliedServers(const std::string& uuid);
    Connection profile(const std::string& uuid);
    int reapplies() const { return reapplies_.load(); }

    struct Entry;

private:
    void serve();
    void writeResolvConf();

    std::filesystem::path resolvConf_;
    std::vector<Entry*> entries_;
    std::mutex mutex_;
    sd_bus* bus_ = nullptr;
    std::atomic<bool> stopping_{false};
    std::atomic<int> reapplies_{0};
    std::thread thread_;
    friend struct StandInAccess;
};

}  // namespace morvane::sysdns::test
