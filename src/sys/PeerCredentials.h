#pragma once

#include <sys/types.h>

#include <optional>

namespace morvane::sys {

/// Who is on the other end of a connected Unix socket, as the kernel saw it at connect time
/// (SO_PEERCRED): it cannot be forged by what the peer sends.
struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

std::optional<PeerCredentials> peerCredentials(int fd);

}  // namespace morvane::sys
