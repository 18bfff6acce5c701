#include "watch/NCSICheck.h"

#include <cstdlib>

namespace morvane {

std::string NCSICheck::defaultStatusURL() {
    const char* host = std::getenv("MORVANECLOUD_NCSI_HOST");
    const std::string chosen = host && *host ? host : MORVANE_NCSI_HOST;
    return "http://" + chosen + "/";
}

}  // namespace morvane
