// The resolv.conf switch for real: in a network and mount namespace of its own, with a private
// /etc/resolv.conf bind-mounted over the machine's (so a rename over it fails with EBUSY, as in
// containers), two DNS responders on the namespace's loopback (the network's old server and the
// proxy), and lookups through the C library's resolver.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sysdns/PrivateWorld.h"
#include "sysdns/ResolvConfSwitch.h"
#include "sysdns/SwitchGuard.h"
#include "sysdns/SystemSwitch.h"
#include "sysdns/TestDnsResponder.h"

namespace morvane::sysdns {
namespace {

namespace fs = std::filesystem;
using test::kSkipStatus;

const std::string kOriginal = "# the network's own\nnameserver 127.0.0.2\nsearch example.net\n";
const char* const kName = "probe.morvane.test";
const char* const kOldAnswer = "192.0.2.2";
const char* const kProxyAnswer = "192.0.2.153";

ResolvConfSwitch::Options switchOptions() {
    ResolvConfSwitch::Options options;
    options.path = "/etc/resolv.conf";
    const fs::path state = std::getenv("MORVANE_SWITCH_STATE");
    options.stateDirectory = state / "run";
    options.durableDirectory = state / "var";
    options.log = [](const std::string& line) { std::cerr << "switch: " << line << "\n"; };
    return options;
}

// Builds the world: a private resolv.conf over the machine's, and the two responders.
struct World {
    ::morvane::test::TempDir dir{"morvane-sysdns-world"};
    std::unique_ptr<test::TestDnsResponder> old;
    std::unique_ptr<test::TestDnsResponder> proxy;

    int build(std::string& error) {
        if (!test::enterPrivateWorld(error)) {
            return kSkipStatus;
        }
        ::morvane::test::writeFile(dir.path() / "resolv.conf", kOriginal);
        if (!test::bindOver(dir.path() / "resolv.conf", "/etc/resolv.conf", error)) {
            return kSkipStatus;
        }
        ::setenv("MORVANE_SWITCH_STATE", (dir.path() / "state").c_str(), 1);
        old = std::make_unique<test::TestDnsResponder>("127.0.0.2", 53, kOldAnswer);
        proxy = std::make_unique<test::TestDnsResponder>("127.0.0.153", 53, kProxyAnswer);
        if (!old->start() || !proxy->start()) {
            error = old->error() + proxy->error();
            return 1;
        }
        return 0;
    }
};

MORVANE_CHILD_ROLE(resolvConfHolder) {
    ResolvConfSwitch dnsSwitch(switchOptions());
    return test::holdSwitch(dnsSwitch);
}

MORVANE_CHILD_ROLE(resolvConfCleanup) {
    ResolvConfSwitch dnsSwitch(switchOptions());
    return test::restoreSwitch(dnsSwitch);
}

MORVANE_CHILD_ROLE(resolvConfWorld) {
    World world;
    std::string error;
    if (const int status = world.build(error); status != 0) {
        std::cerr << error << "\n";
        return status;
    }
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);

    // The machine is probed as one where the file decides: no system bus in this world (an
    // address where nothing listens, never the machine's own bus).
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS",
             ("unix:path=" + (world.dir.path() / "no-bus").string()).c_str(), 1);
    {
        SwitchEnvironment environment = SwitchEnvironment::system();
        environment.stateDirectory = switchOptions().stateDirectory;
        environment.durableDirectory = switchOptions().durableDirectory;
        auto probed = makeSystemSwitch(environment);
        WORLD_CHECK(probed->name() == "resolv.conf", probed->name());
    }

    // Enable: the system resolver reaches the proxy.
    ResolvConfSwitch dnsSwitch(switchOptions());
    WORLD_CHECK(dnsSwitch.apply({"127.0.0.153", 53}, error), error);
    WORLD_CHECK(test::lookUp(kName, &error) == kProxyAnswer, error);
    WORLD_CHECK(world.proxy->queries() > 0, "the proxy saw no query");
    WORLD_CHECK(dnsSwitch.originalServers() == std::vector<std::string>{"127.0.0.2"}, "servers");

    // Disable: the old server answers again, and the file has its bytes back.
    WORLD_CHECK(dnsSwitch.restore(error), error);
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    WORLD_CHECK(::morvane::test::readFile("/etc/resolv.conf") == kOriginal, "bytes differ");

    // A stand-in for a DHCP client writes the file again: undone promptly.
    {
        SwitchGuard guard(dnsSwitch, {});
        WORLD_CHECK(guard.engage({"127.0.0.153", 53}, error), error);
        ::morvane::test::writeFile("/etc/resolv.conf", kOriginal);
        WORLD_CHECK(test::waitUntil([] { return test::lookUp(kName) == kProxyAnswer; },
                                    std::chrono::seconds(20)),
                    "the rewrite was not undone");
        WORLD_CHECK(guard.reasserts() >= 1, "no re-assert counted");
        WORLD_CHECK(guard.release(error), error);
        WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    }

    // kill -9 of the holder, then a new process restores; fifty times over.
    const auto failure = test::killedHolderCycles(
        "resolvConfHolder", "resolvConfCleanup", 50,
        [] {
            return ::morvane::test::readFile("/etc/resolv.conf").find(ResolvConfSwitch::kHeader) !=
                   std::string::npos;
        },
        [] {
            return ::morvane::test::readFile("/etc/resolv.conf") == kOriginal
                       ? std::string()
                       : "bytes differ:\n" + ::morvane::test::readFile("/etc/resolv.conf");
        });
    WORLD_CHECK(failure.empty(), failure);
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    return 0;
}

MORVANE_CHILD_ROLE(resolvConfReadOnly) {
    World world;
    std::string error;
    if (const int status = world.build(error); status != 0) {
        std::cerr << error << "\n";
        return status;
    }
    if (!test::remountReadOnly("/etc/resolv.conf", error)) {
        std::cerr << error << "\n";
        return kSkipStatus;
    }
    ResolvConfSwitch dnsSwitch(switchOptions());
    WORLD_CHECK(!dnsSwitch.apply({"127.0.0.153", 53}, error), "applied on a read-only file");
    WORLD_CHECK(error.find("Read-only file system") != std::string::npos, error);
    WORLD_CHECK(::morvane::test::readFile("/etc/resolv.conf") == kOriginal, "file changed");
    WORLD_CHECK(!fs::exists(fs::path(std::getenv("MORVANE_SWITCH_STATE")) / "run/resolv.conf.json"),
                "a record of a switch that did not happen");
    WORLD_CHECK(dnsSwitch.restore(error), error);
    WORLD_CHECK(test::lookUp(kName, &error) == kOldAnswer, error);
    return 0;
}

TEST(ResolvConfWorld, EnableDisableRewriteAndFiftyKilledHoldersOnABindMountedFile) {
    test::expectWorldPasses("resolvConfWorld");
}

TEST(ResolvConfWorld, AReadOnlyFileIsAClearErrorAndStaysAsItWas) {
    test::expectWorldPasses("resolvConfReadOnly");
}

}  // namespace
}  // namespace morvane::sysdns
