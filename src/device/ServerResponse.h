#pragma once

#include <variant>

#include "device/DeviceConfiguration.h"
#include "device/MainConfiguration.h"

namespace morvane {

/// Either server response, so that one completion can carry whichever the call expects.
using ServerResponse = std::variant<MainConfiguration, DeviceConfiguration>;

}  // namespace morvane
