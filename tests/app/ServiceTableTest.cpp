#include <gtest/gtest.h>

#include "app/DepenencyInjection.h"
#include "app/UnboundControlManager.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

// The local resolver controller is declared by the change loop and never called; it must
// still resolve from the table, with its own helper client rather than the agent's shared one.
TEST(ServiceTable, TheLocalResolverControllerResolvesWithItsOwnHelperClient) {
    const test::TempHome home;
    Dependencies::build(DepenencyInjection::serviceTable());
    const auto manager = Dependencies::shared()->resolve<UnboundControlManager>();
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager, Dependencies::shared()->resolve<UnboundControlManager>());
    EXPECT_EQ(manager->unbound.unboundPath,
              "/Applications/MorvaneCloud.app/Contents/MacOS/unbound-control");
    EXPECT_EQ(manager->unbound.unboundConfigPath,
              "/Applications/MorvaneCloud.app/Contents/Resources/unbound.conf");
    EXPECT_FALSE(manager->config);
    ASSERT_TRUE(manager->tarnhelperProxy);
    EXPECT_NE(manager->tarnhelperProxy, TarnHelperProxy::sharedInstance());
    EXPECT_EQ(manager->_unboundUtils.get(), Dependencies::shared()->resolve<UnboundUtils>());
    // No helper answers here: the client gives up quietly and the agent goes on.
    manager->tarnhelperProxy->waitUntilIdle();
    EXPECT_TRUE(manager->tarnhelperProxy->authorization().empty());
    Dependencies::build(std::vector<Service>{});
}

}  // namespace
}  // namespace morvane
