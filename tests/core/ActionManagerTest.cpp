#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "core/ActionManager.h"
#include "messages/JSONCoding.h"
#include "platform/BuildInfo.h"

namespace morvane {
namespace {

DeviceConfiguration policyWith(const std::string& actionsJSON) {
    auto configuration = decodeJSON<DeviceConfiguration>(
        R"({"id":1,"jsonrpc":"2.0","result":{"actions":)" + actionsJSON + "}}");
    EXPECT_TRUE(configuration.has_value()) << actionsJSON;
    return configuration.value_or(DeviceConfiguration{});
}

TEST(ActionManagerTest, VersionGateAcrossTheNumberings) {
    struct Row {
        std::optional<std::string> version;
        bool handled;
    };
    const Row rows[] = {
        {"1.9", true},     {"1.9.3", true},  {"2.1.0", true},    {"3.2.1", true},
        {"2.0.7", false},  {"3.0.0", false}, {"2.1", false},     {"2", false},
        {"1", false},      {"", false},      {"release", false}, {std::nullopt, false},
        {"x.5.0", true},   {"1.x.0", true},  {"2.x.0", false},   {"2.1.0-beta", true},
        {"10.0.1", false}, {"0.0.0", true},  {"2.-1.0", false},  {"2.1.0.4", true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ActionManager::handlesVersion(row.version), row.handled)
            << row.version.value_or("(absent)");
    }
}

TEST(ActionManagerTest, GateBelowEqualToAndAboveThisBuildsVersion) {
    const std::string build = morvane::build::kVersion;
    ASSERT_EQ(build, "2.1.0") << "the rows below are written for the project's version";
    const DeviceConfiguration policy = policyWith(R"({"uninstall":true})");

    // Below: the first releases of the second numbering refuse the orders whole.
    ActionManager below(policy, true, std::string("2.0.9"));
    EXPECT_FALSE(below.deviceConfiguration.has_value());
    EXPECT_FALSE(below.isShutdown.has_value());
    EXPECT_TRUE(below.notHandledInThisVersion);

    // Equal: this build takes them in, and the constructor without a version reads its own.
    ActionManager named(policy, true, build);
    ActionManager own(policy, true);
    for (const ActionManager* equal : {&named, &own}) {
        ASSERT_TRUE(equal->deviceConfiguration.has_value());
        EXPECT_EQ(*equal->deviceConfiguration, policy);
        EXPECT_EQ(equal->isShutdown, std::optional<bool>(true));
        EXPECT_FALSE(equal->notHandledInThisVersion);
    }

    // Above, within the numbering, and a new major number with minor 0 refused again.
    ActionManager above(policy, std::nullopt, std::string("2.2.0"));
    EXPECT_TRUE(above.deviceConfiguration.has_value());
    EXPECT_FALSE(above.isShutdown.has_value());
    ActionManager nextMajor(policy, false, std::string("3.0.0"));
    EXPECT_FALSE(nextMajor.deviceConfiguration.has_value());
    EXPECT_TRUE(nextMajor.notHandledInThisVersion);
}

TEST(ActionManagerTest, NothingSetReadsAsFalseAndDashes) {
    EXPECT_EQ(description(Actions{}),
              "disable = false)move url = -shutdown = falseuninstall = falseupgrade url = -");
}

TEST(ActionManagerTest, EveryOrderSurvivesReadingTheGateAndTheText) {
    const DeviceConfiguration policy = policyWith(
        R"({"disable":true,"move":{"key":"k2","rpc":"https://rpc2.example:8443"},)"
        R"("shutdown":false,"uninstall":true,)"
        R"("upgrade":{"args":"-q","url":"https://dl.example/a.deb","version":"2.2.0"}})");
    ActionManager manager(policy);
    ASSERT_TRUE(manager.deviceConfiguration && manager.deviceConfiguration->result &&
                manager.deviceConfiguration->result->actions);
    EXPECT_EQ(description(*manager.deviceConfiguration->result->actions),
              "disable = true)move url = https://rpc2.example:8443shutdown = false"
              "uninstall = trueupgrade url = https://dl.example/a.deb");
}

TEST(ActionManagerTest, AMoveOrUpgradeWithoutItsURLReadsAsADash) {
    Actions actions;
    actions.move =
        MigrateToANewRPCServer{.key = "k", .location = std::nullopt, .rpc = std::nullopt};
    actions.upgrade = Upgrade{.args = std::nullopt, .url = std::nullopt, .version = "9"};
    EXPECT_EQ(description(actions),
              "disable = false)move url = -shutdown = falseuninstall = falseupgrade url = -");
}

}  // namespace
}  // namespace morvane
