#pragma once

#include <optional>
#include <string_view>

#include "messages/RawValue.h"

namespace morvane {

/// The two JSON-RPC methods of the device server; there are no others.
enum class ServerMethods { accountAddDevice, configDevice };

/// The method name sent in "method": "account_add_device" or "device_configure".
std::string_view rawValue(ServerMethods method);

/// Where the method is posted: "/api/register" or "/api/device".
std::string_view urlPath(ServerMethods method);

/// The case's own name, which is how log lines name the server call.
std::string_view caseName(ServerMethods method);

template <>
std::optional<ServerMethods> enumFromRawValue<ServerMethods>(std::string_view raw);

}  // namespace morvane
