#pragma once

namespace morvane::logging {

/// The five levels of the library, ordered by their raw values.
enum class Level : int {
    verbose = 0,
    debug = 1,
    info = 2,
    warning = 3,
    error = 4,
};

constexpr int rawValue(Level level) {
    return static_cast<int>(level);
}

}  // namespace morvane::logging
