#include "logging/FileDestination.h"

#include <algorithm>
#include <system_error>

#include "platform/FileAppend.h"
#include "platform/Files.h"
#include "platform/ProcessInfo.h"

namespace morvane::logging {

namespace fs = std::filesystem;

FileDestination::FileDestination(std::optional<fs::path> logFileURL)
    : logFileURL_(logFileURL ? std::move(logFileURL) : defaultLogFileURL()) {}

fs::path FileDestination::defaultLogFileURL() {
    fs::path base = platform::cachesDirectory();
    const std::string executable = platform::executableName();
    if (!executable.empty()) {
        std::error_code error;
        fs::create_directories(base / executable, error);
        if (error) {
            printLine("Warning! Could not create folder /Library/Caches/" + executable);
        } else {
            base /= executable;
        }
    }
    return base / "logcenter.log";
}

void FileDestination::setColored(bool colored) {
    colored_ = colored;
    if (colored) {
        setReset(std::string(kTerminalReset));
        setEscape(std::string(kTerminalEscape));
        setLevelColor(terminalLevelColor());
    } else {
        setReset({});
        setEscape({});
        setLevelColor({});
    }
}

std::optional<std::string> FileDestination::send(Level level, const std::string& message,
                                                 const std::string& thread, const std::string& file,
                                                 const std::string& function, int line,
                                                 const Context& context) {
    auto rendered = BaseDestination::send(level, message, thread, file, function, line, context);
    if (rendered && logFileURL_) {
        std::string bytes;
        bytes.reserve(rendered->size() + 1);
        bytes.append(*rendered).push_back('\n');
        saveToFile(bytes, 1);
    }
    return rendered;
}

void FileDestination::sendBurst(std::span<const QueuedLine> lines) {
    std::string bytes;
    std::size_t count = 0;
    for (const auto& line : lines) {
        const auto rendered =
            BaseDestination::send(line.level, line.message, line.thread, line.file, line.function,
                                  line.line, line.context);
        if (!rendered || !logFileURL_) {
            continue;
        }
        if (bytes.empty()) {
            bytes.reserve(std::min(burstBytes, (rendered->size() + 1) * lines.size()));
        }
        bytes.append(*rendered).push_back('\n');
        ++count;
        if (bytes.size() >= burstBytes) {
            saveToFile(bytes, count);
            bytes.clear();
            count = 0;
        }
    }
    if (count > 0) {
        saveToFile(bytes, count);
    }
}

void FileDestination::saveToFile(const std::string& lines, std::size_t lineCount) const {
    const auto result = platform::appendLocked(*logFileURL_, lines, syncAfterEachWrite_);
    for (std::size_t lost = 0; lost < lineCount; ++lost) {
        switch (result.status) {
            case platform::AppendResult::Status::written:
                return;
            case platform::AppendResult::Status::couldNotWrite:
                printLine("LogCenter File Destination could not write to file " +
                          logFileURL_->string() + ".");
                break;
            case platform::AppendResult::Status::couldNotLock:
                printLine("Failed writing file with error: " + result.error);
                break;
        }
    }
}

bool FileDestination::deleteLogFile() {
    if (!logFileURL_) {
        return true;
    }
    std::error_code error;
    fs::remove(*logFileURL_, error);
    if (error) {
        printLine("LogCenter File Destination could not remove file " + logFileURL_->string() +
                  ".");
        return false;
    }
    return true;
}

}  // namespace morvane::logging
