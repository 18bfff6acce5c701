#include "ip/Regex.h"

#include <atomic>
#include <stdexcept>
#include <string>

namespace morvane::ip {

namespace {

std::atomic<size_t> nextSlot{0};

// One matcher per pattern and thread, found by the pattern's slot number.
thread_local std::vector<std::unique_ptr<icu::RegexMatcher>> matchers;

}  // namespace

Regex::Regex(const char* pattern, uint32_t flags) : slot_(nextSlot.fetch_add(1)) {
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError;
    pattern_.reset(icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(pattern), flags,
                                              parseError, status));
    if (U_FAILURE(status)) {
        throw std::logic_error(std::string("regular expression does not compile: ") + pattern +
                               " (" + u_errorName(status) + ")");
    }
}

icu::RegexMatcher& Regex::matcher(const icu::UnicodeString& text) const {
    if (matchers.size() <= slot_) {
        matchers.resize(slot_ + 1);
    }
    std::unique_ptr<icu::RegexMatcher>& m = matchers[slot_];
    if (!m) {
        UErrorCode status = U_ZERO_ERROR;
        m.reset(pattern_->matcher(status));
        if (U_FAILURE(status)) {
            throw std::runtime_error(std::string("cannot make a regular expression matcher: ") +
                                     u_errorName(status));
        }
    }
    m->reset(text);
    return *m;
}

std::optional<Regex::Match> Regex::find(const icu::UnicodeString& text) const {
    icu::RegexMatcher& m = matcher(text);
    UErrorCode status = U_ZERO_ERROR;
    if (!m.find(status) || U_FAILURE(status)) {
        return std::nullopt;
    }
    Match match{m.start(status), m.end(status)};
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    return match;
}

std::vector<icu::UnicodeString> Regex::findAll(const icu::UnicodeString& text) const {
    icu::RegexMatcher& m = matcher(text);
    std::vector<icu::UnicodeString> found;
    UErrorCode status = U_ZERO_ERROR;
    while (m.find(status) && U_SUCCESS(status)) {
        found.push_back(m.group(status));
    }
    return found;
}

icu::UnicodeString Regex::replaceAll(const icu::UnicodeString& text,
                                     const icu::UnicodeString& replacement) const {
    // Spliced by hand: ICU's own replaceAll parses the replacement for group references on
    // every call, which costs more than the match.
    icu::RegexMatcher& m = matcher(text);
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString result;
    int32_t copied = 0;
    bool matched = false;
    while (m.find(status) && U_SUCCESS(status)) {
        matched = true;
        const int32_t start = m.start(status);
        const int32_t end = m.end(status);
        result.append(text, copied, start - copied).append(replacement);
        copied = end;
    }
    if (!matched) {
        return text;
    }
    return result.append(text, copied, text.length() - copied);
}

}  // namespace morvane::ip
