#include "sysdns/ResolvedClient.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

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

}  // namespace

bool ResolvedClient::answers() {
    return bus_->nameHasOwner(kService);
}

bool ResolvedClient::linkPath(int ifindex, std::string& path, std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "GetLink",
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "i", ifindex) >= 0; },
        [&](sd_bus_message* reply) { return readBusText(reply, "o", path); }, error);
}

bool ResolvedClient::linkServers(int ifindex, std::vector<Server>& result, std::string& error) {
    std::string path;
    if (!linkPath(ifindex, path, error)) {
        return false;
    }
    return bus_->getProperty(
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

bool ResolvedClient::allLinkServers(std::vector<Server>& result, std::string& error) {
    result.clear();
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
            continue;  // not managed by resolved (loopback)
        }
        ok = linkServers(ifindex, result, error);
    }
    ::if_freenameindex(links);
    return ok;
}

bool ResolvedClient::linkDomains(int ifindex, std::vector<std::pair<std::string, bool>>& result,
                                 std::string& error) {
    std::string path;
    if (!linkPath(ifindex, path, error)) {
        return false;
    }
    return bus_->getProperty(
        kService, path, kLink, "Domains", "a(sb)",
        [&](sd_bus_message* reply) {
            if (sd_bus_message_enter_container(reply, 'a', "(sb)") < 0) {
                return false;
            }
            const char* domain = nullptr;
            int routeOnly = 0;
            while (sd_bus_message_read(reply, "(sb)", &domain, &routeOnly) > 0) {
                result.emplace_back(domain, routeOnly != 0);
            }
            return sd_bus_message_exit_container(reply) >= 0;
        },
        error);
}

bool ResolvedClient::defaultRoute(int ifindex, bool& value, std::string& error) {
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

bool ResolvedClient::setLinkServers(int ifindex, const std::vector<Server>& servers,
                                    std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "SetLinkDNSEx",
        [&](sd_bus_message* m) {
            if (sd_bus_message_append(m, "i", ifindex) < 0 ||
                sd_bus_message_open_container(m, 'a', "(iayqs)") < 0) {
                return false;
            }
            for (const auto& server : servers) {
                unsigned char bytes[16] = {};
                int family = AF_INET;
                std::size_t size = 4;
                if (::inet_pton(AF_INET, server.address.c_str(), bytes) != 1) {
                    family = AF_INET6;
                    size = 16;
                    if (::inet_pton(AF_INET6, server.address.c_str(), bytes) != 1) {
                        return false;
                    }
                }
                if (sd_bus_message_open_container(m, 'r', "iayqs") < 0 ||
                    sd_bus_message_append(m, "i", family) < 0 ||
                    sd_bus_message_append_array(m, 'y', bytes, size) < 0 ||
                    sd_bus_message_append(m, "qs", server.port, "") < 0 ||
                    sd_bus_message_close_container(m) < 0) {
                    return false;
                }
            }
            return sd_bus_message_close_container(m) >= 0;
        },
        {}, error);
}

bool ResolvedClient::setLinkDomains(int ifindex,
                                    const std::vector<std::pair<std::string, bool>>& domains,
                                    std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "SetLinkDomains",
        [&](sd_bus_message* m) {
            if (sd_bus_message_append(m, "i", ifindex) < 0 ||
                sd_bus_message_open_container(m, 'a', "(sb)") < 0) {
                return false;
            }
            for (const auto& [domain, routeOnly] : domains) {
                if (sd_bus_message_append(m, "(sb)", domain.c_str(), routeOnly ? 1 : 0) < 0) {
                    return false;
                }
            }
            return sd_bus_message_close_container(m) >= 0;
        },
        {}, error);
}

bool ResolvedClient::setDefaultRoute(int ifindex, bool value, std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "SetLinkDefaultRoute",
        [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "ib", ifindex, value ? 1 : 0) >= 0;
        },
        {}, error);
}

bool ResolvedClient::setLinkText(const char* member, int ifindex, const char* value,
                                 std::string& error) {
    return bus_->call(
        kService, kPath, kManager, member,
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "is", ifindex, value) >= 0; }, {},
        error);
}

bool ResolvedClient::revertLink(int ifindex, std::string& error) {
    return bus_->call(
        kService, kPath, kManager, "RevertLink",
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "i", ifindex) >= 0; }, {}, error);
}

bool ResolvedClient::flushCaches(std::string& error) {
    return bus_->call(kService, kPath, kManager, "FlushCaches", {}, {}, error);
}

}  // namespace morvane::sysdns
