#include "platform/InterfaceAddresses.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

namespace morvane::platform {

std::optional<std::set<std::string>> interfacesWithIPv4Address() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    std::set<std::string> names;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (entry->ifa_name && entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET) {
            names.insert(entry->ifa_name);
        }
    }
    freeifaddrs(list);
    return names;
}

std::optional<std::string> firstLocalIPv4Address() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    std::optional<std::string> found;
    for (const ifaddrs* entry = list; entry && !found; entry = entry->ifa_next) {
        if (!entry->ifa_name || !entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET ||
            !(entry->ifa_flags & IFF_UP) || (entry->ifa_flags & IFF_LOOPBACK) ||
            (entry->ifa_flags & IFF_POINTOPOINT)) {
            continue;
        }
        const std::string name = entry->ifa_name;
        if (name.starts_with("tun") || name.starts_with("wg")) {
            continue;
        }
        char host[1025];
        if (getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host, sizeof host, nullptr, 0,
                        NI_NUMERICHOST) == 0 &&
            host[0] != '\0') {
            found = host;
        }
    }
    freeifaddrs(list);
    return found;
}

}  // namespace morvane::platform
