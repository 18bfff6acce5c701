#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "settings/KeyValueText.h"

namespace morvane {
namespace {

using Entries = std::vector<std::pair<MorvaneServerInfoSection, std::string>>;

TEST(KeyValueTextTest, OnlyLinesOfOneKnownKeyAndOneEqualsSignCount) {
    const std::string text =
        "RPC_URL=https://rpc.example.net:8443\n"
        "\n"                                    // empty line
        "RPC_URL=https://x.example.net/?a=b\n"  // a value holding "=" is dropped
        "NOT_A_KEY=1\n"                         // unknown key
        "rpc_url=lower\n"                       // keys are case sensitive
        "INSTALL_KEY=first\n"
        "LOCATION_NAME=\n"  // an empty value still counts
        "=orphan\n"
        "INSTALL_KEY=second\n"  // repeats are kept in order
        "DEVICE_NAME=no line feed at the end";
    const Entries expected = {
        {MorvaneServerInfoSection::rpcURL, "https://rpc.example.net:8443"},
        {MorvaneServerInfoSection::installKey, "first"},
        {MorvaneServerInfoSection::locationName, ""},
        {MorvaneServerInfoSection::installKey, "second"},
        {MorvaneServerInfoSection::deviceName, "no line feed at the end"},
    };
    EXPECT_EQ(key_value_text::parse(text), expected);
    EXPECT_TRUE(key_value_text::parse("").empty());
    EXPECT_TRUE(key_value_text::parse("\n\n").empty());
}

TEST(KeyValueTextTest, WhatIsWrittenReadsBack) {
    const std::map<std::string, std::string> entries = {
        {"RPC_URL", "https://10.0.0.1:8443"}, {"INSTALL_KEY", "k-123"}, {"RESET", "true"}};
    const std::string text = key_value_text::format(entries);
    EXPECT_EQ(text, "INSTALL_KEY=k-123\nRESET=true\nRPC_URL=https://10.0.0.1:8443\n");
    const Entries expected = {{MorvaneServerInfoSection::installKey, "k-123"},
                              {MorvaneServerInfoSection::reset, "true"},
                              {MorvaneServerInfoSection::rpcURL, "https://10.0.0.1:8443"}};
    EXPECT_EQ(key_value_text::parse(text), expected);
}

TEST(MorvaneServerInfoSectionTest, TwentyTwoKeysRoundTripInOrder) {
    std::istringstream texts(
        "RPC_URL RESET STOP SHOW_TEST_MENU INSTALL_KEY LOCATION_NAME DEVICE_NAME_PREFIX "
        "EXTERNAL_IP "
        "DEVICE_KEY identifier ALLOW_WEAK_KEY DOWNLOAD_CERT DEVICE_NAME CUSTOMER_EMAIL "
        "CUSTOMER_PASSWORD RPC_PORT TRAY_TYPE IGNORE_VPNS userName userID TEST_DEVICE_CONFIG_PATH "
        "TEST_DEVICE_CONFIG");
    const std::vector<std::string> keys{std::istream_iterator<std::string>(texts), {}};
    ASSERT_EQ(server_info::allCases.size(), keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        EXPECT_EQ(rawValue(server_info::allCases[i]), keys[i]);
        EXPECT_EQ(serverInfoFromRawValue(keys[i]), server_info::allCases[i]);
    }
    EXPECT_FALSE(serverInfoFromRawValue("uninstalling").has_value());
    EXPECT_FALSE(serverInfoFromRawValue("LogDebug").has_value());
}

}  // namespace
}  // namespace morvane
