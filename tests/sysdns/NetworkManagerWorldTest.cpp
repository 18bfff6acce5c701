// The NetworkManager switch in a network and mount namespace of its own with a private system
// bus, against NetworkManagerStandIn: a stand-in of the few D-Bus calls used (NetworkManager
// cannot run here), which writes the namespace's private /etc/resolv.conf from what its devices
// run with, as NetworkManager does. Lookups go through the C library.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sysdns/NetworkManagerStandIn.h"
#include "sysdns/NetworkManagerSwitch.h"
#include "sysdns/PrivateWorld.h"
#include "sysdns/SwitchGuard.h"
#include "sysdns/SystemSwitch.h"
#include "sysdns/TestDnsResponder.h"

namespace morvane::sysdns {
namespace {

namespace fs = std::filesystem;
using test::kSkipStatus;

const char* const kName = "probe.morvane.test";
const char* const kOldAnswer = "192.0.2.2";
const char* const kProxyAnswer = "192.0.2.153";
const char* const kWired = "6b3f0f4e-2f0a-4c4e-9d57-0c6f4d2b8a11";
const char* const kWireless = "a7d2c1e0-5b8f-4a57-8e0d-3f1c9b6e2d44";

SwitchEnvironment environment() {
    auto environment = SwitchEnvironment::system();
    const fs::path state = std::getenv("MORVANE_SWITCH_STATE");
    environment.stateDirectory = state / "run";
    environment.durableDirectory = state / "var";
    environment.log = [](const std::string& line) { std::cerr << "switch: " << line << "\n"; };
    return environment;
}

NetworkManagerSwitch::Options switchOptions() {
    NetworkManagerSwitch::Options options;
    options.stateDirectory = environment().stateDirectory;
    options.log = environment().log;
    return options;
}

struct World {
    ::morvane::test::TempDir dir{"morvane-sysdns-nm"};
    std::unique_ptr<test::PrivateSystemBus> bus;
    std::unique_ptr<test::NetworkManagerStandIn> networkManager;
    std::unique_ptr<test::TestDnsResponder> old;
    std::unique_ptr<test::TestDnsResponder> proxy;

    int build(std::string& error) {
        if (!test::enterPrivateWorld(error)) {
            return kSkipStatus;
        }
        ::morvane::test::writeFile(dir.path() / "resolv.conf", "");
        if (!test::bindOver(dir.path() / "resolv.conf", "/etc/resolv.conf", error)) {
            return kSkipStatus;
        }
        ::setenv("MORVANE_SWITCH_STATE", (dir.path() / "state").c_str(), 1);
        bus = std::make_unique<test::PrivateSystemBus>(dir.path() / "bus");
        if (!bus->start(error)) {
            return kSkipStatus;
        }
        networkManager = std::make_unique<test::NetworkManagerStandIn>("/etc/resolv.conf");
        networkManager->addConnection(
            {kWired, "Wired connection 1", "eth0", {"127.0.0.2"}, {}, false, {"example.net"}});
        networkManager->addConnection({kWireless, "Home", "wlan0", {"127.0.0.2"}, {}, false, {}});
        if (!networkManager->start(error)) {
            return 1;
        }
        old = std::make_unique<test::TestDnsResponder>("127.0.0.2", 53, kOldAnswer);
        proxy = std::make_unique<test::TestDnsResponder>("127.0.0.153", 53, kProxyAnswer);
        if (!old->start() || !proxy->start()) {
            error = old->error() + proxy->error();
            return 1;
        }
        return 0;
    }
};

MORVANE_CHILD_ROLE(networkManagerHolder) {
    NetworkManagerSwitch dnsSwitch(switchOptions());
    return test::holdSwitch(dnsSwitch);
}

// What the provider does at start and in --cleanup.
MORVANE_CHILD_ROLE(networkManagerCleanup) {
    auto dnsSwitch = makeSystemSwitch(environment());
    return test::restoreSwitch(*dnsSwitch);
}

MORVANE_CHILD_ROLE(networkManagerWorld) {
    World world;
    std::string error;
    if (const int status = world.build(error); status != 0) {
        std::cerr << error << "\n";
        return status;
    }
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    const std::string before = ::morvane::test::readFile("/etc/resolv.conf");

    // The machine is probed as NetworkManager's.
    WORLD_CHECK(makeSystemSwitch(environment())->name() == "networkmanager", "wrong mechanism");

    NetworkManagerSwitch dnsSwitch(switchOptions());
    WORLD_CHECK(dnsSwitch.apply({"127.0.0.153", 53}, error), error);
    WORLD_CHECK(test::lookUp(kName, &error) == kProxyAnswer,
                error << "\n"
                      << ::morvane::test::readFile("/etc/resolv.conf"));
    WORLD_CHECK(world.proxy->queries() > 0, "the proxy saw no query");
    WORLD_CHECK(dnsSwitch.originalServers() == std::vector<std::string>{"127.0.0.2"}, "servers");
    WORLD_CHECK(dnsSwitch.stillApplied(), "not applied");
    // Only the running settings changed, never the stored profile.
    WORLD_CHECK(world.networkManager->profile(kWired).dns.empty() &&
                    !world.networkManager->profile(kWired).ignoreAutoDns,
                "the profile was changed");

    WORLD_CHECK(dnsSwitch.restore(error), error);
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    WORLD_CHECK(::morvane::test::readFile("/etc/resolv.conf") == before, "file differs");

    // A reconnect puts the profile back in force: undone promptly.
    {
        SwitchGuard guard(dnsSwitch, {});
        WORLD_CHECK(guard.engage({"127.0.0.153", 53}, error), error);
        world.networkManager->reconnect();
        WORLD_CHECK(
            test::waitUntil([&] { return guard.reasserts() >= 1 && dnsSwitch.stillApplied(); },
                            std::chrono::seconds(20)),
            "the reconnect was not undone");
        WORLD_CHECK(test::lookUp(kName, &error) == kProxyAnswer, error);
        WORLD_CHECK(guard.release(error), error);
        WORLD_CHECK(::morvane::test::readFile("/etc/resolv.conf") == before, "file differs");
    }

    const auto failure = test::killedHolderCycles(
        "networkManagerHolder", "networkManagerCleanup", 50,
        [&] {
            return world.networkManager->appliedServers(kWireless) ==
                   std::vector<std::string>{"127.0.0.153"};
        },
        [&] {
            const auto now = ::morvane::test::readFile("/etc/resolv.conf");
            return now == before ? std::string() : "file differs:\n" + now;
        });
    WORLD_CHECK(failure.empty(), failure);
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    return 0;
}

TEST(NetworkManagerWorld, EnableDisableReconnectAndFiftyKilledHoldersAgainstTheStandIn) {
    test::expectWorldPasses("networkManagerWorld");
}

}  // namespace
}  // namespace morvane::sysdns
