#include <gtest/gtest.h>

#include <chrono>

#include "messages/JSONCoding.h"
#include "platform/ManualScheduler.h"
#include "proxy/NetworkExtensionManager.h"
#include "proxy/ProxyTestSupport.h"
#include "settings/Utils.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using namespace std::chrono_literals;
using test::makeError;
using Status = ExtensionStatus;

constexpr const char* kPolicy = R"({"jsonrpc":"2.0","id":1,"result":{
  "cfg":{"runtime":{"locations":[{"name":"Office","tag":"loc-1"}],"user":"user-7"}},
  "filters":[{"domain":"corp.example","resolvers":["10.0.0.53","10.0.0.54"]},
             {"resolvers":["9.9.9.9"]},
             {"rule":"10.1.0.0/16"}]}})";

NetworkExtConfig sampleConfig(const std::string& location = "loc-1") {
    auto device = decodeJSON<DeviceConfiguration>(kPolicy);
    EXPECT_TRUE(device);
    return NetworkExtConfig{"user-7", location, resolverList(*device), *device};
}

/// The manager with its application log lines recorded.
class TestManager : public NetworkExtensionManager {
public:
    using NetworkExtensionManager::configureProxy;
    using NetworkExtensionManager::NetworkExtensionManager;
    std::vector<std::pair<LogLevel, std::string>> appLines;

    bool logged(const std::string& line, LogLevel level = LogLevel::production) const {
        return std::count(appLines.begin(), appLines.end(), std::make_pair(level, line)) > 0;
    }

protected:
    void logApp(const std::string& message, LogLevel level) override {
        appLines.emplace_back(level, message);
    }
};

class NetworkExtensionManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        center_ = test::buildProxyServices();
        for (const char* name : {"deviceConfigRefreshed", "waitingOnUserSecurity"}) {
            subscriptions_.push_back(center_->subscribe(
                name,
                [this](const platform::Notification& note) { published.push_back(note.name); }));
        }
        ProxySystemLog::setListener([this](ProxySystemLog::Type, const std::string& line) {
            std::lock_guard lock(systemMutex_);
            systemLines.push_back(line);
        });
        // The provider's bundle is looked up through its own tests; here it is missing, which
        // only the activation notices.
        NetworkExtensionManager::Platform platform{
            preferences, activation, link, [] {
                return ExtensionBundle::Lookup{std::nullopt, "no bundle in this test"};
            }};
        manager = std::make_shared<TestManager>(platform);
        manager->networkQuestions.pathIsSatisfied = [this] { return pathSatisfied; };
        manager->networkQuestions.isVPNRunning = [this] { return vpnRunning; };
        manager->networkQuestions.getDNSAddresses = [] {
            return std::vector<std::string>{"192.168.1.1"};
        };
        manager->networkQuestions.localIPv4Address = [] {
            return std::optional<std::string>("192.168.1.20");
        };
    }
    void TearDown() override {
        ProxySystemLog::setListener({});
        scheduler->runPending();
        Dependencies::build(std::vector<Service>{});
    }

    void run() { scheduler->runPending(); }
    bool systemLogged(const std::string& line) {
        std::lock_guard lock(systemMutex_);
        return std::find(systemLines.begin(), systemLines.end(), line) != systemLines.end();
    }
    void writeStoredPolicy() {
        auto url = Utils::deviceFileURL();
        ASSERT_TRUE(url);
        test::writeFile(*url, kPolicy);
    }

    test::TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler scoped_{scheduler};
    std::shared_ptr<platform::NotificationCenter> center_;
    std::vector<std::shared_ptr<platform::NotificationCenter::Subscription>> subscriptions_;
    std::mutex systemMutex_;

public:
    std::shared_ptr<test::ScriptedPreferences> preferences =
        std::make_shared<test::ScriptedPreferences>();
    std::shared_ptr<test::RecordingActivation> activation =
        std::make_shared<test::RecordingActivation>();
    std::shared_ptr<test::RecordingLink> link = std::make_shared<test::RecordingLink>();
    std::shared_ptr<TestManager> manager;
    std::vector<std::string> published;
    std::vector<std::string> systemLines;
    bool pathSatisfied = true;
    bool vpnRunning = false;
};

