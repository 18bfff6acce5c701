#pragma once

#include <filesystem>
#include <string_view>

namespace morvane::sys {

/// Every fixed absolute path of the system (the hand-over file, root's copies, /var/lib,
/// /run) goes through here: with $MORVANECLOUD_SYSROOT set, the path is placed under that
/// folder, so that tests and the demo run without root and without touching the machine.
std::filesystem::path systemPath(std::string_view absolutePath);

}  // namespace morvane::sys
