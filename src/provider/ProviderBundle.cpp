#include "provider/ProviderBundle.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>
#include <vector>

namespace morvane::provider {

namespace {

std::optional<std::string> text(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

}  // namespace

std::optional<ProviderBundle> ProviderBundle::read(const std::filesystem::path& folder,
                                                   std::string& error) {
    ProviderBundle bundle;
    bundle.infoFile = folder / "Info.json";
    std::ifstream in(bundle.infoFile);
    if (!in) {
        error = "cannot read " + bundle.infoFile.string();
        return std::nullopt;
    }
    std::stringstream content;
    content << in.rdbuf();
    nlohmann::json info = nlohmann::json::parse(content.str(), nullptr, false);
    if (info.is_discarded() || !info.is_object()) {
        error = bundle.infoFile.string() + " is not a JSON object";
        return std::nullopt;
    }
    bundle.displayName = text(info, "CFBundleDisplayName");
    bundle.identifier = text(info, "CFBundleIdentifier");
    bundle.version = text(info, "CFBundleVersion");
    auto extension = info.find("NetworkExtension");
    if (extension != info.end() && extension->is_object()) {
        if (auto name = text(*extension, "NEMachServiceName"); name && !name->empty()) {
            bundle.machServiceName = *name;
        }
    }
    return bundle;
}

std::optional<std::filesystem::path> ProviderBundle::locate(
    const std::filesystem::path& executable) {
    const std::filesystem::path bin = executable.parent_path();
    const std::vector<std::filesystem::path> candidates = {
        bin.parent_path() / "morvanecloud" / "SystemExtensions" / kBundleFolder,
        bin.parent_path() / "lib" / "morvanecloud" / "SystemExtensions" / kBundleFolder,
        std::filesystem::path("/usr/lib/morvanecloud/SystemExtensions") / kBundleFolder,
    };
    for (const auto& candidate : candidates) {
        std::error_code ec;
        if (std::filesystem::is_regular_file(candidate / "Info.json", ec)) {
            return candidate;
        }
    }
    return std::nullopt;
}

}  // namespace morvane::provider