TEST_F(NetworkExtensionManagerTest, ConsecutiveSaveFailuresBackOffAndASuccessStartsAgain) {
    manager->extensionState = {Status::userAccepted};
    const auto config = sampleConfig();
    auto failOnce = [&](int expectedDelay) {
        preferences->saveResults.push_back(makeError(5));
        std::optional<ProxyError> got;
        manager->configureProxy(config, true,
                                [&](std::optional<ProxyError> error) { got = error; });
        run();
        ASSERT_TRUE(got);
        EXPECT_EQ(got->code, 5);
        EXPECT_EQ(manager->extensionState, ExtensionState{Status::failedToInstall});
        EXPECT_EQ(manager->status, "Error saving configuration.");
        EXPECT_FALSE(manager->isConfiguring);
        EXPECT_EQ(scheduler->nextDelay(), std::chrono::seconds(expectedDelay));
        const auto before = published.size();
        scheduler->advance(std::chrono::seconds(expectedDelay) - 1ms);
        EXPECT_EQ(published.size(), before) << "published before its delay";
        scheduler->advance(1ms);
        ASSERT_EQ(published.size(), before + 1);
        EXPECT_EQ(published.back(), "deviceConfigRefreshed");
    };
    for (int delay : {1, 3, 8, 21, 21}) {
        failOnce(delay);
    }
    EXPECT_TRUE(
        systemLogged("TarnNetExtMgr: Did not save configuration, error: Error Domain="
                     "NEDNSProxyErrorDomain Code=5 \"failure 5\" / 5"));
    EXPECT_TRUE(manager->logged("Did not save configuration, error: NEDNSProxyErrorDomain / 5"));

    manager->configureProxy(config, true, {});
    run();
    EXPECT_EQ(manager->throttle.throttleIndex, 0);
    EXPECT_TRUE(manager->extensionState.contains(Status::configured));
    EXPECT_EQ(manager->status, "Configuration saved.");
    EXPECT_EQ(link->registrations, 1);
    failOnce(1);
    failOnce(3);
}

TEST_F(NetworkExtensionManagerTest, ActivationOutcomesSetStateStatusAndPublish) {
    manager->activateExtension();
    EXPECT_EQ(manager->status, "Installing\u2026");
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: Will submit activation request"));
    EXPECT_TRUE(manager->logged("Fid submit activation request"));
    run();
    // The bundle of this fixture is missing: the request fails the orderly way.
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::failedToInstall});
    EXPECT_TRUE(manager->logged("NETWORK EXTENSION FAILURE"));
    EXPECT_TRUE(manager->logged("NETWORK EXTENSIONFAILURE"));
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: no bundle in this test"));
    EXPECT_TRUE(activation->requests.empty());

    struct Row {
        long long result;
        ExtensionState state;
        std::string status;
        std::size_t publishes;
    };
    for (const auto& row :
         {Row{0, {Status::userAccepted}, "Install succeeded.", 1},
          Row{1, {Status::notStarted}, "Install succeeded but requires restart.", 0},
          Row{7, {Status::notStarted}, "Install succeeded (with unexpected result).", 0}}) {
        manager->extensionState = {Status::notStarted};
        published.clear();
        manager->requestDidFinishWithResult("request-1", row.result);
        run();
        EXPECT_EQ(manager->extensionState, row.state) << row.result;
        EXPECT_EQ(manager->status, row.status);
        EXPECT_EQ(published.size(), row.publishes);
        EXPECT_TRUE(manager->logged("Activation request result = " + std::to_string(row.result) +
                                    " for request request-1"));
    }
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: Activation request failed, unexpected result: 7"));

    // A result of 1 leaves notStarted: nothing enables until the restart.
    manager->extensionState = {Status::notStarted};
    writeStoredPolicy();
    manager->handleChange(ChangeType::connected, sampleConfig());
    run();
    EXPECT_EQ(preferences->loads, 0);

    manager->status = "unchanged";
    manager->requestDidFailWithError("request-2", makeError(8, "OSSystemExtensionErrorDomain"));
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::failedToInstall});
    EXPECT_EQ(manager->status, "unchanged");
    EXPECT_TRUE(manager->logged(
        "Activation request failed, error is : Error Domain=OSSystemExtensionErrorDomain Code=8 "
        "\"failure 8\": error code is 8 value is failure 8, userInfo is {}"));

    manager->requestNeedsUserApproval();
    run();
    EXPECT_EQ(published.back(), "waitingOnUserSecurity");
    EXPECT_EQ(manager->actionForReplacingExtension("2.0.0", "1.0.0"), 1);
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: Allowing replacement of 2.0.0 with 1.0.0"));
}

