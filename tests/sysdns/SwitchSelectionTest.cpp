// The choice of mechanism as a table: each row is a kind of machine, the mechanism it must get,
// and a line the trail must hold so that a log reader sees why.
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "sysdns/SwitchSelection.h"
#include "sysdns/SystemSwitch.h"

namespace morvane::sysdns {
namespace {

struct Row {
    const char* machine;
    MachineProbes probes;
    Mechanism expected;
    const char* trailHolds;
};

MachineProbes plainFile(std::vector<std::string> servers) {
    MachineProbes probes;
    probes.resolvConfExists = true;
    probes.resolvConfWritable = true;
    probes.resolvConfServers = std::move(servers);
    return probes;
}

MachineProbes symlinkTo(std::string target, std::vector<std::string> servers) {
    auto probes = plainFile(std::move(servers));
    probes.resolvConfIsSymlink = true;
    probes.resolvConfTarget = std::move(target);
    return probes;
}

template <typename F>
MachineProbes with(MachineProbes probes, F change) {
    change(probes);
    return probes;
}

const std::vector<Row>& table() {
    static const std::vector<Row> rows = {
        {"resolved running and the stub file linked",
         with(symlinkTo("../run/systemd/resolve/stub-resolv.conf", {"127.0.0.53"}),
              [](auto& p) { p.resolvedAnswers = true; }),
         Mechanism::Resolved, "chose resolved"},
        {"resolved running, its upstream file linked",
         with(symlinkTo("/run/systemd/resolve/resolv.conf", {"192.0.2.1"}),
              [](auto& p) { p.resolvedAnswers = true; }),
         Mechanism::Resolved, "sends queries to it"},
        {"resolved running, a copied stub file",
         with(plainFile({"127.0.0.53"}), [](auto& p) { p.resolvedAnswers = true; }),
         Mechanism::Resolved, "chose resolved"},
        {"resolved and NetworkManager both running, the stub linked",
         with(symlinkTo("../run/systemd/resolve/stub-resolv.conf", {"127.0.0.53"}),
              [](auto& p) {
                  p.resolvedAnswers = true;
                  p.networkManagerAnswers = true;
              }),
         Mechanism::Resolved, "chose resolved"},
        {"resolved running but not the resolver (a plain file)",
         with(plainFile({"192.0.2.1"}), [](auto& p) { p.resolvedAnswers = true; }),
         Mechanism::ResolvConf, "does not send queries to it: not used"},
        {"resolved running but NetworkManager writes the file",
         with(symlinkTo("/run/NetworkManager/resolv.conf", {"192.0.2.1"}),
              [](auto& p) {
                  p.resolvedAnswers = true;
                  p.networkManagerAnswers = true;
              }),
         Mechanism::NetworkManager, "chose networkmanager"},
        {"the stub linked but resolved is not running",
         symlinkTo("../run/systemd/resolve/stub-resolv.conf", {}), Mechanism::ResolvConf,
         "which does not answer"},
        {"a symlink to NetworkManager's file",
         with(symlinkTo("/run/NetworkManager/resolv.conf", {"192.0.2.1"}),
              [](auto& p) { p.networkManagerAnswers = true; }),
         Mechanism::NetworkManager, "NetworkManager answers and writes /etc/resolv.conf"},
        {"a plain file with NetworkManager's header",
         with(plainFile({"192.0.2.1"}),
              [](auto& p) {
                  p.networkManagerAnswers = true;
                  p.resolvConfGeneratedByNetworkManager = true;
              }),
         Mechanism::NetworkManager, "chose networkmanager"},
        {"NetworkManager's file left behind, NetworkManager not running",
         symlinkTo("/run/NetworkManager/resolv.conf", {"192.0.2.1"}), Mechanism::ResolvConf,
         "comes from NetworkManager, which does not answer"},
        {"NetworkManager running but configured not to write the file",
         with(plainFile({"192.0.2.1"}), [](auto& p) { p.networkManagerAnswers = true; }),
         Mechanism::ResolvConf, "does not write /etc/resolv.conf: not used"},
        {"a plain file", plainFile({"192.0.2.1", "2001:db8::1"}), Mechanism::ResolvConf,
         "/etc/resolv.conf is a plain file"},
        {"no file at all", with(MachineProbes{}, [](auto& p) { p.resolvConfWritable = true; }),
         Mechanism::ResolvConf, "does not exist"},
        {"a read-only file",
         with(plainFile({"192.0.2.1"}), [](auto& p) { p.resolvConfWritable = false; }),
         Mechanism::None, "cannot be written (read-only)"},
        {"a read-only stub file while resolved runs",
         with(plainFile({"127.0.0.53"}),
              [](auto& p) {
                  p.resolvedAnswers = true;
                  p.resolvConfWritable = false;
              }),
         Mechanism::Resolved, "chose resolved"},
    };
    return rows;
}

TEST(SwitchSelection, EachKindOfMachineGetsItsMechanismWithAReason) {
    for (const auto& row : table()) {
        SCOPED_TRACE(row.machine);
        const auto selection = selectMechanism(row.probes);
        EXPECT_EQ(mechanismName(selection.mechanism), mechanismName(row.expected));
        std::string trail;
        for (const auto& line : selection.trail) {
            trail += line + "\n";
        }
        EXPECT_NE(trail.find(row.trailHolds), std::string::npos) << trail;
        EXPECT_NE(trail.find("chose " + mechanismName(row.expected)), std::string::npos) << trail;
        EXPECT_EQ(selection.error.empty(), row.expected != Mechanism::None);
    }
}

TEST(SwitchSelection, TheSameProbesGiveTheSameTrail) {
    for (const auto& row : table()) {
        EXPECT_EQ(selectMechanism(row.probes).trail, selectMechanism(row.probes).trail);
    }
}

// What the provider does at start under a sysroot, as in its own tests: the factory probes,
// chooses, restores and switches the sysroot's file, never the machine's.
TEST(SystemSwitch, UnderASysrootOnlyTheSysrootsFileIsSwitched) {
    ::morvane::test::TempHome home;
    home.env().unset("DBUS_SYSTEM_BUS_ADDRESS");
    const auto environment = SwitchEnvironment::system();
    ASSERT_EQ(environment.resolvConf, home.sysroot() / "etc/resolv.conf");
    EXPECT_EQ(environment.stateDirectory, home.sysroot() / "run/morvanecloud/switch");
    const std::string original = "nameserver 192.0.2.1\n";
    ::morvane::test::writeFile(environment.resolvConf, original);

    auto dnsSwitch = makeSystemSwitch(environment);
    ASSERT_EQ(dnsSwitch->name(), "resolv.conf");
    EXPECT_FALSE(dnsSwitch->supportsSplitDns());
    std::string error;
    ASSERT_TRUE(dnsSwitch->restore(error)) << error;  // nothing to do
    ASSERT_TRUE(dnsSwitch->apply({"127.0.0.153", 53}, error)) << error;
    EXPECT_EQ(dnsSwitch->originalServers(), std::vector<std::string>{"192.0.2.1"});

    // A new process (the next start, or --cleanup) restores through a switch of its own.
    auto next = makeSystemSwitch(environment);
    ASSERT_TRUE(next->restore(error)) << error;
    EXPECT_EQ(::morvane::test::readFile(environment.resolvConf), original);
}

TEST(SystemSwitch, WithNoMechanismApplyFailsWithTheReason) {
    MachineProbes readOnly;
    readOnly.resolvConfExists = true;
    ::morvane::test::TempDir dir;
    SwitchEnvironment environment;
    environment.resolvConf = dir.path() / "resolv.conf";
    environment.stateDirectory = dir.path() / "state";
    auto dnsSwitch = makeSystemSwitch(readOnly, environment);
    EXPECT_EQ(dnsSwitch->name(), "none");
    std::string error;
    EXPECT_FALSE(dnsSwitch->apply({"127.0.0.153", 53}, error));
    EXPECT_NE(error.find("read-only"), std::string::npos) << error;
    EXPECT_TRUE(dnsSwitch->restore(error)) << error;
}

}  // namespace
}  // namespace morvane::sysdns
