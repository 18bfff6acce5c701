#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace morvane::sysdns {

/// Where the proxy serves, the address the machine's resolver is pointed at.
struct SwitchTarget {
    std::string address;  // "127.0.0.153"
    std::uint16_t port = 53;
};

/// Makes the provider the machine's resolver and puts back what was there. One implementation
/// per mechanism (systemd-resolved, NetworkManager, /etc/resolv.conf written directly); which
/// one runs is chosen once from probes of the machine. What `restore` needs is kept under
/// /run/morvanecloud, so a crashed run is undone by the next start (or `--cleanup`).
class DnsSwitch {
public:
    virtual ~DnsSwitch() = default;

    /// "resolved", "networkmanager", "resolv.conf", or "none".
    virtual std::string name() const = 0;
    /// Whether the mechanism can send some names elsewhere while the proxy has the rest.
    virtual bool supportsSplitDns() const = 0;

    /// Captures the network's own servers (first time only), then points the machine at
    /// `target`. Applying again while applied re-asserts the switch.
    virtual bool apply(const SwitchTarget& target, std::string& error) = 0;
    /// Puts back what was there before the first `apply`, including what a crashed run left.
    /// Succeeds with nothing to do when nothing is switched.
    virtual bool restore(std::string& error) = 0;
    /// The network's own DNS servers as captured before the switch (never the proxy itself nor
    /// a stub that forwards to it); empty when unknown.
    virtual std::vector<std::string> originalServers() const = 0;

    /// Whether the settings still send queries to the target of the last `apply` (another
    /// program may have rewritten them since). Mechanisms that cannot tell say true.
    virtual bool stillApplied() { return true; }
    /// A descriptor that becomes readable when the settings may have changed under the switch,
    /// or -1 when the mechanism has none and is looked at on a timer only.
    virtual int changeDescriptor() { return -1; }
    /// Consumes what made `changeDescriptor` readable.
    virtual void takeChanges() {}
};

}  // namespace morvane::sysdns
