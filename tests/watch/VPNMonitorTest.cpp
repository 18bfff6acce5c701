#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include "platform/InterfaceAddresses.h"
#include "platform/RunningApplications.h"
#include "support/NetworkNamespace.h"
#include "watch/VPNMonitor.h"
#include "watch/WatchFixture.h"

namespace morvane {
namespace {

using test::sh;

DeviceConfiguration policy(std::optional<std::vector<std::string>> interfacesToIgnore = {}) {
    DeviceConfiguration config;
    config.result.emplace();
    config.result->cfg.emplace();
    config.result->cfg->runtime.emplace();
    config.result->cfg->runtime->tarn.emplace();
    config.result->cfg->runtime->tarn->interfacesToIgnore = std::move(interfacesToIgnore);
    return config;
}

/// The machine as the monitor sees it, set by the test.
struct FakeMachine {
    std::optional<std::set<std::string>> interfaces = std::set<std::string>{};
    std::vector<std::string> programs;
    int programReads = 0;

    VPNMonitor::Machine machine() {
        return {[this] { return interfaces; },
                [this] {
                    ++programReads;
                    return programs;
                }};
    }
};

class VPNMonitorLogic : public test::WatchFixture {
protected:
    FakeMachine fake;
    VPNMonitor monitor{fake.machine()};
};

TEST_F(VPNMonitorLogic, TunnelsFromZeroToTwentyCountAndNoOthers) {
    for (const std::string name : {"tun0", "tun7", "tun20"}) {
        fake.interfaces = std::set<std::string>{"eth0", name};
        EXPECT_TRUE(monitor.hasRunningVPN()) << name;
    }
    for (const std::string name : {"tun21", "utun0", "wg0", "tun", "eth0"}) {
        fake.interfaces = std::set<std::string>{name};
        EXPECT_FALSE(monitor.hasRunningVPN()) << name;
    }
    // An unreadable interface list finds no tunnel.
    fake.interfaces.reset();
    EXPECT_FALSE(monitor.hasRunningVPN());
}

TEST_F(VPNMonitorLogic, RunningNeedsPolicyTunnelAndMatchingProgram) {
    fake.interfaces = std::set<std::string>{"tun0"};
    fake.programs = {"bash", "Cisco AnyConnect Secure Mobility Client"};
    // Before the first policy no VPN counts.
    EXPECT_FALSE(monitor.isVPNRunning());
    monitor.deviceConfig = DeviceConfiguration{};
    EXPECT_TRUE(monitor.isVPNRunning());
    // Case does not matter; the name may sit anywhere in the program's.
    fake.programs = {"openconnect-AnyConnect-helper"};
    EXPECT_TRUE(monitor.isVPNRunning());
    fake.programs = {"forticlient-FORTINET"};
    EXPECT_TRUE(monitor.isVPNRunning());
    // A tunnel without a matching program, and a matching program without a tunnel.
    fake.programs = {"openvpn", "SonicWall"};
    EXPECT_FALSE(monitor.isVPNRunning());
    fake.programs = {"AnyConnect"};
    fake.interfaces = std::set<std::string>{"tun21"};
    EXPECT_FALSE(monitor.isVPNRunning());
}

TEST_F(VPNMonitorLogic, PolicyNamesAddToTheBuiltInOnes) {
    monitor.deviceConfig = policy(std::vector<std::string>{"wg-corp", "Tailscale"});
    const auto names = monitor.vpnNames();
    EXPECT_EQ(names.size(), VPNMonitor::builtInNames().size() + 2);
    EXPECT_NE(std::find(names.begin(), names.end(), "Tailscale"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), "SonicWall mobile connect"), names.end());

    fake.interfaces = std::set<std::string>{"tun3"};
    fake.programs = {"tailscaled"};
    EXPECT_TRUE(monitor.isVPNRunning());
    fake.programs = {"Juniper Pulse"};
    EXPECT_TRUE(monitor.isVPNRunning());
    // A policy without the list keeps the built-in names only.
    monitor.deviceConfig = policy();
    fake.programs = {"tailscaled"};
    EXPECT_FALSE(monitor.isVPNRunning());
    EXPECT_EQ(monitor.vpnNames().size(), VPNMonitor::builtInNames().size());
}

TEST_F(VPNMonitorLogic, ProgramsAreReadOncePerNameUntilTheFirstHit) {
    monitor.deviceConfig = DeviceConfiguration{};
    fake.interfaces = std::set<std::string>{"tun0"};
    fake.programs = {"nothing of note"};
    EXPECT_FALSE(monitor.isVPNRunning());
    EXPECT_EQ(fake.programReads, static_cast<int>(VPNMonitor::builtInNames().size()));
}

TEST_F(VPNMonitorLogic, ChangesRaiseStartWhileATunnelStandsAndStopOnce) {
    fake.interfaces = std::set<std::string>{};
    monitor.ipv4StateChanged();  // nothing: no tunnel, none before
    fake.interfaces = std::set<std::string>{"tun0"};
    monitor.ipv4StateChanged();
    monitor.ipv4StateChanged();  // raised again for as long as the tunnel stands
    fake.interfaces = std::set<std::string>{};
    monitor.ipv4StateChanged();
    monitor.ipv4StateChanged();  // nothing after the stop
    // A tunnel without a matching program still raises the start.
    fake.interfaces = std::set<std::string>{"tun20"};
    monitor.ipv4StateChanged();
    ASSERT_TRUE(waitForEvents(4));
    EXPECT_EQ(names(events), "VPNDidStart VPNDidStart VPNDidStop VPNDidStart");
    EXPECT_TRUE(monitor.vpnWasRunning);
}

/// The real watch in a network namespace of the test's own: a veth pair with a default
/// route that the test moves, tun devices that come and go, and a program started by the
/// test under a VPN client's name.
class VPNMonitorInNamespace : public test::NamespaceWatchFixture {
protected:
    void SetUp() override {
        NamespaceWatchFixture::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(sh("ip route add default via 10.9.0.2"));
        monitor = std::make_shared<VPNMonitor>(
            VPNMonitor::Machine{[this] {
                                    auto interfaces = platform::interfacesWithIPv4Address();
                                    ++checks;
                                    return interfaces;
                                },
                                [] { return platform::runningApplicationNames(); }});
        // The thread starts here, after the move into the namespace, so it watches inside.
        watcher = std::thread([monitor = monitor] { monitor->startMonitoring(); });
    }
    void TearDown() override {
        if (monitor) {
            monitor->stopMonitoring();
        }
        if (watcher.joinable()) {
            watcher.join();
        }
        if (program > 0) {
            kill(program, SIGKILL);
            waitpid(program, nullptr, 0);
        }
        WatchFixture::TearDown();
    }

