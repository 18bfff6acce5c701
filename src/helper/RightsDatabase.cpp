#include "helper/RightsDatabase.h"

#include <mutex>
#include <nlohmann/json.hpp>

#include "helper/AuthorizationToken.h"
#include "helper/HelperFiles.h"
#include "sys/Files.h"
#include "helper/TarnLogHelper.h"

namespace morvane {

namespace {

std::mutex& rightsMutex() {
    static std::mutex mutex;
    return mutex;
}

std::optional<nlohmann::json> load(const std::filesystem::path& path, bool& damaged) {
    damaged = false;
    std::string error;
    const auto text = sys::readWholeFile(path, &error);
    if (!text) {
        return nlohmann::json::object();
    }
    auto parsed = nlohmann::json::parse(*text, nullptr, false);
    if (!parsed.is_object()) {
        damaged = true;
        return std::nullopt;
    }
    return parsed;
}

}  // namespace

RightsDatabase::RightsDatabase() : RightsDatabase(helper::supportFile("rights.json")) {}

RightsDatabase::RightsDatabase(std::filesystem::path path) : path_(std::move(path)) {}

int RightsDatabase::rightGet(const std::string& name) {
    const std::lock_guard lock(rightsMutex());
    bool damaged = false;
    const auto all = load(path_, damaged);
    if (!all) {
        return authorization_status::internal;
    }
    return all->contains(name) ? authorization_status::success : Common::kRightNotDefined;
}

int RightsDatabase::rightSet(const std::string& name, const std::string& rule,
                             const std::string& description, const std::string& table) {
    const std::lock_guard lock(rightsMutex());
    bool damaged = false;
    auto all = load(path_, damaged);
    if (!all) {
        // An administrator's damaged file is not replaced behind their back.
        TarnLogHelper::sharedInstance()->log("Rights database " + path_.string() +
                                             " is unreadable; right " + name + " not defined");
        return authorization_status::internal;
    }
    (*all)[name] = {{"rule", rule}, {"description", description}, {"table", table}};
    std::string error;
    if (!sys::writeFileAtomically(path_, all->dump(2) + "\n", 0644, error)) {
        TarnLogHelper::sharedInstance()->log("Unable to define right " + name + ": " + error);
        return authorization_status::internal;
    }
    return authorization_status::success;
}

int RightsDatabase::copyRight(const std::string& name) {
    const std::lock_guard lock(rightsMutex());
    bool damaged = false;
    const auto all = load(path_, damaged);
    if (!all) {
        TarnLogHelper::sharedInstance()->log("Rights database " + path_.string() +
                                             " is unreadable; " + name + " refused");
        return authorization_status::internal;
    }
    const auto found = all->find(name);
    if (found == all->end() || !found->is_object()) {
        return authorization_status::denied;
    }
    return found->value("rule", "") == "allow" ? authorization_status::success
                                               : authorization_status::denied;
}

}  // namespace morvane
