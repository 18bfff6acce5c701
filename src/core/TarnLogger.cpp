#include "core/TarnLogger.h"

#include <cstdio>

#include "platform/BuildInfo.h"
#include "platform/MainQueue.h"

namespace morvane {

std::string TarnLogger::versionStamp() {
    return std::string(build::kVersion) + " (" + build::kBuildNumber + ") :  ";
}

LogLevel TarnLogger::effectiveLevel() const {
    return logLevel.load();
}

void TarnLogger::log(const std::string& message, LogLevel level) {
    std::string text = versionStamp() + message;
    const LogLevel effective = effectiveLevel();
    if (effective == LogLevel::none) {
        return;
    }
    platform::MainQueue::async([weak = weak_from_this(), effective, level, text = std::move(text)] {
        auto self = weak.lock();
        if (!self || !(self->logLevel.load() >= effective)) {
            return;
        }
        if (level == LogLevel::production) {
            std::printf("verbose %s\n", text.c_str());
        } else if (level == LogLevel::diagnose) {
            std::printf("diagnose %s\n", text.c_str());
        }
        std::fflush(stdout);
    });
}

}  // namespace morvane
