#pragma once

#include <optional>
#include <vector>

#include "messages/ForwardingRule.h"

namespace morvane {

/// The one forwarding rule a tester tries on this machine without the server. It lives in
/// memory only, for the life of the process; the local rules panel is its one writer and the
/// proxy configuration reads it when it builds the provider's filters. Both run on the main
/// thread.
struct TestData {
    /// Absent until a rule is set, and again after the panel clears it.
    std::optional<std::vector<ForwardingRule>> testForwardingRules;
};

}  // namespace morvane
