// The helper service on a real socket under a temporary sysroot, spoken to as the agent would:
// argument checks before and after the authorization, the authorization itself (length, owner,
// rights), a second local account, peers that send garbage, and the agent's TarnHelperProxy.
// The network preferences are held in memory (InMemoryNetworkServices); polkit does not run
// here, so the rights database decides.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "InMemoryNetworkServices.h"
#include "helper/Common.h"
#include "helper/TarnHelper.h"
#include "helper/TarnHelperProxy.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"

namespace morvane {
namespace {

namespace th = tarn_helper;
using sysdns::DnsConfiguration;
using test::readFile;
using test::writeFile;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr auto kWait = std::chrono::seconds(20);

/// Every operation with the arguments it needs, for the cases that go through all of them.
std::vector<std::pair<std::string, nlohmann::json>> everyOperation() {
    return {
        {th::setLogDebug, {{"value", true}}},
        {th::setTrayType, {{"value", 1}}},
        {th::writeLocation, {{"value", std::string(32, 'k')}}},
        {th::modifyDNS, {{"resolvers", {"127.0.0.153"}}}},
        {th::rollbackDNS, nlohmann::json::object()},
        {th::modifyDNSForServices, {{"resolvers", {"127.0.0.153"}}, {"services", {"wifi"}}}},
        {th::rollbackDNSForServices, {{"services", {"wifi"}}}},
        {th::downloadCert, {{"url", "https://127.0.0.1:1/ssl/ca.der"}, {"filename", "ca.der"}}},
        {th::importCert, {{"path", "/nonexistent.der"}}},
        {th::flushDNS, nlohmann::json::object()},
    };
}

std::optional<long long> errorCode(const nlohmann::json& reply) {
    if (!reply.contains("error")) {
        return std::nullopt;
    }
    return reply["error"].value("code", 0LL);
}

class TarnHelperServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        services = std::make_shared<test::InMemoryNetworkServices>();
        services->add("wifi", DnsConfiguration{{"192.0.2.1"}, {"corp.example"}});
        startService();
        writeFile(support() / "config.ini",
                  "[ApplicationSettings]\nLogDebug=false\nTrayType=2\n"
                  "[MorvaneServerInfoSection]\n");
        client = std::make_unique<sys::MessageClient>(TarnHelper::defaultSocketPath());
        token = call(th::authorizationCreate, nlohmann::json::object()).value("authorization", "");
        ASSERT_EQ(token.size(), 64u);
    }

    void startService() {
        helper = std::make_unique<TarnHelper>(services);
        std::string error;
        ASSERT_TRUE(helper->run(error)) << error;
    }

    nlohmann::json call(const std::string& selector, nlohmann::json arguments,
                        sys::MessageClient* through = nullptr) {
        std::string error;
        auto reply = (through ? through : client.get())->call(selector, arguments, kWait, error);
        EXPECT_TRUE(reply) << selector << ": " << error;
        return reply.value_or(nlohmann::json::object());
    }
    nlohmann::json authorized(const std::string& selector, nlohmann::json arguments) {
        arguments["authorization"] = token;
        return call(selector, arguments);
    }

    std::filesystem::path support() const { return home.sysroot() / "var/lib/morvanecloud"; }
    std::string ini() const { return readFile(support() / "config.ini"); }
    std::string helperLog() const { return readFile(support() / "tarnHelper.log"); }

    test::TempHome home;
    std::shared_ptr<test::InMemoryNetworkServices> services;
    std::unique_ptr<TarnHelper> helper;
    std::unique_ptr<sys::MessageClient> client;
    std::string token;
};

