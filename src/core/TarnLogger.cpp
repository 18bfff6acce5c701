#include "core/TarnLogger.h"

#include <cstdio>
#include <system_error>

#include "logging/ConsoleDestination.h"
#include "logging/FileDestination.h"
#include "logging/LogCenter.h"
#include "platform/BuildInfo.h"
#include "platform/Files.h"
#include "platform/MainQueue.h"
#include "platform/StandardOutput.h"
#include "platform/UserDefaults.h"

namespace morvane {

namespace fs = std::filesystem;
using logging::LogCenter;

namespace {

// The library is told where a line came from: always this logger's own log call.
constexpr std::string_view kFile = "core/TarnLogger.cpp";
constexpr std::string_view kFunction = "log(_:level:)";

}  // namespace

std::string TarnLogger::versionStamp() {
    return std::string(build::kVersion) + " (" + build::kBuildNumber + ") :  ";
}

DebugTitle TarnLogger::debugTitle(LogLevel level) {
    switch (level) {
        case LogLevel::none:
            return {"No Debugging", false};
        case LogLevel::warning:
            return {"warning", true};
        case LogLevel::production:
            return {"Logging Debug Info", true};
        case LogLevel::diagnose:
            return {"Log Diagnostic Info", true};
    }
    return {"Logging Debug Info", true};
}

void TarnLogger::setDeviceConfigResponse(std::optional<DeviceConfiguration> configuration) {
    std::lock_guard lock(mutex_);
    deviceConfigResponse_ = std::move(configuration);
}

std::optional<DeviceConfiguration> TarnLogger::deviceConfigResponse() const {
    std::lock_guard lock(mutex_);
    return deviceConfigResponse_;
}

LogLevel TarnLogger::effectiveLevel() {
    // The write happens on every call, so a user who turned debugging off in the menu is
    // turned back on by the next log call while the server names a level. It happens under
    // the lock that guards the configuration, so that two threads passing here with two
    // configurations leave the default of the one that came last, not of whichever wrote last.
    std::lock_guard lock(mutex_);
    if (!deviceConfigResponse_) {
        return LogLevel::production;
    }
    const auto& result = deviceConfigResponse_->result;
    if (result && result->cfg && result->cfg->runtime && result->cfg->runtime->tarn &&
        result->cfg->runtime->tarn->logLevel) {
        const auto defaults = platform::UserDefaults::standard();
        if (*result->cfg->runtime->tarn->logLevel != LogLevel::none) {
            defaults->setBool(true, "LogDebug");
        } else {
            defaults->removeObjectForKey("LogDebug");
        }
    }
    return logLevel.load();
}

std::optional<fs::path> TarnLogger::logsDirectory() {
    const fs::path folder = platform::applicationSupportDirectory() / "MorvaneCloud";
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        return std::nullopt;
    }
    return folder;
}

void TarnLogger::setup() {
    auto console = std::make_shared<logging::ConsoleDestination>();
    console->setFormat("$DHH:mm:ss$d $L $M");
    auto file = std::make_shared<logging::FileDestination>();
    file->setFormat("$Dyyyy-MM-dd HH:mm:ss.SSS$d $C$L$c: $M");
    if (const auto folder = logsDirectory()) {
        file->setLogFileURL(*folder / "Tarn.log");
    } else {
        file->setLogFileURL(std::nullopt);
    }
    LogCenter::addDestination(console);
    LogCenter::addDestination(file);
    hasSetup = true;
}

void TarnLogger::log(const std::string& message, LogLevel level) {
    std::string text = versionStamp() + message;
    const LogLevel effective = effectiveLevel();
    if (effective == LogLevel::none) {
        return;
    }
    platform::MainQueue::async([weak = weak_from_this(), effective, level, text = std::move(text)] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        if (!self->hasSetup) {
            self->setup();
        }
        if (!(self->logLevel.load() >= effective)) {
            return;
        }
        if (level == LogLevel::production) {
            LogCenter::verbose(text, kFile, kFunction, __LINE__);
            platform::printLine("verbose " + text);
        } else if (level == LogLevel::diagnose) {
            platform::printLine("diagnose " + text);
            LogCenter::debug(text, kFile, kFunction, __LINE__);
        }
    });
}

}  // namespace morvane
