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
    cached_ = false;
}

std::string DateFormatter::format(std::string_view pattern,
                                  std::chrono::system_clock::time_point when) {
    if (!formatter_) {
        return {};
    }
    const long long millisecond =
        std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch()).count();
    if (pattern != appliedPattern_) {
        formatter_->applyPattern(icu::UnicodeString::fromUTF8(
            icu::StringPiece(pattern.data(), static_cast<int32_t>(pattern.size()))));
        appliedPattern_ = std::string(pattern);
        cached_ = false;
    } else if (cached_ && millisecond == cachedMillisecond_) {
        return cachedText_;
    }
    icu::UnicodeString text;
    formatter_->format(static_cast<UDate>(millisecond), text);
    cachedText_.clear();
    text.toUTF8String(cachedText_);
    cachedMillisecond_ = millisecond;
    cached_ = true;
    return cachedText_;
}

}  // namespace morvane::logging