    /// Moves the default route and waits until the monitor has looked at the tunnels for it.
    void moveDefaultRoute() {
        const int before = checks.load();
        const std::string gateway = (++moves % 2) ? "10.9.0.3" : "10.9.0.2";
        ASSERT_TRUE(sh("ip route replace default via " + gateway));
        ASSERT_TRUE(test::runMainLoopUntil([&] { return checks.load() > before; }));
    }

    std::shared_ptr<VPNMonitor> monitor;
    std::thread watcher;
    std::atomic<int> checks{0};
    int moves = 0;
    pid_t program = -1;
};

TEST_F(VPNMonitorInNamespace, RouteChangesRaiseStartAndStopAsTunnelsComeAndGo) {
    // The watch is up once a change is heard; changes made before it subscribed are lost,
    // so the route is moved until one is heard.
    bool heard = false;
    for (int attempt = 0; attempt < 30 && !heard; ++attempt) {
        const int before = checks.load();
        ASSERT_TRUE(sh(std::string("ip route replace default via ") +
                       (attempt % 2 ? "10.9.0.2" : "10.9.0.4")));
        heard =
            test::runMainLoopUntil([&] { return checks.load() > before; }, std::chrono::seconds(2));
    }
    ASSERT_TRUE(heard);
    moveDefaultRoute();  // no tunnel: nothing
    ASSERT_TRUE(sh("ip tuntap add dev tun0 mode tun && ip addr add 10.8.0.1/24 dev tun0"));
    moveDefaultRoute();
    moveDefaultRoute();
    ASSERT_TRUE(sh("ip link del tun0"));
    moveDefaultRoute();
    moveDefaultRoute();  // nothing after the stop
    ASSERT_TRUE(sh("ip tuntap add dev tun21 mode tun && ip addr add 10.8.21.1/24 dev tun21"));
    moveDefaultRoute();  // tun21 is no tunnel of ours
    ASSERT_TRUE(sh("ip tuntap add dev tun20 mode tun && ip addr add 10.8.20.1/24 dev tun20"));
    moveDefaultRoute();
    ASSERT_TRUE(waitForEvents(4));
    EXPECT_EQ(names(events), "VPNDidStart VPNDidStart VPNDidStop VPNDidStart");
}

TEST_F(VPNMonitorInNamespace, RunningNeedsATunnelAndAProgramOfAClientsName) {
    monitor->deviceConfig = policy(std::vector<std::string>{"Corp Secure Tunnel"});
    // The kernel's name of this program is "sleep"; its argv[0] is the client's long name.
    program = fork();
    if (program == 0) {
        execl("/bin/sleep", "Corp Secure Tunnel Agent", "600", static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(program, 0);
    ASSERT_TRUE(test::runMainLoopUntil([] {
        const auto names = platform::runningApplicationNames();
        return std::find(names.begin(), names.end(), "Corp Secure Tunnel Agent") != names.end();
    }));
    EXPECT_FALSE(monitor->isVPNRunning()) << "no tunnel yet";
    ASSERT_TRUE(sh("ip tuntap add dev tun20 mode tun && ip addr add 10.8.20.1/24 dev tun20"));
    EXPECT_TRUE(monitor->isVPNRunning());
    monitor->deviceConfig.reset();
    EXPECT_FALSE(monitor->isVPNRunning()) << "no policy";
    monitor->deviceConfig = policy();
    EXPECT_FALSE(monitor->isVPNRunning()) << "the name is only in the other policy";
    monitor->deviceConfig = policy(std::vector<std::string>{"Corp Secure Tunnel"});
    ASSERT_TRUE(
        sh("ip link del tun20 && ip tuntap add dev tun21 mode tun && "
           "ip addr add 10.8.21.1/24 dev tun21"));
    EXPECT_FALSE(monitor->isVPNRunning()) << "tun21 is past the last tunnel";
}

}  // namespace
}  // namespace morvane
