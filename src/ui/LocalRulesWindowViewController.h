#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TestData.h"
#include "messages/DeviceConfiguration.h"
#include "messages/ForwardingRule.h"
#include "ui/Controls.h"

namespace morvane {

/// The logic behind the local rules panel, where a tester tries one forwarding rule on this
/// machine without the server: a domain, an address or network, and resolvers. An accepted
/// rule is held in `TestData` (memory only), shown as JSON, and announced as a refreshed
/// device configuration made of the stored one plus this rule. The controls are the panel's;
/// this class holds them weakly and runs on the main thread.
class LocalRulesWindowViewController {
public:
    /// Reads the stored device configuration.
    LocalRulesWindowViewController();

    /// Reads the stored device configuration again, as the panel's view is loaded.
    void viewDidLoad();
    /// The switch: the three inputs take input when it is on; either way they are cleared.
    void useLocalFiltering(const ui::Button& sender);
    /// The set button.
    void setValues();

    static constexpr const char* kInvalidResolvers =
        "Invalid resolvers. Should be comma list of IP addresses";
    static constexpr const char* kEmptyRule = "A domain, rule, or resolver must be set";
    static constexpr const char* kInvalidRule = "incorrect rule format. Use IP or CIDR";

    /// The resolver field split at every ",", empty pieces dropped, nothing trimmed.
    static std::vector<std::string> splitResolvers(const std::string& text);
    /// Absent or empty, an IPv4 address, or anything the network reader takes.
    static bool ruleIsValid(const std::optional<std::string>& rule);
    /// Every piece an IPv4 address; no pieces pass.
    static bool resolversAreValid(const std::vector<std::string>& resolvers);
    static bool isEmpty(const ForwardingRule& rule);
    /// The message that refuses the rule, or nothing when it is taken.
    static std::optional<std::string> refusal(const ForwardingRule& rule);
    /// The rule the three inputs make.
    static ForwardingRule makeRule(const std::string& domain, const std::string& rule,
                                   const std::string& resolvers);

    std::weak_ptr<ui::Button> useFilterButton;
    std::weak_ptr<ui::TextField> ruleTextField;
    std::weak_ptr<ui::TextField> domainTextField;
    std::weak_ptr<ui::TextField> resolverTextField;
    std::weak_ptr<ui::TextField> errorLabel;
    std::weak_ptr<ui::TextField> jsonTextField;
    /// The stored configuration as read when the panel was made; never written afterwards.
    std::optional<DeviceConfiguration> config;

    Injected<NotificationPublisher> notificationPublisher;
    Injected<TestData> testData;

private:
    static std::optional<DeviceConfiguration> readConfig();
    void clear();
    void publishEdit();
};

}  // namespace morvane
