// The install command and the agent as real processes, against tools/devserver: the road
// from `sudo morvanecloud KEY=VALUE ...` to a stored policy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QProcess>
#include <QProcessEnvironment>

#include "messages/DeviceConfiguration.h"
#include "messages/JSONCoding.h"
#include "messages/MainConfiguration.h"
#include "support/ChildProcess.h"
#include "support/DevServer.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "sys/MessageServer.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

std::string currentUserName() {
    const passwd* account = ::getpwuid(::geteuid());
    return account ? account->pw_name : "user";
}

bool commandWorks(const std::vector<std::string>& argv) {
    return test::runProgram(argv, {}, nullptr) == 0;
}

/// One machine below a temporary system root: root's home, the user's home, /tmp.
class InstallCommandTest : public ::testing::Test {
protected:
    InstallCommandTest() {
        test::DevServer::Options options;
        options.port = test::DevServer::freeShortPort();
        server_ = std::make_unique<test::DevServer>(options);
        fs::create_directories(userHome() / "Downloads");
        fs::create_directories(sysroot() / "root");
        fs::create_directories(sysroot() / "tmp");
    }

    fs::path sysroot() const { return home_.sysroot(); }
    fs::path userHome() const { return sysroot() / "home" / currentUserName(); }
    fs::path userSupport() const { return userHome() / ".local/share/MorvaneCloud"; }
    fs::path handOverFile() const { return sysroot() / "tmp/.tarncookie"; }
    fs::path program() const { return test::binaryDir() / "apps/morvanecloud/morvanecloud"; }

    std::vector<std::string> installArguments() const {
        return {program().string(), "RPC_URL=" + server_->baseUrl(),
                std::string("INSTALL_KEY=") + test::DevServer::kInstallKey, "ALLOW_WEAK_KEY=true"};
    }

    /// The environment of a run from a shell in the user's Downloads folder, with `home` as
    /// the process's own home (root's under sudo).
    std::map<std::string, std::string> shellEnvironment(const fs::path& home) const {
        return {{"HOME", home.string()},
                {"XDG_CONFIG_HOME", (home / ".config").string()},
                {"XDG_DATA_HOME", (home / ".local/share").string()},
                {"XDG_CACHE_HOME", (home / ".cache").string()},
                {"MORVANECLOUD_SYSROOT", sysroot().string()},
                {"PWD", (userHome() / "Downloads").string()}};
    }

    /// The command as root: for real when the tests run as root, else in a user namespace
    /// where this user is root. Gives nothing when neither is possible here.
    std::optional<int> runInstallCommandAsRoot(std::string* output) {
        auto argv = installArguments();
        if (::geteuid() != 0) {
            if (!commandWorks({"/usr/bin/unshare", "--user", "--map-root-user", "/bin/true"})) {
                return std::nullopt;
            }
            argv.insert(argv.begin(), {"/usr/bin/unshare", "--user", "--map-root-user"});
        }
        auto environment = shellEnvironment(sysroot() / "root");
        environment["SUDO_COMMAND"] = "/usr/bin/morvanecloud";
        return test::runProgram(argv, environment, output);
    }

    /// The agent as the desktop session starts it: the user's home, no PWD, no SUDO_COMMAND.
    void startAgent() {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("SUDO_COMMAND");
        for (const auto& [name, value] : shellEnvironment(userHome())) {
            environment.insert(QString::fromStdString(name), QString::fromStdString(value));
        }
        environment.remove("PWD");
        agent_.setProcessEnvironment(environment);
        agent_.setStandardOutputFile(QString::fromStdString(agentLog().string()));
        agent_.setStandardErrorFile(QString::fromStdString(agentLog().string()), QIODevice::Append);
        agent_.start(QString::fromStdString(program().string()), {});
        ASSERT_TRUE(agent_.waitForStarted());
    }

    /// The command as the user, from a shell; gives what it printed.
    std::string runAsUser(std::vector<std::string> arguments, int expectedStatus) const {
        arguments.insert(arguments.begin(), program().string());
        std::string output;
        EXPECT_EQ(test::runProgram(arguments, shellEnvironment(userHome()), &output),
                  expectedStatus)
            << output;
        return output;
    }

    fs::path agentLog() const { return home_.root() / "agent.log"; }

    std::optional<DeviceConfiguration> storedPolicy() const {
        return decodeJSON<DeviceConfiguration>(test::readFile(userSupport() / "device.json"));
    }

