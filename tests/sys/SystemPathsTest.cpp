#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "sys/SystemPaths.h"

namespace morvane::sys {
namespace {

TEST(SystemPathsTest, PathsStayAbsoluteWithoutASysroot) {
    test::ScopedEnv env;
    env.unset("MORVANECLOUD_SYSROOT");
    EXPECT_EQ(systemPath("/tmp/.tarncookie"), "/tmp/.tarncookie");
    env.set("MORVANECLOUD_SYSROOT", "");
    EXPECT_EQ(systemPath("/var/lib/x"), "/var/lib/x");
}

TEST(SystemPathsTest, SysrootIsPutInFrontOfEveryFixedPath) {
    test::ScopedEnv env;
    env.set("MORVANECLOUD_SYSROOT", "/srv/root");
    EXPECT_EQ(systemPath("/tmp/.tarncookie"), "/srv/root/tmp/.tarncookie");
    EXPECT_EQ(systemPath("//run/morvanecloud/x.sock"), "/srv/root/run/morvanecloud/x.sock");
}

}  // namespace
}  // namespace morvane::sys
