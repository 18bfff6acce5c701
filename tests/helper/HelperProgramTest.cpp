// The helper program itself, started from the build tree as its systemd unit would start it,
// under a temporary MORVANECLOUD_SYSROOT and with a private system bus (PrivateSystemBus). On
// that bus PolkitStandIn stands in for polkitd and NetworkManagerStandIn for NetworkManager:
// neither can run here. This test process plays the agent, so the subject polkit is asked about
// must be this process (its pid, start time and uid), not the helper.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "PolkitStandIn.h"
#include "TwoConnections.h"
#include "helper/Common.h"
#include "helper/TarnHelper.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"
#include "sysdns/NetworkManagerStandIn.h"
#include "sysdns/PrivateWorld.h"

namespace morvane {
namespace {

namespace th = tarn_helper;
using test::PolkitStandIn;
using ::testing::HasSubstr;
using Strings = std::vector<std::string>;
using test::kWired;
using test::kWireless;

constexpr auto kWait = std::chrono::seconds(40);  // above the helper's own wait for polkit

/// This process's start time in clock ticks since boot: field 22 of /proc/self/stat, counted
/// after the command name's closing parenthesis.
std::uint64_t ownStartTime() {
    std::ifstream in("/proc/self/stat");
    std::string line;
    std::getline(in, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    for (int number = 3; number < 22; ++number) {
        fields >> field;
    }
    std::uint64_t start = 0;
    fields >> start;
    return start;
}

std::optional<long long> errorCode(const nlohmann::json& reply) {
    if (!reply.contains("error")) {
        return std::nullopt;
    }
    EXPECT_EQ(reply["error"].value("domain", ""), th::kErrorDomain);
    return reply["error"].value("code", 0LL);
}

class HelperProgramTest : public test::TwoConnectionsTest {
protected:
    void SetUp() override {
        TwoConnectionsTest::SetUp();
        if (!ready()) {
            return;
        }
        polkit = std::make_unique<PolkitStandIn>();
        std::string error;
        ASSERT_TRUE(polkit->start(error)) << error;
        startHelper();
        client = std::make_unique<sys::MessageClient>(TarnHelper::defaultSocketPath());
        token = call(th::authorizationCreate, nlohmann::json::object()).value("authorization", "");
        ASSERT_EQ(token.size(), 64u);
    }

    void TearDown() override {
        client.reset();
        if (helperPid > 0) {
            ::kill(helperPid, SIGTERM);
            int status = 0;
            ::waitpid(helperPid, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the helper ended badly";
        }
    }

    void startHelper() {
        const auto program = test::binaryDir() / "apps/morvanecloud-helper/morvanecloud-helper";
        helperPid = test::startProgram({program.string()}, {});
        ASSERT_GT(helperPid, 0) << "cannot start " << program;
        const bool listening = sysdns::test::waitUntil(
            [&] {
                std::string error;
                return sys::connectUnix(TarnHelper::defaultSocketPath(), std::chrono::seconds(1),
                                        error)
                           .get() >= 0;
            },
            std::chrono::seconds(30));
        ASSERT_TRUE(listening) << "the helper never listened";
    }

    nlohmann::json call(const std::string& selector, nlohmann::json arguments) {
        std::string error;
        auto reply = client->call(selector, arguments, kWait, error);
        EXPECT_TRUE(reply) << selector << ": " << error;
        return reply.value_or(nlohmann::json::object());
    }
    nlohmann::json authorized(const std::string& selector, nlohmann::json arguments) {
        arguments["authorization"] = token;
        return call(selector, arguments);
    }
    std::optional<long long> setLogDebug(bool value) {
        return errorCode(authorized(th::setLogDebug, {{"value", value}}));
    }
    std::optional<long long> setWiredResolvers(const std::string& server) {
        return errorCode(authorized(th::modifyDNSForServices,
                                    {{"resolvers", {server}}, {"services", {kWired}}}));
    }

    std::filesystem::path support() const { return home.sysroot() / "var/lib/morvanecloud"; }
    std::string ini() const { return test::readFile(support() / "config.ini"); }
    std::string helperLog() const { return test::readFile(support() / "tarnHelper.log"); }
    /// Sets one right's rule in the rights database the helper falls back on.
    void setRule(const std::string& right, const std::string& rule) {
        auto rights = nlohmann::json::parse(test::readFile(support() / "rights.json"));
        rights[right]["rule"] = rule;
        test::writeFile(support() / "rights.json", rights.dump());
    }

    std::unique_ptr<PolkitStandIn> polkit;
    pid_t helperPid = -1;
    std::unique_ptr<sys::MessageClient> client;
    std::string token;
};

TEST_F(HelperProgramTest, PolkitIsAskedForTheCommandsRightAboutTheCallingProcess) {
    // Where polkit runs its answer counts, not the rights database's.
    setRule("com.lorvex.tarnHelper.setLogDebug", "deny");
    EXPECT_EQ(setLogDebug(true), std::nullopt);
    EXPECT_THAT(ini(), HasSubstr("LogDebug=true\n"));
    EXPECT_EQ(setWiredResolvers("127.0.0.153"), std::nullopt);
    EXPECT_EQ(networkManager->appliedServers(kWired), Strings{"127.0.0.153"});
    EXPECT_EQ(errorCode(authorized(th::flushDNS, nlohmann::json::object())), std::nullopt);

    const auto checks = polkit->checks();
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_EQ(checks[0].actionId, "com.lorvex.tarnHelper.setLogDebug");
    EXPECT_EQ(checks[1].actionId, "com.lorvex.tarnHelper.modifyDNSForServices");
    EXPECT_EQ(checks[2].actionId, "com.lorvex.tarnHelper.flushDNS");
    for (const auto& check : checks) {
        EXPECT_EQ(check.subjectKind, "unix-process");
        EXPECT_EQ(check.pid, static_cast<std::uint32_t>(::getpid()));
        EXPECT_EQ(check.startTime, ownStartTime());
        EXPECT_EQ(check.uid, static_cast<std::int32_t>(::getuid()));
        EXPECT_EQ(check.flags, 1u) << "user interaction allowed";
        EXPECT_TRUE(check.details.empty());
        EXPECT_EQ(check.cancellationId, "");
    }
    // Commands refused before the authorization never reach polkit.
    EXPECT_EQ(errorCode(authorized(th::setTrayType, {{"value", 4}})), -50);
    EXPECT_EQ(errorCode(call(th::setLogDebug, {{"value", true}, {"authorization", "00"}})), -50);
    EXPECT_EQ(polkit->checks().size(), 3u);
}

TEST_F(HelperProgramTest, PolkitsRefusalsReachTheAgentAsTheirStatusAndChangeNothing) {
    struct Case {
        PolkitStandIn::Answer answer;
        std::string errorName;
        long long status;
    };
    const std::vector<Case> cases = {
        {PolkitStandIn::Answer::notAuthorized, "", -60005},
        {PolkitStandIn::Answer::dismissed, "", -60006},
        {PolkitStandIn::Answer::challenge, "", -60007},
        {PolkitStandIn::Answer::error, "org.freedesktop.PolicyKit1.Error.Failed", -60008},
        {PolkitStandIn::Answer::error, "org.freedesktop.PolicyKit1.Error.NotAuthorized", -60008},
    };
    const std::string iniBefore = ini();
    for (const auto& [answer, errorName, status] : cases) {
        polkit->answer(answer, errorName, "the stand-in says no");
        EXPECT_EQ(setLogDebug(true), status) << errorName;
        EXPECT_EQ(setWiredResolvers("127.0.0.153"), status) << errorName;
    }
    EXPECT_EQ(ini(), iniBefore);
    EXPECT_EQ(networkManager->profile(kWired).dns, Strings{"192.0.2.53"});
    EXPECT_EQ(networkManager->appliedServers(kWired), Strings{"192.0.2.53"});
    EXPECT_THAT(helperLog(), HasSubstr("Authentication error"));
    EXPECT_THAT(helperLog(),
                HasSubstr("refused: polkit refused com.lorvex.tarnHelper.setLogDebug"));
    EXPECT_EQ(polkit->checks().size(), 2 * cases.size());

    // The service goes on, and polkit's yes is a yes again.
    polkit->answer(PolkitStandIn::Answer::authorized);
    EXPECT_EQ(setLogDebug(true), std::nullopt);
    EXPECT_THAT(ini(), HasSubstr("LogDebug=true\n"));
}

TEST_F(HelperProgramTest, PolkitGoneMidQuestionRefusesThenTheRightsDatabaseDecides) {
    polkit->answer(PolkitStandIn::Answer::vanish);
    const std::string iniBefore = ini();
    EXPECT_EQ(setLogDebug(true), -60008) << "no answer is no yes";
    EXPECT_EQ(ini(), iniBefore);
    ASSERT_TRUE(sysdns::test::waitUntil([&] { return polkit->gone(); }, std::chrono::seconds(10)));

    // No polkit on the bus at all: the rights database answers, an administrator's deny included.
    setRule("com.lorvex.tarnHelper.setLogDebug", "deny");
    EXPECT_EQ(setLogDebug(true), -60005);
    EXPECT_EQ(errorCode(authorized(th::setTrayType, {{"value", 2}})), std::nullopt);
    EXPECT_THAT(helperLog(),
                HasSubstr("rights database: refused com.lorvex.tarnHelper.setLogDebug"));

    // polkit back: it decides again.
    polkit = std::make_unique<PolkitStandIn>();
    std::string error;
    ASSERT_TRUE(polkit->start(error)) << error;
    EXPECT_EQ(setLogDebug(true), std::nullopt);
    EXPECT_EQ(polkit->checks().size(), 1u);

    // The system bus itself gone: the rights database again, and the service still serves.
    polkit.reset();
    networkManager.reset();
    bus.reset();
    EXPECT_EQ(setLogDebug(true), -60005);
    setRule("com.lorvex.tarnHelper.setLogDebug", "allow");
    EXPECT_EQ(setLogDebug(false), std::nullopt);
    EXPECT_THAT(ini(), HasSubstr("LogDebug=false\n"));
}

TEST_F(HelperProgramTest, AnActionPolkitDoesNotKnowIsLeftToTheRightsDatabase) {
    // What polkitd answers for an action whose policy file is not installed.
    polkit->answer(PolkitStandIn::Answer::error, "org.freedesktop.PolicyKit1.Error.Failed",
                   "Action com.lorvex.tarnHelper.setLogDebug is not registered");
    EXPECT_EQ(setLogDebug(true), std::nullopt);
    setRule("com.lorvex.tarnHelper.setLogDebug", "deny");
    EXPECT_EQ(setLogDebug(false), -60005);
    EXPECT_THAT(ini(), HasSubstr("LogDebug=true\n"));
}

TEST_F(HelperProgramTest, DnsPerServiceGoesToNetworkManagerAndComesBack) {
    EXPECT_EQ(setWiredResolvers("127.0.0.153"), std::nullopt);
    EXPECT_EQ(setWiredResolvers("198.51.100.7"), std::nullopt);
    EXPECT_EQ(networkManager->profile(kWired).dns, Strings{"198.51.100.7"});
    EXPECT_EQ(networkManager->profile(kWired).searches, (Strings{"corp.example", "lan"}));
    EXPECT_EQ(networkManager->appliedServers(kWired), Strings{"198.51.100.7"});

    EXPECT_EQ(errorCode(authorized(th::rollbackDNSForServices, {{"services", {kWired}}})),
              std::nullopt);
    const auto wired = networkManager->profile(kWired);
    EXPECT_EQ(wired.dns, Strings{"192.0.2.53"});
    EXPECT_TRUE(wired.ignoreAutoDns);
    EXPECT_EQ(wired.searches, (Strings{"corp.example", "lan"}));
    EXPECT_EQ(networkManager->appliedServers(kWired), Strings{"192.0.2.53"});
    // The other connection was never touched.
    EXPECT_TRUE(networkManager->profile(kWireless).dns.empty());
    EXPECT_EQ(networkManager->appliedServers(kWireless), Strings{"192.0.2.9"});
    EXPECT_THAT(helperLog(), HasSubstr("======== Revert DNS ======="));
}

// The package installs the rights as polkit actions; a right without its action would make
// polkitd answer "not registered" and leave every decision to the rights database.
TEST(HelperPolkitPolicy, EveryRightIsAnActionOfThePolicyFileWithItsDescriptionAndDefault) {
    const std::string policy =
        test::readFile(test::sourceDir() / "data/polkit/com.lorvex.tarnHelper.policy");
    ASSERT_FALSE(policy.empty());
    std::size_t rights = 0;
    Common::enumerateRightsUsingBlock([&](const std::string& command,
                                          const Common::RightInfo& info) {
        ++rights;
        const auto start = policy.find("<action id=\"" + info.authRightName + "\">");
        ASSERT_NE(start, std::string::npos) << command;
        const std::string action = policy.substr(start, policy.find("</action>", start) - start);
        EXPECT_THAT(action,
                    HasSubstr("<description>" + info.authRightDescription + "</description>"));
        ASSERT_EQ(info.authRightDefault, "allow");
        for (const char* kind : {"allow_any", "allow_inactive", "allow_active"}) {
            EXPECT_THAT(action, HasSubstr(std::string("<") + kind + ">yes</")) << command;
        }
    });
    EXPECT_EQ(rights, 10u);
    std::size_t actions = 0;
    for (auto at = policy.find("<action id="); at != std::string::npos;
         at = policy.find("<action id=", at + 1)) {
        ++actions;
    }
    EXPECT_EQ(actions, rights) << "an action no right asks for";
}

}  // namespace
}  // namespace morvane