TEST_F(TarnHelperServiceTest, TrayTypeOutOfRangeIsRefusedBeforeTheAuthorizationIsLookedAt) {
    const std::string unknownToken(64, '0');
    for (const int type : {4, -1}) {
        const auto reply =
            call(th::setTrayType, {{"value", type}, {"authorization", unknownToken}});
        EXPECT_EQ(errorCode(reply), -50) << type;
    }
    EXPECT_THAT(helperLog(), HasSubstr("Invalid tray type specified"));
    EXPECT_THAT(helperLog(), Not(HasSubstr("Authentication error")));

    // In range, the unknown token is what stops it: the check was reached.
    EXPECT_EQ(errorCode(call(th::setTrayType, {{"value", 0}, {"authorization", unknownToken}})),
              -60002);
    EXPECT_THAT(helperLog(), HasSubstr("Authentication error"));

    for (const int type : {0, 3}) {
        EXPECT_EQ(errorCode(authorized(th::setTrayType, {{"value", type}})), std::nullopt);
        EXPECT_THAT(ini(), HasSubstr("TrayType=" + std::to_string(type) + "\n"));
    }
    EXPECT_THAT(helperLog(), HasSubstr("Updating tray type to: 3"));
    EXPECT_EQ(errorCode(authorized(th::setTrayType, {{"value", "2"}})), -50) << "a text";
}

TEST_F(TarnHelperServiceTest, LocationKeyMustBeThirtyTwoCharacters) {
    for (const std::size_t length : {31u, 33u}) {
        const auto reply = authorized(th::writeLocation, {{"value", std::string(length, 'x')}});
        EXPECT_EQ(errorCode(reply), -50) << length;
    }
    EXPECT_THAT(helperLog(), HasSubstr("Updating location key"));
    EXPECT_THAT(helperLog(), HasSubstr("Invalid location key"));
    EXPECT_THAT(ini(), Not(HasSubstr("LocationKey")));

    const std::string key = "0123456789abcdef0123456789ABCDEF";
    EXPECT_EQ(errorCode(authorized(th::writeLocation, {{"value", key}})), std::nullopt);
    EXPECT_THAT(ini(), HasSubstr("[MorvaneServerInfoSection]\nLocationKey=" + key + "\n"));
    EXPECT_EQ(errorCode(authorized(th::setLogDebug, {{"value", true}})), std::nullopt);
    EXPECT_THAT(ini(), HasSubstr("LogDebug=true\n"));
    EXPECT_THAT(helperLog(), HasSubstr("Setting LogDebug info to: true"));

    // A file the editor cannot change is a failed operation, not a broken service.
    std::filesystem::remove(support() / "config.ini");
    EXPECT_EQ(errorCode(authorized(th::setLogDebug, {{"value", false}})), -50);
}

TEST_F(TarnHelperServiceTest, AnAuthorizationOfAnyLengthButThirtyTwoBytesIsRefused) {
    const std::vector<nlohmann::json> bad = {nullptr,
                                             "",
                                             std::string(62, 'a'),
                                             std::string(66, 'a'),
                                             std::string(128, 'a'),
                                             std::string(63, 'a'),
                                             std::string(64, 'g'),
                                             42,
                                             nlohmann::json::array()};
    for (auto [selector, arguments] : everyOperation()) {
        if (selector == th::setTrayType || selector == th::writeLocation) {
            continue;  // their own checks come first; valid values below
        }
        for (const auto& authorization : bad) {
            arguments["authorization"] = authorization;
            EXPECT_EQ(errorCode(call(selector, arguments)), -50)
                << selector << " with " << authorization.dump();
        }
        arguments.erase("authorization");
        EXPECT_EQ(errorCode(call(selector, arguments)), -50) << selector << " without";
    }
    EXPECT_EQ(services->commits, 0);
}

TEST_F(TarnHelperServiceTest, EmptyServiceListWritesNoHeadlineAndSucceeds) {
    EXPECT_EQ(
        errorCode(authorized(th::modifyDNSForServices, {{"resolvers", {"127.0.0.153"}},
                                                        {"services", nlohmann::json::array()}})),
        std::nullopt);
    EXPECT_EQ(
        errorCode(authorized(th::rollbackDNSForServices, {{"services", nlohmann::json::array()}})),
        std::nullopt);
    EXPECT_THAT(helperLog(), Not(HasSubstr("========")));
    EXPECT_EQ(services->commits, 0);
    EXPECT_EQ(errorCode(authorized(th::modifyDNSForServices,
                                   {{"resolvers", {"127.0.0.153"}}, {"services", "wifi"}})),
              -50)
        << "services must be a list";
}

