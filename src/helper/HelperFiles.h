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

/// Replaces `path` with `content` so that a reader, or a machine that loses power, sees the
/// old file or the new one and never a part: a temporary file beside it, written and synced,
/// renamed over the old one, then the folder synced. False with `error` set on failure, the
/// old file untouched.
bool writeFileAtomically(const std::filesystem::path& path, const std::string& content, mode_t mode,
                         std::string& error);
/// The whole file; none when it cannot be read, with `error` set.
std::optional<std::string> readWholeFile(const std::filesystem::path& path, std::string& error);

}  // namespace morvane::helper
