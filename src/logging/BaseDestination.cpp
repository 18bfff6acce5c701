#include "logging/BaseDestination.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "logging/FilterValidator.h"
#include "logging/Utf8.h"
#include "platform/DispatchQueue.h"
#include "platform/Uuid.h"

namespace morvane::logging {

namespace {

template <class Words>
const std::string& pick(const Words& words, Level level) {
    switch (level) {
        case Level::verbose:
            return words.verbose;
        case Level::debug:
            return words.debug;
        case Level::info:
            return words.info;
        case Level::warning:
            return words.warning;
        case Level::error:
            return words.error;
    }
    return words.verbose;
}

std::string_view fileNameWithSuffix(std::string_view file) {
    const auto slash = file.rfind('/');
    return slash == std::string_view::npos ? file : file.substr(slash + 1);
}

std::string_view fileNameWithoutSuffix(std::string_view file) {
    const auto name = fileNameWithSuffix(file);
    return name.substr(0, name.find('.'));
}

std::string_view trimmedWhitespace(std::string_view text) {
    const auto isSpace = [](char32_t c) { return u_isUWhiteSpace(static_cast<UChar32>(c)); };
    std::size_t start = 0;
    char32_t c = 0;
    while (start < text.size()) {
        const std::size_t length = utf8::decode(text, start, c);
        if (length == 0 || !isSpace(c)) {
            break;
        }
        start += length;
    }
    std::size_t end = text.size();
    while (end > start) {
        const std::size_t before = utf8::previousStart(text, end);
        if (before < start || utf8::decode(text, before, c) != end - before || !isSpace(c)) {
            break;
        }
        end = before;
    }
    return text.substr(start, end - start);
}

}  // namespace

const std::string& BaseDestination::LevelString::operator[](Level level) const {
    return pick(*this, level);
}

const std::string& BaseDestination::LevelColor::operator[](Level level) const {
    return pick(*this, level);
}

BaseDestination::BaseDestination()
    : queue_(platform::DispatchQueue::create("logcenter-queue-" + platform::makeUUID())) {}

BaseDestination::~BaseDestination() = default;

void BaseDestination::setFormat(std::string format) {
    template_ = LineTemplate(format);
    format_ = std::move(format);
}

std::optional<std::string> BaseDestination::send(Level level, const std::string& message,
                                                 const std::string& thread, const std::string& file,
                                                 const std::string& function, int line,
                                                 const Context& context) {
    if (template_.isJSON()) {
        return jsonLine(level, message, thread, file, function, line, context);
    }
    return renderLine(level, message, thread, file, function, line, context);
}

void BaseDestination::execute(bool synchronously, std::function<void()> block) {
    if (!queue_) {
        return;
    }
    if (synchronously) {
        queue_->sync(std::move(block));
    } else {
        queue_->async(std::move(block));
    }
}

void BaseDestination::executeSynchronously(std::function<void()> block) {
    execute(true, std::move(block));
}

void BaseDestination::enqueue(const QueuedLine& line, bool synchronously) {
    enqueue(LineView{line.level,
                     line.message,
                     line.thread,
                     line.file,
                     line.function,
                     {},
                     line.line,
                     line.context},
            synchronously);
}

void BaseDestination::enqueue(const LineView& line, bool synchronously) {
    if (!queue_) {
        return;
    }
    // A block that outlives the call must keep the destination alive; one that is not owned
    // by a shared_ptr can only be sent while the caller waits.
    synchronously = synchronously || !ownedBySharedPointer();
    bool schedule = false;
    {
        std::lock_guard lock(queuedMutex_);
        if (queuedCount_ == queued_.size()) {
            queued_.emplace_back();
        }
        QueuedLine& record = queued_[queuedCount_++];
        record.level = line.level;
        record.message.assign(line.message);
        record.thread.assign(line.thread);
        record.file.assign(line.file);
        record.function.assign(line.function).append(line.functionTail);
        record.line = line.line;
        record.context = line.context;
        if (!synchronously) {
            schedule = !sendScheduled_;
            sendScheduled_ = true;
        }
    }
    if (synchronously) {
        // Sends the lines queued before this one too, so the order of calls holds.
        queue_->sync([this] { sendQueuedLines(); });
    } else if (schedule) {
        if (auto self = weak_from_this().lock()) {
            queue_->async([self = std::move(self)] { self->sendQueuedLines(); });
        } else {
            // The last owner let go while we queued: send what waits before returning.
            queue_->sync([this] { sendQueuedLines(); });
        }
    }
}

bool BaseDestination::ownedBySharedPointer() {
    // Once owned, a destination stays owned until it is destroyed: remember it rather than
    // touch the shared count on every call.
    if (owned_.load(std::memory_order_relaxed)) {
        return true;
    }
    const bool owned = !weak_from_this().expired();
    if (owned) {
        owned_.store(true, std::memory_order_relaxed);
    }
    return owned;
}

void BaseDestination::sendQueuedLines() {
    // Records kept for reuse are capped, in number and in the room of a text, so that one
    // burst of many or long lines does not hold its memory for the life of the destination.
    constexpr std::size_t kKeptRecords = 1024;
    constexpr std::size_t kKeptTextRoom = 4096;
    for (;;) {
        std::size_t count = 0;
        {
            std::lock_guard lock(queuedMutex_);
            if (queuedCount_ == 0) {
                // A line queued from now on needs a block of its own, behind this one.
                sendScheduled_ = false;
                return;
            }
            sending_.swap(queued_);
            count = queuedCount_;
            queuedCount_ = 0;
        }
        try {
            sendBurst(std::span<const QueuedLine>(sending_.data(), count));
        } catch (...) {
            // The burst is lost, not the lines behind it: the next call hands over a block.
            std::lock_guard lock(queuedMutex_);
            sendScheduled_ = false;
            throw;
        }
        if (sending_.size() > kKeptRecords) {
            sending_.resize(kKeptRecords);
        }
        for (std::size_t index = 0; index < std::min(count, sending_.size()); ++index) {
            auto& record = sending_[index];
            if (record.message.capacity() > kKeptTextRoom) {
                std::string().swap(record.message);
            }
            if (record.context && record.context->capacity() > kKeptTextRoom) {
                record.context.reset();
            }
        }
    }
}

void BaseDestination::sendBurst(std::span<const QueuedLine> lines) {
    for (const auto& line : lines) {
        send(line.level, line.message, line.thread, line.file, line.function, line.line,
             line.context);
    }
}

std::string BaseDestination::renderLine(Level level, const std::string& message,
                                        const std::string& thread, const std::string& file,
                                        const std::string& function, int line,
                                        const Context& context) {
    using Code = LineTemplate::Code;
    std::string out;
    out.reserve(format_.size() + message.size() + 64);
    for (const auto& piece : template_.pieces()) {
        switch (piece.code) {
            case Code::literal:
                out += piece.text;
                continue;
            case Code::level:
                LineTemplate::appendPadded(out, levelWord(level), piece.padding);
                break;
            case Code::message:
                LineTemplate::appendPadded(out, message, piece.padding);
                break;
            case Code::thread:
                LineTemplate::appendPadded(out, thread, piece.padding);
                break;
            case Code::fileName:
                LineTemplate::appendPadded(out, fileNameWithoutSuffix(file), piece.padding);
                break;
            case Code::fileNameWithSuffix:
                LineTemplate::appendPadded(out, fileNameWithSuffix(file), piece.padding);
                break;
            case Code::function:
                LineTemplate::appendPadded(out, function, piece.padding);
                break;
            case Code::line:
                LineTemplate::appendPadded(out, std::to_string(line), piece.padding);
                break;
            case Code::date:
                // The rest of a date piece is its pattern, not text to output.
                LineTemplate::appendPadded(out, formatNow(piece.text, ""), piece.padding);
                continue;
            case Code::zonedDate:
                LineTemplate::appendPadded(out, formatNow(piece.text, "UTC"), piece.padding);
                continue;
            case Code::uptime:
                LineTemplate::appendPadded(out, uptimeText(), piece.padding);
                break;
            case Code::color:
                out += escape_;
                out += colorForLevel(level);
                break;
            case Code::reset:
                out += reset_;
                break;
            case Code::context:
                LineTemplate::appendPadded(out, context ? trimmedWhitespace(*context) : "",
                                           piece.padding);
                break;
        }
        out += piece.text;
    }
    LineTemplate::removeTrailingWhitespace(out);
    return out;
}

std::string BaseDestination::formatNow(std::string_view pattern, std::string_view timeZone) {
    if (!timeZone.empty()) {
        formatter_.setTimeZone(timeZone);
    }
    return formatter_.format(pattern, std::chrono::system_clock::now());
}

std::string BaseDestination::uptimeText() const {
    const std::chrono::duration<double> interval = std::chrono::system_clock::now() - startDate_;
    return formatUptime(interval.count());
}

std::string BaseDestination::formatUptime(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    const auto wholeMinutes = static_cast<long long>(seconds / 60);
    const long long hours = whole / 3600;
    const long long minutes = wholeMinutes - hours * 60;
    const long long secs = whole - wholeMinutes * 60;
    const auto millis = static_cast<int>(std::fmod(seconds, 1.0) * 1000);
    char text[64];
    std::snprintf(text, sizeof text, "%.2lld:%.2lld:%.2lld.%03d", hours, minutes, secs, millis);
    return text;
}

void BaseDestination::addFilter(std::shared_ptr<FilterType> filter) {
    if (filter) {
        filters_.push_back(std::move(filter));
    }
}

void BaseDestination::removeFilter(const std::shared_ptr<FilterType>& filter) {
    const auto found = std::find(filters_.begin(), filters_.end(), filter);
    if (found != filters_.end()) {
        filters_.erase(found);
    }
}

bool BaseDestination::hasMessageFilters() const {
    return std::any_of(filters_.begin(), filters_.end(), [](const auto& filter) {
        return filter && filter->getTarget().kind == Filter::TargetType::Kind::Message;
    });
}

bool BaseDestination::passesFilters(Level level, std::string_view path, std::string_view function,
                                    const std::optional<std::string>& message) const {
    using Validator = FilterValidator;
    if (filters_.empty()) {
        const bool passes = level >= minLevel_;
        if (debugPrint_) {
            printLine(passes ? "filters are empty and level >= minLevel"
                             : "filters are empty and level < minLevel");
        }
        return passes;
    }

    const auto excluded = Validator::validate(filters_, Validator::ValidationType::excluded, level,
                                              path, function, message);
    if (std::holds_alternative<Validator::SomeFiltersMatch>(excluded)) {
        if (debugPrint_) {
            printLine("filters are not empty and message was excluded");
        }
        return false;
    }

    const auto required = Validator::validate(filters_, Validator::ValidationType::required, level,
                                              path, function, message);
    if (std::holds_alternative<Validator::AllFiltersMatch>(required)) {
        return true;
    }
    if (std::holds_alternative<Validator::SomeFiltersMatch>(required)) {
        return false;
    }

    const auto nonRequired = Validator::validate(filters_, Validator::ValidationType::nonRequired,
                                                 level, path, function, message);
    if (std::holds_alternative<Validator::AllFiltersMatch>(nonRequired)) {
        return true;
    }
    if (const auto* some = std::get_if<Validator::SomeFiltersMatch>(&nonRequired)) {
        if (some->data.fullMatchCount >= 1) {
            return true;
        }
        if (some->data.conditionMatchCount >= 1) {
            return false;
        }
    }
    return minLevel_ <= level;
}

void BaseDestination::printLine(std::string_view text) {
    std::string line(text);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

BaseDestination::LevelColor BaseDestination::terminalLevelColor() {
    return {"251m", "35m", "38m", "178m", "197m"};
}

std::optional<std::string> BaseDestination::jsonLine(Level level, const std::string& message,
                                                     const std::string& thread,
                                                     const std::string& file,
                                                     const std::string& function, int line,
                                                     const Context& context) const {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    nlohmann::json object = {
        {"timestamp", now.count()},
        {"level", rawValue(level)},
        {"message", message},
        {"thread", thread},
        {"file", file},
        {"function", function},
        {"line", line},
    };
    if (context) {
        object["context"] = *context;
    }
    try {
        return object.dump();
    } catch (const nlohmann::json::exception&) {
        // Text that is not valid UTF-8 cannot be put into JSON.
        printLine("LogCenter could not create JSON from dict.");
        return std::nullopt;
    }
}

}  // namespace morvane::logging
