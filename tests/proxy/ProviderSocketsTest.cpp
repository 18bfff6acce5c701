#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "messages/JSONCoding.h"
#include "proxy/ControlSocketPreferences.h"
#include "proxy/IPCConnection.h"
#include "proxy/NetworkExtensionManager.h"
#include "proxy/ProxySystemLog.h"
#include "proxy/ProxyTestSupport.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "sys/MessageServer.h"
#include "sys/UnixSocket.h"

namespace morvane {
namespace {

using namespace std::chrono_literals;

constexpr const char* kServiceName = "QN8XK2TR5V.com.tarn.lorvaxHQ.TarnDNSProxy";

/// A socket server that plays the provider's two sockets with canned answers, so that the
/// agent's end is checked over real Unix sockets and framing. The provider's own program has
/// its tests with its own state; here only what the agent sends and makes of the answers counts.
class ProviderSockets {
public:
    explicit ProviderSockets(const std::filesystem::path& path) {
        sys::MessageServer::Options options;
        options.path = path;
        options.mode = 0666;
        options.acceptPeer = [](const sys::PeerCredentials&) { return true; };
        options.handler = [this](const sys::MessageServer::Connection& connection,
                                 const sys::Message& message) {
            std::lock_guard lock(mutex);
            received.push_back(message);
            lastConnection = connection.id;
            auto found = replies.find(message.message);
            if (found == replies.end()) {
                return sys::MessageServer::Outcome::refuse();
            }
            return sys::MessageServer::Outcome::replyWith(found->second);
        };
        server = std::make_unique<sys::MessageServer>(std::move(options));
        std::string error;
        started = server->start(error);
        EXPECT_TRUE(started) << error;
    }

    std::vector<sys::Message> messages() {
        std::lock_guard lock(mutex);
        return received;
    }

    std::mutex mutex;
    std::map<std::string, nlohmann::json> replies;
    std::vector<sys::Message> received;
    std::uint64_t lastConnection = 0;
    std::unique_ptr<sys::MessageServer> server;
    bool started = false;
};

class RecordingDelegate : public AppCommunication {
public:
    void proxyStoppedWithReason(long long reason) override {
        EXPECT_TRUE(platform::MainQueue::isCurrent());
        stops.push_back(reason);
    }
    void connectionErrorWithReason(const ProxyError& error) override {
        EXPECT_TRUE(platform::MainQueue::isCurrent());
        errors.push_back(error);
    }
    std::vector<long long> stops;
    std::vector<ProxyError> errors;
};

std::optional<ExtensionBundle> builtBundle() {
    return ExtensionBundle::open(
        test::binaryDir() / "apps/morvanecloud/SystemExtensions/com.tarn.lorvaxHQ.TarnDNSProxy");
}

class ProviderLinkTest : public ::testing::Test {
protected:
    std::string registerOnce(const std::optional<ExtensionBundle>& bundle,
                             std::shared_ptr<AppCommunication> delegate) {
        std::mutex mutex;
        std::optional<std::string> text;
        connection_->registerWithProvider(bundle, delegate, [&](const std::string& reply) {
            std::lock_guard lock(mutex);
            text = reply;
        });
        EXPECT_TRUE(test::runMainLoopUntil([&] {
            std::lock_guard lock(mutex);
            return text.has_value();
        }));
        std::lock_guard lock(mutex);
        return text.value_or("");
    }

    test::TempHome home_;
    std::shared_ptr<IPCConnection> connection_ = std::make_shared<IPCConnection>();
};

TEST_F(ProviderLinkTest, RegistersOnceThenAnswersAlreadyRegisteredAndDeliversUpwardCalls) {
    ProviderSockets provider(sys::runtimeDirectory() / kServiceName);
    provider.replies["register:"] = {{"text", "Registered extension Tarn DNS Proxy"}};
    auto first = std::make_shared<RecordingDelegate>();
    auto second = std::make_shared<RecordingDelegate>();
    EXPECT_EQ(registerOnce(builtBundle(), first), "Registered extension Tarn DNS Proxy");
    EXPECT_TRUE(connection_->isRegistered());
    EXPECT_EQ(registerOnce(builtBundle(), second), "already registered");
    EXPECT_EQ(provider.messages().size(), 1u) << "the second registration sent nothing";
    EXPECT_EQ(connection_->delegate(), second);

    // The provider's calls reach the latest delegate, on the main queue.
    ASSERT_TRUE(
        provider.server->send(provider.lastConnection, "proxyStoppedWithReason:", {{"reason", 2}}));
    ASSERT_TRUE(provider.server->send(
        provider.lastConnection, "connectionErrorWithReason:",
        {{"error", {{"domain", "NEDNSProxyErrorDomain"}, {"code", 3}, {"description", "gone"}}}}));
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !second->errors.empty(); }));
    EXPECT_EQ(second->stops, std::vector<long long>{2});
    EXPECT_EQ(second->errors[0].code, 3);
    EXPECT_EQ(second->errors[0].localizedDescription, "gone");
    EXPECT_TRUE(first->stops.empty());
}

