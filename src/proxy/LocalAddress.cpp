#include "proxy/LocalAddress.h"

#include <ifaddrs.h>
#include <netdb.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

namespace morvane {

bool isLocalAddressInterface(std::string_view name) {
    // Wired: "eth0" and the predictable names ("eno1", "enp0s31f6", "ens33", "enx<mac>").
    // Wireless: "wlan0", "wlp2s0". Mobile broadband: "wwan0", "wwp0s20f0u6".
    for (std::string_view prefix : {"eth", "en", "wl", "ww"}) {
        if (name.size() > prefix.size() && name.substr(0, prefix.size()) == prefix) {
            return true;
        }
    }
    return false;
}

std::optional<std::string> firstLocalIPv4Address(
    const std::vector<InterfaceAddressEntry>& entries) {
    for (const auto& entry : entries) {
        if (!entry.address || entry.address->ss_family != AF_INET ||
            !isLocalAddressInterface(entry.name)) {
            continue;
        }
        std::array<char, 1025> host{};
        const auto* address = reinterpret_cast<const sockaddr*>(&*entry.address);
        if (::getnameinfo(address, sizeof(sockaddr_in), host.data(), host.size(), nullptr, 0,
                          NI_NUMERICHOST) == 0 &&
            host[0] != '\0') {
            return std::string(host.data());
        }
    }
    return std::nullopt;
}

std::optional<std::string> localIPv4Address() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    std::vector<InterfaceAddressEntry> entries;
    for (const ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
        InterfaceAddressEntry entry;
        entry.name = it->ifa_name != nullptr ? it->ifa_name : "";
        if (it->ifa_addr != nullptr && it->ifa_addr->sa_family == AF_INET) {
            sockaddr_storage storage{};
            std::memcpy(&storage, it->ifa_addr, sizeof(sockaddr_in));
            entry.address = storage;
        }
        entries.push_back(std::move(entry));
    }
    ::freeifaddrs(list);
    return firstLocalIPv4Address(entries);
}

}  // namespace morvane
