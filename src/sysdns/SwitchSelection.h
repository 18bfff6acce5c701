#pragma once

#include <string>
#include <vector>

namespace morvane::sysdns {

/// What the machine looks like to the switch, measured once at start. Filled by
/// `probeMachine` on a real machine, by hand in tests.
struct MachineProbes {
    /// org.freedesktop.resolve1 answers on the system bus.
    bool resolvedAnswers = false;
    /// org.freedesktop.NetworkManager answers on the system bus.
    bool networkManagerAnswers = false;
    bool resolvConfExists = false;
    bool resolvConfIsSymlink = false;
    /// Where the symlink points, as written in the link; empty for a plain file.
    std::string resolvConfTarget;
    /// The nameserver lines of the file as it reads now (through the symlink).
    std::vector<std::string> resolvConfServers;
    /// The file says NetworkManager generated it (its header), whatever its path.
    bool resolvConfGeneratedByNetworkManager = false;
    /// The file can be replaced or written in place (not on a read-only mount).
    bool resolvConfWritable = false;
};

enum class Mechanism { Resolved, NetworkManager, ResolvConf, None };

/// "resolved", "networkmanager", "resolv.conf", "none": the names `DnsSwitch::name` gives.
std::string mechanismName(Mechanism mechanism);

struct Selection {
    Mechanism mechanism = Mechanism::None;
    /// One line per decision, in the order taken, for the log.
    std::vector<std::string> trail;
    /// Why nothing can switch, when the mechanism is None.
    std::string error;
};

/// Picks the mechanism that really decides where the machine's queries go. Pure: the same
/// probes give the same choice and the same trail.
Selection selectMechanism(const MachineProbes& probes);

/// Whether resolved is the resolver the C library uses: the file is (a link to) one of
/// resolved's own files, or lists nothing but resolved's stub addresses.
bool resolvConfPointsAtResolved(const MachineProbes& probes);
/// Whether NetworkManager writes the file: a link into /run/NetworkManager or its header.
bool resolvConfOwnedByNetworkManager(const MachineProbes& probes);

}  // namespace morvane::sysdns
