#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "logging/DateFormatter.h"
#include "logging/FilterType.h"
#include "logging/Level.h"
#include "logging/LineTemplate.h"

namespace morvane::platform {
class DispatchQueue;
}

namespace morvane::logging {

/// A place lines go to, with its own line template, level words, colours, filters and serial
/// queue. Rendering and output run on that queue, so the lines of one destination leave in
/// the order of the calls while destinations run independently of each other.
///
/// Configure a destination before it is added to LogCenter and leave it alone afterwards:
/// its settings are read from the logging threads without a lock.
class BaseDestination : public std::enable_shared_from_this<BaseDestination> {
public:
    /// The words of $L, one per level.
    struct LevelString {
        std::string verbose = "VERBOSE";
        std::string debug = "DEBUG";
        std::string info = "INFO";
        std::string warning = "WARNING";
        std::string error = "ERROR";

        const std::string& operator[](Level level) const;
    };
    /// The colour texts of $C, one per level.
    struct LevelColor {
        std::string verbose;
        std::string debug;
        std::string info;
        std::string warning;
        std::string error;

        const std::string& operator[](Level level) const;
    };
    using Context = std::optional<std::string>;

    /// One log call as it waits for the destination's queue.
    struct QueuedLine {
        Level level;
        std::string message;
        std::string thread;
        std::string file;
        std::string function;
        int line;
        Context context;
    };

    /// One log call as the caller holds it: views into texts that live until `enqueue`
    /// returns. The queued function name is `function` followed by `functionTail`, so that a
    /// caller can hand over a name it has cut without making a text of its own.
    struct LineView {
        Level level;
        std::string_view message;
        std::string_view thread;
        std::string_view file;
        std::string_view function;
        std::string_view functionTail;
        int line;
        const Context& context;
    };

    static constexpr std::string_view kDefaultFormat = "$DHH:mm:ss.SSS$d $C$L$c $N.$F:$l - $M";

    BaseDestination();
    virtual ~BaseDestination();
    BaseDestination(const BaseDestination&) = delete;
    BaseDestination& operator=(const BaseDestination&) = delete;

    /// The hash of LogCenter's set; equality is identity.
    virtual std::size_t defaultHashValue() const { return 0; }

    const std::string& format() const { return format_; }
    /// Parses the template once; every later line renders from the parsed pieces.
    void setFormat(std::string format);
    bool asynchronously() const { return asynchronously_; }
    void setAsynchronously(bool asynchronously) { asynchronously_ = asynchronously; }
    Level minLevel() const { return minLevel_; }
    void setMinLevel(Level level) { minLevel_ = level; }
    const LevelString& levelString() const { return levelString_; }
    void setLevelString(LevelString words) { levelString_ = std::move(words); }
    const LevelColor& levelColor() const { return levelColor_; }
    void setLevelColor(LevelColor colors) { levelColor_ = std::move(colors); }
    const std::string& reset() const { return reset_; }
    void setReset(std::string reset) { reset_ = std::move(reset); }
    const std::string& escape() const { return escape_; }
    void setEscape(std::string escape) { escape_ = std::move(escape); }
    const std::vector<std::shared_ptr<FilterType>>& filters() const { return filters_; }
    std::chrono::system_clock::time_point startDate() const { return startDate_; }
    const std::shared_ptr<platform::DispatchQueue>& queue() const { return queue_; }
    bool debugPrint() const { return debugPrint_; }
    void setDebugPrint(bool debugPrint) { debugPrint_ = debugPrint; }

    /// Renders the line (the JSON form for a template starting with "$J"); absent when the
    /// JSON form cannot be made. Subclasses write the line out. Runs on the queue.
    virtual std::optional<std::string> send(Level level, const std::string& message,
                                            const std::string& thread, const std::string& file,
                                            const std::string& function, int line,
                                            const Context& context);

