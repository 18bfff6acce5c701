#include "sys/SystemPaths.h"

#include <cstdlib>

namespace morvane::sys {

std::filesystem::path systemPath(std::string_view absolutePath) {
    const char* sysroot = std::getenv("MORVANECLOUD_SYSROOT");
    if (sysroot == nullptr || *sysroot == '\0') {
        return std::filesystem::path(absolutePath);
    }
    std::string_view relative = absolutePath;
    while (!relative.empty() && relative.front() == '/') {
        relative.remove_prefix(1);
    }
    return std::filesystem::path(sysroot) / relative;
}

}  // namespace morvane::sys
