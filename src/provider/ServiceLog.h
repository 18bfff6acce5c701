#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::provider {

/// The provider's log, written so that `journalctl -u morvanecloud-dnsproxy` shows it with
/// the right priorities: under systemd (standard error connected to the journal) each line
/// starts with the kernel-style "<N>" prefix that the journal turns into a priority; in a
/// terminal the line carries the level as a word instead. One line per call, whole, also when
/// several threads log at once.
class ServiceLog {
public:
    enum class Level { Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

    ServiceLog();
    /// Lines go to `sink` instead of standard error (tests); the prefix choice stays the same.
    explicit ServiceLog(std::function<void(std::string_view)> sink, bool journalPrefixes);

    void error(std::string_view text) { write(Level::Error, text); }
    void warning(std::string_view text) { write(Level::Warning, text); }
    void notice(std::string_view text) { write(Level::Notice, text); }
    void info(std::string_view text) { write(Level::Info, text); }
    void debug(std::string_view text);

    void write(Level level, std::string_view text);
    void setDebug(bool on) { debug_ = on; }

    /// Whether standard error is the journal's stream (JOURNAL_STREAM names its device and
    /// inode), the test systemd documents for programs that want to use level prefixes.
    static bool standardErrorIsJournal();

private:
    std::function<void(std::string_view)> sink_;
    bool journalPrefixes_ = false;
    bool debug_ = false;
    std::mutex mutex_;
};

}  // namespace morvane::provider
