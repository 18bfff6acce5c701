// The systemd-resolved switch against the real systemd-resolved, unpacked from its Debian
// package and run in a network and mount namespace of its own with a private system bus.
// /etc/resolv.conf there names resolved's stub, so lookups through the C library go
// stub -> resolved -> the servers of the links. A veth pair "net0" stands for the network; the
// test plays the network manager that gives it its DNS server (and later takes the switch's
// settings back), calling resolved as NetworkManager or networkd would.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sysdns/OwnLink.h"
#include "sysdns/PrivateWorld.h"
#include "sysdns/ResolvedDaemon.h"
#include "sysdns/ResolvedServices.h"
#include "sysdns/ResolvedSwitch.h"
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

ResolvedSwitch::Options switchOptions() {
    ResolvedSwitch::Options options;
    options.stateDirectory = fs::path(std::getenv("MORVANE_SWITCH_STATE"));
    options.log = [](const std::string& line) { std::cerr << "switch: " << line << "\n"; };
    return options;
}

int run(const std::vector<std::string>& argv, std::string* output = nullptr) {
    std::string ignored;
    return ::morvane::test::runProgram(argv, {}, output != nullptr ? output : &ignored);
}

// What a network manager does with resolved for the network's link.
bool configureNetwork(bool defaultRoute) {
    const std::string ifindex = std::to_string(OwnLink::index("net0"));
    const std::vector<std::string> call{"/usr/bin/busctl",
                                        "--system",
                                        "call",
                                        "org.freedesktop.resolve1",
                                        "/org/freedesktop/resolve1",
                                        "org.freedesktop.resolve1.Manager"};
    auto dns = call;
    dns.insert(dns.end(), {"SetLinkDNS", "ia(iay)", ifindex, "1", "2", "4", "127", "0", "0", "2"});
    auto route = call;
    route.insert(route.end(),
                 {"SetLinkDefaultRoute", "ib", ifindex, defaultRoute ? "true" : "false"});
    return run(dns) == 0 && run(route) == 0;
}

// resolved's whole view of the machine's DNS, as its own tool prints it.
std::string settings() {
    std::string output;
    run({std::getenv("MORVANE_RESOLVECTL"), "status", "--no-pager"}, &output);
    return output;
}

std::string dump(ResolvedSwitch& dnsSwitch) {
    std::vector<ResolvedSwitch::Server> servers;
    std::string error;
    dnsSwitch.servers(servers, error);
    std::string text = error;
    for (const auto& server : servers) {
        text += std::to_string(server.ifindex) + " " + server.address + ":" +
                std::to_string(server.port) + "\n";
    }
    return text;
}

// Right after resolved's settings change, it may still be probing the server it was given.
bool proxyAnswers() {
    return test::waitUntil([] { return test::lookUp(kName) == kProxyAnswer; },
                           std::chrono::seconds(20));
}

bool oldAnswers() {
    return test::waitUntil([] { return test::lookUp(kName) == kOldAnswer; },
                           std::chrono::seconds(20));
}

struct World {
    ::morvane::test::TempDir dir{"morvane-sysdns-resolved"};
    std::unique_ptr<test::PrivateSystemBus> bus;
    std::unique_ptr<test::ResolvedDaemon> resolved;
    std::unique_ptr<test::TestDnsResponder> old;
    std::unique_ptr<test::TestDnsResponder> proxy;

