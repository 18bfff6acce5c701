#pragma once

#include <sys/types.h>

#include <vector>

namespace morvane::platform {

/// The other running processes of this same program that belong to this user: what the
/// agent ends after a reset, and what `morvanecloud --quit` asks to quit. A process counts
/// when its executable is ours, its real user is ours and it runs under the same
/// $MORVANECLOUD_SYSROOT (none, outside tests and demos); this process never does.
std::vector<pid_t> otherInstances();

/// Of those, the agents: started without arguments, as the session starts them.
std::vector<pid_t> runningAgents();

}  // namespace morvane::platform
