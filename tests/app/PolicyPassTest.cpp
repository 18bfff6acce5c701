// The policy pass from event to proxy: which configuration counts, what the user is told, what
// the menu shows and what the DNS proxy manager is handed. The manager's platform (preferences,
// activation, provider link) and the desktop (tray, notification service) are the recording
// stand-ins of their own suites; the configuration files, the settings and the change loop
// are real. Time is the manual scheduler's.
#include <gtest/gtest.h>

#include "app/ChangeObserver.h"
#include "app/DepenencyInjection.h"
#include "messages/JSONCoding.h"
#include "platform/MainQueue.h"
#include "platform/ManualScheduler.h"
#include "proxy/ProxyTestSupport.h"
#include "settings/Utils.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "ui/RecordingDesktop.h"

namespace morvane {
namespace {

/// Records what the pass hands the manager instead of driving the proxy.
class RecordingManager : public NetworkExtensionManager {
public:
    RecordingManager()
        : NetworkExtensionManager(Platform{std::make_shared<test::ScriptedPreferences>(),
                                           std::make_shared<test::RecordingActivation>(),
                                           std::make_shared<test::RecordingLink>(),
                                           [] { return ExtensionBundle::Lookup{}; }}) {}
    void handleChange(ChangeType change, const NetworkExtConfig& config) override {
        changes.emplace_back(change, config);
    }
    void resetExtension(const NetworkExtConfig& config) override { resets.push_back(config); }

    std::vector<std::pair<ChangeType, NetworkExtConfig>> changes;
    std::vector<NetworkExtConfig> resets;
};

class PassObserver : public ChangeObserver {
public:
    std::shared_ptr<RecordingManager> manager = std::make_shared<RecordingManager>();
    std::shared_ptr<test::RecordingStatusBar> tray = std::make_shared<test::RecordingStatusBar>();
    /// What the external address lookup finds; the stored address is the other input.
    std::string freshAddress;
    std::vector<int> menuCodes;
    int lookups = 0;

    void setMenubarStatus(ChangeType changeType, bool hasIpAddress, bool accepted,
                          bool vpnRunning) override {
        menuCodes.push_back(statusCode(changeType));
        ChangeObserver::setMenubarStatus(changeType, hasIpAddress, accepted, vpnRunning);
    }

protected:
    std::shared_ptr<NetworkExtensionManager> proxyManager() override { return manager; }
    std::shared_ptr<TarnStatusBarController> makeStatusMenu(ui::TrayType trayType,
                                                            bool showTestMenu) override {
        return std::make_shared<TarnStatusBarController>(trayType, showTestMenu, tray);
    }
    void lookUpExternalIP(const DeviceConfiguration&,
                          std::function<void(const std::string&)> continuation) override {
        // The lookup answers later than the pass goes on with the stored address, as a real
        // query on another thread does.
        ++lookups;
        platform::MainQueue::async(
            [continuation, address = freshAddress] { continuation(address); });
    }
};

std::string policy(const std::string& filters) {
    return R"({"jsonrpc":"2.0","result":{"cfg":{"runtime":{"locations":[{"name":"Roaming","tag":"loc-1"}],)"
           R"("user":"user-7"}},"filters":)" +
           filters + "}}";
}

const std::string kTwoRules =
    R"([{"domain":"corp.example.com","resolvers":["10.20.0.53"]},{"resolvers":["192.0.2.53","198.51.100.53"]}])";

class PolicyPassTest : public ::testing::Test {
protected:
    void SetUp() override {
        ui::UserNotificationCenter::setCurrent(notifications_);
        auto rows = DepenencyInjection::serviceTable();
        rows.push_back(Service::make<ChangeObserver>(Service::LifeCycle::global, [](Dependencies&) {
            return std::make_shared<PassObserver>();
        }));
        Dependencies::build(std::move(rows));
        observer()->manager->extensionState = {ExtensionStatus::userAccepted,
                                               ExtensionStatus::configured};
    }
    void TearDown() override {
        ui::UserNotificationCenter::setCurrent(nullptr);
        Dependencies::build(std::vector<Service>{});
    }

    std::shared_ptr<PassObserver> observer() {
        return std::static_pointer_cast<PassObserver>(
            Dependencies::shared()->resolve<ChangeObserver>());
    }
    void writePolicy(const std::string& text) { test::writeFile(*Utils::deviceFileURL(), text); }
    std::shared_ptr<platform::UserDefaults> defaults() {
        return Dependencies::shared()->resolve<Settings>()->userDefaults;
    }

    /// One event through the loop, and everything it queued, the barrier hop included.
    void event(ChangeType changeType) {
        observer()->onChange(changeType, std::nullopt);
        settle();
    }
    void settle() {
        for (int round = 0; round < 5; ++round) {
            scheduler_->runPending();
            observer()->concurrentQueue->waitUntilIdle();
        }
        scheduler_->runPending();
    }

    std::vector<ChangeType> handedChanges() {
        std::vector<ChangeType> kinds;
        for (const auto& [kind, config] : observer()->manager->changes) {
            kinds.push_back(kind);
        }
        return kinds;
    }