TEST_F(NetworkExtensionManagerTest, APendingDeactivationSwallowsTheFinishAndTheFailure) {
    std::vector<std::optional<ProxyError>> completions;
    for (long long result : {0LL, 1LL, 5LL}) {
        manager->deactivateExtension(
            [&](std::optional<ProxyError> error) { completions.push_back(error); });
        EXPECT_EQ(manager->status, "Uninstalls\u2026");
        EXPECT_TRUE(manager->hasDeactivationPending());
        manager->requestDidFinishWithResult("deactivation", result);
        EXPECT_FALSE(manager->hasDeactivationPending());
    }
    run();
    EXPECT_EQ(completions.size(), 3u);
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::notStarted});
    EXPECT_EQ(manager->status, "Uninstalls\u2026");
    EXPECT_TRUE(published.empty());

    manager->deactivateExtension(
        [&](std::optional<ProxyError> error) { completions.push_back(error); });
    manager->requestDidFailWithError("deactivation", makeError(11));
    ASSERT_EQ(completions.size(), 4u);
    ASSERT_TRUE(completions.back());
    EXPECT_EQ(completions.back()->code, 11);
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::notStarted});
    EXPECT_FALSE(manager->logged("NETWORK EXTENSION FAILURE"));
    EXPECT_EQ(activation->requests,
              std::vector<ExtensionActivation::Kind>(4, ExtensionActivation::Kind::deactivation));
}

TEST_F(NetworkExtensionManagerTest, RemovalErrorFourGivesUserDeniedAndStopsTheProxyByItself) {
    manager->extensionState = {Status::userAccepted, Status::configured};
    preferences->storedEnabled = true;
    preferences->removeResults.push_back(makeError(4));
    int calls = 0;
    std::optional<ProxyError> got;
    manager->unloadConfigurations(true, [&](std::optional<ProxyError> error) {
        ++calls;
        got = error;
    });
    EXPECT_TRUE(manager->isTerminating);
    run();
    EXPECT_EQ(calls, 1);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->code, 4);
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::userDenied});
    EXPECT_EQ(manager->status, "Error unloading configurations.");
    // The stop ran on by itself: loaded, switched off and saved, outside any cycle.
    EXPECT_EQ(preferences->loads, 1);
    ASSERT_EQ(preferences->saves.size(), 1u);
    EXPECT_FALSE(preferences->saves[0].enabled);
    EXPECT_TRUE(manager->logged("Proxy Stopped"));

    // Any other code: userDenied as well, but nothing is stopped.
    preferences->removeResults.push_back(makeError(2));
    manager->unloadConfigurations(false, [&](std::optional<ProxyError>) { ++calls; });
    run();
    EXPECT_EQ(calls, 2);
    EXPECT_FALSE(manager->isTerminating);
    EXPECT_EQ(preferences->loads, 1);
    EXPECT_TRUE(
        systemLogged("TarnNetExtMgr: Did not unload configurations, error: Error Domain="
                     "NEDNSProxyErrorDomain Code=2 \"failure 2\" / 2"));

    // A removal that works calls the completion and changes nothing else.
    manager->unloadConfigurations(false, [&](std::optional<ProxyError> error) {
        ++calls;
        EXPECT_FALSE(error);
    });
    run();
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::userDenied});
}

