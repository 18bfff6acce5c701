#pragma once

#include <string>

namespace morvane {

/// One network interface as the watch and the device server see it.
struct NetworkInterface {
    std::string BSDName;      // the kernel's name
    std::string displayName;  // Linux has no other name: the same text
    bool isActive = false;

    bool operator==(const NetworkInterface&) const = default;
};

}  // namespace morvane