    test::TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler installed_{scheduler_};
    std::shared_ptr<test::RecordingNotificationCenter> notifications_ =
        std::make_shared<test::RecordingNotificationCenter>();
};

TEST_F(PolicyPassTest, TheUserHearsOfAConnectionOnceUntilSomethingElseIsSaid) {
    writePolicy(policy(kTwoRules));
    event(ChangeType::connected);
    event(ChangeType::connected);
    ASSERT_EQ(notifications_->requests.size(), 1u) << "a second connected stays silent";
    EXPECT_EQ(notifications_->requests[0].content.body, "Network has connected");
    event(ChangeType::disconnected);
    event(ChangeType::connected);
    ASSERT_EQ(notifications_->requests.size(), 3u);
    EXPECT_EQ(notifications_->requests[1].content.body, "network has disconnected");
    EXPECT_EQ(notifications_->requests[2].content.body, "Network has connected");
    event(ChangeType::pollingInterval);
    event(ChangeType::VPNDidStart);
    EXPECT_EQ(notifications_->requests.size(), 3u) << "events without a text say nothing";
}

TEST_F(PolicyPassTest, AFreshAddressReachesTheProxyAsIpAddressChangedWhileTheMenuKeepsTheEvent) {
    writePolicy(policy(kTwoRules));
    defaults()->setValue("198.51.100.1", "EXTERNAL_IP");
    observer()->freshAddress = "203.0.113.9";
    event(ChangeType::connected);

    EXPECT_EQ(observer()->lookups, 1);
    // First with the stored address, unchanged; then with the fresh one, a change.
    EXPECT_EQ(handedChanges(),
              (std::vector<ChangeType>{ChangeType::connected, ChangeType::ipAddressChanged}));
    for (const int code : observer()->menuCodes) {
        EXPECT_EQ(code, 0) << "the menu shows the event as it came";
    }
    EXPECT_EQ(defaults()->stringForKey("EXTERNAL_IP"), "203.0.113.9");
    const auto& handed = observer()->manager->changes.back().second;
    EXPECT_EQ(handed.UDDID, "user-7");
    EXPECT_EQ(handed.locationKey, "loc-1");
    EXPECT_EQ(handed.resolvers,
              (std::vector<std::string>{"10.20.0.53", "192.0.2.53", "198.51.100.53"}));

    // The same address again: both runs of the pass hand over the event itself.
    observer()->manager->changes.clear();
    event(ChangeType::connected);
    EXPECT_EQ(handedChanges(),
              (std::vector<ChangeType>{ChangeType::connected, ChangeType::connected}));
}

TEST_F(PolicyPassTest, OnlyConnectedAndVPNDidStopLookUpTheExternalAddress) {
    writePolicy(policy(kTwoRules));
    for (const auto kind :
         {ChangeType::disconnected, ChangeType::pollingInterval, ChangeType::didAwake,
          ChangeType::willSleep, ChangeType::VPNDidStart, ChangeType::deviceConfigEditedLocally}) {
        event(kind);
    }
    EXPECT_EQ(observer()->lookups, 0);
    event(ChangeType::VPNDidStop);
    EXPECT_EQ(observer()->lookups, 1);
}

TEST_F(PolicyPassTest, AnEmptyRuleListReachesNoProxyButIsStoredAndRemembered) {
    writePolicy(policy("[]"));
    event(ChangeType::pollingInterval);
    EXPECT_TRUE(observer()->manager->changes.empty()) << "no resolvers: no extension call";
    EXPECT_TRUE(observer()->manager->resets.empty()) << "the reset gives up for the same reason";
    ASSERT_TRUE(observer()->config) << "the configuration counts as applied";
    EXPECT_TRUE(observer()->config->result->filters->empty());
}

TEST_F(PolicyPassTest, TheProxyIsResetOnceForEachNewPolicyAndNotForTheSameOne) {
    writePolicy(policy(kTwoRules));
    event(ChangeType::pollingInterval);
    EXPECT_EQ(observer()->manager->resets.size(), 1u)
        << "the first configuration counts as a change";
    event(ChangeType::pollingInterval);
    event(ChangeType::didAwake);
    EXPECT_EQ(observer()->manager->resets.size(), 1u);
    writePolicy(policy(R"([{"resolvers":["192.0.2.99"]}])"));
    event(ChangeType::pollingInterval);
    ASSERT_EQ(observer()->manager->resets.size(), 2u);
    EXPECT_EQ(observer()->manager->resets.back().resolvers, std::vector<std::string>{"192.0.2.99"});
    // Without an accepted extension the reset is not tried at all.
    observer()->manager->extensionState = {ExtensionStatus::notStarted};
    writePolicy(policy(kTwoRules));
    event(ChangeType::pollingInterval);
    EXPECT_EQ(observer()->manager->resets.size(), 2u);
}

TEST_F(PolicyPassTest, WithoutAnyConfigurationTheMenuSaysSoAndTheProxyIsLeftAlone) {
    event(ChangeType::pollingInterval);
    EXPECT_EQ(observer()->menuCodes, std::vector<int>{12});
    EXPECT_TRUE(observer()->manager->changes.empty());
    EXPECT_FALSE(observer()->config);
}

TEST_F(PolicyPassTest, TheStoredFileWinsOverTheEventsPayload) {
    writePolicy(policy(kTwoRules));
    auto payload = decodeJSON<DeviceConfiguration>(policy(R"([{"resolvers":["192.0.2.1"]}])"));
    ASSERT_TRUE(payload);
    observer()->onChange(ChangeType::deviceConfigRefreshed,
                         platform::Notification{"deviceConfigRefreshed", *payload});
    settle();
    ASSERT_FALSE(observer()->manager->changes.empty());
    EXPECT_EQ(observer()->manager->changes.back().second.resolvers.size(), 3u);
}

}  // namespace
}  // namespace morvane
