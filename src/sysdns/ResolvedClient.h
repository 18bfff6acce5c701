#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace morvane::sysdns {

class SystemBus;

/// The calls of org.freedesktop.resolve1 that the switch and the per-link services make.
class ResolvedClient {
public:
    struct Server {
        int ifindex = 0;
        std::string address;
        std::uint16_t port = 53;
    };

    explicit ResolvedClient(std::shared_ptr<SystemBus> bus) : bus_(std::move(bus)) {}

    bool answers();
    /// resolved's object for the link; false for a link it does not manage (loopback).
    bool linkPath(int ifindex, std::string& path, std::string& error);
    /// The servers of every link resolved manages. Link by link: the manager's list of all
    /// servers does not tell their links apart reliably in every version.
    bool allLinkServers(std::vector<Server>& result, std::string& error);
    bool linkServers(int ifindex, std::vector<Server>& result, std::string& error);
    /// Domains of a link: name and whether it only routes (the "~" ones).
    bool linkDomains(int ifindex, std::vector<std::pair<std::string, bool>>& result,
                     std::string& error);
    bool defaultRoute(int ifindex, bool& value, std::string& error);

    bool setLinkServers(int ifindex, const std::vector<Server>& servers, std::string& error);
    bool setLinkDomains(int ifindex, const std::vector<std::pair<std::string, bool>>& domains,
                        std::string& error);
    bool setDefaultRoute(int ifindex, bool value, std::string& error);
    /// SetLinkLLMNR, SetLinkMulticastDNS, SetLinkDNSSEC and the like.
    bool setLinkText(const char* member, int ifindex, const char* value, std::string& error);
    /// Drops what was set over the bus; the link goes back to what its manager gave it.
    bool revertLink(int ifindex, std::string& error);
    bool flushCaches(std::string& error);

private:
    std::shared_ptr<SystemBus> bus_;
};

}  // namespace morvane::sysdns
