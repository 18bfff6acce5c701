#include "platform/NetlinkEvents.h"

#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace morvane::platform {

struct NetlinkEvents::State {
    nl_sock* socket = nullptr;
    int stopFd = -1;
};

namespace {

int deliver(nl_msg* message, void* argument) {
    auto* state = static_cast<NetlinkEvents::MessageHandler*>(argument);
    if (state && *state) {
        (*state)(*nlmsg_hdr(message));
    }
    return NL_OK;
}

}  // namespace

std::unique_ptr<NetlinkEvents> NetlinkEvents::open(const std::vector<int>& groups,
                                                   std::string& error) {
    std::unique_ptr<NetlinkEvents> events(new NetlinkEvents());
    events->state_ = std::make_unique<State>();
    auto& state = *events->state_;
    state.stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state.stopFd < 0) {
        error = "eventfd failed";
        return nullptr;
    }
    state.socket = nl_socket_alloc();
    if (!state.socket) {
        error = "no netlink socket";
        return nullptr;
    }
    // Notifications carry no sequence numbers of ours.
    nl_socket_disable_seq_check(state.socket);
    if (const int result = nl_connect(state.socket, NETLINK_ROUTE); result < 0) {
        error = std::string("netlink connect: ") + nl_geterror(result);
        return nullptr;
    }
    for (const int group : groups) {
        if (const int result = nl_socket_add_membership(state.socket, group); result < 0) {
            error = std::string("netlink membership: ") + nl_geterror(result);
            return nullptr;
        }
    }
    nl_socket_set_nonblocking(state.socket);
    return events;
}

NetlinkEvents::~NetlinkEvents() {
    if (!state_) {
        return;
    }
    if (state_->socket) {
        nl_socket_free(state_->socket);
    }
    if (state_->stopFd >= 0) {
        close(state_->stopFd);
    }
}

void NetlinkEvents::stop() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(state_->stopFd, &one, sizeof one);
}

bool NetlinkEvents::run(const MessageHandler& onMessage, const BatchHandler& onBatch) {
    auto* socket = state_->socket;
    MessageHandler handler = onMessage;
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, deliver, &handler);
    pollfd fds[2] = {{nl_socket_get_fd(socket), POLLIN, 0}, {state_->stopFd, POLLIN, 0}};
    for (;;) {
        const int ready = poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (fds[1].revents != 0) {
            return true;
        }
        if (fds[0].revents & (POLLERR | POLLNVAL)) {
            // An overrun shows as POLLERR with ENOBUFS on the next read; anything else ends.
            if (fds[0].revents & POLLNVAL) {
                return false;
            }
        }
        for (;;) {
            const int result = nl_recvmsgs_default(socket);
            if (result >= 0) {
                continue;
            }
            if (result == -NLE_AGAIN) {
                break;
            }
            if (result == -NLE_NOMEM || result == -NLE_MSG_OVERFLOW || result == -NLE_INTR) {
                // Lost messages: the batch handler reads the whole state again.
                continue;
            }
            break;
        }
        if (onBatch) {
            onBatch();
        }
    }
}

}  // namespace morvane::platform
