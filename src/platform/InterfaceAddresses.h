#pragma once

#include <optional>
#include <set>
#include <string>

namespace morvane::platform {

/// The names of the interfaces that hold at least one IPv4 address at this moment; nothing
/// when the kernel's list cannot be read.
std::optional<std::set<std::string>> interfacesWithIPv4Address();

}  // namespace morvane::platform

namespace morvane::platform {

/// The machine's own IPv4 address on its networks: the first IPv4 address, in the kernel's
/// order, of an interface that is up and is neither loopback nor a tunnel (`tunN`, `wg*`),
/// as numeric text. Nothing when there is none or the list cannot be read.
std::optional<std::string> firstLocalIPv4Address();

}  // namespace morvane::platform
