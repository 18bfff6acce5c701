#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/UserDefaults.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"

namespace morvane::platform {
namespace {

TEST(UserDefaultsTest, LivesInTheUsersXdgConfigFolder) {
    test::TempHome home;
    EXPECT_EQ(UserDefaults::standardPath(), home.configHome() / "MorvaneCloud/defaults.ini");
    home.env().unset("XDG_CONFIG_HOME");
    EXPECT_EQ(UserDefaults::standardPath(), home.home() / ".config/MorvaneCloud/defaults.ini");
}

TEST(UserDefaultsTest, RegisteredDefaultsAnswerOnlyUntilAValueIsStoredAndAreNeverWritten) {
    test::TempHome home;
    const auto file = home.configHome() / "MorvaneCloud/defaults.ini";
    {
        UserDefaults defaults(file);
        defaults.registerDefaults({{"TRAY_TYPE", std::string("2")}, {"LogDebug", true}});
        EXPECT_EQ(defaults.stringForKey("TRAY_TYPE"), "2");
        EXPECT_TRUE(defaults.boolForKey("LogDebug"));
        EXPECT_FALSE(defaults.stringForKey("RPC_URL").has_value());

        defaults.setValue("5", "TRAY_TYPE");
        EXPECT_EQ(defaults.stringForKey("TRAY_TYPE"), "5");
        defaults.removeObjectForKey("TRAY_TYPE");
        EXPECT_EQ(defaults.stringForKey("TRAY_TYPE"), "2");
        EXPECT_TRUE(defaults.dictionaryRepresentation().empty());
    }
    UserDefaults reopened(file);
    EXPECT_FALSE(reopened.stringForKey("TRAY_TYPE").has_value());
    EXPECT_FALSE(reopened.boolForKey("LogDebug"));
}

TEST(UserDefaultsTest, TextReadsAsABooleanTheUsualWay) {
    test::TempHome home;
    UserDefaults defaults(home.root() / "d.ini");
    const std::pair<const char*, bool> cases[] = {
        {"true", true}, {"TRUE", true}, {"YES", true},    {"y", true},   {"1", true},
        {"007", true},  {" +9", true},  {"false", false}, {"no", false}, {"0", false},
        {"", false},    {"000", false}, {"x", false},
    };
    for (const auto& [text, expected] : cases) {
        defaults.setValue(text, "k");
        EXPECT_EQ(defaults.boolForKey("k"), expected) << '"' << text << '"';
    }
    EXPECT_FALSE(defaults.boolForKey("missing"));
    defaults.setBool(true, "flag");
    EXPECT_EQ(defaults.stringForKey("flag"), "true");
}

// A second process that writes values for the test to read after it has ended.
MORVANE_CHILD_ROLE(writeDefaults) {
    UserDefaults defaults(std::getenv("MORVANE_DEFAULTS_FILE"));
    defaults.setValue("https://rpc.example.net:8443", "RPC_URL");
    defaults.setValue("a=b;c d", "LOCATION_NAME");
    defaults.setBool(true, "uninstalling");
    // No synchronize and no destructor: every write must already be on disk.
    std::_Exit(0);
}

TEST(UserDefaultsTest, ValuesSurviveTheEndOfTheWritingProcess) {
    test::TempHome home;
    const auto file = home.configHome() / "MorvaneCloud/defaults.ini";
    ASSERT_EQ(test::runChild("writeDefaults", {{"MORVANE_DEFAULTS_FILE", file.string()}}), 0);
    UserDefaults defaults(file);
    EXPECT_EQ(defaults.stringForKey("RPC_URL"), "https://rpc.example.net:8443");
    EXPECT_EQ(defaults.stringForKey("LOCATION_NAME"), "a=b;c d");
    EXPECT_TRUE(defaults.boolForKey("uninstalling"));
}

}  // namespace
}  // namespace morvane::platform
