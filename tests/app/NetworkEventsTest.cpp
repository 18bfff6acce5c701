#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "app/ApplicationStartHelper.h"
#include "app/ChangeObserver.h"
#include "app/DepenencyInjection.h"
#include "support/MainLoop.h"
#include "support/NetworkNamespace.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using test::sh;

/// The change observer with the policy pass replaced by a record of the events that reach it.
class RecordingObserver : public ChangeObserver {
public:
    std::vector<ChangeType> seen;

protected:
    bool userAcceptedExtension() override { return false; }
    void reloadConfigIfNeeded(ChangeType) override {}
    void showChangeNotification(ChangeType) override {}
    void handleOnChange(const std::optional<platform::Notification>&, ChangeType changeType,
                        bool) override {
        seen.push_back(changeType);
    }
};

std::size_t count(const std::vector<ChangeType>& seen, ChangeType type) {
    return static_cast<std::size_t>(std::count(seen.begin(), seen.end(), type));
}

/// The agent's own wiring in a network namespace of the test's own: the start helper's path
/// watch, the container's, and the VPN watch that the observer starts, all feeding the
/// observer through the notification centre. This machine has no system bus, so the sleep
/// watch of the start helper hears nothing here (its own test runs a private bus).
class NetworkEventsReachTheObserver : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = test::enterPrivateNetwork()) {
            GTEST_SKIP() << *reason;
        }
        ASSERT_TRUE(test::addVethNetwork());
        helper = std::make_unique<ApplicationStartHelper>();
        auto rows = DepenencyInjection::serviceTable();
        rows.push_back(Service::make<ChangeObserver>(Service::LifeCycle::global, [](Dependencies&) {
            return std::make_shared<RecordingObserver>();
        }));
        Dependencies::build(std::move(rows));
        observer = std::static_pointer_cast<RecordingObserver>(
            Dependencies::shared()->resolve<ChangeObserver>());
        observer->startObserving();
    }
    void TearDown() override {
        if (observer) {
            observer->vpnMonitor->stopMonitoring();
            observer->cancelSubscriptions(observer->cancellables);
        }
        observer.reset();
        helper.reset();
        Dependencies::build(std::vector<Service>{});
    }

    bool waitFor(ChangeType type, std::size_t times) {
        return test::runMainLoopUntil([&] { return count(observer->seen, type) >= times; });
    }

    test::TempHome home;
    std::unique_ptr<ApplicationStartHelper> helper;
    std::shared_ptr<RecordingObserver> observer;
};

TEST_F(NetworkEventsReachTheObserver, PathAndVPNEvents) {
    // Only the start helper's watch exists until the observer reads its own.
    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    ASSERT_TRUE(waitFor(ChangeType::connected, 1));
    observer->networkCheck.get();
    ASSERT_TRUE(sh("ip route del default"));
    // The container's watch started unsatisfied, so only the helper's reports the loss.
    ASSERT_TRUE(waitFor(ChangeType::disconnected, 1));
    ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
    // From now on both watches publish: one path change, two events.
    ASSERT_TRUE(waitFor(ChangeType::connected, 3));
    ASSERT_TRUE(sh("ip route del default"));
    ASSERT_TRUE(waitFor(ChangeType::disconnected, 3));

    // The VPN watch that the observer started hears the route move while a tunnel stands.
    ASSERT_TRUE(sh("ip tuntap add dev tun0 mode tun && ip addr add 10.8.0.1/24 dev tun0"));
    bool started = false;
    for (int attempt = 0; attempt < 30 && !started; ++attempt) {
        ASSERT_TRUE(sh(std::string("ip route replace default via ") +
                       (attempt % 2 ? "10.9.0.2" : "10.9.0.3")));
        started = test::runMainLoopUntil(
            [&] { return count(observer->seen, ChangeType::VPNDidStart) >= 1; },
            std::chrono::seconds(2));
    }
    ASSERT_TRUE(started);
    ASSERT_TRUE(sh("ip link del tun0 && ip route replace default via 10.9.0.4"));
    ASSERT_TRUE(waitFor(ChangeType::VPNDidStop, 1));
}

}  // namespace
}  // namespace morvane