    /// Runs the block on the destination's queue, waiting for it when synchronously. Never
    /// wait from a block of the same queue.
    void execute(bool synchronously, std::function<void()> block);
    void executeSynchronously(std::function<void()> block);
    /// Hands one call over to the queue, which sends it after every call handed over before.
    /// Synchronously (always, for a destination not owned by a shared_ptr), returns once the
    /// line is sent.
    void enqueue(const QueuedLine& line, bool synchronously);
    /// The same from views: the texts are copied into a waiting record whose room is reused
    /// from line to line, so that a call costs its caller no allocation once the destination
    /// has seen lines of that size.
    void enqueue(const LineView& line, bool synchronously);

    std::string renderLine(Level level, const std::string& message, const std::string& thread,
                           const std::string& file, const std::string& function, int line,
                           const Context& context);
    const std::string& levelWord(Level level) const { return levelString_[level]; }
    const std::string& colorForLevel(Level level) const { return levelColor_[level]; }
    /// The current time in the Unicode date pattern; a non-empty time zone abbreviation
    /// switches the destination's formatter to that zone for this and every later date.
    std::string formatNow(std::string_view pattern, std::string_view timeZone);
    /// Time since the destination was made, "HH:mm:ss.SSS" with hours running past 99.
    std::string uptimeText() const;
    static std::string formatUptime(double seconds);

    void addFilter(std::shared_ptr<FilterType> filter);
    /// Removes the first entry that is this very filter object.
    void removeFilter(const std::shared_ptr<FilterType>& filter);
    bool hasMessageFilters() const;
    /// Whether a line of this level from this file and function goes out. The message is
    /// absent when no filter needed it turned into text.
    bool passesFilters(Level level, std::string_view path, std::string_view function,
                       const std::optional<std::string>& message) const;

protected:
    /// Writes one line to standard output, where the library's own notices go.
    static void printLine(std::string_view text);
    /// The 256-colour codes and their escape and reset, shared by console and file.
    static LevelColor terminalLevelColor();
    static constexpr std::string_view kTerminalReset = "\x1b[0m";
    static constexpr std::string_view kTerminalEscape = "\x1b[38;5;";
    /// Sends the lines that were queued together, in the order of the calls. The default
    /// sends them one by one; a destination whose output costs something per write may
    /// gather them. Runs on the queue.
    virtual void sendBurst(std::span<const QueuedLine> lines);

private:
    /// Sends what waits, and what comes in meanwhile, until nothing waits. Runs on the queue.
    void sendQueuedLines();
    /// Whether a shared_ptr owns this destination, so that a block may keep it alive.
    bool ownedBySharedPointer();
    std::optional<std::string> jsonLine(Level level, const std::string& message,
                                        const std::string& thread, const std::string& file,
                                        const std::string& function, int line,
                                        const Context& context) const;

    std::string format_{kDefaultFormat};
    LineTemplate template_{kDefaultFormat};
    bool asynchronously_ = true;
    Level minLevel_ = Level::verbose;
    LevelString levelString_;
    LevelColor levelColor_;
    std::string reset_;
    std::string escape_;
    std::vector<std::shared_ptr<FilterType>> filters_;
    DateFormatter formatter_;
    std::chrono::system_clock::time_point startDate_ = std::chrono::system_clock::now();
    std::shared_ptr<platform::DispatchQueue> queue_;
    bool debugPrint_ = false;

    // Lines wait here rather than as one queue block each: handing a block to the queue's
    // threads costs more than writing the line, so one block sends every line waiting when
    // it runs, in order, each still with its own append. That block goes on until nothing
    // waits, so a caller hands a block over only when the queue has gone idle.
    //
    // The first queuedCount_ records of queued_ wait; the records behind them, and those of
    // sending_ (the queue's own, swapped with queued_ for each burst), are kept with the room
    // of their texts for the lines to come.
    std::mutex queuedMutex_;
    std::vector<QueuedLine> queued_;
    std::size_t queuedCount_ = 0;
    bool sendScheduled_ = false;
    std::vector<QueuedLine> sending_;
    std::atomic<bool> owned_{false};
};

}  // namespace morvane::logging
