#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace morvane::helper {

/// The helper's own folder, /var/lib/morvanecloud (under $MORVANECLOUD_SYSROOT when set), the
/// stand-in for the local domain's "Morvane Cloud Tarn" support folder.
std::filesystem::path supportDirectory();
/// A file of that folder; the folder is made (mode 0755) when it is missing.
std::filesystem::path supportFile(const std::string& name);

}  // namespace morvane::helper
