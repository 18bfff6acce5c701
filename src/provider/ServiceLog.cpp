#include "provider/ServiceLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace morvane::provider {

namespace {

std::string_view levelWord(ServiceLog::Level level) {
    switch (level) {
        case ServiceLog::Level::Error:
            return "error";
        case ServiceLog::Level::Warning:
            return "warning";
        case ServiceLog::Level::Notice:
            return "notice";
        case ServiceLog::Level::Info:
            return "info";
        case ServiceLog::Level::Debug:
            return "debug";
    }
    return "info";
}

void writeStandardError(std::string_view line) {
    // One write per line, so that lines of several threads never interleave mid-line.
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t written = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (written <= 0) {
            return;
        }
        done += static_cast<std::size_t>(written);
    }
}

}  // namespace

ServiceLog::ServiceLog() : sink_(writeStandardError), journalPrefixes_(standardErrorIsJournal()) {}

ServiceLog::ServiceLog(std::function<void(std::string_view)> sink, bool journalPrefixes)
    : sink_(std::move(sink)), journalPrefixes_(journalPrefixes) {}

void ServiceLog::debug(std::string_view text) {
    if (debug_) {
        write(Level::Debug, text);
    }
}

void ServiceLog::write(Level level, std::string_view text) {
    std::string line;
    line.reserve(text.size() + 16);
    if (journalPrefixes_) {
        line += '<';
        line += std::to_string(static_cast<int>(level));
        line += '>';
    } else {
        line += levelWord(level);
        line += ": ";
    }
    // A message with line breaks would become several journal entries, the later ones at the
    // default priority; it stays one entry.
    for (char c : text) {
        line += (c == '\n' || c == '\r') ? ' ' : c;
    }
    line += '\n';
    std::lock_guard lock(mutex_);
    sink_(line);
}

bool ServiceLog::standardErrorIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    unsigned long long device = 0;
    unsigned long long inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) {
        return false;
    }
    struct stat status {};
    if (::fstat(STDERR_FILENO, &status) != 0) {
        return false;
    }
    return static_cast<unsigned long long>(status.st_dev) == device &&
           static_cast<unsigned long long>(status.st_ino) == inode;
}

}  // namespace morvane::provider