TEST_F(NetworkExtensionManagerTest, ACycleRefusesAnotherAndTerminationRefusesAll) {
    manager->extensionState = {Status::userAccepted};
    manager->configureProxy(sampleConfig("first"), true, {});
    bool secondCalled = false;
    manager->configureProxy(sampleConfig("second"), false, [&](auto) { secondCalled = true; });
    EXPECT_EQ(manager->savedNetworkConfig->locationKey, "first");
    run();
    EXPECT_FALSE(secondCalled);
    EXPECT_EQ(preferences->loads, 1);
    ASSERT_EQ(preferences->saves.size(), 1u);
    EXPECT_TRUE(preferences->saves[0].enabled);
    EXPECT_EQ(manager->savedNetworkConfig->locationKey, "first");

    // A load that fails ends the cycle with the error and leaves the state.
    preferences->loadResults.push_back(makeError(1));
    std::optional<ProxyError> got;
    manager->configureProxy(sampleConfig(), true,
                            [&](std::optional<ProxyError> error) { got = error; });
    run();
    ASSERT_TRUE(got);
    EXPECT_EQ(manager->status, "Error loading configurations.");
    EXPECT_FALSE(manager->isConfiguring);
    EXPECT_EQ((ExtensionState{Status::userAccepted, Status::configured}), manager->extensionState);

    // A quit that begins while a cycle's load is under way: the cycle ends without a save,
    // so the removal the quit queued is the last word.
    const auto savesBefore = preferences->saves.size();
    bool cycleEnded = false;
    manager->configureProxy(sampleConfig("racing"), true, [&](auto) { cycleEnded = true; });
    manager->unloadConfigurations(true, {});
    run();
    EXPECT_TRUE(cycleEnded);
    EXPECT_EQ(preferences->saves.size(), savesBefore);
    EXPECT_EQ(preferences->removes, 1);
    EXPECT_FALSE(manager->isConfiguring);

    manager->configureProxy(sampleConfig("late"), true, [&](auto) { secondCalled = true; });
    run();
    EXPECT_FALSE(secondCalled);
    EXPECT_EQ(preferences->loads, 3);
    EXPECT_NE(manager->savedNetworkConfig->locationKey, "late");
}

TEST_F(NetworkExtensionManagerTest, TheFirstChangeAfterApprovalGivesOneCycle) {
    writeStoredPolicy();
    manager->requestDidFinishWithResult("activation", 0);
    run();
    ASSERT_EQ(published, std::vector<std::string>{"deviceConfigRefreshed"});
    manager->handleChange(ChangeType::deviceConfigRefreshed, sampleConfig());
    EXPECT_TRUE(manager->enabledOnFirstLaunch);
    EXPECT_TRUE(manager->logged("Enabling the network extension on change deviceConfigRefreshed"));
    run();
    EXPECT_EQ(preferences->loads, 1);
    ASSERT_EQ(preferences->saves.size(), 1u);
    EXPECT_TRUE(preferences->saves[0].enabled);
    EXPECT_EQ(manager->extensionState, (ExtensionState{Status::userAccepted, Status::configured}));
    EXPECT_EQ(link->registrations, 1);
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: Register worked Registered extension Tarn DNS Proxy"));
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: enableProxy location:loc-1"));

    // The saved protocol: the first resolver as server, the identifier, the description.
    const auto& saved = preferences->saves[0];
    ASSERT_TRUE(saved.providerProtocol);
    EXPECT_EQ(saved.providerProtocol->serverAddress, "10.0.0.53");
    EXPECT_EQ(saved.providerProtocol->providerBundleIdentifier, "com.tarn.lorvaxHQ.TarnDNSProxy");
    EXPECT_FALSE(saved.providerProtocol->disconnectOnSleep);
    EXPECT_TRUE(saved.providerProtocol->enforceRoutes);
    EXPECT_EQ(saved.localizedDescription, "Tarn DNS Proxy ");

    // The first-launch step ran once; the proxy is on and stays as it is.
    manager->handleChange(ChangeType::connected, sampleConfig());
    run();
    EXPECT_EQ(preferences->saves.size(), 1u);
}

