#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace morvane::platform {

/// A network interface as the device server is told about it.
struct InterfaceDescription {
    std::string bsdName;      // the kernel's name, "wlp2s0"
    std::string displayName;  // the same name: Linux has no separate display name
    /// "WI-FI" for wireless interfaces, else the link type ("Ethernet", "PPP", "Tunnel", or
    /// "ARPHRD <number>"); absent when the kernel doesn't say.
    std::optional<std::string> type;

    bool operator==(const InterfaceDescription&) const = default;
};

/// Every interface of the machine but loopback, in the kernel's index order, from the
/// interface folder of sysfs (a test may pass a folder of its own).
std::vector<InterfaceDescription> networkInterfaces(
    const std::filesystem::path& interfaceFolder = "/sys/class/net");

}  // namespace morvane::platform
