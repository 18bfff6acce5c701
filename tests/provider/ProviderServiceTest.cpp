// The provider service in this process, where the test can shorten the forwarder's patience:
// losing every resolver is told up the link to the registered agent, and the service's log
// lines carry the journal's priorities.
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "TestResolver.h"
#include "provider/ProviderService.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"
#include "sysdns/ResolvConfSwitch.h"

namespace morvane::provider {
namespace {

using namespace std::chrono_literals;

TEST(ProviderServiceTest, LosingEveryResolverIsToldToTheAgent) {
    morvane::test::TempHome home;
    test::TestResolver resolver("192.0.2.7");
    resolver.setBehaviour(test::TestResolver::Behaviour::silent);

    std::mutex mutex;
    std::vector<std::string> lines;
    ServiceLog log(
        [&](std::string_view line) {
            std::lock_guard lock(mutex);
            lines.emplace_back(line);
        },
        false);
    ProviderService::Options options;
    options.listen = "127.0.0.1:0";
    options.socketDirectory = home.sysroot() / "run/morvanecloud";
    options.forwarder.raceDelay = 50ms;
    options.forwarder.queryTimeout = 300ms;
    options.forwarder.upstreamsLostAfter = 1s;
    ProviderService service(options, log);
    std::string error;
    ASSERT_TRUE(service.start(error)) << error;

    nlohmann::json configuration = {
        {"enabled", true},
        {"serverAddress", resolver.address()},
        {"providerBundleIdentifier", "com.tarn.lorvaxHQ.TarnDNSProxy"},
        {"providerConfiguration", {{"filters", nlohmann::json::array()}}}};
    ASSERT_EQ(service.save(0, configuration), nlohmann::json::object());

    sys::MessageClient agent(service.linkSocketPath());
    std::condition_variable arrived;
    std::optional<nlohmann::json> reported;
    agent.setUpwardHandler([&](const std::string& message, const nlohmann::json& arguments) {
        std::lock_guard lock(mutex);
        if (message == "connectionErrorWithReason:") {
            reported = arguments;
            arrived.notify_all();
        }
    });
    ASSERT_TRUE(agent.connect(20s, error)) << error;
    ASSERT_TRUE(agent.call("register:", nlohmann::json::object(), 20s, error)) << error;

    // Queries keep coming, as they do on a machine, until the forwarder gives up on them all.
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    std::uint16_t id = 1;
    std::unique_lock lock(mutex);
    while (!reported && std::chrono::steady_clock::now() < deadline) {
        lock.unlock();
        test::askUdp(service.listeningAddress(), test::makeQuery("lost.example", 1, id++), 200ms);
        lock.lock();
        arrived.wait_for(lock, 100ms, [&] { return reported.has_value(); });
    }
    ASSERT_TRUE(reported) << "no connectionErrorWithReason: within 30 s";
    EXPECT_EQ((*reported)["error"]["domain"], "NSPOSIXErrorDomain");
    EXPECT_TRUE((*reported)["error"]["description"].is_string());
    lock.unlock();
    service.stop(StopReason::UserInitiated);
}

// Runs in a network namespace of its own, where the proxy may take port 53 on loopback, with
// the resolv.conf mechanism working on a private copy of the file: the switch follows the
// stored configuration's `enabled`, and the machine is put back when the service stops.
// Exit status: 0 as expected, 77 when no namespace can be had, others name the failing step.
MORVANE_CHILD_ROLE(providerSwitchInPrivateNetwork) {
    if (::unshare(CLONE_NEWNET) != 0) {
        return 77;
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq loopback{};
    std::strncpy(loopback.ifr_name, "lo", IFNAMSIZ - 1);
    loopback.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    if (::ioctl(fd, SIOCSIFFLAGS, &loopback) != 0) {
        return 77;
    }
    ::close(fd);

    const std::filesystem::path dir = std::getenv("MORVANE_TEST_DIR");
    const std::filesystem::path resolvConf = dir / "resolv.conf";
    const std::string original = "# the network's own\nnameserver 192.0.2.1\n";
    morvane::test::writeFile(resolvConf, original);

    ServiceLog log([](std::string_view) {}, false);
    ProviderService::Options options;
    options.listen = "127.0.0.1:53";
    options.configurationFile = dir / "dnsproxy.json";
    options.socketDirectory = dir / "run";
    options.switchFactory = [&](ServiceLog&) -> std::unique_ptr<sysdns::DnsSwitch> {
        sysdns::ResolvConfSwitch::Options switchOptions;
        switchOptions.path = resolvConf;
        switchOptions.stateDirectory = dir / "state";
        return std::make_unique<sysdns::ResolvConfSwitch>(switchOptions);
    };
    auto service = std::make_unique<ProviderService>(options, log);
    std::string error;
    if (!service->start(error)) {
        return 10;
    }
    if (morvane::test::readFile(resolvConf) != original) {
        return 11;  // a start with nothing to restore changes nothing
    }
    nlohmann::json configuration = {
        {"enabled", true},
        {"serverAddress", "127.0.0.1:9"},
        {"providerBundleIdentifier", "com.tarn.lorvaxHQ.TarnDNSProxy"},
        {"providerConfiguration", {{"filters", nlohmann::json::array()}}}};
    if (service->save(0, configuration) != nlohmann::json::object()) {
        return 12;
    }
    const nlohmann::json status = service->status();
    if (morvane::test::readFile(resolvConf).find("nameserver 127.0.0.1") == std::string::npos ||
        status["switch"] != "resolv.conf" || status["switched"] != true) {
        return 13;
    }
    configuration["enabled"] = false;
    if (service->save(0, configuration) != nlohmann::json::object() ||
        morvane::test::readFile(resolvConf) != original || service->status()["switched"] != false) {
        return 14;  // disabled: the network's own servers again
    }
    configuration["enabled"] = true;
    service->save(0, configuration);
    service.reset();  // stopping puts the machine back too
    if (morvane::test::readFile(resolvConf) != original) {
        return 15;
    }
    return 0;
}

TEST(ProviderServiceTest, TheSwitchFollowsEnabledAndIsUndoneAtStop) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root for a network namespace of its own";
    }
    morvane::test::TempDir dir;
    const int status =
        morvane::test::runChild("providerSwitchInPrivateNetwork",
                                {{"MORVANE_TEST_DIR", dir.path().string()},
                                 {"MORVANECLOUD_SYSROOT", (dir.path() / "sysroot").string()}});
    if (status == 77) {
        GTEST_SKIP() << "no network namespace can be made here";
    }
    EXPECT_EQ(status, 0) << "the step numbered by the exit status failed";
}

TEST(ServiceLogTest, LinesCarryTheJournalsPriorityOrALevelWord) {
    std::vector<std::string> lines;
    ServiceLog journal([&](std::string_view line) { lines.emplace_back(line); }, true);
    journal.error("cannot serve");
    journal.notice("two\nlines");
    journal.debug("not shown unless asked");
    journal.setDebug(true);
    journal.debug("shown");
    ServiceLog terminal([&](std::string_view line) { lines.emplace_back(line); }, false);
    terminal.warning("careful");
    EXPECT_EQ(lines, (std::vector<std::string>{"<3>cannot serve\n", "<5>two lines\n", "<7>shown\n",
                                               "warning: careful\n"}));
}

}  // namespace
}  // namespace morvane::provider