TEST_F(ProviderLinkTest, AFailedMessageDropsTheConnectionAndTheNextRegistrationStartsAfresh) {
    auto delegate = std::make_shared<RecordingDelegate>();
    const auto failed = registerOnce(builtBundle(), delegate);
    EXPECT_TRUE(failed.starts_with("Failed to register with the provider: ")) << failed;
    EXPECT_TRUE(failed.ends_with(")")) << failed;
    EXPECT_FALSE(connection_->isRegistered());

    ProviderSockets provider(sys::runtimeDirectory() / kServiceName);
    provider.replies["register:"] = {{"text", "Registered extension Tarn DNS Proxy"}};
    EXPECT_EQ(registerOnce(builtBundle(), delegate), "Registered extension Tarn DNS Proxy");
    EXPECT_TRUE(connection_->isRegistered());
}

TEST_F(ProviderLinkTest, ABundleWithoutServiceNameOpensNothing) {
    test::writeFile(home_.root() / "bundle/Info.json", R"({"CFBundleDisplayName": "x"})");
    auto bundle = ExtensionBundle::open(home_.root() / "bundle");
    ASSERT_TRUE(bundle);
    auto delegate = std::make_shared<RecordingDelegate>();
    EXPECT_EQ(registerOnce(bundle, delegate),
              "Failed to register with the provider: Mach service name is missing from the "
              "Info.plist)");
    EXPECT_EQ(registerOnce(std::nullopt, delegate),
              "Failed to register with the provider: the provider's bundle is missing or "
              "damaged)");
    EXPECT_FALSE(connection_->isRegistered());
    EXPECT_EQ(connection_->delegate(), delegate);
}

class ControlSocketTest : public ::testing::Test {
protected:
    std::optional<ProxyError> wait(const std::function<void(DNSProxyPreferences::Completion)>& op) {
        bool done = false;
        std::optional<ProxyError> result;
        op([&](std::optional<ProxyError> error) {
            EXPECT_TRUE(platform::MainQueue::isCurrent());
            result = error;
            done = true;
        });
        EXPECT_TRUE(test::runMainLoopUntil([&] { return done; }));
        return result;
    }

    test::TempHome home_;
    std::shared_ptr<ControlSocketPreferences> preferences_ =
        std::make_shared<ControlSocketPreferences>();
};

TEST_F(ControlSocketTest, LoadSaveAndRemoveCarryTheDocumentedMessages) {
    ProviderSockets provider(ControlSocketPreferences::defaultSocketPath());
    provider.replies["load"] = nlohmann::json::object();
    provider.replies["save"] = nlohmann::json::object();
    provider.replies["remove"] = {
        {"error", {{"domain", "NEDNSProxyErrorDomain"}, {"code", 4}, {"description", "no"}}}};

    preferences_->setEnabled(true);
    EXPECT_FALSE(wait([&](auto done) { preferences_->loadFromPreferences(done); }));
    EXPECT_FALSE(preferences_->isEnabled()) << "nothing stored loads as switched off";
    EXPECT_FALSE(preferences_->providerProtocol());

    DNSProxyProviderProtocol providerProtocol;
    providerProtocol.providerBundleIdentifier = "com.tarn.lorvaxHQ.TarnDNSProxy";
    providerProtocol.providerConfiguration = nlohmann::ordered_json::parse(
        R"({"uuid":"u","filters":[{"filter":[{"resolvers":["1.1.1.1"]},{"domain":"d"}]}]})");
    preferences_->setProviderProtocol(providerProtocol);
    preferences_->setEnabled(true);
    preferences_->setLocalizedDescription("Tarn DNS Proxy ");
    EXPECT_FALSE(wait([&](auto done) { preferences_->saveToPreferences(done); }));
    const auto messages = provider.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].message, "save");
    EXPECT_EQ(messages[1].arguments.dump(),
              R"({"enabled":true,"localizedDescription":"Tarn DNS Proxy ",)"
              R"("providerBundleIdentifier":"com.tarn.lorvaxHQ.TarnDNSProxy",)"
              R"("providerConfiguration":{"filters":[{"filter":[{"resolvers":["1.1.1.1"]},)"
              R"({"domain":"d"}]}],"uuid":"u"}})")
        << "no server address is sent when there is none";

    const auto removal = wait([&](auto done) { preferences_->removeFromPreferences(done); });
    ASSERT_TRUE(removal);
    EXPECT_EQ(removal->domain, "NEDNSProxyErrorDomain");
    EXPECT_EQ(removal->code, 4);

    provider.replies["load"] = {{"configuration",
                                 {{"enabled", true},
                                  {"serverAddress", "9.9.9.9"},
                                  {"providerBundleIdentifier", "com.tarn.lorvaxHQ.TarnDNSProxy"},
                                  {"providerConfiguration", {{"uuid", "u"}}},
                                  {"localizedDescription", "Tarn DNS Proxy "}}}};
    preferences_->setEnabled(false);
    EXPECT_FALSE(wait([&](auto done) { preferences_->loadFromPreferences(done); }));
    EXPECT_TRUE(preferences_->isEnabled());
    ASSERT_TRUE(preferences_->providerProtocol());
    EXPECT_EQ(preferences_->providerProtocol()->serverAddress, "9.9.9.9");
}

