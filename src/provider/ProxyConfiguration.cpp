#include "provider/ProxyConfiguration.h"

#include <limits>

namespace morvane::provider {

namespace {

const nlohmann::json* member(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return nullptr;
    }
    return &*found;
}

bool readString(const nlohmann::json& object, const char* key, bool required,
                std::optional<std::string>& out, std::string& error) {
    const nlohmann::json* value = member(object, key);
    if (value == nullptr) {
        if (required) {
            error = std::string("\"") + key + "\" is missing";
            return false;
        }
        return true;
    }
    if (!value->is_string()) {
        error = std::string("\"") + key + "\" is not a text";
        return false;
    }
    out = value->get<std::string>();
    return true;
}

}  // namespace

std::optional<ProxyConfiguration> ProxyConfiguration::fromArguments(const nlohmann::json& arguments,
                                                                    std::string& error) {
    if (!arguments.is_object()) {
        error = "the configuration is not an object";
        return std::nullopt;
    }
    ProxyConfiguration configuration;
    const nlohmann::json* enabled = member(arguments, "enabled");
    if (enabled == nullptr || !enabled->is_boolean()) {
        error = enabled == nullptr ? "\"enabled\" is missing" : "\"enabled\" is not a boolean";
        return std::nullopt;
    }
    configuration.enabled = enabled->get<bool>();

    std::optional<std::string> bundle;
    std::optional<std::string> description;
    if (!readString(arguments, "serverAddress", false, configuration.serverAddress, error) ||
        !readString(arguments, "providerBundleIdentifier", true, bundle, error) ||
        !readString(arguments, "localizedDescription", false, description, error)) {
        return std::nullopt;
    }
    configuration.providerBundleIdentifier = *bundle;
    configuration.localizedDescription = description.value_or("");

    const nlohmann::json* dictionary = member(arguments, "providerConfiguration");
    if (dictionary == nullptr || !dictionary->is_object()) {
        error = dictionary == nullptr ? "\"providerConfiguration\" is missing"
                                      : "\"providerConfiguration\" is not an object";
        return std::nullopt;
    }
    configuration.providerConfiguration = *dictionary;
    return configuration;
}

nlohmann::json ProxyConfiguration::toArguments() const {
    nlohmann::json out = nlohmann::json::object();
    out["enabled"] = enabled;
    if (serverAddress) {
        out["serverAddress"] = *serverAddress;
    }
    out["providerBundleIdentifier"] = providerBundleIdentifier;
    out["providerConfiguration"] = providerConfiguration;
    out["localizedDescription"] = localizedDescription;
    return out;
}

std::optional<ProxyConfiguration> ProxyConfiguration::fromStored(const nlohmann::json& stored,
                                                                 std::string& error) {
    std::optional<ProxyConfiguration> configuration = fromArguments(stored, error);
    if (!configuration) {
        return std::nullopt;
    }
    const nlohmann::json* owner = member(stored, "ownerUid");
    if (owner == nullptr || !owner->is_number_unsigned() ||
        owner->get<unsigned long long>() > std::numeric_limits<uid_t>::max()) {
        error = owner == nullptr ? "\"ownerUid\" is missing" : "\"ownerUid\" is not a uid";
        return std::nullopt;
    }
    configuration->ownerUid = static_cast<uid_t>(owner->get<unsigned long long>());
    return configuration;
}

nlohmann::json ProxyConfiguration::toStored() const {
    nlohmann::json out = toArguments();
    out["ownerUid"] = static_cast<unsigned long long>(ownerUid);
    return out;
}

}  // namespace morvane::provider
