#include "platform/PathMonitor.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>

#include <map>
#include <set>
#include <vector>

#include "platform/NetlinkEvents.h"

namespace morvane::platform {

namespace {

/// The three tables the path is made of, read in one go from one socket.
struct Tables {
    nl_sock* socket = nullptr;
    nl_cache* links = nullptr;
    nl_cache* routes = nullptr;
    nl_cache* addresses = nullptr;

    ~Tables() {
        for (nl_cache* cache : {links, routes, addresses}) {
            if (cache) {
                nl_cache_free(cache);
            }
        }
        if (socket) {
            nl_socket_free(socket);
        }
    }
};

std::string addressText(nl_addr* address) {
    if (!address) {
        return "";
    }
    char buffer[128];
    return nl_addr2str(address, buffer, sizeof buffer);
}

bool interfaceIsUp(nl_cache* links, int index, std::string& name) {
    rtnl_link* link = rtnl_link_get(links, index);
    if (!link) {
        return false;
    }
    const unsigned flags = rtnl_link_get_flags(link);
    if (const char* linkName = rtnl_link_get_name(link)) {
        name = linkName;
    }
    rtnl_link_put(link);
    return (flags & IFF_UP) && (flags & IFF_RUNNING);
}

}  // namespace

std::optional<NetworkPath> PathMonitor::readPath(std::string& error) {
    Tables tables;
    tables.socket = nl_socket_alloc();
    if (!tables.socket) {
        error = "no netlink socket";
        return std::nullopt;
    }
    if (const int result = nl_connect(tables.socket, NETLINK_ROUTE); result < 0) {
        error = std::string("netlink connect: ") + nl_geterror(result);
        return std::nullopt;
    }
    if (const int result = rtnl_link_alloc_cache(tables.socket, AF_UNSPEC, &tables.links);
        result < 0) {
        error = std::string("reading links: ") + nl_geterror(result);
        return std::nullopt;
    }
    if (const int result = rtnl_route_alloc_cache(tables.socket, AF_UNSPEC, 0, &tables.routes);
        result < 0) {
        error = std::string("reading routes: ") + nl_geterror(result);
        return std::nullopt;
    }
    if (const int result = rtnl_addr_alloc_cache(tables.socket, &tables.addresses); result < 0) {
        error = std::string("reading addresses: ") + nl_geterror(result);
        return std::nullopt;
    }

    std::set<std::string> routeLines;
    std::map<int, std::string> carriers;  // interfaces that carry a default route
    for (nl_object* object = nl_cache_get_first(tables.routes); object;
         object = nl_cache_get_next(object)) {
        auto* route = reinterpret_cast<rtnl_route*>(object);
        nl_addr* destination = rtnl_route_get_dst(route);
        if (rtnl_route_get_table(route) != RT_TABLE_MAIN ||
            rtnl_route_get_type(route) != RTN_UNICAST || !destination ||
            nl_addr_get_prefixlen(destination) != 0) {
            continue;
        }
        const int family = rtnl_route_get_family(route);
        for (int n = 0; n < rtnl_route_get_nnexthops(route); ++n) {
            rtnl_nexthop* hop = rtnl_route_nexthop_n(route, n);
            std::string name;
            const int index = rtnl_route_nh_get_ifindex(hop);
            if (!interfaceIsUp(tables.links, index, name)) {
                continue;
            }
            std::string line = family == AF_INET6 ? "ipv6 default" : "ipv4 default";
            if (nl_addr* gateway = rtnl_route_nh_get_gateway(hop)) {
                line += " via " + addressText(gateway);
            }
            routeLines.insert(line + " dev " + name);
            carriers[index] = name;
        }
    }

    std::set<std::string> addressLines;
    for (nl_object* object = nl_cache_get_first(tables.addresses); object;
         object = nl_cache_get_next(object)) {
        auto* address = reinterpret_cast<rtnl_addr*>(object);
        const auto carrier = carriers.find(rtnl_addr_get_ifindex(address));
        // Link-local addresses come and go with every link and say nothing of the network.
        if (carrier == carriers.end() || rtnl_addr_get_scope(address) == RT_SCOPE_LINK) {
            continue;
        }
        addressLines.insert(carrier->second + " " + addressText(rtnl_addr_get_local(address)));
    }

    NetworkPath path;
    path.status =
        routeLines.empty() ? NetworkPath::Status::unsatisfied : NetworkPath::Status::satisfied;
    for (const auto* lines : {&routeLines, &addressLines}) {
        for (const auto& line : *lines) {
            if (!path.description.empty()) {
                path.description += "; ";
            }
            path.description += line;
        }
    }
    return path;
}

PathMonitor::PathMonitor() = default;

PathMonitor::~PathMonitor() {
    cancel();
}

void PathMonitor::setPathUpdateHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void PathMonitor::start() {
    std::lock_guard lock(mutex_);
    if (started_ || cancelled_) {
        return;
    }
    started_ = true;
    std::string error;
    events_ = NetlinkEvents::open({RTNLGRP_LINK, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE,
                                   RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR},
                                  error);
    if (!events_) {
        error_ = error;
    }
    thread_ = std::thread([this] { watch(); });
}

void PathMonitor::cancel() {
    {
        std::lock_guard lock(mutex_);
        cancelled_ = true;
        handler_ = nullptr;
        if (events_) {
            events_->stop();
        }
    }
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
        thread_.join();
    }
}

NetworkPath PathMonitor::currentPath() const {
    std::lock_guard lock(mutex_);
    return current_;
}

std::optional<std::string> PathMonitor::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

void PathMonitor::update(const NetworkPath& path, bool always) {
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        if (!always && path == current_) {
            return;
        }
        current_ = path;
        handler = handler_;
    }
    if (handler) {
        handler(path);
    }
}

void PathMonitor::watch() {
    // Subscribed before the first read, so that no change falls between the two.
    auto reread = [this](bool always) {
        std::string error;
        if (auto path = readPath(error)) {
            update(*path, always);
        } else {
            {
                std::lock_guard lock(mutex_);
                error_ = error;
            }
            update(NetworkPath{}, always);
        }
    };
    reread(true);
    if (!events_) {
        return;
    }
    events_->run([](const nlmsghdr&) {}, [&reread] { reread(false); });
}

}  // namespace morvane::platform
