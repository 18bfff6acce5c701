#include <gtest/gtest.h>

#include <memory>

#include "platform/MainQueue.h"
#include "platform/ManualScheduler.h"
#include "support/NetworkNamespace.h"
#include "watch/NetworkCheck.h"
#include "watch/WatchFixture.h"

namespace morvane {
namespace {

using platform::NetworkPath;
using Status = platform::NetworkPath::Status;
using test::sh;

NetworkPath path(Status status, std::string description = {}) {
    return NetworkPath{status, std::move(description)};
}

class NetworkCheckLogic : public test::WatchFixture {};

TEST_F(NetworkCheckLogic, SatisfiedAlwaysCountsAndUnsatisfiedOnlyAfterConnected) {
    NetworkCheck check(nullptr);
    // An unsatisfied first update raises nothing.
    check.pathUpdateHandler(path(Status::unsatisfied));
    check.pathUpdateHandler(path(Status::satisfied, "a"));
    check.pathUpdateHandler(path(Status::satisfied, "a"));
    check.pathUpdateHandler(path(Status::unsatisfied));
    check.pathUpdateHandler(path(Status::unsatisfied));
    check.pathUpdateHandler(path(Status::satisfied, "b"));
    ASSERT_TRUE(waitForEvents(4)) << names(events);
    // The tail is proved empty by an event that has to come after it.
    check.pathUpdateHandler(path(Status::unsatisfied));
    ASSERT_TRUE(waitForEvents(5));
    EXPECT_EQ(names(events), "connected connected disconnected connected disconnected");
    EXPECT_EQ(check.lastStatus, ChangeType::disconnected);
}

TEST_F(NetworkCheckLogic, PathCarriedAsTheEventsObjectAndHandlerHopsToTheMainQueue) {
    auto scheduler = std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler scoped(scheduler);
    NetworkCheck check(nullptr);
    check.pathUpdateHandler(path(Status::satisfied, "ipv4 default dev eth0"));
    // Nothing changes before the main queue runs.
    EXPECT_EQ(check.lastStatus, ChangeType::disconnected);
    scheduler->runPending();
    EXPECT_EQ(check.lastStatus, ChangeType::connected);
}

TEST_F(NetworkCheckLogic, UpdateAfterTheObjectIsGoneDoesNothing) {
    auto scheduler = std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler scoped(scheduler);
    {
        NetworkCheck check(nullptr);
        check.pathUpdateHandler(path(Status::satisfied));
    }
    EXPECT_NO_FATAL_FAILURE(scheduler->runPending());
    EXPECT_TRUE(events.empty());
}

/// The real monitor in a network namespace of the test's own: a veth pair, a default route
/// added and removed, the link taken down and up, an IPv6 default route.
class NetworkCheckInNamespace : public test::NamespaceWatchFixture {
protected:
    /// Waits until the monitor has seen the change: the next step must not fall into the
    /// same batch of netlink messages.
    bool waitForPath(NetworkCheck& check, const std::function<bool(const NetworkPath&)>& ok) {
        return test::runMainLoopUntil([&] { return ok(check.monitor->currentPath()); });
    }
    static bool has(const NetworkPath& p, const std::string& text) {
        return p.description.find(text) != std::string::npos;
    }
};

TEST_F(NetworkCheckInNamespace, EventsFollowTheRoutingTable) {
    NetworkCheck check;
    // No default route at start: nothing is raised (the first event below is proved to be
    // the route's), and the monitor says unsatisfied.
    EXPECT_EQ(check.monitor->currentPath().status, Status::unsatisfied);

    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    ASSERT_TRUE(waitForEvents(1));
    EXPECT_EQ(check.monitor->currentPath().status, Status::satisfied);

    // A new address on the interface that carries the route is one more `connected`.
    ASSERT_TRUE(sh("ip addr add 10.9.0.7/24 dev veth0"));
    ASSERT_TRUE(waitForEvents(2));

    ASSERT_TRUE(sh("ip route del default"));
    ASSERT_TRUE(waitForEvents(3));
    EXPECT_EQ(check.monitor->currentPath().status, Status::unsatisfied);

    // While unsatisfied, a further change of the interfaces raises nothing.
    ASSERT_TRUE(sh("ip addr add 10.9.0.8/24 dev veth0"));
    ASSERT_TRUE(
        sh("ip link add veth2 type veth peer name veth3 && ip link set veth2 up && ip link set "
           "veth3 up"));

    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    ASSERT_TRUE(waitForEvents(4));
    ASSERT_TRUE(waitForPath(check, [](const NetworkPath& p) { return has(p, "10.9.0.8"); }));

    // Down takes the route with it; up alone brings nothing back.
    ASSERT_TRUE(sh("ip link set veth0 down"));
    ASSERT_TRUE(waitForEvents(5));
    ASSERT_TRUE(sh("ip link set veth0 up"));
    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    ASSERT_TRUE(waitForEvents(6));
    ASSERT_TRUE(waitForPath(check, [](const NetworkPath& p) { return has(p, "ipv4 default"); }));

    // An IPv6 default route satisfies the path as well; each change of the routes that
    // leaves it satisfied is one more `connected`.
    ASSERT_TRUE(sh("ip -6 route add default via fe80::1 dev veth0"));
    ASSERT_TRUE(waitForEvents(7));
    ASSERT_TRUE(sh("ip route del default"));
    ASSERT_TRUE(waitForEvents(8));
    EXPECT_EQ(check.monitor->currentPath().status, Status::satisfied);
    ASSERT_TRUE(sh("ip -6 route del default"));
    ASSERT_TRUE(waitForEvents(9));

    EXPECT_EQ(names(events),
              "connected connected disconnected connected disconnected connected connected "
              "connected disconnected");
}

TEST_F(NetworkCheckInNamespace, TwoObjectsPublishEachByItself) {
    NetworkCheck first;
    NetworkCheck second;
    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    ASSERT_TRUE(waitForEvents(2));
    EXPECT_EQ(names(events), "connected connected");
    EXPECT_EQ(first.lastStatus, ChangeType::connected);
    EXPECT_EQ(second.lastStatus, ChangeType::connected);
}

TEST_F(NetworkCheckInNamespace, OnlineAtStartRaisesConnectedAtOnce) {
    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    NetworkCheck check;
    ASSERT_TRUE(waitForEvents(1));
    EXPECT_EQ(names(events), "connected");
    EXPECT_EQ(check.localIPv4Address(), "10.9.0.1");
}

}  // namespace
}  // namespace morvane
