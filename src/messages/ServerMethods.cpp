#include "messages/ServerMethods.h"

namespace morvane {

std::string_view rawValue(ServerMethods method) {
    switch (method) {
        case ServerMethods::accountAddDevice:
            return "account_add_device";
        case ServerMethods::configDevice:
            return "device_configure";
    }
    return "device_configure";
}

std::string_view urlPath(ServerMethods method) {
    switch (method) {
        case ServerMethods::accountAddDevice:
            return "/api/register";
        case ServerMethods::configDevice:
            return "/api/device";
    }
    return "/api/device";
}

std::string_view caseName(ServerMethods method) {
    switch (method) {
        case ServerMethods::accountAddDevice:
            return "accountAddDevice";
        case ServerMethods::configDevice:
            return "configDevice";
    }
    return "configDevice";
}

template <>
std::optional<ServerMethods> enumFromRawValue<ServerMethods>(std::string_view raw) {
    for (ServerMethods method : {ServerMethods::accountAddDevice, ServerMethods::configDevice}) {
        if (rawValue(method) == raw) {
            return method;
        }
    }
    return std::nullopt;
}

}  // namespace morvane
