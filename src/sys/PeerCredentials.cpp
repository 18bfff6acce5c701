#include "sys/PeerCredentials.h"

#include <sys/socket.h>

namespace morvane::sys {

std::optional<PeerCredentials> peerCredentials(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        length != sizeof credentials) {
        return std::nullopt;
    }
    return PeerCredentials{credentials.pid, credentials.uid, credentials.gid};
}

}  // namespace morvane::sys
