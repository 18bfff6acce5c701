#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "messages/DeviceConfiguration.h"
#include "messages/LogLevel.h"

namespace morvane {

/// What the status menu shows for a log level.
struct DebugTitle {
    std::string title;
    bool enabled;
};

/// The application's one logging service. Callable from any thread, it never blocks its
/// caller: the message is stamped with the version on the calling thread, and everything that
/// touches the logging library happens on the main queue, which keeps lines from one thread in
/// order in both outputs. Lines go to the console, to "Tarn.log" in the support folder, and to
/// standard output.
class TarnLogger : public std::enable_shared_from_this<TarnLogger> {
public:
    void log(const std::string& message, LogLevel level);
    /// The level the logger works at. A server configuration that names a level also turns
    /// the "LogDebug" default on, or off for "none", on every call.
    LogLevel effectiveLevel();
    /// Installs the console and file destinations; main queue only.
    void setup();

    /// The folder of "Tarn.log", created when missing; nothing when it cannot be had.
    static std::optional<std::filesystem::path> logsDirectory();
    /// "<version> (<build>) :  ", the prefix of every message.
    static std::string versionStamp();
    static DebugTitle debugTitle(LogLevel level);

    void setDeviceConfigResponse(std::optional<DeviceConfiguration> configuration);
    std::optional<DeviceConfiguration> deviceConfigResponse() const;

    std::atomic<LogLevel> logLevel{LogLevel::production};
    /// Whether the destinations are installed; touched on the main queue only.
    bool hasSetup = false;

private:
    mutable std::mutex mutex_;
    std::optional<DeviceConfiguration> deviceConfigResponse_;
};

}  // namespace morvane
