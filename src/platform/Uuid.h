#pragma once

#include <string>

namespace morvane::platform {

/// A fresh random (version 4) UUID in its usual text form, upper case, from the kernel's
/// random generator.
std::string makeUUID();

}  // namespace morvane::platform
