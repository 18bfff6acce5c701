#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace morvane::platform {

/// The names under which the running processes can be recognised, the stand-in for the
/// display names of running applications. The kernel's own name (`comm`) is cut at 15
/// characters, and VPN clients are known by longer names ("SonicWall mobile connect"), so
/// each process gives up to three names: its `comm`, the file name of its executable, and
/// the file name of its `argv[0]` (which a launcher may set to anything). Each name of a
/// process appears once per process; processes that vanish while they are read, or whose
/// details are not ours to read, give what could be read.
std::vector<std::string> runningApplicationNames(const std::filesystem::path& proc = "/proc");

}  // namespace morvane::platform
