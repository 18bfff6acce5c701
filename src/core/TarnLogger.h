#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "device/LogLevel.h"

namespace morvane {

/// The application's one logging service. Callable from any thread; it never blocks its
/// caller: the message is stamped with the version on the calling thread and everything
/// else happens on the main queue.
class TarnLogger : public std::enable_shared_from_this<TarnLogger> {
public:
    void log(const std::string& message, LogLevel level);
    LogLevel effectiveLevel() const;

    /// "<version> (<build>) :  ", the prefix of every message.
    static std::string versionStamp();

    std::atomic<LogLevel> logLevel{LogLevel::production};
};

}  // namespace morvane