    int build(std::string& error) {
        const auto unpacked = dir.path() / "resolved/root";
        if (!test::ResolvedDaemon::prepare(unpacked, error)) {
            return kSkipStatus;
        }
        ::setenv("MORVANE_RESOLVECTL", (unpacked / "usr/bin/resolvectl").c_str(), 1);
        if (!test::enterPrivateWorld(error)) {
            return kSkipStatus;
        }
        ::morvane::test::writeFile(dir.path() / "resolv.conf", "nameserver 127.0.0.53\n");
        if (!test::bindOver(dir.path() / "resolv.conf", "/etc/resolv.conf", error)) {
            return kSkipStatus;
        }
        ::setenv("MORVANE_SWITCH_STATE", (dir.path() / "state").c_str(), 1);
        bus = std::make_unique<test::PrivateSystemBus>(dir.path() / "bus");
        if (!bus->start(error)) {
            return kSkipStatus;
        }
        resolved = std::make_unique<test::ResolvedDaemon>(dir.path() / "resolved");
        if (!resolved->start(error)) {
            return 1;
        }
        // No IPv6 link-local addresses coming up late: what resolved shows must settle at once.
        for (const char* knob : {"all", "default"}) {
            ::morvane::test::writeFile(fs::path("/proc/sys/net/ipv6/conf") / knob / "disable_ipv6",
                                       "1\n");
        }
        if (::access("/usr/sbin/ip", X_OK) != 0) {
            error = "the ip command (package iproute2) is not installed";
            return kSkipStatus;
        }
        if (run({"/usr/sbin/ip", "link", "add", "net0", "type", "veth", "peer", "name", "net0p"}) !=
                0 ||
            run({"/usr/sbin/ip", "addr", "add", "10.53.0.1/24", "dev", "net0"}) != 0 ||
            run({"/usr/sbin/ip", "link", "set", "net0p", "up"}) != 0 ||
            run({"/usr/sbin/ip", "link", "set", "net0", "up"}) != 0) {
            error = "cannot make the network's veth pair";
            return 1;
        }
        old = std::make_unique<test::TestDnsResponder>("127.0.0.2", 53, kOldAnswer);
        proxy = std::make_unique<test::TestDnsResponder>("127.0.0.153", 53, kProxyAnswer);
        if (!old->start() || !proxy->start()) {
            error = old->error() + proxy->error();
            return 1;
        }
        if (!test::waitUntil([] { return configureNetwork(true); }, std::chrono::seconds(20)) ||
            !test::waitUntil([] { return test::lookUp(kName) == kOldAnswer; },
                             std::chrono::seconds(30))) {
            error = "the network's server does not answer through resolved: " + settings();
            return 1;
        }
        return 0;
    }
};

MORVANE_CHILD_ROLE(resolvedHolder) {
    ResolvedSwitch dnsSwitch(switchOptions());
    return test::holdSwitch(dnsSwitch);
}

MORVANE_CHILD_ROLE(resolvedCleanup) {
    ResolvedSwitch dnsSwitch(switchOptions());
    return test::restoreSwitch(dnsSwitch);
}

MORVANE_CHILD_ROLE(resolvedWorld) {
    World world;
    std::string error;
    if (const int status = world.build(error); status != 0) {
        std::cerr << error << "\n";
        return status;
    }
    const std::string before = settings();

    // The machine is probed as resolved's.
    {
        SwitchEnvironment environment = SwitchEnvironment::system();
        environment.stateDirectory = switchOptions().stateDirectory;
        WORLD_CHECK(makeSystemSwitch(environment)->name() == "resolved", "wrong mechanism");
    }

    ResolvedSwitch dnsSwitch(switchOptions());
    WORLD_CHECK(dnsSwitch.apply({"127.0.0.153", 53}, error), error);
    WORLD_CHECK(dnsSwitch.originalServers() == std::vector<std::string>{"127.0.0.2"}, settings());
    WORLD_CHECK(test::waitUntil([&] { return dnsSwitch.stillApplied(); }, std::chrono::seconds(20)),
                dump(dnsSwitch) << settings());
    WORLD_CHECK(proxyAnswers(), settings());
    WORLD_CHECK(world.proxy->queries() > 0, "the proxy saw no query");

    WORLD_CHECK(dnsSwitch.restore(error), error);
    WORLD_CHECK(OwnLink::index("morvane0") == 0, "the own link is left");
    WORLD_CHECK(oldAnswers(), settings());
    WORLD_CHECK(settings() == before, "before:\n" << before << "after:\n" << settings());

    // The network manager takes its link's default route back, then the own link goes.
    {
        SwitchGuard guard(dnsSwitch, {});
        WORLD_CHECK(guard.engage({"127.0.0.153", 53}, error), error);
        WORLD_CHECK(configureNetwork(true), "cannot play the network manager");
        WORLD_CHECK(
            test::waitUntil([&] { return guard.reasserts() >= 1 && dnsSwitch.stillApplied(); },
                            std::chrono::seconds(20)),
            "the default route was not taken back: " << settings());
        WORLD_CHECK(proxyAnswers(), settings());
        WORLD_CHECK(OwnLink::remove("morvane0", error), error);
        WORLD_CHECK(
            test::waitUntil([&] { return guard.reasserts() >= 2 && dnsSwitch.stillApplied(); },
                            std::chrono::seconds(20)),
            "the own link was not made again: " << settings());
        WORLD_CHECK(proxyAnswers(), settings());
        WORLD_CHECK(guard.release(error), error);
        WORLD_CHECK(settings() == before, "before:\n" << before << "after:\n" << settings());
    }

    const auto failure = test::killedHolderCycles(
        "resolvedHolder", "resolvedCleanup", 50, [] { return test::lookUp(kName) == kProxyAnswer; },
        [&] {
            const auto now = settings();
            return now == before ? std::string() : "before:\n" + before + "after:\n" + now;
        });
    WORLD_CHECK(failure.empty(), failure);
    WORLD_CHECK(oldAnswers(), settings());
    return 0;
}

