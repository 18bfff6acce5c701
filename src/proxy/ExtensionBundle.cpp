#include "proxy/ExtensionBundle.h"

#include <algorithm>
#include <system_error>
#include <vector>

#include "platform/Files.h"
#include "sys/SystemPaths.h"

namespace morvane {

namespace fs = std::filesystem;

namespace {

std::string textValue(const nlohmann::json& info, const char* key) {
    const auto found = info.find(key);
    return found != info.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

fs::path ExtensionBundle::extensionsDirectory() {
    std::error_code error;
    const auto executable = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        const auto beside = executable.parent_path() / "SystemExtensions";
        if (fs::is_directory(beside, error)) {
            return beside;
        }
    }
    return sys::systemPath("/usr/lib/morvanecloud/SystemExtensions");
}

ExtensionBundle::Lookup ExtensionBundle::find(const fs::path& directory) {
    std::error_code error;
    fs::directory_iterator it(directory, error);
    if (error) {
        return {std::nullopt,
                "Failed to get the contents of " + directory.string() + ": " + error.message()};
    }
    std::vector<fs::path> entries;
    for (; it != fs::directory_iterator(); it.increment(error)) {
        if (error) {
            return {std::nullopt,
                    "Failed to get the contents of " + directory.string() + ": " + error.message()};
        }
        const auto name = it->path().filename().string();
        if (!name.empty() && name.front() != '.') {
            entries.push_back(it->path());
        }
    }
    if (entries.empty()) {
        return {std::nullopt, "Failed to find any system extensions"};
    }
    std::sort(entries.begin(), entries.end());
    auto bundle = open(entries.front());
    if (!bundle) {
        return {std::nullopt, "Failed to create a bundle with URL " + entries.front().string()};
    }
    return {std::move(bundle), {}};
}

std::optional<ExtensionBundle> ExtensionBundle::open(const fs::path& url) {
    std::error_code error;
    if (!fs::is_directory(url, error)) {
        return std::nullopt;
    }
    const auto text = platform::readTextFile(url / "Info.json");
    if (!text) {
        return std::nullopt;
    }
    auto info = nlohmann::json::parse(*text, nullptr, false);
    if (info.is_discarded() || !info.is_object()) {
        return std::nullopt;
    }
    ExtensionBundle bundle;
    bundle.url_ = url;
    bundle.info_ = std::move(info);
    return bundle;
}

nlohmann::json ExtensionBundle::objectForInfoDictionaryKey(const std::string& key) const {
    const auto found = info_.find(key);
    return found == info_.end() ? nlohmann::json() : *found;
}

std::string ExtensionBundle::bundleVersion() const {
    return textValue(info_, "CFBundleVersion");
}

std::string ExtensionBundle::bundleIdentifier() const {
    return textValue(info_, "CFBundleIdentifier");
}

std::optional<std::string> machServiceName(const ExtensionBundle& bundle) {
    const auto extension = bundle.objectForInfoDictionaryKey("NetworkExtension");
    if (!extension.is_object()) {
        return std::nullopt;
    }
    const auto name = textValue(extension, "NEMachServiceName");
    if (name.empty()) {
        return std::nullopt;
    }
    return name;
}

}  // namespace morvane