TEST_F(ControlSocketTest, ASocketThatDoesNotAnswerIsAConnectionFailure) {
    const auto error = wait([&](auto done) { preferences_->loadFromPreferences(done); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, "MorvaneCloud.ProviderConnection");
    EXPECT_NE(error->localizedDescription.find("dnsproxy.control"), std::string::npos);

    // A completion that arrives after its object has gone does nothing.
    bool called = false;
    preferences_->saveToPreferences([&](auto) { called = true; });
    preferences_.reset();
    test::runMainLoopUntil([] { return false; }, 300ms);
    EXPECT_FALSE(called);
}

TEST(ProviderStopTest, AStopWithAReasonOverTheLinkGivesUserStoppedAndARefresh) {
    test::TempHome home;
    auto center = test::buildProxyServices();
    int refreshes = 0;
    auto subscription = center->subscribe("deviceConfigRefreshed",
                                          [&](const platform::Notification&) { ++refreshes; });
    ProviderSockets control(ControlSocketPreferences::defaultSocketPath());
    control.replies["load"] = nlohmann::json::object();
    control.replies["save"] = nlohmann::json::object();
    ProviderSockets link(sys::runtimeDirectory() / kServiceName);
    link.replies["register:"] = {{"text", "Registered extension Tarn DNS Proxy"}};

    auto preferences = std::make_shared<ControlSocketPreferences>();
    NetworkExtensionManager::Platform platform{
        preferences, std::make_shared<test::RecordingActivation>(),
        std::make_shared<IPCConnection>(), [] {
            return ExtensionBundle::Lookup{builtBundle(), ""};
        }};
    auto manager = std::make_shared<NetworkExtensionManager>(platform);
    manager->extensionState = {ExtensionStatus::userAccepted};
    auto device =
        decodeJSON<DeviceConfiguration>(R"({"result":{"filters":[{"resolvers":["9.9.9.9"]}]}})");
    bool saved = false;
    manager->networkQuestions.pathIsSatisfied = [] { return true; };
    manager->networkQuestions.isVPNRunning = [] { return false; };
    manager->networkQuestions.getDNSAddresses = [] { return std::vector<std::string>{}; };
    // The one public way into a cycle: an address change resets the proxy.
    manager->resetExtension(NetworkExtConfig{"u", "loc", {"9.9.9.9"}, *device});
    // A reset is two cycles, off then on, each ending in a save; the stop must come after the
    // second has settled. The preferences' calls are answered in order on the main queue, so
    // once a load sent after the second save has answered, that save's answer has been handled.
    const auto saves = [&] {
        int count = 0;
        for (const auto& message : control.messages()) {
            count += message.message == "save" ? 1 : 0;
        }
        return count;
    };
    ASSERT_TRUE(test::runMainLoopUntil([&] { return saves() == 2; }));
    bool settled = false;
    preferences->loadFromPreferences([&](std::optional<ProxyError>) { settled = true; });
    ASSERT_TRUE(test::runMainLoopUntil([&] { return settled && link.messages().size() == 1; }));
    saved = manager->extensionState.contains(ExtensionStatus::configured);
    EXPECT_TRUE(saved);

    ASSERT_TRUE(link.server->send(link.lastConnection, "proxyStoppedWithReason:", {{"reason", 1}}));
    ASSERT_TRUE(test::runMainLoopUntil([&] { return refreshes == 1; }));
    EXPECT_EQ(manager->extensionState, ExtensionState{ExtensionStatus::userStopped});
    Dependencies::build(std::vector<Service>{});
}

}  // namespace
}  // namespace morvane
