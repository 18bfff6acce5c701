#pragma once

#include <string>

namespace morvane::platform {

/// The file name of the running executable (from /proc/self/exe, else the name the process
/// was started under); empty when neither can be read.
std::string executableName();

/// True on the process's first thread, the one that ran main().
bool isMainThread();

}  // namespace morvane::platform