TEST_F(TarnHelperServiceTest, DNSPerServiceThroughTheSocketRollsBackToTheFirstState) {
    ASSERT_EQ(errorCode(authorized(th::modifyDNSForServices,
                                   {{"resolvers", {"127.0.0.153"}}, {"services", {"wifi"}}})),
              std::nullopt);
    ASSERT_EQ(errorCode(authorized(th::modifyDNSForServices,
                                   {{"resolvers", {"198.51.100.1"}}, {"services", {"wifi"}}})),
              std::nullopt);
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"198.51.100.1"}, {"corp.example"}}));
    EXPECT_THAT(helperLog(), HasSubstr("======== Modify DNS ======="));

    // A restarted service finds the backup of the first change.
    helper.reset();
    startService();
    client = std::make_unique<sys::MessageClient>(TarnHelper::defaultSocketPath());
    ASSERT_EQ(errorCode(authorized(th::rollbackDNSForServices, {{"services", {"wifi"}}})),
              std::nullopt);
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {"corp.example"}}));
    EXPECT_THAT(helperLog(), HasSubstr("======== Revert DNS ======="));

    // All services, and a failing service makes the reply an error.
    services->add("off", std::nullopt, /*enabled=*/false);
    EXPECT_EQ(errorCode(authorized(th::modifyDNS, {{"resolvers", {"127.0.0.153"}}})), -50);
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"127.0.0.153"}, {"corp.example"}}));
    EXPECT_EQ(errorCode(authorized(th::rollbackDNS, nlohmann::json::object())), std::nullopt);
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {"corp.example"}}));
}

TEST_F(TarnHelperServiceTest, URLTextThatGivesNoURLIsAnsweredWithoutError) {
    for (const nlohmann::json& url :
         {nlohmann::json("not a url"), nlohmann::json(""), nlohmann::json(7)}) {
        EXPECT_EQ(errorCode(authorized(th::downloadCert, {{"url", url}, {"filename", "ca.der"}})),
                  std::nullopt)
            << url.dump();
    }
    EXPECT_FALSE(std::filesystem::exists(support() / "ca.der"));
    // A file name that names no file gives no target.
    EXPECT_EQ(errorCode(authorized(th::downloadCert,
                                   {{"url", "http://127.0.0.1:1/ca.der"}, {"filename", ".."}})),
              -50);
    // importCert gives true whatever the file held; the detail is in the log.
    EXPECT_EQ(errorCode(authorized(th::importCert, {{"path", "/nonexistent file.der"}})),
              std::nullopt);
    EXPECT_THAT(helperLog(), HasSubstr("Failed to import cert \"/nonexistent file.der\""));
    EXPECT_EQ(errorCode(authorized(th::flushDNS, nlohmann::json::object())), std::nullopt);
    EXPECT_THAT(helperLog(), HasSubstr("Command dnsproxy.control flush output not listening"));
}

