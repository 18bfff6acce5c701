#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace morvane::provider {

/// Unpredictable 16-bit numbers for query ids, from the kernel's generator a few kilobytes at
/// a time: one system call per two thousand ids instead of one per id, which showed as a
/// twentieth of the forwarder's time.
class RandomPool {
public:
    std::uint16_t next16();

private:
    void refill();

    std::array<std::uint8_t, 4096> bytes_{};
    std::size_t used_ = 4096;
};

}  // namespace morvane::provider
