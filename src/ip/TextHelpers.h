#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::ip {

/// `text` with `pad` repeated from its start put in front until it is `length` UTF-16 units
/// long; a text already that long, or an empty pad, leaves it as it is.
std::string stringByPaddingLeftToLength(std::string_view text, int length, std::string_view pad);

namespace text {

icu::UnicodeString fromUtf8(std::string_view text);
std::string toUtf8(const icu::UnicodeString& text);

/// Every piece between separators, empty ones included: "" gives one empty piece.
std::vector<icu::UnicodeString> split(const icu::UnicodeString& text,
                                      const icu::UnicodeString& separator);
std::vector<std::string> split(std::string_view text, char separator);
std::string join(const std::vector<std::string>& pieces, std::string_view separator);

/// The number that a text starts with, read leniently as C's number readers do: blanks,
/// an optional sign, then decimal digits up to the first other character; 0 when there are
/// none, and the nearest 32-bit bound when the digits go past it.
int32_t leadingDecimal(std::string_view text);
/// The hexadecimal digits a text starts with, as a number (at most the low 64 bits).
uint64_t leadingHex(std::string_view text);
uint64_t leadingHex(const icu::UnicodeString& text);
/// The value of a run of Unicode decimal digits of any script.
int digitsValue(const icu::UnicodeString& digits);

/// printf-style formatting of one unsigned number ("%x", "%02x", "%04x", "%05d").
std::string hex(uint64_t value, int width = 0);
std::string decimal(int64_t value, int width = 0);

}  // namespace text
}  // namespace morvane::ip
