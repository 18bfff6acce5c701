#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "logging/BaseDestination.h"

namespace morvane::logging::test {

/// Keeps what it is sent, for tests that look at the fields a destination receives.
class RecordingDestination : public BaseDestination {
public:
    struct Call {
        Level level;
        std::string message;
        std::string thread;
        std::string file;
        std::string function;
        int line;
        Context context;
        std::optional<std::string> rendered;
    };

    std::optional<std::string> send(Level level, const std::string& message,
                                    const std::string& thread, const std::string& file,
                                    const std::string& function, int line,
                                    const Context& context) override {
        auto rendered =
            BaseDestination::send(level, message, thread, file, function, line, context);
        std::lock_guard lock(mutex_);
        calls_.push_back({level, message, thread, file, function, line, context, rendered});
        return rendered;
    }

    /// Waits for the queue to finish what it was given, then returns every call so far.
    std::vector<Call> calls() {
        executeSynchronously([] {});
        std::lock_guard lock(mutex_);
        return calls_;
    }

    /// How many calls were sent so far, without waiting for the queue.
    std::size_t sentCount() {
        std::lock_guard lock(mutex_);
        return calls_.size();
    }

private:
    std::mutex mutex_;
    std::vector<Call> calls_;
};

}  // namespace morvane::logging::test
