#pragma once

#include <filesystem>
#include <optional>

#include "logging/BaseDestination.h"

namespace morvane::logging {

/// Appends each line to a file. The file is opened, locked, appended to and closed for every
/// line (for every burst of lines queued together), so other processes may read, move or
/// remove it between them; a line that cannot be written is reported on standard output and
/// lost, and the next line tries again.
class FileDestination : public BaseDestination {
public:
    /// Without a file, "logcenter.log" in a folder named after the executable in the user's
    /// cache directory (created here).
    explicit FileDestination(std::optional<std::filesystem::path> logFileURL = std::nullopt);

    std::size_t defaultHashValue() const override { return 2; }

    /// Absent means lines are rendered but written nowhere.
    const std::optional<std::filesystem::path>& logFileURL() const { return logFileURL_; }
    void setLogFileURL(std::optional<std::filesystem::path> url) { logFileURL_ = std::move(url); }
    bool syncAfterEachWrite() const { return syncAfterEachWrite_; }
    void setSyncAfterEachWrite(bool sync) { syncAfterEachWrite_ = sync; }
    bool colored() const { return colored_; }
    /// True applies the 256-colour terminal codes; false empties reset, escape and colours.
    void setColored(bool colored);

    std::optional<std::string> send(Level level, const std::string& message,
                                    const std::string& thread, const std::string& file,
                                    const std::string& function, int line,
                                    const Context& context) override;

    /// True when there is no file to remove or it was removed.
    bool deleteLogFile();

protected:
    /// Lines queued together are appended together: one open, exclusive claim, append and
    /// close for the burst (up to burstBytes at a time) instead of for each line. Every byte
    /// is still written under the claim, and between bursts the file is free for others to
    /// read, move or remove, as between lines.
    void sendBurst(std::span<const QueuedLine> lines) override;

private:
    static constexpr std::size_t burstBytes = 64 * 1024;

    static std::filesystem::path defaultLogFileURL();
    // Appends whole lines, each ending in "\n"; a failure is reported once for each line lost.
    void saveToFile(const std::string& lines, std::size_t lineCount) const;

    std::optional<std::filesystem::path> logFileURL_;
    bool syncAfterEachWrite_ = false;
    bool colored_ = false;
};

}  // namespace morvane::logging
