#include "sysdns/OwnLink.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/link/veth.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace morvane::sysdns {

namespace {

struct Socket {
    nl_sock* sock = nl_socket_alloc();
    bool connected = sock != nullptr && nl_connect(sock, NETLINK_ROUTE) == 0;
    ~Socket() {
        if (sock != nullptr) {
            nl_socket_free(sock);
        }
    }
};

std::string peerName(const std::string& name) {
    return name.substr(0, IFNAMSIZ - 2) + "p";
}

bool setUp(nl_sock* sock, const std::string& name, std::string& error) {
    rtnl_link* link = nullptr;
    int result = rtnl_link_get_kernel(sock, 0, name.c_str(), &link);
    if (result < 0) {
        error = "Cannot find link " + name + ": " + nl_geterror(result);
        return false;
    }
    rtnl_link* change = rtnl_link_alloc();
    rtnl_link_set_flags(change, IFF_UP);
    result = rtnl_link_change(sock, link, change, 0);
    rtnl_link_put(change);
    rtnl_link_put(link);
    if (result < 0) {
        error = "Cannot bring link " + name + " up: " + nl_geterror(result);
        return false;
    }
    return true;
}

}  // namespace

int OwnLink::index(const std::string& name) {
    return static_cast<int>(::if_nametoindex(name.c_str()));
}

int OwnLink::ensure(const std::string& name, std::string& error) {
    Socket socket;
    if (!socket.connected) {
        error = "Cannot open a netlink socket";
        return 0;
    }
    if (index(name) == 0) {
        rtnl_link* link = rtnl_link_alloc();
        rtnl_link_set_name(link, name.c_str());
        rtnl_link_set_type(link, "dummy");
        int result = rtnl_link_add(socket.sock, link, NLM_F_CREATE | NLM_F_EXCL);
        rtnl_link_put(link);
        if (result < 0 && result != -NLE_EXIST) {
            // No dummy module in this kernel: a veth pair carries the settings as well.
            result =
                rtnl_link_veth_add(socket.sock, name.c_str(), peerName(name).c_str(), ::getpid());
            if (result < 0 && result != -NLE_EXIST) {
                error = "Cannot create link " + name + ": " + nl_geterror(result);
                return 0;
            }
            if (!setUp(socket.sock, peerName(name), error)) {
                return 0;
            }
        }
    }
    const int ifindex = index(name);
    if (ifindex == 0) {
        error = "Link " + name + " vanished as it was made";
        return 0;
    }
    rtnl_addr* address = rtnl_addr_alloc();
    nl_addr* local = nullptr;
    nl_addr_parse((std::string(kAddress) + "/32").c_str(), AF_INET, &local);
    rtnl_addr_set_ifindex(address, ifindex);
    rtnl_addr_set_local(address, local);
    rtnl_addr_set_scope(address, RT_SCOPE_UNIVERSE);
    const int result = rtnl_addr_add(socket.sock, address, NLM_F_REPLACE);
    nl_addr_put(local);
    rtnl_addr_put(address);
    if (result < 0 && result != -NLE_EXIST) {
        error = "Cannot give link " + name + " its address: " + nl_geterror(result);
        return 0;
    }
    if (!setUp(socket.sock, name, error)) {
        return 0;
    }
    return ifindex;
}

bool OwnLink::remove(const std::string& name, std::string& error) {
    if (index(name) == 0) {
        return true;
    }
    Socket socket;
    if (!socket.connected) {
        error = "Cannot open a netlink socket";
        return false;
    }
    rtnl_link* link = rtnl_link_alloc();
    rtnl_link_set_name(link, name.c_str());
    const int result = rtnl_link_delete(socket.sock, link);
    rtnl_link_put(link);
    if (result < 0 && index(name) != 0) {
        error = "Cannot remove link " + name + ": " + nl_geterror(result);
        return false;
    }
    return true;
}

}  // namespace morvane::sysdns
