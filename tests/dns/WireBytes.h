#pragma once

#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace morvane::dns::test {

// Wire bytes written out as hex pairs, blanks ignored: "81 80" is {0x81, 0x80}.
inline std::vector<std::uint8_t> wireBytes(std::string_view hex) {
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        throw std::invalid_argument("not a hex digit");
    };
    std::vector<std::uint8_t> bytes;
    int high = -1;
    for (const char c : hex) {
        if (c == ' ' || c == '\n') {
            continue;
        }
        if (high < 0) {
            high = nibble(c);
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high << 4 | nibble(c)));
            high = -1;
        }
    }
    if (high >= 0) {
        throw std::invalid_argument("odd number of hex digits");
    }
    return bytes;
}

inline std::uint32_t sizeOf(const std::vector<std::uint8_t>& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}

}  // namespace morvane::dns::test
