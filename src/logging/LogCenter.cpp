#include "logging/LogCenter.h"

#include <sstream>
#include <thread>
#include <unordered_set>

#include "logging/Utf8.h"
#include "platform/DispatchQueue.h"
#include "platform/ProcessInfo.h"

namespace morvane::logging {

namespace {

struct DestinationHash {
    std::size_t operator()(const std::shared_ptr<BaseDestination>& destination) const {
        return std::hash<std::size_t>()(destination->defaultHashValue());
    }
};

// Two destinations are the same only when they are the same object.
using DestinationSet = std::unordered_set<std::shared_ptr<BaseDestination>, DestinationHash,
                                          std::equal_to<std::shared_ptr<BaseDestination>>>;

DestinationSet& destinations() {
    static DestinationSet set;
    return set;
}

}  // namespace

bool LogCenter::addDestination(std::shared_ptr<BaseDestination> destination) {
    if (!destination) {
        return false;
    }
    return destinations().insert(std::move(destination)).second;
}

bool LogCenter::removeDestination(const std::shared_ptr<BaseDestination>& destination) {
    if (!destination) {
        return false;
    }
    return destinations().erase(destination) > 0;
}

void LogCenter::removeAllDestinations() {
    destinations().clear();
}

std::size_t LogCenter::countDestinations() {
    return destinations().size();
}

void LogCenter::flush() {
    for (const auto& destination : destinations()) {
        if (destination->queue()) {
            destination->executeSynchronously([] {});
        }
    }
}

std::string LogCenter::threadName() {
    if (platform::isMainThread()) {
        return {};
    }
    std::string label = platform::DispatchQueue::currentLabel();
    if (utf8::isValid(label)) {
        return label;
    }
    std::ostringstream description;
    description << "Thread " << std::this_thread::get_id();
    return description.str();
}

std::string LogCenter::strippedFunctionName(std::string_view function) {
    std::string name(function.substr(0, function.find('(')));
    name += "()";
    return name;
}

void LogCenter::dispatch(Level level, const std::function<std::string()>& message,
                         std::string_view file, std::string_view function, int line,
                         Context context) {
    std::string thread = threadName();
    std::optional<std::string> text;
    std::optional<std::string> fileText;
    std::optional<std::string> stripped;

    const auto& all = destinations();
    std::size_t visited = 0;
    for (const auto& destination : all) {
        const bool last = ++visited == all.size();
        if (!destination->queue()) {
            continue;
        }
        if (!text && destination->hasMessageFilters()) {
            text = message();
        }
        if (!destination->passesFilters(level, file, function, text)) {
            continue;
        }
        if (!text) {
            text = message();
        }
        if (!fileText) {
            fileText = std::string(file);
            stripped = strippedFunctionName(function);
        }
        const bool synchronously = !destination->asynchronously();
        if (last) {
            // Nothing reads these texts after the last destination: hand them over.
            destination->enqueue({level, std::move(*text), std::move(thread), std::move(*fileText),
                                  std::move(*stripped), line, std::move(context)},
                                 synchronously);
        } else {
            destination->enqueue({level, *text, thread, *fileText, *stripped, line, context},
                                 synchronously);
        }
    }
}

}  // namespace morvane::logging
