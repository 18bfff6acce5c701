#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "sysdns/DnsSwitch.h"
#include "sysdns/SwitchSelection.h"

namespace morvane::sysdns {

/// Where the switch works; the defaults are the machine's. Tests change the paths.
struct SwitchEnvironment {
    std::filesystem::path resolvConf = "/etc/resolv.conf";
    /// The record of a switch in force: /run/morvanecloud/switch (under the sysroot when set).
    std::filesystem::path stateDirectory;
    /// For the resolv.conf mechanism only, whose change outlives a reboot:
    /// /var/lib/morvanecloud/switch (under the sysroot when set).
    std::filesystem::path durableDirectory;
    std::string linkName = "morvane0";
    std::chrono::milliseconds busTimeout{std::chrono::seconds(5)};
    std::function<void(const std::string&)> log;

    /// The machine's paths, with $MORVANECLOUD_SYSROOT in front of the folders of our own.
    static SwitchEnvironment system();
};

/// Measures the machine for `selectMechanism`: the bus names (without starting anything that
/// is only bus-activatable) and /etc/resolv.conf.
MachineProbes probeMachine(const SwitchEnvironment& environment);

/// The provider's switch: the mechanism chosen from the probes (the trail of decisions goes to
/// the log), whose `restore` also undoes what a crashed run left through any other mechanism.
/// With no usable mechanism, `name()` is "none" and `apply` fails with the reason.
std::unique_ptr<DnsSwitch> makeSystemSwitch(const MachineProbes& probes,
                                            const SwitchEnvironment& environment);
/// The same with the machine probed now.
std::unique_ptr<DnsSwitch> makeSystemSwitch(
    const SwitchEnvironment& environment = SwitchEnvironment::system());

}  // namespace morvane::sysdns
