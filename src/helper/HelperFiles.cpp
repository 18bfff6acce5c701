#include "helper/HelperFiles.h"

#include <system_error>

#include "sys/SystemPaths.h"

namespace morvane::helper {

std::filesystem::path supportDirectory() {
    return sys::systemPath("/var/lib/morvanecloud");
}

std::filesystem::path supportFile(const std::string& name) {
    const auto folder = supportDirectory();
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    return folder / name;
}

}  // namespace morvane::helper