TEST_F(TarnHelperServiceTest, RightsDatabaseDecidesAndAnAdministratorCanDeny) {
    const auto rights = nlohmann::json::parse(readFile(support() / "rights.json"));
    EXPECT_EQ(rights.size(), 10u) << "defined by the service at start";
    EXPECT_EQ(rights["com.lorvex.tarnHelper.flushDNS"]["rule"], "allow");

    auto denied = rights;
    denied["com.lorvex.tarnHelper.flushDNS"]["rule"] = "deny";
    writeFile(support() / "rights.json", denied.dump());
    EXPECT_EQ(errorCode(authorized(th::flushDNS, nlohmann::json::object())), -60005);
    EXPECT_EQ(errorCode(authorized(th::setLogDebug, {{"value", true}})), std::nullopt);

    // A user may define a missing right but never loosen one that exists.
    EXPECT_EQ(call(th::authorizationRightGet, {{"right", "com.lorvex.tarnHelper.flushDNS"}}),
              nlohmann::json({{"status", 0}}));
    EXPECT_EQ(call(th::authorizationRightGet, {{"right", "com.example.none"}}),
              nlohmann::json({{"status", -60005}}));
    EXPECT_EQ(call(th::authorizationRightSet, {{"right", "com.lorvex.tarnHelper.flushDNS"},
                                               {"rule", "allow"},
                                               {"authorization", std::string(64, '1')}})
                  .value("status", 0),
              -60002);
}

// A second local account: refused its own authorization, and every operation with none, with
// root's, or with garbage.
MORVANE_CHILD_ROLE(secondUser) {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
        return 10;
    }
    sys::MessageClient client(TarnHelper::defaultSocketPath());
    std::string error;
    auto created = client.call(th::authorizationCreate, nlohmann::json::object(), kWait, error);
    if (!created || created->contains("authorization") || !created->contains("error")) {
        return 11;
    }
    const std::string rootToken = std::getenv("ROOT_TOKEN");
    int accepted = 0;
    for (auto [selector, arguments] : everyOperation()) {
        for (const nlohmann::json& authorization :
             {nlohmann::json(), nlohmann::json(rootToken), nlohmann::json(std::string(64, 'f'))}) {
            arguments["authorization"] = authorization;
            auto reply = client.call(selector, arguments, kWait, error);
            if (!reply) {
                return 12;
            }
            accepted += reply->contains("error") ? 0 : 1;
        }
    }
    return accepted == 0 ? 0 : 13;
}

TEST_F(TarnHelperServiceTest, SecondLocalUserWithoutTheTokenIsRefusedEveryOperation) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a process as a second user";
    }
    // The agent's user owns the helper; the second account is someone else.
    writeFile(support() / "helper-owner.json", R"({"uid": 4242})");
    // The second account must be able to reach the socket, as on a real machine.
    for (auto folder = TarnHelper::defaultSocketPath().parent_path();
         folder != home.root().parent_path(); folder = folder.parent_path()) {
        ::chmod(folder.c_str(), 0755);
    }
    const std::string before = ini();
    EXPECT_EQ(test::runChild("secondUser", {{"ROOT_TOKEN", token}}), 0);
    EXPECT_EQ(ini(), before);
    EXPECT_EQ(services->commits, 0);
    EXPECT_THAT(helperLog(), HasSubstr("No authorization for uid 65534"));
    // Root's token still works for root.
    EXPECT_EQ(errorCode(authorized(th::setLogDebug, {{"value", true}})), std::nullopt);
}

/// A raw connection, for what a well-behaved client never sends.
class RawPeer {
public:
    RawPeer() {
        std::string error;
        fd_ = sys::connectUnix(TarnHelper::defaultSocketPath(), std::chrono::seconds(5), error);
    }
    void send(const std::string& bytes) {
        ASSERT_TRUE(sys::writeAll(fd_.get(), bytes, std::chrono::seconds(5)));
    }
    void endWriting() { ::shutdown(fd_.get(), SHUT_WR); }
    /// True when the service closes the connection (rather than answering or waiting).
    bool closedByService() {
        // The connection may come non-blocking; wait for the service's move with a time-out.
        ::fcntl(fd_.get(), F_SETFL, ::fcntl(fd_.get(), F_GETFL) & ~O_NONBLOCK);
        timeval timeout{20, 0};
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        char byte = 0;
        const ssize_t got = ::recv(fd_.get(), &byte, 1, 0);
        // Closed with bytes of ours still unread, the end may come as a reset.
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }

private:
    sys::FileDescriptor fd_;
};

