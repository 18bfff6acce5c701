#pragma once

// Reading of the IPv4 network classes, which share nothing with IPv4 and IPv6: splits drop
// empty pieces, and a group is any signed decimal integer from 0 to 255.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace morvane::ip::dotted {

/// The pieces between separators, empty pieces dropped: ".1..2." gives "1" and "2".
std::vector<std::string_view> split(std::string_view text, char separator);

/// A signed decimal integer of 64 bits with an optional "+" or "-": nothing else, no blanks.
std::optional<int64_t> readInteger(std::string_view text);

/// The value of four "."-separated groups of 0 to 255, first group highest.
std::optional<uint32_t> readAddress(std::string_view text);

}  // namespace morvane::ip::dotted