TEST_F(NetworkExtensionManagerTest, UserStoppedGoesAtTheFirstChangeThatSeesIt) {
    manager->extensionState = {Status::userAccepted, Status::configured};
    preferences->storedEnabled = true;
    manager->enabledOnFirstLaunch = true;
    manager->configureProxy(sampleConfig(), true, {});
    run();
    ASSERT_TRUE(manager->preferences().isEnabled());

    manager->proxyStoppedWithReason(2);
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::userStopped});
    EXPECT_TRUE(manager->logged("Proxy was stopped by the user. Reason is 2"));
    run();
    EXPECT_EQ(published, std::vector<std::string>{"deviceConfigRefreshed"});

    // Offline at that moment: userStopped still goes, and nothing enables.
    pathSatisfied = false;
    manager->handleChange(ChangeType::deviceConfigRefreshed, sampleConfig());
    run();
    EXPECT_TRUE(manager->extensionState.empty());
    EXPECT_TRUE(manager->logged("dnsProxy.isEnabled [userStopped]"));
    EXPECT_EQ(preferences->saves.size(), 1u);

    // A stop with reason none leaves the state and still refreshes.
    manager->extensionState = {Status::userStopped};
    manager->proxyStoppedWithReason(0);
    run();
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::userStopped});
    EXPECT_EQ(published.size(), 2u);
    // Online: the first change takes userStopped away and enables again.
    pathSatisfied = true;
    manager->handleChange(ChangeType::deviceConfigRefreshed, sampleConfig());
    run();
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::configured});
    ASSERT_EQ(preferences->saves.size(), 2u);
    EXPECT_TRUE(preferences->saves[1].enabled);

    // While quitting, a stop gives configured and no refresh.
    manager->isTerminating = true;
    manager->proxyStoppedWithReason(3);
    run();
    EXPECT_EQ(manager->extensionState, ExtensionState{Status::configured});
    EXPECT_EQ(published.size(), 2u);
}

TEST_F(NetworkExtensionManagerTest, VPNAndOfflineRowsOfTheLifeStory) {
    manager->extensionState = {Status::userAccepted};
    manager->enabledOnFirstLaunch = true;
    manager->configureProxy(sampleConfig(), true, {});
    run();
    ASSERT_EQ(preferences->saves.size(), 1u);

    struct Row {
        ChangeType change;
        bool path, vpn;
        std::optional<bool> saved;  // what the row saves; nothing when it leaves the proxy
    };
    const Row rows[] = {
        {ChangeType::connected, true, false, std::nullopt},
        {ChangeType::VPNDidStart, true, true, false},
        {ChangeType::pollingInterval, true, true, std::nullopt},
        {ChangeType::VPNDidStop, true, false, true},
        {ChangeType::disconnected, false, false, false},
        {ChangeType::pollingInterval, false, false, std::nullopt},
        {ChangeType::connected, true, false, true},
    };
    for (const auto& row : rows) {
        pathSatisfied = row.path;
        vpnRunning = row.vpn;
        const auto before = preferences->saves.size();
        manager->handleChange(row.change, sampleConfig());
        run();
        const auto name = std::string(rawValue(row.change));
        if (!row.saved) {
            EXPECT_EQ(preferences->saves.size(), before) << name;
            continue;
        }
        ASSERT_EQ(preferences->saves.size(), before + 1) << name;
        EXPECT_EQ(preferences->saves.back().enabled, *row.saved) << name;
        if (*row.saved) {
            EXPECT_TRUE(manager->logged("Enabling the network extension on change " + name));
        } else {
            EXPECT_TRUE(manager->logged("Disabling the network extension on change " + name));
            EXPECT_TRUE(manager->logged("Disabling the network extension on change " + name,
                                        LogLevel::warning));
        }
    }
    EXPECT_EQ(link->registrations, 5);
}

TEST_F(NetworkExtensionManagerTest, AnAddressChangeResetsOnlyOnceActivated) {
    manager->enabledOnFirstLaunch = true;
    preferences->storedEnabled = true;
    preferences->setEnabled(true);
    manager->handleChange(ChangeType::ipAddressChanged, sampleConfig());
    run();
    EXPECT_EQ(preferences->loads, 0) << "notStarted neither resets nor enables";

    manager->extensionState = {Status::userAccepted, Status::configured};
    manager->handleChange(ChangeType::ipAddressChanged, sampleConfig());
    run();
    ASSERT_EQ(preferences->saves.size(), 2u);
    EXPECT_FALSE(preferences->saves[0].enabled);
    EXPECT_TRUE(preferences->saves[1].enabled);
    EXPECT_TRUE(systemLogged("TarnNetExtMgr: resetExtension location:loc-1"));

    // A disable that fails is said on standard output, and the enable half runs all the same.
    preferences->saveResults.push_back(makeError(9));
    manager->resetExtension(sampleConfig());
    run();
    ASSERT_EQ(preferences->saves.size(), 3u);
    EXPECT_TRUE(preferences->saves[2].enabled);

    // The provider's connection error resets the latest configuration; without one, nothing.
    manager->connectionErrorWithReason(makeError(3));
    run();
    EXPECT_EQ(preferences->saves.size(), 5u);
    EXPECT_TRUE(
        manager->logged("Proxy is in eaiting mode by the user. Error is Error Domain="
                        "NEDNSProxyErrorDomain Code=3 \"failure 3\". Reconfiguring..."));
    manager->savedNetworkConfig.reset();
    manager->connectionErrorWithReason(makeError(3));
    run();
    EXPECT_EQ(preferences->saves.size(), 5u);
}

