#include "messages/DeviceError.h"

#include "messages/JSONCoding.h"

namespace morvane {

DeviceError DeviceError::readFields(JSONObjectReader& in) {
    return {.code = in.required<std::int64_t>("code"),
            .data = in.optional<JSONAny>("data"),
            .message = in.required<std::string>("message")};
}

void DeviceError::writeFields(JSONWriter& out) const {
    out.field("code", code);
    out.field("data", data);
    out.field("message", message);
}

}  // namespace morvane
