#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

#include "messages/DeviceConfiguration.h"

namespace morvane::provider {

/// The reading side of the defaults the agent shares with the provider: the device
/// configuration under "network_extension_key" in the application group's file of the user
/// who owns the stored proxy configuration.
class SharedDefaultsReader {
public:
    static constexpr const char* kAppGroup = "QN8XK2TR5V.com.lorvex.DNSProxy.app-group";
    static constexpr const char* kKey = "network_extension_key";

    /// $XDG_CONFIG_HOME/MorvaneCloud/<group>.json of that user: the home comes from the user
    /// database; $XDG_CONFIG_HOME counts only when the owner is the provider's own uid (a
    /// test, or a provider run by the user), since another user's environment is not ours.
    static std::optional<std::filesystem::path> fileFor(uid_t owner, std::string& problem);

    /// The shared device configuration of `owner`; none, with the reason in `problem`, when
    /// the file is missing, not the owner's own regular file, or does not decode. The file
    /// is opened without following links and its owner checked, so that a user cannot make
    /// the provider read a file that is not theirs.
    static std::optional<DeviceConfiguration> read(uid_t owner, std::string& problem);
    static std::optional<DeviceConfiguration> readFile(const std::filesystem::path& file,
                                                       uid_t owner, std::string& problem);
};

}  // namespace morvane::provider
