#pragma once

#include <array>
#include <functional>

namespace morvane {

/// The back-off of the retry after a failed save of the proxy configuration.
struct Throttle {
    static constexpr std::array<int, 8> throttleValues = {1, 1, 2, 3, 5, 8, 13, 21};  // seconds
    int throttleIndex = 0;
    static constexpr int throttleValuesSize = 8;
    static constexpr int throttleValuesSizeMaxIndex = 7;

    /// Raises the index by one, never past the last entry.
    void advance();
    /// Runs the work on the main queue after the delay at the current index, then advances.
    void schedule(std::function<void()> work);
};

}  // namespace morvane
