#include <gtest/gtest.h>

#include "watch/NCSICheck.h"
#include "watch/SanityCheck.h"
#include "watch/ServiceHosts.h"
#include "watch/WatchFixture.h"

namespace morvane {
namespace {

class Records : public test::WatchFixture {};

TEST_F(Records, ProbeRecordHoldsItsValuesAndTakesTheHostFromConfiguration) {
    const NCSICheck record;
    EXPECT_EQ(record.excpectedReply, "Connect_test_succeeded");
    EXPECT_EQ(record.statusURL, "http://" MORVANE_TEST_NCSI_HOST "/");
    EXPECT_EQ(record.session, nullptr) << "building the record opens no session";

    home.env().set("MORVANECLOUD_NCSI_HOST", "probe.test.example");
    EXPECT_EQ(NCSICheck{}.statusURL, "http://probe.test.example/");
}

TEST_F(Records, EchoHostFromTheEnvironmentElseFromTheBuild) {
    home.env().unset("MORVANECLOUD_ECHO_HOST");
    EXPECT_EQ(ServiceHosts::echoHost(), MORVANE_TEST_ECHO_HOST);
    home.env().set("MORVANECLOUD_ECHO_HOST", "echo.test.example:8080");
    EXPECT_EQ(ServiceHosts::echoHost(), "echo.test.example:8080");
}

TEST_F(Records, SanityCheckResolvesNothingAtConstruction) {
    const SanityCheck check;
    EXPECT_FALSE(check.networkCheck.isResolved());
    EXPECT_FALSE(check.notificationPublisher.isResolved());
    EXPECT_FALSE(check.ncsiCheck.isResolved());
    EXPECT_EQ(check.checkTime, 20);
    EXPECT_EQ(check.tolerance, 3);
    EXPECT_FALSE(check.resolvers.has_value());
    ASSERT_NE(check.concurrentQueue, nullptr);
    EXPECT_EQ(check.concurrentQueue->label(), "SanityCheck.queue");
    EXPECT_EQ(check.concurrentQueue->kind(), platform::DispatchQueue::Kind::concurrent);
}

}  // namespace
}  // namespace morvane
