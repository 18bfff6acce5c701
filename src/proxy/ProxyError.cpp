#include "proxy/ProxyError.h"

#include <cstdint>

namespace morvane {

std::string ProxyError::description() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" +
           localizedDescription + "\"";
}

std::string ProxyError::userInfoText() const {
    return userInfo.is_object() ? userInfo.dump() : std::string("{}");
}

std::optional<ProxyError> ProxyError::fromJson(const nlohmann::json& object) {
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto& members = object.get_ref<const nlohmann::json::object_t&>();
    const auto domain = members.find("domain");
    const auto code = members.find("code");
    if (domain == members.end() || !domain->second.is_string() || code == members.end() ||
        !code->second.is_number_integer()) {
        return std::nullopt;
    }
    ProxyError error;
    error.domain = domain->second.get_ref<const std::string&>();
    error.code = code->second.get<std::int64_t>();
    if (const auto text = members.find("description");
        text != members.end() && text->second.is_string()) {
        error.localizedDescription = text->second.get_ref<const std::string&>();
    }
    auto& extra = error.userInfo.get_ref<nlohmann::json::object_t&>();
    for (const auto& [key, value] : members) {
        if (key != "domain" && key != "code" && key != "description") {
            extra.emplace(key, value);
        }
    }
    return error;
}

nlohmann::json ProxyError::toJson() const {
    nlohmann::json::object_t object;
    if (userInfo.is_object()) {
        object = userInfo.get<nlohmann::json::object_t>();
    }
    object["domain"] = domain;
    object["code"] = code;
    object["description"] = localizedDescription;
    return object;
}

}  // namespace morvane