// The links as the helper's network services, where NetworkManager does not run.
MORVANE_CHILD_ROLE(resolvedServicesWorld) {
    World world;
    std::string error;
    if (const int status = world.build(error); status != 0) {
        std::cerr << error << "\n";
        return status;
    }
    ResolvedServices::Options options;
    options.lockFile = fs::path(std::getenv("MORVANE_SWITCH_STATE")) / "services.lock";
    ResolvedServices services(options);
    WORLD_CHECK(OwnLink::ensure("morvane0", error) != 0, error);  // the switch's, no service
    std::vector<std::string> names;
    for (const auto& service : services.currentServices()) {
        names.push_back(service.identifier);
    }
    WORLD_CHECK((names == std::vector<std::string>{"net0p", "net0"} ||
                 names == std::vector<std::string>{"net0", "net0p"}),
                names.size());
    WORLD_CHECK(services.service("net0")->dnsEnabled, "no DNS on net0");
    WORLD_CHECK(!services.service("nosuchlink").has_value(), "a link from nowhere");
    WORLD_CHECK(OwnLink::remove("morvane0", error), error);

    const auto before = services.dnsConfiguration("net0");
    WORLD_CHECK(before && before->serverAddresses == std::vector<std::string>{"127.0.0.2"},
                settings());
    services.lock();
    WORLD_CHECK(
        services.setDnsConfiguration("net0", DnsConfiguration{{"127.0.0.153"}, {"example.net"}}),
        "refused");
    services.unlock();
    WORLD_CHECK(services.commitAndApply(), "commit failed");
    WORLD_CHECK(proxyAnswers(), settings());
    const auto changed = services.dnsConfiguration("net0");
    WORLD_CHECK(changed && changed->serverAddresses == std::vector<std::string>{"127.0.0.153"} &&
                    changed->searchDomains == std::vector<std::string>{"example.net"},
                settings());

    // None: the link goes back to what its manager gave it, here nothing.
    WORLD_CHECK(services.setDnsConfiguration("net0", std::nullopt), "refused");
    WORLD_CHECK(services.commitAndApply(), "commit failed");
    WORLD_CHECK(!services.dnsConfiguration("net0").has_value(), settings());
    return 0;
}

TEST(ResolvedWorld, LinksAreTheNetworkServicesWhereNetworkManagerDoesNotRun) {
    test::expectWorldPasses("resolvedServicesWorld");
}

TEST(ResolvedWorld, EnableDisableTakeBackAndFiftyKilledHoldersAgainstTheRealResolved) {
    test::expectWorldPasses("resolvedWorld");
}

}  // namespace
}  // namespace morvane::sysdns
