#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace morvane::platform {

/// The user's data folder ($XDG_DATA_HOME, else ~/.local/share): the stand-in for the
/// Application Support directory.
std::filesystem::path applicationSupportDirectory();
/// The user's cache folder ($XDG_CACHE_HOME, else ~/.cache).
std::filesystem::path cachesDirectory();
/// The home folder of the account the process runs for: $HOME when set, else the account
/// database's entry for the real user id.
std::filesystem::path userHomeDirectory();
/// The home folder the account database gives for the real user id.
std::filesystem::path accountHomeDirectory();

/// Reads a whole file. On failure gives nothing and, when asked, the reason.
std::optional<std::string> readTextFile(const std::filesystem::path& path,
                                        std::string* error = nullptr);
/// Gives the file to the named account and its primary group; a link is changed itself, never
/// followed. The reason on failure.
std::optional<std::string> changeOwner(const std::filesystem::path& path,
                                       const std::string& accountName);

}  // namespace morvane::platform
