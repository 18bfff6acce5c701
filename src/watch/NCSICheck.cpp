#include "watch/NCSICheck.h"

#include "watch/ServiceHosts.h"

namespace morvane {

std::string NCSICheck::defaultStatusURL() {
    return "http://" + ServiceHosts::ncsiHost() + "/";
}

}  // namespace morvane
