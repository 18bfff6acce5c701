#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace morvane {

/// The DNS proxy provider's bundle: a folder named after the provider's identifier that holds
/// an "Info.json" information dictionary. The agent reads the provider link's service name
/// from it; the provider its display name.
class ExtensionBundle {
public:
    struct Lookup;

    /// "SystemExtensions" beside the running executable when that folder exists (the build
    /// tree), else /usr/lib/morvanecloud/SystemExtensions (under $MORVANECLOUD_SYSROOT).
    static std::filesystem::path extensionsDirectory();
    /// Lists the folder, skips hidden entries, takes the first one in name order and opens it.
    static Lookup find(const std::filesystem::path& directory);
    /// Opens one bundle folder; nothing when its information dictionary is missing or is not
    /// a JSON object.
    static std::optional<ExtensionBundle> open(const std::filesystem::path& url);

    const std::filesystem::path& url() const { return url_; }
    /// A value of the information dictionary; null when absent.
    nlohmann::json objectForInfoDictionaryKey(const std::string& key) const;
    /// "CFBundleVersion", or "" when it has none.
    std::string bundleVersion() const;
    std::string bundleIdentifier() const;

private:
    std::filesystem::path url_;
    nlohmann::json info_;
};

/// The outcome of looking for the bundle; `failure` holds the line that says why not.
struct ExtensionBundle::Lookup {
    std::optional<ExtensionBundle> bundle;
    std::string failure;
};

/// The name of the provider link's socket: "NetworkExtension" -> "NEMachServiceName" of the
/// bundle's information dictionary; nothing when either level is missing or not text.
std::optional<std::string> machServiceName(const ExtensionBundle& bundle);

}  // namespace morvane