    void TearDown() override {
        if (agent_.state() != QProcess::NotRunning) {
            agent_.terminate();
            agent_.waitForFinished(10000);
        }
        if (HasFailure()) {
            std::cerr << "agent output:\n" << test::readFile(agentLog()) << '\n';
        }
    }

    test::TempHome home_;
    std::unique_ptr<test::DevServer> server_;
    QProcess agent_;
};

TEST_F(InstallCommandTest, AsRootTheValuesGoToTheHandOverFileAndTheAgentEnrolsWithThem) {
    std::string output;
    const auto status = runInstallCommandAsRoot(&output);
    if (!status) {
        GTEST_SKIP() << "neither root nor a user namespace with root in it is available";
    }
    ASSERT_EQ(*status, 0) << output;
    EXPECT_THAT(output, HasSubstr("wasRunFromCommandLine"));
    const std::string handOver = test::readFile(handOverFile());
    EXPECT_THAT(handOver, HasSubstr("RPC_URL=" + server_->baseUrl() + "\n"));
    EXPECT_THAT(handOver, HasSubstr(std::string("INSTALL_KEY=") + test::DevServer::kInstallKey));
    EXPECT_THAT(handOver, HasSubstr("ALLOW_WEAK_KEY=true\n"));
    // A run as root enrols nothing itself.
    EXPECT_TRUE(server_->requests().empty());

    startAgent();
    // The agent looks at the hand-over file every 10 seconds; the limit only guards a hang.
    // The policy is written before config.json, so both are awaited.
    std::optional<MainConfiguration> config;
    ASSERT_TRUE(test::runMainLoopUntil(
        [&] {
            const auto policy = storedPolicy();
            config = decodeJSON<MainConfiguration>(test::readFile(userSupport() / "config.json"));
            return policy && policy->result && config && config->result;
        },
        90s));
    EXPECT_EQ(server_->requestsTo("/api/register").size(), 1u);
    EXPECT_GE(server_->requestsTo("/api/device").size(), 1u);
    EXPECT_FALSE(config->result->device.empty());
    // The new policy, written over the watched file, reaches the change loop as an edit.
    ASSERT_TRUE(test::runMainLoopUntil([&] {
        return test::readFile(agentLog())
                   .find("received change of type deviceConfigEditedLocally") != std::string::npos;
    }));

    agent_.terminate();
    ASSERT_TRUE(agent_.waitForFinished(10000));
    EXPECT_EQ(agent_.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(agent_.exitCode(), 0);
}

TEST_F(InstallCommandTest, AsAPlainUserTheCommandEnrolsItselfAndQuits) {
    std::vector<std::string> argv = installArguments();
    if (::geteuid() == 0) {
        // Root's tests play the plain user in a user namespace, where this process has no
        // account of root's.
        if (!commandWorks({"/usr/bin/unshare", "--user", "/bin/true"})) {
            GTEST_SKIP() << "running as root without user namespaces: no plain user to play";
        }
        argv.insert(argv.begin(), {"/usr/bin/unshare", "--user"});
    }
    std::string output;
    const int status = test::runProgram(argv, shellEnvironment(userHome()), &output);
    ASSERT_EQ(status, 0) << output;
    EXPECT_THAT(output, HasSubstr("quitting"));
    EXPECT_FALSE(fs::exists(handOverFile()));
    const auto policy = storedPolicy();
    ASSERT_TRUE(policy && policy->result) << output;
    EXPECT_EQ(server_->requestsTo("/api/register").size(), 1u);
}

TEST_F(InstallCommandTest, InvalidValuesFailWithStatusOneAndEnrolNothing) {
    EXPECT_THAT(runAsUser({"RPC_URL=https://Bad.Example.net", "INSTALL_KEY=k"}, 1),
                HasSubstr(" RPC_URL value \"https://Bad.Example.net\" is invalid"));
    EXPECT_TRUE(server_->requests().empty());
}

TEST_F(InstallCommandTest, StopAndResetAreCarriedOutAndEndTheRunThemselves) {
    // Both given: no plain finish; the reset's end, not the 3-second quit, ends the run.
    const auto output = runAsUser({"STOP=TRUE", "RESET=true"}, 0);
    EXPECT_THAT(output, HasSubstr("stopProxyIfNeeded"));
    EXPECT_THAT(output, HasSubstr("resetExtensionIfNeeded"));
    EXPECT_THAT(output, ::testing::Not(HasSubstr("quitting")));
}

TEST_F(InstallCommandTest, StopInSmallLettersAndResetInCapitalsHaveNoEffect) {
    const auto output = runAsUser({"STOP=true", "RESET=TRUE"}, 0);
    EXPECT_THAT(output, HasSubstr("stopProxyIfNeeded"));
    // Neither reached the DNS proxy: its manager, made on first use, was never made.
    EXPECT_THAT(output, ::testing::Not(HasSubstr("DNS proxy activation")));
}

TEST_F(InstallCommandTest, AMistypedValueAsRootIsReportedBeforeTheCommandEnds) {
    std::string output;
    auto argv = installArguments();
    argv[1] = "RPC_ULR=" + server_->baseUrl();  // a mistyped key: no RPC_URL at all
    if (::geteuid() != 0) {
        GTEST_SKIP() << "the command's end as root needs root";
    }
    auto environment = shellEnvironment(sysroot() / "root");
    environment["SUDO_COMMAND"] = "/usr/bin/morvanecloud";
    EXPECT_EQ(test::runProgram(argv, environment, &output), 1) << output;
    EXPECT_THAT(output,
                HasSubstr("Missing value for RPC_URL. Please provide a URL in the command line"));
    EXPECT_THAT(output, HasSubstr("failed to validate a required setting: bailing"));
    EXPECT_THAT(test::readFile(sysroot() / "root/.local/share/MorvaneCloud/Tarn.log"),
                HasSubstr("Missing value for RPC_URL"));
}

TEST_F(InstallCommandTest, ACommandLineRunNeedsNoDisplayEvenWhenOneIsNamed) {
    auto environment = shellEnvironment(userHome());
    // A display that is named but cannot be reached, as over SSH with a stale DISPLAY.
    environment["DISPLAY"] = ":97";
    // The runner makes widgets offscreen; a desktop's default platform is X11.
    environment["QT_QPA_PLATFORM"] = "xcb";
    std::string output;
    EXPECT_EQ(
        test::runProgram({program().string(), "RPC_URL=https://Bad.Example.net", "INSTALL_KEY=k"},
                         environment, &output),
        1)
        << output;
    EXPECT_THAT(output, HasSubstr(" RPC_URL value \"https://Bad.Example.net\" is invalid"));
}

TEST_F(InstallCommandTest, StatusTellsWhatTheFilesAndTheProviderSayAndChangesNothing) {
    const auto defaults = userHome() / ".config/MorvaneCloud/defaults.ini";
    const std::string stored =
        "[General]\nRPC_URL=https://rpc.example.net\nEXTERNAL_IP=203.0.113.7\n";
    test::writeFile(defaults, stored);
    test::writeFile(
        userSupport() / "config.json",
        R"({"jsonrpc":"2.0","result":{"device":"dk-42","name":"laptop","type":"Tarn"}})");

    auto before = runAsUser({"--status"}, 0);
    EXPECT_THAT(before, HasSubstr("Enrolled:          yes"));
    EXPECT_THAT(before, HasSubstr("Device key:        dk-42"));
    EXPECT_THAT(before, HasSubstr("External address:  203.0.113.7"));
    EXPECT_THAT(before, HasSubstr("DNS proxy:         not reachable"));

    // The provider's control socket, played by a server that answers as the provider does.
    sys::MessageServer::Options options;
    options.path = sysroot() / "run/morvanecloud/dnsproxy.control";
    options.handler = [](const sys::MessageServer::Connection&, const sys::Message& message) {
        if (message.message != "status") {
            return sys::MessageServer::Outcome::refuse();
        }
        return sys::MessageServer::Outcome::replyWith(
            {{"enabled", true}, {"listening", "127.0.0.153:53"}, {"switch", "resolv.conf"}});
    };
    sys::MessageServer provider(options);
    std::string error;
    ASSERT_TRUE(provider.start(error)) << error;
    const auto during = runAsUser({"--status"}, 0);
    EXPECT_THAT(during, HasSubstr("DNS proxy:         enabled, serving on 127.0.0.153:53"));
    EXPECT_THAT(during, HasSubstr("System DNS switch: resolv.conf"));
    EXPECT_EQ(test::readFile(defaults), stored);
}

TEST_F(InstallCommandTest, HelpAloneTouchesNoSetting) {
    const auto defaults = userHome() / ".config/MorvaneCloud/defaults.ini";
    test::writeFile(defaults, "[General]\nRPC_URL=https://kept.example.net\n");
    EXPECT_THAT(runAsUser({"--help"}, 0), HasSubstr("INSTALL_KEY=<key>"));
    EXPECT_EQ(test::readFile(defaults), "[General]\nRPC_URL=https://kept.example.net\n");
}

}  // namespace
}  // namespace morvane
