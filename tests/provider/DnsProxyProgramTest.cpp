// The provider program as an administrator and the agent meet it: started from the build tree
// as a child process under a temporary MORVANECLOUD_SYSROOT, serving on a free loopback port,
// spoken to over its real control socket and provider link.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "TestResolver.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"

namespace morvane::provider {
namespace {

using namespace std::chrono_literals;

const char* kBundleId = "com.tarn.lorvaxHQ.TarnDNSProxy";
const char* kLinkName = "QN8XK2TR5V.com.tarn.lorvaxHQ.TarnDNSProxy";

std::filesystem::path programPath() {
    return morvane::test::binaryDir() / "apps/morvanecloud-dnsproxy/morvanecloud-dnsproxy";
}

// The arguments of a save as the agent sends them, with `resolver` as the default resolver.
nlohmann::json saveArguments(bool enabled, const std::string& resolver) {
    return {{"enabled", enabled},
            {"serverAddress", resolver},
            {"providerBundleIdentifier", kBundleId},
            {"localizedDescription", "Tarn DNS Proxy "},
            {"providerConfiguration",
             {{"locationTag", "tag-home"},
              {"uuid", "user-7"},
              {"resolvers", {resolver}},
              {"localDNS", nlohmann::json::array()},
              {"filters", {{{"filter", {{{"resolvers", {resolver}}}}}}}}}}};
}

/// One run of the program, ended with SIGTERM by `stop` or when the object goes.
class ProviderProcess {
public:
    ProviderProcess(const std::filesystem::path& sysroot, const std::filesystem::path& logFile,
                    std::vector<std::string> arguments) {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::setenv("MORVANECLOUD_SYSROOT", sysroot.c_str(), 1);
            ::unsetenv("JOURNAL_STREAM");
            const int fd = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(fd, STDERR_FILENO);
            std::vector<std::string> argv = {programPath().string()};
            argv.insert(argv.end(), arguments.begin(), arguments.end());
            std::vector<char*> raw;
            for (auto& word : argv) {
                raw.push_back(word.data());
            }
            raw.push_back(nullptr);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
    }
    ~ProviderProcess() { stop(); }

    /// SIGTERM, then the exit status (-1 if it died of a signal or would not end).
    int stop() {
        if (pid_ <= 0) {
            return status_;
        }
        ::kill(pid_, SIGTERM);
        return wait(30s);
    }
    /// Waits for the program to end by itself.
    int wait(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
                pid_ = -1;
                return status_ = -1;
            }
            std::this_thread::sleep_for(20ms);
        }
        pid_ = -1;
        return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool running() const { return pid_ > 0; }
    void signal(int number) const { ::kill(pid_, number); }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

class DnsProxyProgramTest : public ::testing::Test {
protected:
    DnsProxyProgramTest() {
        // Another user must be able to reach the sockets to be refused by the program, not by
        // the folder of a temporary tree.
        std::error_code ec;
        std::filesystem::permissions(home.root(), std::filesystem::perms(0755), ec);
    }

    std::filesystem::path runDir() const { return home.sysroot() / "run/morvanecloud"; }
    std::filesystem::path controlPath() const { return runDir() / "dnsproxy.control"; }
    std::filesystem::path linkPath() const { return runDir() / kLinkName; }
    std::filesystem::path storedFile() const {
        return home.sysroot() / "var/lib/morvanecloud/dnsproxy.json";
    }
    std::filesystem::path logFile() const { return home.root() / "dnsproxy.log"; }
    std::string log() const { return morvane::test::readFile(logFile()); }

    std::unique_ptr<ProviderProcess> start(std::vector<std::string> extra = {}) {
        std::vector<std::string> arguments = {"--listen", "127.0.0.1:0"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return std::make_unique<ProviderProcess>(home.sysroot(), logFile(), arguments);
    }

    /// A client of the control socket once the program answers on it.
    std::unique_ptr<sys::MessageClient> control() { return connect(controlPath()); }
    std::unique_ptr<sys::MessageClient> connect(const std::filesystem::path& path) {
        auto client = std::make_unique<sys::MessageClient>(path);
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        std::string error;
        while (!client->connect(1s, error)) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "no answer on " << path << ": " << error << "\n" << log();
                return nullptr;
            }
            std::this_thread::sleep_for(50ms);
        }
        return client;
    }
    nlohmann::json call(sys::MessageClient& client, const std::string& message,
                        const nlohmann::json& arguments = nlohmann::json::object()) {
        std::string error;
        auto reply = client.call(message, arguments, 20s, error);
        EXPECT_TRUE(reply) << message << ": " << error << "\n" << log();
        return reply.value_or(nlohmann::json());
    }

