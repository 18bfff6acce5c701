// The provider's end of the provider link as plain logic: its replies, the configuration it
// keeps, and the upward calls to the one current connection.
#include <gtest/gtest.h>

#include <vector>

#include "provider/ProviderLink.h"

namespace morvane::provider {
namespace {

struct Sent {
    std::uint64_t connection;
    std::string message;
    nlohmann::json arguments;
};

class ProviderLinkTest : public ::testing::Test {
protected:
    ProviderLink makeLink(std::optional<std::string> displayName) {
        return ProviderLink(
            std::move(displayName), log,
            [this](std::uint64_t connection, const std::string& message,
                   const nlohmann::json& arguments) {
                sent.push_back({connection, message, arguments});
                return deliverable;
            },
            [this](const std::string& line) { printed.push_back(line); });
    }

    std::vector<std::string> logged;
    ServiceLog log{[this](std::string_view line) { logged.emplace_back(line); }, false};
    std::vector<Sent> sent;
    std::vector<std::string> printed;
    bool deliverable = true;
};

const char* kConfig =
    R"({"UDDID":"user-1","locationKey":"tag-1","resolvers":["9.9.9.9"],"deviceConfig":{"jsonrpc":"2.0"}})";

TEST_F(ProviderLinkTest, RegisterNamesTheBundleOrUnknown) {
    EXPECT_EQ(makeLink("Tarn DNS Proxy").handle(1, "register:", nlohmann::json::object()),
              (nlohmann::json{{"text", "Registered extension Tarn DNS Proxy"}}));
    EXPECT_EQ(makeLink(std::nullopt).handle(1, "register:", nlohmann::json::object()),
              (nlohmann::json{{"text", "Registered extension unknown"}}));
    EXPECT_EQ(makeLink("").handle(1, "register:", nlohmann::json::object()),
              (nlohmann::json{{"text", "Registered extension unknown"}}));
    EXPECT_FALSE(makeLink("Tarn DNS Proxy").handle(1, "unregister:", nlohmann::json::object()))
        << "an unknown selector has no reply: the connection is closed";
}

TEST_F(ProviderLinkTest, UpdateConfigKeepsTheLastGoodConfiguration) {
    ProviderLink link = makeLink("Tarn DNS Proxy");
    EXPECT_EQ(link.handle(1, "updateConfigWithConfig:completionHandler:", {{"config", kConfig}}),
              (nlohmann::json{{"text", "Tarn DNS Proxy updated config"}}));
    ASSERT_TRUE(link.networkConfig());
    EXPECT_EQ(link.networkConfig()->UDDID, "user-1");
    EXPECT_EQ(link.networkConfig()->locationKey, "tag-1");
    EXPECT_EQ(link.networkConfig()->deviceConfig.jsonrpc, "2.0");
    EXPECT_EQ(printed, std::vector<std::string>{"Fetching device config"});
    EXPECT_NE(logged.at(0).find("Received configData from the app"), std::string::npos);

    // Without "UDDID", and with every other way of not being a configuration.
    nlohmann::json withoutIdentity = nlohmann::json::parse(kConfig);
    withoutIdentity.erase("UDDID");
    const std::vector<nlohmann::json> bad = {
        {{"config", withoutIdentity.dump()}},
        {{"config", "{"}},
        {{"config", 17}},
        nlohmann::json::object(),
        {{"config", R"({"UDDID":"u","locationKey":"t","resolvers":"9.9.9.9","deviceConfig":{}})"}},
    };
    for (const nlohmann::json& arguments : bad) {
        printed.clear();
        EXPECT_EQ(link.handle(1, "updateConfigWithConfig:completionHandler:", arguments),
                  (nlohmann::json{{"text", "Tarn DNS Proxy failed to unwrap the config"}}))
            << arguments.dump();
        ASSERT_EQ(printed.size(), 2u);
        EXPECT_TRUE(printed[1].starts_with("Unable to decode device config (")) << printed[1];
        EXPECT_EQ(link.networkConfig()->UDDID, "user-1") << "the old configuration stays";
    }
    EXPECT_EQ(makeLink(std::nullopt)
                  .handle(2, "updateConfigWithConfig:completionHandler:", nlohmann::json::object()),
              (nlohmann::json{{"text", "unknown failed to unwrap the config"}}));
}

TEST_F(ProviderLinkTest, UpwardCallsGoToTheLatestConnectionOnly) {
    ProviderLink link = makeLink("Tarn DNS Proxy");
    EXPECT_FALSE(link.proxyStopped(StopReason::ConfigurationDisabled)) << "nobody to tell";
    EXPECT_TRUE(sent.empty());

    link.connectionOpened(3);
    link.connectionOpened(4);  // a new connection replaces the old one
    EXPECT_TRUE(link.proxyStopped(StopReason::ConfigurationDisabled));
    EXPECT_TRUE(link.connectionError(
        {{"domain", "NSPOSIXErrorDomain"}, {"code", 110}, {"description", "x"}}));
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].connection, 4u);
    EXPECT_EQ(sent[0].message, "proxyStoppedWithReason:");
    EXPECT_EQ(sent[0].arguments, (nlohmann::json{{"reason", 9}}));
    EXPECT_EQ(sent[1].message, "connectionErrorWithReason:");
    EXPECT_EQ(sent[1].arguments["error"]["code"], 110);

    link.connectionClosed(3);  // the replaced one going does not unregister the current one
    EXPECT_EQ(link.currentConnection(), 4u);
    deliverable = false;
    EXPECT_FALSE(link.proxyStopped(StopReason::UserInitiated));
    EXPECT_FALSE(link.currentConnection()) << "a connection that cannot be reached is gone";
}

}  // namespace
}  // namespace morvane::provider
