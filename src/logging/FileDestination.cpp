#include "logging/FileDestination.h"

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
    if (rendered) {
        saveToFile(*rendered);
    }
    return rendered;
}

void FileDestination::saveToFile(const std::string& line) const {
    if (!logFileURL_) {
        return;
    }
    std::string bytes;
    bytes.reserve(line.size() + 1);
    bytes.append(line).push_back('\n');
    const auto result = platform::appendLocked(*logFileURL_, bytes, syncAfterEachWrite_);
    switch (result.status) {
        case platform::AppendResult::Status::written:
            break;
        case platform::AppendResult::Status::couldNotWrite:
            printLine("LogCenter File Destination could not write to file " +
                      logFileURL_->string() + ".");
            break;
        case platform::AppendResult::Status::couldNotLock:
            printLine("Failed writing file with error: " + result.error);
            break;
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
