#pragma once

#include <vector>

#include "core/Dependencies.h"

namespace morvane {

/// Owns the application's service table and puts it in place as the shared container.
struct DepenencyInjection {
    /// The rows, in table order. Every row is global.
    static std::vector<Service> serviceTable();
    /// Builds the container from the table and makes it the shared one.
    DepenencyInjection();
};

}  // namespace morvane
