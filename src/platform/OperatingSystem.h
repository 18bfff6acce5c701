#pragma once

#include <string>
#include <string_view>

namespace morvane::platform {

/// "major.minor" of the running kernel's release, such as "6.1" on "6.1.0-18-amd64".
std::string kernelVersion();

/// "major.minor" of a release text: the leading numbers, a missing one counting as 0, so
/// that "6" gives "6.0" and text without a number "0.0".
std::string majorMinorVersion(std::string_view release);

}  // namespace morvane::platform
