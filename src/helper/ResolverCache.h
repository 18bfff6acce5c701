#pragma once

#include <string>
#include <utility>
#include <vector>

namespace morvane::helper {

/// Empties the caches that answer this machine's names: systemd-resolved's (FlushCaches on
/// the system bus, where it runs) and the DNS proxy's (message "flush" on its control socket,
/// where it listens). Gives what was asked of each and what it answered, for the log.
std::vector<std::pair<std::string, std::string>> flushResolverCaches();

}  // namespace morvane::helper
