#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

/// The first IPv4 address, in the order the system lists interface addresses, of an interface
/// whose name marks it as wired ("eth", "en"), wireless ("wl") or mobile broadband ("ww"):
/// the Linux names of the en0, en2 to en4 and pdp_ip0 to pdp_ip3 interfaces that a Mac laptop
/// has. Loopback, tunnels, bridges and virtual links never count. Nothing when no such
/// address exists or the list cannot be had.
std::optional<std::string> localIPv4Address();

/// The naming rule of localIPv4Address.
bool isLocalAddressInterface(std::string_view name);

/// One entry of the interface address list, as localIPv4Address walks it.
struct InterfaceAddressEntry {
    std::string name;
    /// Absent for an entry without an address; any family.
    std::optional<sockaddr_storage> address;
};

/// The choice of localIPv4Address over a given list: numeric text of the first AF_INET entry
/// with a listed name.
std::optional<std::string> firstLocalIPv4Address(const std::vector<InterfaceAddressEntry>& entries);

}  // namespace morvane
