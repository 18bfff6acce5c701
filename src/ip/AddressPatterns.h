#pragma once

// The regular expressions that both address families run.

#include "ip/Regex.h"

namespace morvane::ip::patterns {

/// A whole dotted IPv4 address, each group 0 to 255, leading zeros allowed.
const Regex& ipv4Address();

}  // namespace morvane::ip::patterns
