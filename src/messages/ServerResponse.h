#pragma once

#include <variant>

#include "messages/DeviceConfiguration.h"
#include "messages/MainConfiguration.h"

namespace morvane {

/// Either server response, so that one completion can carry whichever the call expects.
using ServerResponse = std::variant<MainConfiguration, DeviceConfiguration>;

}  // namespace morvane
