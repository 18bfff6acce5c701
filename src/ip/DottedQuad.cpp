#include "ip/DottedQuad.h"

namespace morvane::ip::dotted {

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (start <= text.size()) {
        size_t at = text.find(separator, start);
        if (at == std::string_view::npos) {
            at = text.size();
        }
        if (at > start) {
            pieces.push_back(text.substr(start, at - start));
        }
        start = at + 1;
    }
    return pieces;
}

std::optional<int64_t> readInteger(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    // Accumulate downwards so that the most negative value still fits.
    int64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        const int digit = c - '0';
        if (value < (INT64_MIN + digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 - digit;
    }
    if (negative) {
        return value;
    }
    if (value == INT64_MIN) {
        return std::nullopt;
    }
    return -value;
}

std::optional<uint32_t> readAddress(std::string_view text) {
    const std::vector<std::string_view> pieces = split(text, '.');
    if (pieces.size() != 4) {
        return std::nullopt;
    }
    uint32_t value = 0;
    for (std::string_view piece : pieces) {
        const std::optional<int64_t> octet = readInteger(piece);
        if (!octet || *octet < 0 || *octet > 255) {
            return std::nullopt;
        }
        value = (value << 8) | static_cast<uint32_t>(*octet);
    }
    return value;
}

}  // namespace morvane::ip::dotted
