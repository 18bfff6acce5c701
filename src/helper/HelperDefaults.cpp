#include "helper/HelperDefaults.h"

#include <mutex>

#include "helper/HelperFiles.h"
#include "sys/Files.h"
#include "helper/TarnLogHelper.h"

namespace morvane {

namespace {

/// Read, change and write run one at a time within the process.
std::mutex& storeMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

HelperDefaults::HelperDefaults() : HelperDefaults(helper::supportFile("helper-defaults.json")) {}

HelperDefaults::HelperDefaults(std::filesystem::path path) : path_(std::move(path)) {}

nlohmann::json HelperDefaults::load() const {
    std::string error;
    const auto text = sys::readWholeFile(path_, &error);
    if (!text) {
        return nlohmann::json::object();
    }
    auto parsed = nlohmann::json::parse(*text, nullptr, false);
    if (!parsed.is_object()) {
        // Never a crash over a damaged file: it counts as empty, and says so.
        TarnLogHelper::sharedInstance()->log("Ignoring unreadable defaults file " + path_.string());
        return nlohmann::json::object();
    }
    return parsed;
}

bool HelperDefaults::store(const nlohmann::json& all) {
    std::string error;
    if (!sys::writeFileAtomically(path_, all.dump(2) + "\n", 0600, error)) {
        TarnLogHelper::sharedInstance()->log("Unable to store defaults: " + error);
        return false;
    }
    return true;
}

std::optional<nlohmann::json> HelperDefaults::objectForKey(const std::string& key) const {
    const std::lock_guard lock(storeMutex());
    const auto all = load();
    if (auto found = all.find(key); found != all.end()) {
        return *found;
    }
    return std::nullopt;
}

bool HelperDefaults::setObject(const nlohmann::json& value, const std::string& key) {
    const std::lock_guard lock(storeMutex());
    auto all = load();
    all[key] = value;
    return store(all);
}

bool HelperDefaults::removeObjectForKey(const std::string& key) {
    const std::lock_guard lock(storeMutex());
    auto all = load();
    if (all.erase(key) == 0) {
        return true;
    }
    return store(all);
}

}  // namespace morvane
