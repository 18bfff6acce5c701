#include "ip/TextHelpers.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace morvane::ip {

std::string stringByPaddingLeftToLength(std::string_view text, int length, std::string_view pad) {
    const icu::UnicodeString value = text::fromUtf8(text);
    const icu::UnicodeString padding = text::fromUtf8(pad);
    if (value.length() >= length || padding.isEmpty()) {
        return std::string(text);
    }
    icu::UnicodeString result;
    const int32_t missing = length - value.length();
    for (int32_t i = 0; i < missing; ++i) {
        result.append(padding.charAt(i % padding.length()));
    }
    result.append(value);
    return text::toUtf8(result);
}

namespace text {

icu::UnicodeString fromUtf8(std::string_view text) {
    return icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string toUtf8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

std::vector<icu::UnicodeString> split(const icu::UnicodeString& text,
                                      const icu::UnicodeString& separator) {
    std::vector<icu::UnicodeString> pieces;
    size_t count = 1;
    for (int32_t at = text.indexOf(separator); at >= 0;
         at = text.indexOf(separator, at + separator.length())) {
        ++count;
    }
    pieces.reserve(count);
    int32_t start = 0;
    for (;;) {
        const int32_t at = text.indexOf(separator, start);
        if (at < 0) {
            pieces.emplace_back(text, start);
            return pieces;
        }
        pieces.emplace_back(text, start, at - start);
        start = at + separator.length();
    }
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        const size_t at = text.find(separator, start);
        if (at == std::string_view::npos) {
            pieces.emplace_back(text.substr(start));
            return pieces;
        }
        pieces.emplace_back(text.substr(start, at - start));
        start = at + 1;
    }
}

std::string join(const std::vector<std::string>& pieces, std::string_view separator) {
    std::string out;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (i != 0) {
            out.append(separator);
        }
        out.append(pieces[i]);
    }
    return out;
}

int32_t leadingDecimal(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > int64_t{INT32_MAX} + 1) {
            value = int64_t{INT32_MAX} + 1;
        }
    }
    value = negative ? -value : value;
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return static_cast<int32_t>(value);
}

namespace {

int hexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') {
        return c - u'0';
    }
    if (c >= u'a' && c <= u'f') {
        return c - u'a' + 10;
    }
    if (c >= u'A' && c <= u'F') {
        return c - u'A' + 10;
    }
    return -1;
}

}  // namespace

uint64_t leadingHex(std::string_view text) {
    uint64_t value = 0;
    for (char c : text) {
        const int digit = hexDigit(static_cast<char16_t>(static_cast<unsigned char>(c)));
        if (digit < 0) {
            break;
        }
        value = (value << 4) | static_cast<uint64_t>(digit);
    }
    return value;
}

uint64_t leadingHex(const icu::UnicodeString& text) {
    uint64_t value = 0;
    for (int32_t i = 0; i < text.length(); ++i) {
        const int digit = hexDigit(text.charAt(i));
        if (digit < 0) {
            break;
        }
        value = (value << 4) | static_cast<uint64_t>(digit);
    }
    return value;
}

int digitsValue(const icu::UnicodeString& digits) {
    int value = 0;
    for (int32_t i = 0; i < digits.length(); i = digits.moveIndex32(i, 1)) {
        const int32_t digit = u_charDigitValue(digits.char32At(i));
        value = value * 10 + (digit < 0 ? 0 : digit);
    }
    return value;
}

std::string hex(uint64_t value, int width) {
    static constexpr char kDigits[] = "0123456789abcdef";
    char buffer[16];
    int length = 0;
    do {
        buffer[length++] = kDigits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    std::string out;
    out.reserve(static_cast<size_t>(std::max(width, length)));
    out.append(static_cast<size_t>(std::max(width - length, 0)), '0');
    while (length > 0) {
        out.push_back(buffer[--length]);
    }
    return out;
}

std::string decimal(int64_t value, int width) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%0*" PRId64, width, value);
    return buffer;
}

}  // namespace text
}  // namespace morvane::ip
