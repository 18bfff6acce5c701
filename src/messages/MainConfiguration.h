#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "messages/DeviceError.h"

namespace morvane {

class JSONObjectReader;
class JSONWriter;

/// The enrolled device, as the server holds it.
struct DCResult {
    std::string device{};  // the device key
    std::string name{};
    std::string type{};

    static DCResult readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const DCResult&) const = default;
};

/// The answer to `account_add_device`, and what the main configuration file holds. A refused
/// enrolment is a MainConfiguration too: `error` set and no `result`.
struct MainConfiguration {
    std::optional<DeviceError> error{};
    std::optional<std::int64_t> id{};  // the echoed request id, never compared with the request
    std::string jsonrpc{};             // without it a response is undecodable
    std::optional<DCResult> result{};

    static MainConfiguration readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const MainConfiguration&) const = default;
};

}  // namespace morvane
