#pragma once

#include <cstddef>
#include <string_view>

namespace morvane::logging::utf8 {

/// Decodes the code point starting at `at`; returns its length in bytes, or 0 for a
/// malformed, overlong or surrogate sequence.
inline std::size_t decode(std::string_view text, std::size_t at, char32_t& codePoint) {
    const auto byte = static_cast<unsigned char>(text[at]);
    std::size_t length;
    if (byte < 0x80) {
        codePoint = byte;
        return 1;
    } else if ((byte & 0xE0) == 0xC0) {
        length = 2;
        codePoint = byte & 0x1F;
    } else if ((byte & 0xF0) == 0xE0) {
        length = 3;
        codePoint = byte & 0x0F;
    } else if ((byte & 0xF8) == 0xF0) {
        length = 4;
        codePoint = byte & 0x07;
    } else {
        return 0;
    }
    if (at + length > text.size()) {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[at + k]);
        if ((next & 0xC0) != 0x80) {
            return 0;
        }
        codePoint = (codePoint << 6) | (next & 0x3F);
    }
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        return 0;
    }
    return length;
}

/// The start of the code point that ends at `end` (which must be above 0).
inline std::size_t previousStart(std::string_view text, std::size_t end) {
    std::size_t start = end - 1;
    while (start > 0 && end - start < 4 &&
           (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) {
        --start;
    }
    return start;
}

inline bool isValid(std::string_view text) {
    char32_t ignored = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = decode(text, at, ignored);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

/// Characters as a reader counts them, approximated by code points.
inline std::size_t countCharacters(std::string_view text) {
    std::size_t count = 0;
    for (const char byte : text) {
        // Every UTF-8 sequence has exactly one byte that is not a continuation byte.
        if ((static_cast<unsigned char>(byte) & 0xC0) != 0x80) {
            ++count;
        }
    }
    return count;
}

}  // namespace morvane::logging::utf8
