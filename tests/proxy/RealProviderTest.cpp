#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>

#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "proxy/ChildProcessActivation.h"
#include "proxy/ControlSocketPreferences.h"
#include "proxy/IPCConnection.h"
#include "proxy/NetworkExtensionManager.h"
#include "proxy/ProxyTestSupport.h"
#include "settings/Utils.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"
#include "sys/SystemPaths.h"

namespace morvane {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kPolicy = R"({"jsonrpc":"2.0","id":1,"result":{
  "cfg":{"runtime":{"locations":[{"name":"Office","tag":"loc-1"}],"user":"user-7"}},
  "filters":[{"domain":"corp.example","resolvers":["10.0.0.53"],"rule":"10.0.0.0/8"},
             {"resolvers":["9.9.9.9","1.1.1.1"]}]}})";

fs::path providerProgram() {
    return test::binaryDir() / "apps/morvanecloud-dnsproxy/morvanecloud-dnsproxy";
}

/// A loopback port nobody holds at this moment, for the provider to serve DNS on.
int freePort() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t size = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(fd);
    return ntohs(address.sin_port);
}

/// The agent's DNS proxy control against the provider's program from this build, started
/// by the child process backend under a sysroot of the test's own.
class RealProviderTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access(providerProgram().c_str(), X_OK) != 0) {
            GTEST_SKIP() << "the provider's program is not built in this tree ("
                         << providerProgram().string() << ")";
        }
        center_ = test::buildProxyServices();
        subscription_ = center_->subscribe("deviceConfigRefreshed",
                                           [this](const platform::Notification&) { ++refreshes; });
        ProxySystemLog::setListener([this](ProxySystemLog::Type, const std::string& line) {
            std::lock_guard lock(mutex_);
            systemLines.push_back(line);
        });
        ChildProcessActivation::Options options;
        options.program = providerProgram();
        options.arguments = {"--listen", "127.0.0.1:" + std::to_string(freePort())};
        options.controlSocket = ControlSocketPreferences::defaultSocketPath();
        activation_ = std::make_shared<ChildProcessActivation>(options);
        NetworkExtensionManager::Platform platform{
            std::make_shared<ControlSocketPreferences>(), activation_,
            std::make_shared<IPCConnection>(), [] {
                return ExtensionBundle::find(test::binaryDir() /
                                             "apps/morvanecloud/SystemExtensions");
            }};
        manager_ = std::make_shared<NetworkExtensionManager>(platform);
        manager_->networkQuestions.pathIsSatisfied = [] { return true; };
        manager_->networkQuestions.isVPNRunning = [] { return false; };
        manager_->networkQuestions.getDNSAddresses = [] {
            return std::vector<std::string>{"192.0.2.1"};
        };
        manager_->networkQuestions.localIPv4Address = [] {
            return std::optional<std::string>("192.0.2.20");
        };
    }
    void TearDown() override {
        ProxySystemLog::setListener({});
        if (manager_) {
            bool done = false;
            manager_->deactivateExtension([&](auto) { done = true; });
            test::runMainLoopUntil([&] { return done; });
        }
        Dependencies::build(std::vector<Service>{});
    }

    bool systemLogged(const std::string& line) {
        std::lock_guard lock(mutex_);
        return std::find(systemLines.begin(), systemLines.end(), line) != systemLines.end();
    }

    NetworkExtConfig config() {
        auto device = decodeJSON<DeviceConfiguration>(kPolicy);
        return NetworkExtConfig{"user-7", "loc-1", resolverList(*device), *device};
    }

    test::TempHome home_;
    std::shared_ptr<platform::NotificationCenter> center_;
    std::shared_ptr<platform::NotificationCenter::Subscription> subscription_;
    std::shared_ptr<ChildProcessActivation> activation_;
    std::shared_ptr<NetworkExtensionManager> manager_;
    std::mutex mutex_;
    std::vector<std::string> systemLines;
    int refreshes = 0;
};

TEST_F(RealProviderTest, TheSaveReachesTheStoredConfigurationAndRegistersOnce) {
    test::writeFile(*Utils::deviceFileURL(), kPolicy);
    manager_->activateExtension();
    ASSERT_TRUE(test::runMainLoopUntil(
        [&] { return manager_->extensionState.contains(ExtensionStatus::userAccepted); }, 60s));
    manager_->handleChange(ChangeType::deviceConfigRefreshed, config());
    ASSERT_TRUE(test::runMainLoopUntil([&] {
        return systemLogged("TarnNetExtMgr: Register worked Registered extension Tarn DNS Proxy");
    }));
    const auto stored =
        platform::readTextFile(sys::systemPath("/var/lib/morvanecloud/dnsproxy.json"));
    ASSERT_TRUE(stored);
    const auto configuration = nlohmann::ordered_json::parse(*stored);
    EXPECT_EQ(configuration["enabled"], true);
    EXPECT_EQ(configuration["serverAddress"], "10.0.0.53");
    EXPECT_EQ(configuration["providerBundleIdentifier"], "com.tarn.lorvaxHQ.TarnDNSProxy");
    EXPECT_EQ(configuration["localizedDescription"], "Tarn DNS Proxy ");
    const auto& dictionary = configuration["providerConfiguration"];
    for (const char* key :
         {"internalIp", "locationTag", "uuid", "resolvers", "localDNS", "filters"}) {
        EXPECT_TRUE(dictionary.contains(key)) << key;
    }
    EXPECT_FALSE(dictionary.contains("externalIp"));
    EXPECT_EQ(dictionary["filters"].dump(),
              R"([{"filter":[{"resolvers":["10.0.0.53"]},{"domain":"corp.example"},)"
              R"({"rule":"10.0.0.0/8"}]},{"filter":[{"resolvers":["9.9.9.9","1.1.1.1"]}]}])");

    // The next save finds the link open.
    manager_->resetExtension(config());
    ASSERT_TRUE(test::runMainLoopUntil(
        [&] { return systemLogged("TarnNetExtMgr: Register worked already registered"); }));
}

TEST_F(RealProviderTest, AnotherUserCannotLoadOrSaveTheConfiguration) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a process as a second user";
    }
    manager_->activateExtension();
    ASSERT_TRUE(test::runMainLoopUntil(
        [&] { return manager_->extensionState.contains(ExtensionStatus::userAccepted); }, 60s));
    // Root saves first and so owns the stored configuration.
    manager_->handleChange(ChangeType::deviceConfigRefreshed, config());
    ASSERT_TRUE(test::runMainLoopUntil(
        [&] { return manager_->extensionState.contains(ExtensionStatus::configured); }));

    const pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) {
            ::_exit(3);
        }
        sys::MessageClient client(ControlSocketPreferences::defaultSocketPath());
        std::string error;
        const auto load = client.call("load", nlohmann::json::object(), 5s, error);
        const auto save = client.call("save", {{"enabled", false}}, 5s, error);
        const bool loadRefused =
            !load || load->contains("error") || !load->contains("configuration");
        const bool saveRefused = !save || save->contains("error");
        ::_exit(loadRefused && saveRefused ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "a second user read or changed the configuration";
    const auto stored =
        platform::readTextFile(sys::systemPath("/var/lib/morvanecloud/dnsproxy.json"));
    ASSERT_TRUE(stored);
    EXPECT_EQ(nlohmann::json::parse(*stored)["enabled"], true);
}

}  // namespace
}  // namespace morvane
