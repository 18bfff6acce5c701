#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dns/DNSMessageDecoder.h"

namespace morvane::dns::test {

// Wire bytes written out as hex pairs, blanks ignored: "81 80" is {0x81, 0x80}.
inline std::vector<std::uint8_t> wireBytes(std::string_view hex) {
    std::string digits;
    for (const char c : hex) {
        if (c != ' ') {
            digits += c;
        }
    }
    std::vector<std::uint8_t> bytes;
    for (std::size_t index = 0; index < digits.size(); index += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoul(digits.substr(index, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::uint32_t sizeOf(const std::vector<std::uint8_t>& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}

inline std::optional<DNSMessage> decode(const std::vector<std::uint8_t>& bytes) {
    DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(bytes.data(), sizeOf(bytes));
    return decoder.takeMessage();
}

}  // namespace morvane::dns::test
