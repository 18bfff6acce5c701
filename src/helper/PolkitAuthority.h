#pragma once

#include <optional>
#include <string>

#include "sys/PeerCredentials.h"

namespace morvane {

/// Asks polkit (org.freedesktop.PolicyKit1 on the system bus) whether a process may do an
/// action, the process named by the peer credentials of its connection (a "unix-process"
/// subject with pid, start time and uid). The helper's rights are polkit actions with the same
/// names, installed with the package.
class PolkitAuthority {
public:
    /// 0 granted; a refusal status when polkit said no; none when polkit cannot decide here
    /// (no system bus, polkitd not running, the action not installed), so that the rights
    /// database decides instead. `detail` says what happened.
    static std::optional<int> checkAuthorization(const std::string& action,
                                                 const sys::PeerCredentials& peer,
                                                 std::string& detail);
    /// The start time of a process in clock ticks since boot, as polkit identifies processes.
    static std::optional<unsigned long long> processStartTime(pid_t pid);
};

}  // namespace morvane
