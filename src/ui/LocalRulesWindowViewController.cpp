#include "ui/LocalRulesWindowViewController.h"

#include "ip/IPAddressParsingError.h"
#include "ip/IPNetworkv4.h"
#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "settings/CommmonValidator.h"
#include "settings/Utils.h"

namespace morvane {

namespace {

std::string textOf(const std::weak_ptr<ui::TextField>& field) {
    auto strong = field.lock();
    return strong ? strong->stringValue() : std::string();
}

void setText(const std::weak_ptr<ui::TextField>& field, const std::string& text) {
    if (auto strong = field.lock()) {
        strong->setStringValue(text);
    }
}

void setEnabled(const std::weak_ptr<ui::TextField>& field, bool enabled) {
    if (auto strong = field.lock()) {
        strong->setEnabled(enabled);
    }
}

}  // namespace

LocalRulesWindowViewController::LocalRulesWindowViewController() : config(readConfig()) {}

void LocalRulesWindowViewController::viewDidLoad() {
    config = readConfig();
}

std::optional<DeviceConfiguration> LocalRulesWindowViewController::readConfig() {
    // Said nowhere when missing: the panel still checks and holds rules, it only cannot
    // announce them.
    const auto url = Utils::deviceFileURL();
    if (!url) {
        return std::nullopt;
    }
    const auto text = platform::readTextFile(*url);
    if (!text) {
        return std::nullopt;
    }
    return decodeJSON<DeviceConfiguration>(*text);
}

std::vector<std::string> LocalRulesWindowViewController::splitResolvers(const std::string& text) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto comma = text.find(',', start);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        if (comma > start) {
            pieces.push_back(text.substr(start, comma - start));
        }
        start = comma + 1;
    }
    return pieces;
}

bool LocalRulesWindowViewController::ruleIsValid(const std::optional<std::string>& rule) {
    if (!rule || rule->empty()) {
        return true;
    }
    if (CommmonValidator::isValidIPv4(*rule)) {
        return true;
    }
    try {
        ip::IPNetworkv4 network(*rule);
        return true;
    } catch (const ip::IPAddressParsingError&) {
        return false;
    }
}

bool LocalRulesWindowViewController::resolversAreValid(const std::vector<std::string>& resolvers) {
    for (const auto& resolver : resolvers) {
        if (!CommmonValidator::isValidIPv4(resolver)) {
            return false;
        }
    }
    return true;
}

bool LocalRulesWindowViewController::isEmpty(const ForwardingRule& rule) {
    return !rule.rule && rule.domain.value_or("").empty() &&
           rule.resolvers.value_or(std::vector<std::string>{}).empty();
}

std::optional<std::string> LocalRulesWindowViewController::refusal(const ForwardingRule& rule) {
    if (!resolversAreValid(rule.resolvers.value_or(std::vector<std::string>{}))) {
        return kInvalidResolvers;
    }
    if (isEmpty(rule)) {
        return kEmptyRule;
    }
    if (!ruleIsValid(rule.rule)) {
        return kInvalidRule;
    }
    return std::nullopt;
}

ForwardingRule LocalRulesWindowViewController::makeRule(const std::string& domain,
                                                        const std::string& rule,
                                                        const std::string& resolvers) {
    return ForwardingRule{
        .domain = domain,
        .resolvers = splitResolvers(resolvers),
        .rule = rule.empty() ? std::nullopt : std::optional<std::string>(rule),
    };
}

void LocalRulesWindowViewController::useLocalFiltering(const ui::Button& sender) {
    const bool on = sender.state() == 1;
    setEnabled(ruleTextField, on);
    setEnabled(domainTextField, on);
    setEnabled(resolverTextField, on);
    clear();
}

void LocalRulesWindowViewController::clear() {
    setText(ruleTextField, "");
    setText(domainTextField, "");
    setText(resolverTextField, "");
    setText(jsonTextField, "");
    testData->testForwardingRules.reset();
}

void LocalRulesWindowViewController::setValues() {
    const ForwardingRule rule =
        makeRule(textOf(domainTextField), textOf(ruleTextField), textOf(resolverTextField));
    setText(errorLabel, "");
    // A rule set earlier is gone even when this one is refused.
    testData->testForwardingRules.reset();
    if (auto message = refusal(rule)) {
        setText(errorLabel, *message);
        return;
    }
    testData->testForwardingRules = std::vector<ForwardingRule>{rule};
    if (auto json = encodeJSON(rule)) {
        setText(jsonTextField, *json);
    }
    publishEdit();
}

void LocalRulesWindowViewController::publishEdit() {
    if (!testData->testForwardingRules || !config) {
        return;
    }
    // Each edit starts from the configuration as stored, so it carries this one rule however
    // often a rule is set.
    DeviceConfiguration copy = *config;
    if (copy.result && copy.result->filters) {
        for (const auto& rule : *testData->testForwardingRules) {
            copy.result->filters->push_back(rule);
        }
    }
    notificationPublisher->post(ChangeType::deviceConfigRefreshed, copy);
}

}  // namespace morvane
