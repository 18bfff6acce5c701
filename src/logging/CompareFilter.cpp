#include "logging/CompareFilter.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

namespace morvane::logging {

namespace {

std::string lowercased(std::string_view text) {
    auto unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    unicode.toLower(icu::Locale::getRoot());
    std::string out;
    unicode.toUTF8String(out);
    return out;
}

template <class Test>
bool anyString(const std::vector<std::string>& strings, bool caseSensitive, std::string_view value,
               Test test) {
    if (strings.empty()) {
        return false;
    }
    if (caseSensitive) {
        return std::any_of(strings.begin(), strings.end(), [&](const std::string& string) {
            return test(value, std::string_view(string));
        });
    }
    const std::string lowerValue = lowercased(value);
    return std::any_of(strings.begin(), strings.end(), [&](const std::string& string) {
        return test(std::string_view(lowerValue), std::string_view(lowercased(string)));
    });
}

}  // namespace

CompareFilter::CompareFilter(TargetType target, bool required, Level minLevel)
    : Filter(std::move(target), required, minLevel) {}

bool CompareFilter::apply(std::optional<std::string_view> value) const {
    if (!value) {
        return false;
    }
    const std::string_view text = *value;
    return std::visit(
        [text](const auto& comparison) -> bool {
            using Case = std::decay_t<decltype(comparison)>;
            if constexpr (std::is_same_v<Case, Custom>) {
                return comparison.predicate && comparison.predicate(text);
            } else {
                return anyString(comparison.strings, comparison.caseSensitive, text,
                                 [](std::string_view v, std::string_view s) {
                                     if constexpr (std::is_same_v<Case, StartsWith>) {
                                         return v.starts_with(s);
                                     } else if constexpr (std::is_same_v<Case, Contains>) {
                                         return v.find(s) != std::string_view::npos;
                                     } else if constexpr (std::is_same_v<Case, Excludes>) {
                                         return v.find(s) == std::string_view::npos;
                                     } else if constexpr (std::is_same_v<Case, EndsWith>) {
                                         return v.ends_with(s);
                                     } else {
                                         return v == s;
                                     }
                                 });
            }
        },
        filterComparisonType());
}

bool CompareFilter::isExcluded() const {
    return std::holds_alternative<Excludes>(filterComparisonType());
}

}  // namespace morvane::logging
