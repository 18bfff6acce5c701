// The provider service in this process, where the test can shorten the forwarder's patience:
// losing every resolver is told up the link to the registered agent, and the service's log
// lines carry the journal's priorities.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "TestResolver.h"
#include "provider/ProviderService.h"
#include "support/TestEnvironment.h"
#include "sys/MessageClient.h"

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
