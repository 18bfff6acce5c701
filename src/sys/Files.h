#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace morvane::sys {

/// Writes all of `content` to `fd`, again after an interruption; false with errno set when a
/// write fails.
bool writeAllTo(int fd, std::string_view content);

/// A whole file's bytes; nothing when it cannot be read (errno tells why, and `error` when
/// given).
std::optional<std::string> readWholeFile(const std::filesystem::path& path,
                                         std::string* error = nullptr);

/// Writes through a temporary file beside the target, fsync and rename, so a reader or a
/// power cut sees the old bytes or the new ones. The folder is created when missing.
bool writeFileAtomically(const std::filesystem::path& path, const std::string& content, mode_t mode,
                         std::string& error);

/// How a file that others read was written.
enum class WriteMethod { Replaced, InPlace };

/// Replaces `path` with `content` like `writeFileAtomically`, and where a rename cannot land
/// on it (a bind-mounted file gives EBUSY; a read-only folder around a writable file) writes
/// the file in place instead. Nothing is changed when neither works.
bool replaceOrWriteInPlace(const std::filesystem::path& path, const std::string& content,
                           mode_t mode, WriteMethod& method, std::string& error);

}  // namespace morvane::sys
