#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace morvane {

class JSONObjectReader;

/// The version the agent announces to the device server, in enrolment and configuration
/// requests alike.
inline constexpr std::string_view kClientVersion = "2.0.3";

/// The parameters of an enrolment request.
struct PayloadParams {
    std::string key{};   // the install key
    std::string name{};  // the name the device enrols under
    std::string type = "Tarn";
    std::string version = std::string(kClientVersion);

    static PayloadParams readFields(JSONObjectReader& in);
    nlohmann::json JSONDictionary() const;
    static std::optional<PayloadParams> fromData(std::string_view data,
                                                 std::string* error = nullptr);
    std::optional<std::string> toData(std::string* error = nullptr) const;
    bool operator==(const PayloadParams&) const = default;
};

/// The `account_add_device` request. Unlike the other messages it goes out through a JSON
/// dictionary of its own rather than the record coders.
struct Payload {
    std::string jsonrpc = "2.0";
    std::int64_t identifier = 0;  // sent as "id"
    std::string method = "account_add_device";
    PayloadParams params{};

    /// The request for enrolling with `key` under `name`, with a fresh random id from 1 to 999.
    static Payload make(std::string key, std::string name);

    static Payload readFields(JSONObjectReader& in);
    nlohmann::json JSONDictionary() const;
    static std::optional<Payload> fromData(std::string_view data, std::string* error = nullptr);
    /// Fails only when the JSON writer refuses the dictionary (text that is not UTF-8); the
    /// error then reads "JSONSerialization error -1: " and the writer's reason.
    std::optional<std::string> toData(std::string* error = nullptr) const;
    bool operator==(const Payload&) const = default;
};

}  // namespace morvane
