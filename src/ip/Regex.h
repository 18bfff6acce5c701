#pragma once

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace morvane::ip {

/// An ICU regular expression compiled once, for the life of the process. Matching needs a
/// matcher with state, so each thread makes its own on first use and keeps it; nothing is
/// compiled per call. Meant to be held in function-local statics.
class Regex {
public:
    /// `flags` are ICU's `URegexpFlag` bits. A pattern that does not compile is a fault of the
    /// program and throws `std::logic_error`.
    explicit Regex(const char* pattern, uint32_t flags = 0);
    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    struct Match {
        int32_t start;  // UTF-16 offsets
        int32_t end;
    };

    /// The leftmost match.
    std::optional<Match> find(const icu::UnicodeString& text) const;
    /// The matched texts of every match, left to right.
    std::vector<icu::UnicodeString> findAll(const icu::UnicodeString& text) const;
    /// Every match replaced by `replacement`, taken literally.
    icu::UnicodeString replaceAll(const icu::UnicodeString& text,
                                  const icu::UnicodeString& replacement) const;

private:
    icu::RegexMatcher& matcher(const icu::UnicodeString& text) const;

    std::unique_ptr<icu::RegexPattern> pattern_;
    size_t slot_;
};

}  // namespace morvane::ip
