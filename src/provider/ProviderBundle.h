#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace morvane::provider {

/// The provider's bundle information (Info.json): its display name for the link's replies,
/// its identifier for checking saves, and the Mach service name that names the link's socket.
struct ProviderBundle {
    /// The link's socket name when no bundle is found.
    static constexpr const char* kDefaultMachServiceName =
        "QN8XK2TR5V.com.tarn.lorvaxHQ.TarnDNSProxy";
    static constexpr const char* kBundleFolder = "com.tarn.lorvaxHQ.TarnDNSProxy";

    std::filesystem::path infoFile;
    std::optional<std::string> displayName;
    std::optional<std::string> identifier;
    std::optional<std::string> version;
    std::string machServiceName = kDefaultMachServiceName;

    /// Reads `<folder>/Info.json`. Nothing, with the reason in `error`, when it is missing or
    /// no JSON object; keys of the wrong type count as absent.
    static std::optional<ProviderBundle> read(const std::filesystem::path& folder,
                                              std::string& error);

    /// Where the bundle lies for a program at `executable`: beside the agent in the build
    /// tree (../morvanecloud/SystemExtensions/...), under ../lib/morvanecloud when installed
    /// with a prefix, and /usr/lib/morvanecloud. The first folder holding an Info.json.
    static std::optional<std::filesystem::path> locate(const std::filesystem::path& executable);
};

}  // namespace morvane::provider