    morvane::test::TempHome home;
};

TEST_F(DnsProxyProgramTest, CommandLineHelpVersionAndMistakes) {
    std::string output;
    EXPECT_EQ(morvane::test::runProgram({programPath().string(), "--help"}, {}, &output), 0);
    EXPECT_NE(output.find("--listen ADDR:PORT"), std::string::npos) << output;
    EXPECT_NE(output.find("--cleanup"), std::string::npos) << output;
    output.clear();
    EXPECT_EQ(morvane::test::runProgram({programPath().string(), "--version"}, {}, &output), 0);
    EXPECT_TRUE(output.starts_with("morvanecloud-dnsproxy 2.")) << output;
    output.clear();
    EXPECT_EQ(morvane::test::runProgram({programPath().string(), "--listne", "x"}, {}, &output), 2);
    EXPECT_NE(output.find("unknown argument \"--listne\""), std::string::npos) << output;
    EXPECT_EQ(morvane::test::runProgram({programPath().string(), "--listen"}, {}, &output), 2);

    output.clear();
    EXPECT_EQ(
        morvane::test::runProgram({programPath().string(), "--cleanup"},
                                  {{"MORVANECLOUD_SYSROOT", home.sysroot().string()}}, &output),
        0)
        << output;
    EXPECT_NE(output.find("Cleanup"), std::string::npos) << output;
}

TEST_F(DnsProxyProgramTest, ABusyAddressIsAClearErrorAtStart) {
    const int holder = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    ::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string busy = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    ProviderProcess process(home.sysroot(), logFile(), {"--listen", busy});
    EXPECT_EQ(process.wait(60s), 1);
    EXPECT_NE(log().find(busy), std::string::npos) << log();
    EXPECT_FALSE(std::filesystem::exists(controlPath())) << "nothing is left listening";
    ::close(holder);
}

TEST_F(DnsProxyProgramTest, SavedConfigurationSurvivesARestartAndFiltersQueries) {
    test::TestResolver resolver("192.0.2.7");
    const nlohmann::json saved = saveArguments(true, resolver.address());
    {
        auto process = start();
        auto client = control();
        ASSERT_TRUE(client);
        EXPECT_EQ(call(*client, "load"), nlohmann::json::object()) << "nothing stored yet";
        nlohmann::json status = call(*client, "status");
        EXPECT_EQ(status["enabled"], false);
        EXPECT_EQ(status["switch"], "none");

        EXPECT_EQ(call(*client, "save", saved), nlohmann::json::object());
        EXPECT_EQ(call(*client, "load"), (nlohmann::json{{"configuration", saved}}));
        status = call(*client, "status");
        EXPECT_EQ(status["enabled"], true);
        const std::string listening = status["listening"];

        // A query through the running program reaches the default resolver, with the identity.
        auto answer = test::askUdp(listening, test::makeQuery("www.example.com", 1, 0x1234));
        ASSERT_TRUE(answer) << log();
        ASSERT_TRUE(resolver.waitFor(1));
        const auto received = resolver.received().front();
        EXPECT_EQ(received.name, "www.example.com");
        EXPECT_EQ(received.options.at(65073), "tag-home");
        EXPECT_EQ(received.options.at(65074), "user-7");
        EXPECT_EQ(call(*client, "flush"), nlohmann::json::object());

        EXPECT_NE(log().find("NOT switched"), std::string::npos)
            << "without a switch the log says so plainly\n"
            << log();
        client.reset();
        EXPECT_EQ(process->stop(), 0) << log();
    }
    EXPECT_FALSE(std::filesystem::exists(controlPath())) << "the socket goes with the program";
    {
        auto process = start();
        auto client = control();
        ASSERT_TRUE(client);
        EXPECT_EQ(call(*client, "load"), (nlohmann::json{{"configuration", saved}}));
        EXPECT_EQ(call(*client, "status")["enabled"], true);
        EXPECT_EQ(call(*client, "remove"), nlohmann::json::object());
        EXPECT_EQ(call(*client, "load"), nlohmann::json::object());
        EXPECT_FALSE(std::filesystem::exists(storedFile()));
        EXPECT_EQ(call(*client, "status")["enabled"], false);
    }
}

TEST_F(DnsProxyProgramTest, InvalidSavesAreRefusedAndLoseNothing) {
    auto process = start();
    auto client = control();
    ASSERT_TRUE(client);
    const nlohmann::json good = saveArguments(true, "127.0.0.1:9");
    ASSERT_EQ(call(*client, "save", good), nlohmann::json::object());
    const std::string before = morvane::test::readFile(storedFile());

    nlohmann::json wrongBundle = good;
    wrongBundle["providerBundleIdentifier"] = "com.example.other";
    nlohmann::json badFilters = good;
    badFilters["providerConfiguration"]["filters"] = "corp.example";
    nlohmann::json noEnabled = good;
    noEnabled.erase("enabled");
    for (const nlohmann::json& arguments : {wrongBundle, badFilters, noEnabled}) {
        nlohmann::json reply = call(*client, "save", arguments);
        EXPECT_EQ(reply["error"]["domain"], "NEDNSProxyErrorDomain") << reply;
        EXPECT_EQ(reply["error"]["code"], 1) << reply;
    }
    EXPECT_EQ(morvane::test::readFile(storedFile()), before);

    // An unknown message closes that connection only; the service goes on.
    std::string error;
    EXPECT_FALSE(client->call("reboot", nlohmann::json::object(), 20s, error));
    auto again = control();
    ASSERT_TRUE(again);
    EXPECT_EQ(call(*again, "load"), (nlohmann::json{{"configuration", good}}));
}

TEST_F(DnsProxyProgramTest, AReloadReadsTheStoredFileAgain) {
    auto process = start();
    auto client = control();
    ASSERT_TRUE(client);
    ASSERT_EQ(call(*client, "save", saveArguments(true, "127.0.0.1:9")), nlohmann::json::object());

    // An administrator turns the proxy off in the file and asks for a reload.
    nlohmann::json stored = nlohmann::json::parse(morvane::test::readFile(storedFile()));
    stored["enabled"] = false;
    morvane::test::writeFile(storedFile(), stored.dump());
    process->signal(SIGHUP);
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (call(*client, "status")["enabled"] != false &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(call(*client, "status")["enabled"], false) << log();

    // A damaged file on reload keeps what is in force.
    morvane::test::writeFile(storedFile(), "{");
    process->signal(SIGHUP);
    while (log().find("Reload: the stored proxy configuration cannot be used") ==
               std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(call(*client, "load")["configuration"]["enabled"], false) << log();
    EXPECT_EQ(process->stop(), 0);
}

TEST_F(DnsProxyProgramTest, ATornStoredFileMeansNoConfiguration) {
    const std::string whole = saveArguments(true, "127.0.0.1:9").dump();
    morvane::test::writeFile(storedFile(), whole.substr(0, whole.size() / 2));
    auto process = start();
    auto client = control();
    ASSERT_TRUE(client);
    EXPECT_EQ(call(*client, "load"), nlohmann::json::object());
    EXPECT_EQ(call(*client, "status")["configured"], false);
    EXPECT_NE(log().find("cannot be used"), std::string::npos) << log();
    EXPECT_TRUE(std::filesystem::exists(storedFile().string() + ".bad")) << "kept for a look";
    EXPECT_EQ(call(*client, "save", saveArguments(false, "127.0.0.1:9")), nlohmann::json::object());
    EXPECT_EQ(call(*client, "load")["configuration"]["enabled"], false);
}

TEST_F(DnsProxyProgramTest, TheLinkAnswersWithTheBundlesNameAndTellsTheAgentOfAStop) {
    auto process = start();
    auto client = control();
    ASSERT_TRUE(client);
    ASSERT_EQ(call(*client, "save", saveArguments(true, "127.0.0.1:9")), nlohmann::json::object());

    sys::MessageClient agent(linkPath());
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<std::string, nlohmann::json>> upward;
    agent.setUpwardHandler([&](const std::string& message, const nlohmann::json& arguments) {
        std::lock_guard lock(mutex);
        upward.emplace_back(message, arguments);
        arrived.notify_all();
    });
    std::string error;
    ASSERT_TRUE(agent.connect(20s, error)) << error;
    EXPECT_EQ(call(agent, "register:"),
              (nlohmann::json{{"text", "Registered extension Tarn DNS Proxy"}}));

    nlohmann::json config = {{"UDDID", "user-7"},
                             {"locationKey", "tag-home"},
                             {"resolvers", {"127.0.0.1:9"}},
                             {"deviceConfig", nlohmann::json::object()}};
    EXPECT_EQ(call(agent, "updateConfigWithConfig:completionHandler:", {{"config", config.dump()}}),
              (nlohmann::json{{"text", "Tarn DNS Proxy updated config"}}));
    config.erase("UDDID");
    EXPECT_EQ(call(agent, "updateConfigWithConfig:completionHandler:", {{"config", config.dump()}}),
              (nlohmann::json{{"text", "Tarn DNS Proxy failed to unwrap the config"}}));

    // Disabling the proxy is told to the registered agent, with the reason "disabled".
    EXPECT_EQ(call(*client, "save", saveArguments(false, "127.0.0.1:9")), nlohmann::json::object());
    std::unique_lock lock(mutex);
    ASSERT_TRUE(arrived.wait_for(lock, 20s, [&] { return !upward.empty(); })) << log();
    EXPECT_EQ(upward.front().first, "proxyStoppedWithReason:");
    EXPECT_EQ(upward.front().second, (nlohmann::json{{"reason", 9}}));
}

TEST_F(DnsProxyProgramTest, ABundleWithoutADisplayNameAnswersUnknown) {
    const auto bundle = home.root() / "bundle";
    morvane::test::writeFile(bundle / "Info.json",
                             R"({"CFBundleIdentifier": "com.tarn.lorvaxHQ.TarnDNSProxy",
                                 "NetworkExtension": {"NEMachServiceName": "test.link"}})");
    auto process = start({"--bundle", bundle.string()});
    auto agent = connect(runDir() / "test.link");
    ASSERT_TRUE(agent);
    EXPECT_EQ(call(*agent, "register:"),
              (nlohmann::json{{"text", "Registered extension unknown"}}));
}

TEST_F(DnsProxyProgramTest, TellsTheServiceManagerReadyWatchdogAndStopping) {
    // A datagram socket stands in for systemd's notification socket: systemd cannot run as
    // PID 1 here.
    const auto socketPath = home.root() / "notify";
    const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    timeval patience{30, 0};
    ::setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    auto receive = [&]() {
        char buffer[4096];
        const ssize_t got = ::recv(listener, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
    };

    ::setenv("NOTIFY_SOCKET", socketPath.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "2000000", 1);
    auto process = start();
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");

    const std::string ready = receive();
    EXPECT_TRUE(ready.starts_with("READY=1\nSTATUS=Serving DNS on 127.0.0.1:")) << ready << log();
    EXPECT_EQ(receive(), "WATCHDOG=1") << "fed while the forwarder turns\n" << log();
    process->stop();
    std::string last;
    for (std::string message = receive(); !message.empty(); message = receive()) {
        last = message;
        if (message == "STOPPING=1") {
            break;
        }
    }
    EXPECT_EQ(last, "STOPPING=1");
    ::close(listener);
}

// A second process that gives up root, then tries both sockets; its exit status says what
// happened: 0 when both refused it, 1 when the control socket let it load, 2 when it could
// save, 3 when the link answered, 4 when it could not become the other user.
MORVANE_CHILD_ROLE(providerAsAnotherUser) {
    const uid_t nobody = 65534;
    if (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0) {
        return 4;
    }
    const std::filesystem::path run = std::getenv("MORVANE_TEST_RUN");
    std::string error;
    sys::MessageClient control(run / "dnsproxy.control");
    if (!control.connect(20s, error)) {
        return 5;
    }
    auto loaded = control.call("load", nlohmann::json::object(), 20s, error);
    if (!loaded || !loaded->contains("error") || (*loaded)["error"]["code"] != 10) {
        return 1;
    }
    auto saved = control.call("save", saveArguments(true, "127.0.0.1:9"), 20s, error);
    if (!saved || !saved->contains("error") || (*saved)["error"]["code"] != 10) {
        return 2;
    }
    sys::MessageClient link(run / kLinkName);
    if (link.connect(20s, error) && link.call("register:", nlohmann::json::object(), 20s, error)) {
        return 3;
    }
    return 0;
}

TEST_F(DnsProxyProgramTest, AnotherUserCanNeitherReadNorChangeTheConfiguration) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a process as another user";
    }
    auto process = start();
    auto client = control();
    ASSERT_TRUE(client);
    const nlohmann::json saved = saveArguments(true, "127.0.0.1:9");
    ASSERT_EQ(call(*client, "save", saved), nlohmann::json::object());
    std::error_code ec;
    for (auto dir = runDir(); dir != home.root(); dir = dir.parent_path()) {
        std::filesystem::permissions(dir, std::filesystem::perms(0755), ec);
    }

    EXPECT_EQ(
        morvane::test::runChild("providerAsAnotherUser", {{"MORVANE_TEST_RUN", runDir().string()}}),
        0)
        << log();
    EXPECT_EQ(call(*client, "load"), (nlohmann::json{{"configuration", saved}})) << "unchanged";
    EXPECT_NE(log().find("uid 65534"), std::string::npos) << log();
}

}  // namespace
}  // namespace morvane::provider
