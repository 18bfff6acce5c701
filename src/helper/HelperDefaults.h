#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace morvane {

/// The helper process's persistent key-value store (its user defaults): one JSON object in
/// "helper-defaults.json" of the helper's folder, read on every access and replaced atomically
/// on every change, so that entries survive restarts and a crash never leaves half a file.
class HelperDefaults {
public:
    HelperDefaults();
    explicit HelperDefaults(std::filesystem::path path);

    std::optional<nlohmann::json> objectForKey(const std::string& key) const;
    bool setObject(const nlohmann::json& value, const std::string& key);
    bool removeObjectForKey(const std::string& key);

    const std::filesystem::path& path() const { return path_; }

private:
    nlohmann::json load() const;
    bool store(const nlohmann::json& all);

    std::filesystem::path path_;
};

}  // namespace morvane