TEST_F(TarnHelperServiceTest, GarbageHugeLengthsAndHalfFramesCloseThatConnectionOnly) {
    RawPeer garbage;
    garbage.send(std::string("\0\0\0\x05hello", 9));
    EXPECT_TRUE(garbage.closedByService());

    RawPeer huge;
    huge.send(std::string("\x7f\xff\xff\xff{", 5));  // a 2 GB length prefix
    EXPECT_TRUE(huge.closedByService());

    RawPeer unknown;
    const std::string body = R"({"id":1,"message":"rm -rf /","arguments":{}})";
    unknown.send(std::string("\0\0\0", 3) + static_cast<char>(body.size()) + body);
    EXPECT_TRUE(unknown.closedByService());

    // Half a frame keeps its connection waiting while others are served.
    RawPeer half;
    half.send(std::string("\0\0\0\x64{\"id\":1,", 11));
    EXPECT_EQ(errorCode(authorized(th::setLogDebug, {{"value", true}})), std::nullopt);
    half.endWriting();
    EXPECT_TRUE(half.closedByService());

    sys::MessageClient another(TarnHelper::defaultSocketPath());
    EXPECT_EQ(errorCode(call(th::setTrayType, {{"value", 1}, {"authorization", token}}, &another)),
              std::nullopt);
}

TEST_F(TarnHelperServiceTest, ProxyCallsAreLoggedReconnectAfterADropAndRegisterRights) {
    std::mutex mutex;
    std::vector<std::string> lines;
    std::filesystem::remove(support() / "rights.json");
    TarnHelperProxy proxy;
    proxy.setLogHandler([&](TarnHelperProxy::Level, const std::string& line) {
        const std::lock_guard lock(mutex);
        lines.push_back(line);
    });
    const auto logged = [&] {
        const std::lock_guard lock(mutex);
        std::string all;
        for (const auto& line : lines) {
            all += line + "\n";
        }
        return all;
    };
    proxy.updateTrayType(3);
    proxy.updateLogDebug(true);
    proxy.setDNSResolvers({"127.0.0.153"}, {"wifi"});
    proxy.waitUntilIdle();
    EXPECT_EQ(proxy.authorization().size(), 64u);
    EXPECT_THAT(ini(), HasSubstr("TrayType=3\n"));
    EXPECT_THAT(ini(), HasSubstr("LogDebug=true\n"));
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"127.0.0.153"}, {"corp.example"}}));
    EXPECT_THAT(logged(), HasSubstr("Tray type updated in settings\n"));
    EXPECT_THAT(logged(), HasSubstr("Log debug info updated in settings\n"));
    EXPECT_EQ(nlohmann::json::parse(readFile(support() / "rights.json")).size(), 10u)
        << "the client registered the rights";

    // The service goes away: the failure is logged; it comes back: the next call reconnects.
    helper.reset();
    proxy.rollbackDNSForServices({"wifi"});
    proxy.waitUntilIdle();
    EXPECT_THAT(logged(), HasSubstr("Error NSCocoaErrorDomain"));
    // The connection's reader tells of the drop on its own thread, maybe after the failed
    // call has been logged.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (logged().find("Tarn Helper connection invalidated\n") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_THAT(logged(), HasSubstr("Tarn Helper connection invalidated\n"));
    startService();
    proxy.rollbackDNSForServices({"wifi"});
    proxy.waitUntilIdle();
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {"corp.example"}}));

    // A refusal is logged with its line and the error.
    proxy.setDNSResolvers({"127.0.0.153"}, {"wifi"});
    services->refuseSets = true;
    proxy.setDNSResolvers({"127.0.0.153"}, {"wifi"});
    proxy.waitUntilIdle();
    EXPECT_THAT(logged(),
                HasSubstr("Failed to change DNS settings\nError NSOSStatusErrorDomain (-50)\n"));
    EXPECT_THAT(TarnHelperProxy::generateUUID(),
                ::testing::MatchesRegex(
                    "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
}

}  // namespace
}  // namespace morvane
