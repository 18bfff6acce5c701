#include "watch/ServiceHosts.h"

#include <cstdlib>

namespace morvane {

namespace {

std::string fromEnvironment(const char* name, const char* built) {
    const char* value = std::getenv(name);
    return value && *value ? value : built;
}

}  // namespace

std::string ServiceHosts::ncsiHost() {
    return fromEnvironment("MORVANECLOUD_NCSI_HOST", MORVANE_NCSI_HOST);
}

std::string ServiceHosts::echoHost() {
    return fromEnvironment("MORVANECLOUD_ECHO_HOST", MORVANE_ECHO_HOST);
}

}  // namespace morvane
