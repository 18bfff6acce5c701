// The forwarder's policy as the agent's provider configuration dictionary describes it, with
// the owner's shared device configuration filling in what the dictionary lacks.
#include <gtest/gtest.h>

#include "messages/JSONCoding.h"
#include "provider/PolicyBuilder.h"

namespace morvane::provider {
namespace {

// The dictionary as the agent builds it: one element per rule, with its parts in the order
// resolvers, domain, rule, each only when the rule has it.
nlohmann::json agentDictionary() {
    return {
        {"internalIp", "192.168.1.20"},
        {"locationTag", "tag-home"},
        {"uuid", "user-7"},
        {"resolvers", {"10.0.0.53", "9.9.9.9"}},
        {"localDNS", {"192.168.1.1"}},
        {"filters",
         {
             {{"filter", {{{"resolvers", {"10.0.0.53"}}}, {{"domain", "corp.example"}}}}},
             {{"filter", {{{"rule", "10.0.0.0/8"}}}}},
             {{"filter", {{{"resolvers", {"9.9.9.9"}}}}}},
         }},
    };
}

DeviceConfiguration sharedConfiguration() {
    auto decoded = decodeJSON<DeviceConfiguration>(
        R"({"result":{"cfg":{"runtime":{"locations":[{"name":"Office","tag":"tag-office"}],"user":"user-shared"}},)"
        R"("filters":[{"domain":"shared.example","resolvers":["10.9.9.9"]},{"resolvers":["1.1.1.1"]}]}})");
    EXPECT_TRUE(decoded);
    return decoded.value_or(DeviceConfiguration{});
}

TEST(PolicyBuilderTest, RulesIdentityAndNetworkServersComeFromTheDictionary) {
    std::string error;
    auto built = PolicyBuilder::build(agentDictionary(), std::string("10.0.0.53"),
                                      sharedConfiguration(), error);
    ASSERT_TRUE(built) << error;
    const Policy& policy = built->policy;
    ASSERT_EQ(policy.rules.size(), 3u);
    EXPECT_EQ(policy.rules[0], (PolicyRule{"corp.example", std::nullopt, {"10.0.0.53"}}));
    EXPECT_EQ(policy.rules[1], (PolicyRule{std::nullopt, "10.0.0.0/8", {}}));
    EXPECT_EQ(policy.rules[2], (PolicyRule{std::nullopt, std::nullopt, {"9.9.9.9"}}));
    EXPECT_EQ(policy.serverAddress, "10.0.0.53");
    EXPECT_EQ(policy.locationTag, "tag-home") << "the dictionary wins over the shared defaults";
    EXPECT_EQ(policy.uuid, "user-7");
    EXPECT_EQ(policy.defaultResolvers(), std::vector<std::string>{"9.9.9.9"});
    EXPECT_EQ(built->localDNS, std::vector<std::string>{"192.168.1.1"});
}

TEST(PolicyBuilderTest, SharedDefaultsFillWhatTheDictionaryLacks) {
    std::string error;
    auto built =
        PolicyBuilder::build(nlohmann::json::object(), std::nullopt, sharedConfiguration(), error);
    ASSERT_TRUE(built) << error;
    ASSERT_EQ(built->policy.rules.size(), 2u);
    EXPECT_EQ(built->policy.rules[0].domain, "shared.example");
    EXPECT_EQ(built->policy.locationTag, "tag-office");
    EXPECT_EQ(built->policy.uuid, "user-shared");
    EXPECT_FALSE(built->policy.serverAddress);

    // An empty "filters" list is the agent's word: no rules, not the shared ones.
    nlohmann::json empty = {{"filters", nlohmann::json::array()}};
    built = PolicyBuilder::build(empty, std::string(""), sharedConfiguration(), error);
    ASSERT_TRUE(built) << error;
    EXPECT_TRUE(built->policy.rules.empty());
    EXPECT_FALSE(built->policy.serverAddress) << "an empty server address is none";

    built = PolicyBuilder::build(nlohmann::json::object(), std::nullopt, std::nullopt, error);
    ASSERT_TRUE(built) << error;
    EXPECT_TRUE(built->policy.rules.empty());
    EXPECT_EQ(built->policy.uuid, "");
}

TEST(PolicyBuilderTest, MisshapenDictionariesAreRefusedWhole) {
    const std::vector<nlohmann::json> bad = {
        nlohmann::json::array(),
        {{"filters", "corp.example"}},
        {{"filters", {42}}},
        {{"filters", {{{"rules", nlohmann::json::array()}}}}},
        {{"filters", {{{"filter", {"domain"}}}}}},
        {{"filters", {{{"filter", {{{"domain", 7}}}}}}}},
        {{"filters", {{{"filter", {{{"resolvers", "9.9.9.9"}}}}}}}},
        {{"filters", {{{"filter", {{{"resolvers", {1, 2}}}}}}}}},
        {{"locationTag", 12}},
        {{"uuid", {"x"}}},
        {{"localDNS", "192.168.1.1"}},
    };
    for (const nlohmann::json& dictionary : bad) {
        std::string error;
        EXPECT_FALSE(PolicyBuilder::build(dictionary, std::nullopt, std::nullopt, error))
            << dictionary.dump();
        EXPECT_NE(error, "") << dictionary.dump();
    }
}

}  // namespace
}  // namespace morvane::provider
