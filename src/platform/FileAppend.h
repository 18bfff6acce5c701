#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace morvane::platform {

struct AppendResult {
    enum class Status {
        written,
        /// The folder, the file or the write failed; nothing or not all was written.
        couldNotWrite,
        /// The file was opened but the exclusive claim on it could not be taken.
        couldNotLock,
    };
    Status status = Status::written;
    /// The system's description of what failed; empty when written.
    std::string error;
};

/// Appends the bytes to the file under an exclusive flock held for this one append, so that
/// writers in other threads and processes never interleave inside one record. Creates the
/// file, and its parent folders when they are missing. The file is closed again before
/// returning: nothing stays open between calls, so a file moved or removed by someone else is
/// simply created anew on the next append. With syncToDisk the data reach the disk first.
AppendResult appendLocked(const std::filesystem::path& file, std::string_view bytes,
                          bool syncToDisk);

}  // namespace morvane::platform
