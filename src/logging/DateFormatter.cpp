#include "logging/DateFormatter.h"

#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

namespace morvane::logging {

DateFormatter::DateFormatter() {
    UErrorCode status = U_ZERO_ERROR;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(), status);
    if (U_SUCCESS(status)) {
        formatter_ = std::move(formatter);
    }
}

DateFormatter::~DateFormatter() = default;

void DateFormatter::setTimeZone(std::string_view abbreviation) {
    if (!formatter_) {
        return;
    }
    const auto id = icu::UnicodeString::fromUTF8(
        icu::StringPiece(abbreviation.data(), static_cast<int32_t>(abbreviation.size())));
    icu::TimeZone* zone = icu::TimeZone::createTimeZone(id);
    if (*zone == icu::TimeZone::getUnknown()) {
        delete zone;
        zone = icu::TimeZone::createDefault();
    }
    formatter_->adoptTimeZone(zone);
}

std::string DateFormatter::format(std::string_view pattern,
                                  std::chrono::system_clock::time_point when) {
    if (!formatter_) {
        return {};
    }
    if (pattern != appliedPattern_) {
        formatter_->applyPattern(icu::UnicodeString::fromUTF8(
            icu::StringPiece(pattern.data(), static_cast<int32_t>(pattern.size()))));
        appliedPattern_ = std::string(pattern);
    }
    const auto millis = std::chrono::duration<double, std::milli>(when.time_since_epoch()).count();
    icu::UnicodeString text;
    formatter_->format(static_cast<UDate>(millis), text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

}  // namespace morvane::logging
