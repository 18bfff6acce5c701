#pragma once

#include <unicode/uversion.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

U_NAMESPACE_BEGIN
class SimpleDateFormat;
U_NAMESPACE_END

namespace morvane::logging {

/// One reusable formatter for Unicode date patterns ("yyyy-MM-dd HH:mm:ss.SSS") in the
/// process's locale. Building an ICU formatter costs far more than formatting with one, so a
/// destination keeps one for its life; the time zone set on it stays for later dates.
///
/// Not thread-safe: a destination touches it only on its own queue.
class DateFormatter {
public:
    DateFormatter();
    ~DateFormatter();
    DateFormatter(const DateFormatter&) = delete;
    DateFormatter& operator=(const DateFormatter&) = delete;

    /// Switches to the zone of the abbreviation or zone name ("UTC", "EST", "Europe/Paris");
    /// an unknown one means the process's default zone.
    void setTimeZone(std::string_view abbreviation);
    std::string format(std::string_view pattern, std::chrono::system_clock::time_point when);

private:
    std::unique_ptr<icu::SimpleDateFormat> formatter_;
    // Applying a pattern parses it; a template keeps using the same few, so only a change
    // of pattern is applied.
    std::string appliedPattern_;
    // Lines come much faster than once a millisecond, and the text depends on nothing
    // finer: the last one is reused until the millisecond, pattern or zone changes.
    bool cached_ = false;
    long long cachedMillisecond_ = 0;
    std::string cachedText_;
};

}  // namespace morvane::logging
