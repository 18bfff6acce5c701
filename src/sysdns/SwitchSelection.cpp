#include "sysdns/SwitchSelection.h"

#include <algorithm>

namespace morvane::sysdns {

namespace {

bool isResolvedStub(const std::string& address) {
    return address == "127.0.0.53" || address == "127.0.0.54";
}

std::string describeFile(const MachineProbes& probes) {
    if (!probes.resolvConfExists) {
        return "/etc/resolv.conf does not exist";
    }
    if (probes.resolvConfIsSymlink) {
        return "/etc/resolv.conf is a symlink to " + probes.resolvConfTarget;
    }
    return "/etc/resolv.conf is a plain file";
}

}  // namespace

std::string mechanismName(Mechanism mechanism) {
    switch (mechanism) {
        case Mechanism::Resolved:
            return "resolved";
        case Mechanism::NetworkManager:
            return "networkmanager";
        case Mechanism::ResolvConf:
            return "resolv.conf";
        case Mechanism::None:
            break;
    }
    return "none";
}

bool resolvConfPointsAtResolved(const MachineProbes& probes) {
    if (probes.resolvConfIsSymlink) {
        const auto& target = probes.resolvConfTarget;
        if (target.find("/run/systemd/resolve/") != std::string::npos ||
            target.find("/lib/systemd/resolv.conf") != std::string::npos) {
            return true;
        }
    }
    // A copy of the stub file, or a hand-written one that names only the stub.
    return !probes.resolvConfServers.empty() &&
           std::all_of(probes.resolvConfServers.begin(), probes.resolvConfServers.end(),
                       isResolvedStub);
}

bool resolvConfOwnedByNetworkManager(const MachineProbes& probes) {
    if (probes.resolvConfIsSymlink &&
        probes.resolvConfTarget.find("/NetworkManager/") != std::string::npos) {
        return true;
    }
    return probes.resolvConfGeneratedByNetworkManager;
}

Selection selectMechanism(const MachineProbes& probes) {
    Selection selection;
    auto& trail = selection.trail;
    trail.push_back(describeFile(probes));

    const bool pointsAtResolved = resolvConfPointsAtResolved(probes);
    if (probes.resolvedAnswers) {
        if (pointsAtResolved) {
            trail.push_back("systemd-resolved answers and /etc/resolv.conf sends queries to it");
            selection.mechanism = Mechanism::Resolved;
            trail.push_back("chose resolved");
            return selection;
        }
        trail.push_back(
            "systemd-resolved answers but /etc/resolv.conf does not send queries to it: not used");
    } else if (pointsAtResolved) {
        trail.push_back(
            "/etc/resolv.conf sends queries to systemd-resolved, which does not answer on the "
            "system bus");
    } else {
        trail.push_back("systemd-resolved does not answer on the system bus");
    }

    const bool ownedByNetworkManager = resolvConfOwnedByNetworkManager(probes);
    if (ownedByNetworkManager && probes.networkManagerAnswers) {
        trail.push_back("NetworkManager answers and writes /etc/resolv.conf");
        selection.mechanism = Mechanism::NetworkManager;
        trail.push_back("chose networkmanager");
        return selection;
    }
    if (ownedByNetworkManager) {
        trail.push_back(
            "/etc/resolv.conf comes from NetworkManager, which does not answer on the system bus");
    } else if (probes.networkManagerAnswers) {
        trail.push_back("NetworkManager answers but does not write /etc/resolv.conf: not used");
    }

    if (!probes.resolvConfWritable) {
        trail.push_back("/etc/resolv.conf cannot be written (read-only)");
        selection.mechanism = Mechanism::None;
        selection.error =
            "No way to switch the system's DNS: /etc/resolv.conf is read-only and neither "
            "systemd-resolved nor NetworkManager decides it";
        trail.push_back("chose none");
        return selection;
    }
    trail.push_back("/etc/resolv.conf can be written");
    selection.mechanism = Mechanism::ResolvConf;
    trail.push_back("chose resolv.conf");
    return selection;
}

}  // namespace morvane::sysdns
