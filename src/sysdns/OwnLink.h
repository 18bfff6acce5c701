#pragma once

#include <string>

namespace morvane::sysdns {

/// A network interface of the provider's own that carries nothing but resolved's per-link DNS
/// settings for the proxy (resolved refuses them on loopback). Made over netlink: a dummy
/// interface where the kernel has the module, else a veth pair whose far end stays unused.
/// Everything set on it vanishes with it, and it does not survive a reboot.
class OwnLink {
public:
    /// The link's address: resolved uses a link's DNS servers only while it has an address of
    /// global scope. A /32 from the link-local block routes nothing and collides with nobody.
    static constexpr const char* kAddress = "169.254.53.153";

    /// Makes the link (if missing), gives it its address and brings it up. Gives its ifindex,
    /// or 0 with `error` set.
    static int ensure(const std::string& name, std::string& error);
    /// Removes the link (and a veth pair's far end with it). True when it is gone.
    static bool remove(const std::string& name, std::string& error);
    /// The link's ifindex, 0 when there is none.
    static int index(const std::string& name);
};

}  // namespace morvane::sysdns
