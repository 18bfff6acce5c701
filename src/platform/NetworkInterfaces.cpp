#include "platform/NetworkInterfaces.h"

#include <algorithm>
#include <climits>
#include <fstream>
#include <system_error>

namespace morvane::platform {

namespace fs = std::filesystem;

namespace {

// Link types from the kernel's if_arp.h.
constexpr long kEthernet = 1;
constexpr long kPPP = 512;
constexpr long kLoopback = 772;
constexpr long kNone = 65534;  // tun and WireGuard devices carry no link header

std::optional<long> readNumber(const fs::path& file) {
    std::ifstream in(file);
    long value = 0;
    if (!(in >> value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::string> linkType(const fs::path& folder) {
    std::error_code ignored;
    // The wireless folder comes with the older wireless extensions, phy80211 with cfg80211;
    // a driver may have either.
    if (fs::exists(folder / "wireless", ignored) || fs::exists(folder / "phy80211", ignored)) {
        return "WI-FI";
    }
    const auto type = readNumber(folder / "type");
    if (!type) {
        return std::nullopt;
    }
    switch (*type) {
        case kEthernet:
            return "Ethernet";
        case kPPP:
            return "PPP";
        case kNone:
            return "Tunnel";
        default:
            return "ARPHRD " + std::to_string(*type);
    }
}

}  // namespace

std::vector<InterfaceDescription> networkInterfaces(const fs::path& interfaceFolder) {
    struct Found {
        long index;
        InterfaceDescription description;
    };
    std::vector<Found> found;
    std::error_code error;
    for (fs::directory_iterator it(interfaceFolder, error), end; !error && it != end;
         it.increment(error)) {
        const fs::path folder = it->path();
        const std::string name = folder.filename().string();
        if (name.empty() || readNumber(folder / "type") == kLoopback) {
            continue;
        }
        found.push_back({readNumber(folder / "ifindex").value_or(LONG_MAX),
                         InterfaceDescription{name, name, linkType(folder)}});
    }
    std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return a.index != b.index ? a.index < b.index
                                  : a.description.bsdName < b.description.bsdName;
    });
    std::vector<InterfaceDescription> interfaces;
    interfaces.reserve(found.size());
    for (auto& entry : found) {
        interfaces.push_back(std::move(entry.description));
    }
    return interfaces;
}

}  // namespace morvane::platform
