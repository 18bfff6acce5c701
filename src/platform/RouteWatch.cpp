#include "platform/RouteWatch.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/NetlinkEvents.h"

namespace morvane::platform {

namespace {

bool isPrimaryRouteChange(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWROUTE && message.nlmsg_type != RTM_DELROUTE) {
        return false;
    }
    // The kernel's macros cast in the old style, so the message is read by hand.
    constexpr auto align = [](std::size_t length, std::size_t to) {
        return (length + to - 1) & ~(to - 1);
    };
    const std::size_t headerLength = align(sizeof(nlmsghdr), NLMSG_ALIGNTO);
    if (message.nlmsg_len < headerLength + sizeof(rtmsg)) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(&message);
    rtmsg route;
    std::memcpy(&route, bytes + headerLength, sizeof route);
    if (route.rtm_family != AF_INET || route.rtm_dst_len > 1 || route.rtm_type != RTN_UNICAST) {
        return false;
    }
    // The table number is in the header up to 255, else only in the RTA_TABLE attribute.
    unsigned table = route.rtm_table;
    std::size_t offset = align(headerLength + sizeof(rtmsg), RTA_ALIGNTO);
    const std::size_t attributeHeader = align(sizeof(rtattr), RTA_ALIGNTO);
    while (offset + sizeof(rtattr) <= message.nlmsg_len) {
        rtattr attribute;
        std::memcpy(&attribute, bytes + offset, sizeof attribute);
        if (attribute.rta_len < sizeof(rtattr) || offset + attribute.rta_len > message.nlmsg_len) {
            break;
        }
        if (attribute.rta_type == RTA_TABLE &&
            attribute.rta_len >= attributeHeader + sizeof(std::uint32_t)) {
            std::uint32_t value = 0;
            std::memcpy(&value, bytes + offset + attributeHeader, sizeof value);
            table = value;
        }
        offset += align(attribute.rta_len, RTA_ALIGNTO);
    }
    return table == RT_TABLE_MAIN;
}

}  // namespace

std::unique_ptr<RouteWatch> RouteWatch::open(std::string& error) {
    auto events = NetlinkEvents::open({RTNLGRP_IPV4_ROUTE}, error);
    if (!events) {
        return nullptr;
    }
    std::unique_ptr<RouteWatch> watch(new RouteWatch());
    watch->events_ = std::move(events);
    return watch;
}

RouteWatch::~RouteWatch() = default;

bool RouteWatch::run(const std::function<void()>& onChange) {
    bool changed = false;
    return events_->run(
        [&changed](const nlmsghdr& message) {
            if (isPrimaryRouteChange(message)) {
                changed = true;
            }
        },
        [&changed, &onChange] {
            if (changed && onChange) {
                changed = false;
                onChange();
            }
        });
}

void RouteWatch::stop() {
    events_->stop();
}

}  // namespace morvane::platform
