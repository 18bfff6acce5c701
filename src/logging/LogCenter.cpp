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

void LogCenter::dispatch(Level level, MessageSource message, std::string_view file,
                         std::string_view function, int line, Context context) {
    const std::string thread = threadName();
    // The message is turned into text at most once; `storage` holds it when it is not text
    // already. Filters read it as a text of their own, made only for a destination that has
    // filters, once the message has been turned into text (by a filter that needs it or by an
    // earlier destination).
    std::string storage;
    std::optional<std::string_view> text;
    std::optional<std::string> keptText;
    // "log(_:level:)" is queued as "log" followed by "()", without a text of its own.
    const std::string_view functionStem = function.substr(0, function.find('('));

    for (const auto& destination : destinations()) {
        if (!destination->queue()) {
            continue;
        }
        if (!text && destination->hasMessageFilters()) {
            text = message.text(message.message, storage);
        }
        if (text && !keptText && !destination->filters().empty()) {
            keptText.emplace(*text);
        }
        if (!destination->passesFilters(level, file, function, keptText)) {
            continue;
        }
        if (!text) {
            text = message.text(message.message, storage);
        }
        destination->enqueue(BaseDestination::LineView{level, *text, thread, file, functionStem,
                                                       "()", line, context},
                             !destination->asynchronously());
    }
}

}  // namespace morvane::logging
