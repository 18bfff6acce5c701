#include "settings/CommmonValidator.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <memory>

namespace morvane {

namespace {

std::unique_ptr<icu::RegexPattern> compile(const char* pattern) {
    UErrorCode status = U_ZERO_ERROR;
    UParseError where{};
    std::unique_ptr<icu::RegexPattern> compiled(
        icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(pattern), 0, where, status));
    return U_SUCCESS(status) ? std::move(compiled) : nullptr;
}

// Patterns are compiled once; each check makes its own matcher, so checks may run on any
// thread at once.
bool check(const icu::RegexPattern* pattern, const std::string& text, bool wholeText) {
    if (pattern == nullptr) {
        return false;
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString input = icu::UnicodeString::fromUTF8(text);
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(input, status));
    if (U_FAILURE(status)) {
        return false;
    }
    const bool found = wholeText ? matcher->matches(status) : matcher->find(status);
    return U_SUCCESS(status) && found;
}

constexpr const char* kIPv4Pattern =
    R"(^(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.)"
    R"((\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])$)";

// The dots that stand unescaped match any character; that is how the install command has
// always accepted addresses, so it stays.
constexpr const char* kURLPattern =
    "^((https|http)?://)"
    "(([0-9]{1,3}.){3}[0-9]{1,3}"
    "|"
    "([0-9a-z_!~*'()-]+.)*"
    "([0-9a-z][0-9a-z-]{0,61})?[0-9a-z]."
    "[a-z]{2,6})"
    "(:[0-9]{1,4})?"
    "((/?)|"
    "(/[0-9a-z_!~*'().;?:@&=+$,%#-]+)+/?)$";

constexpr const char* kEmailPattern = "[A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,64}";

}  // namespace

bool CommmonValidator::isValidIPv4(const std::string& text) {
    static const auto pattern = compile(kIPv4Pattern);
    return check(pattern.get(), text, true);
}

bool CommmonValidator::isValidURL(const std::string& text) {
    static const auto pattern = compile(kURLPattern);
    return check(pattern.get(), text, false);
}

bool CommmonValidator::isValidEmail(const std::string& text) {
    static const auto pattern = compile(kEmailPattern);
    return check(pattern.get(), text, true);
}

}  // namespace morvane
