#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "messages/JSONAny.h"

namespace morvane {

class JSONObjectReader;
class JSONWriter;

/// A JSON-RPC error in either server response. The client never branches on `code`; the exact
/// `message` "Unauthorized" means the device key is no longer accepted.
struct DeviceError {
    std::int64_t code = 0;
    std::optional<JSONAny> data{};  // carried, never interpreted
    std::string message{};

    static DeviceError readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const DeviceError&) const = default;
};

}  // namespace morvane
