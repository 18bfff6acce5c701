#include "provider/PolicyBuilder.h"

namespace morvane::provider {

namespace {

bool readTextList(const nlohmann::json& value, const std::string& what,
                  std::vector<std::string>& out, std::string& error) {
    if (!value.is_array()) {
        error = what + " is not a list";
        return false;
    }
    for (const auto& element : value) {
        if (!element.is_string()) {
            error = what + " holds something other than text";
            return false;
        }
        out.push_back(element.get<std::string>());
    }
    return true;
}

bool readOptionalText(const nlohmann::json& dictionary, const char* key,
                      std::optional<std::string>& out, std::string& error) {
    auto found = dictionary.find(key);
    if (found == dictionary.end() || found->is_null()) {
        return true;
    }
    if (!found->is_string()) {
        error = std::string("\"") + key + "\" is not a text";
        return false;
    }
    out = found->get<std::string>();
    return true;
}

// One element of "filters": {"filter": [{"resolvers": [...]}, {"domain": "..."}, {"rule": "..."}]}.
bool readFilter(const nlohmann::json& element, std::size_t index, PolicyRule& rule,
                std::string& error) {
    const std::string where = "\"filters\"[" + std::to_string(index) + "]";
    if (!element.is_object()) {
        error = where + " is not an object";
        return false;
    }
    auto parts = element.find("filter");
    if (parts == element.end() || !parts->is_array()) {
        error = where + " has no \"filter\" list";
        return false;
    }
    for (const auto& part : *parts) {
        if (!part.is_object()) {
            error = where + " holds a part that is not an object";
            return false;
        }
        for (const auto& [key, value] : part.items()) {
            if (key == "resolvers") {
                if (!readTextList(value, where + " resolvers", rule.resolvers, error)) {
                    return false;
                }
            } else if (key == "domain" || key == "rule") {
                if (!value.is_string()) {
                    error = where + " " + key + " is not a text";
                    return false;
                }
                std::string text = value.get<std::string>();
                if (!text.empty()) {
                    (key == "domain" ? rule.domain : rule.network) = std::move(text);
                }
            }
        }
    }
    return true;
}

}  // namespace

std::vector<PolicyRule> PolicyBuilder::rulesOf(const DeviceConfiguration& configuration) {
    std::vector<PolicyRule> rules;
    if (!configuration.result || !configuration.result->filters) {
        return rules;
    }
    for (const ForwardingRule& filter : *configuration.result->filters) {
        PolicyRule rule;
        if (filter.domain && !filter.domain->empty()) {
            rule.domain = filter.domain;
        }
        if (filter.rule && !filter.rule->empty()) {
            rule.network = filter.rule;
        }
        rule.resolvers = filter.resolvers.value_or(std::vector<std::string>{});
        rules.push_back(std::move(rule));
    }
    return rules;
}

std::optional<PolicyBuilder::Result> PolicyBuilder::build(
    const nlohmann::json& providerConfiguration, const std::optional<std::string>& serverAddress,
    const std::optional<DeviceConfiguration>& shared, std::string& error) {
    if (!providerConfiguration.is_object()) {
        error = "the provider configuration is not an object";
        return std::nullopt;
    }
    Result result;
    result.policy.serverAddress = serverAddress;
    if (result.policy.serverAddress && result.policy.serverAddress->empty()) {
        result.policy.serverAddress.reset();
    }

    const nlohmann::json& filters = providerConfiguration.contains("filters")
                                        ? providerConfiguration.at("filters")
                                        : nlohmann::json();
    if (!filters.is_null()) {
        if (!filters.is_array()) {
            error = "\"filters\" is not a list";
            return std::nullopt;
        }
        std::size_t index = 0;
        for (const nlohmann::json& element : filters) {
            PolicyRule rule;
            if (!readFilter(element, index++, rule, error)) {
                return std::nullopt;
            }
            result.policy.rules.push_back(std::move(rule));
        }
        result.source = "rules from the provider configuration";
    } else if (shared) {
        result.policy.rules = rulesOf(*shared);
        result.source = "rules from the shared defaults";
    } else {
        result.source = "no rules";
    }

    std::optional<std::string> locationTag;
    std::optional<std::string> uuid;
    if (!readOptionalText(providerConfiguration, "locationTag", locationTag, error) ||
        !readOptionalText(providerConfiguration, "uuid", uuid, error)) {
        return std::nullopt;
    }
    // The identity falls back on the shared device configuration, as the agent derives it:
    // the runtime's user and the first location's tag.
    if (shared && shared->result && shared->result->cfg && shared->result->cfg->runtime) {
        const Runtime& runtime = *shared->result->cfg->runtime;
        if (!uuid && runtime.user) {
            uuid = runtime.user;
        }
        if (!locationTag && !runtime.locations.empty()) {
            locationTag = runtime.locations.front().tag;
        }
    }
    result.policy.locationTag = locationTag.value_or("");
    result.policy.uuid = uuid.value_or("");

    auto localDNS = providerConfiguration.find("localDNS");
    if (localDNS != providerConfiguration.end() && !localDNS->is_null() &&
        !readTextList(*localDNS, "\"localDNS\"", result.localDNS, error)) {
        return std::nullopt;
    }
    return result;
}

}  // namespace morvane::provider