TEST_F(NetworkExtensionManagerTest, ProviderDictionaryKeysOrderAndPresence) {
    auto config = sampleConfig();
    auto dictionary = manager->makeProviderConfiguration(config);
    std::vector<std::string> keys;
    for (const auto& [key, value] : dictionary.items()) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"internalIp", "locationTag", "uuid", "resolvers",
                                              "localDNS", "filters"}));
    EXPECT_EQ(dictionary["internalIp"], "192.168.1.20");
    EXPECT_EQ(dictionary["uuid"], "user-7");
    EXPECT_EQ(dictionary["resolvers"].dump(), R"(["10.0.0.53","10.0.0.54","9.9.9.9"])");
    EXPECT_EQ(dictionary["localDNS"].dump(), R"(["192.168.1.1"])");
    EXPECT_EQ(dictionary["filters"].dump(),
              R"([{"filter":[{"resolvers":["10.0.0.53","10.0.0.54"]},{"domain":"corp.example"}]},)"
              R"({"filter":[{"resolvers":["9.9.9.9"]}]},{"filter":[{"rule":"10.1.0.0/16"}]}])");

    Dependencies::shared()->resolve<Settings>()->setValue("203.0.113.9",
                                                          MorvaneServerInfoSection::externalIP);
    manager->networkQuestions.localIPv4Address = [] { return std::optional<std::string>(); };
    manager->networkQuestions.testForwardingRules = [] {
        return std::optional<std::vector<ForwardingRule>>(
            {ForwardingRule{"test.example", std::vector<std::string>{}, std::nullopt},
             ForwardingRule{std::nullopt, std::vector<std::string>{"9.9.9.9"}, std::nullopt}});
    };
    dictionary = manager->makeProviderConfiguration(config);
    keys.clear();
    for (const auto& [key, value] : dictionary.items()) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"externalIp", "locationTag", "uuid", "resolvers",
                                              "localDNS", "filters"}));
    EXPECT_EQ(dictionary["externalIp"], "203.0.113.9");
    ASSERT_EQ(dictionary["filters"].size(), 4u) << "the rule already in the policy comes once";
    EXPECT_EQ(dictionary["filters"][3].dump(),
              R"({"filter":[{"resolvers":[]},{"domain":"test.example"}]})");

    // No rules: no server address, an empty filter list.
    config.deviceConfig.result->filters = std::vector<ForwardingRule>{};
    manager->networkQuestions.testForwardingRules = {};
    manager->extensionState = {Status::userAccepted};
    manager->configureProxy(config, true, {});
    run();
    ASSERT_EQ(preferences->saves.size(), 1u);
    EXPECT_FALSE(preferences->saves[0].providerProtocol->serverAddress);
    EXPECT_EQ(preferences->saves[0].providerProtocol->providerConfiguration["filters"].dump(),
              "[]");
}

TEST_F(NetworkExtensionManagerTest, UnwiredQuestionsKeepTheProxyOffAndSaySo) {
    manager->networkQuestions = {};
    manager->extensionState = {Status::userAccepted};
    EXPECT_FALSE(manager->shouldEnableProxy());
    EXPECT_FALSE(manager->shouldEnableProxy());
    const auto count =
        std::count_if(manager->appLines.begin(), manager->appLines.end(), [](const auto& line) {
            return line.first == LogLevel::warning &&
                   line.second.find("pathIsSatisfied") != std::string::npos;
        });
    EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace morvane
