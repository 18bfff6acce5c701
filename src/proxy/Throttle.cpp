#include "proxy/Throttle.h"

#include <algorithm>
#include <chrono>

#include "platform/MainQueue.h"

namespace morvane {

void Throttle::advance() {
    throttleIndex = std::min(throttleIndex + 1, throttleValuesSizeMaxIndex);
}

void Throttle::schedule(std::function<void()> work) {
    const auto delay = std::chrono::seconds(throttleValues.at(
        static_cast<std::size_t>(std::clamp(throttleIndex, 0, throttleValuesSizeMaxIndex))));
    platform::MainQueue::after(delay, std::move(work));
    advance();
}

}  // namespace morvane
