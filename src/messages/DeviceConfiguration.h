#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "messages/Actions.h"
#include "messages/DeviceError.h"
#include "messages/ForwardingRule.h"
#include "messages/LogLevel.h"
#include "messages/UITrayIconDisplayType.h"

namespace morvane {

class JSONObjectReader;
class JSONWriter;

// The device's policy: the answer to `device_configure` and what the device configuration
// file holds. The stored copy keeps only the keys listed here; anything else the server sends
// is dropped on decoding.

/// Agent settings; every one of them optional.
struct Tarn {
    std::optional<std::vector<std::string>> interfacesToIgnore{};  // VPN clients to add
    std::optional<LogLevel> logLevel{};
    std::optional<std::string> ncsiEchoResolver{};
    std::optional<std::int64_t> ncsiEventDelay{};
    std::optional<std::int64_t> ncsiInterval{};
    std::optional<std::int64_t> ncsiIntervalDisconnected{};
    std::optional<std::int64_t> ncsiTimeout{};
    std::optional<std::string> ncsiURL{};
    std::optional<UITrayIconDisplayType> trayType{};
    std::optional<bool> unboundLogQueries{};
    std::optional<bool> unboundUseSyslog{};

    static Tarn readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Tarn&) const = default;
};

struct LocationsTag {
    std::string name{};
    std::optional<std::string> rule{};
    std::string tag{};  // the first location's tag is the active one

    static LocationsTag readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const LocationsTag&) const = default;
};

struct Runtime {
    std::vector<LocationsTag> locations{};
    std::optional<Tarn> tarn{};
    std::optional<std::int64_t> reconfigure{};
    std::optional<std::string> user{};  // the user identifier the proxy is configured with

    static Runtime readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Runtime&) const = default;
};

struct Persistent {
    std::string key{};

    static Persistent readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Persistent&) const = default;
};

struct Configuration {
    std::optional<Persistent> persistent{};
    std::optional<Runtime> runtime{};

    static Configuration readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Configuration&) const = default;
};

struct DeviceResult {
    std::optional<Actions> actions{};
    std::optional<Configuration> cfg{};
    std::optional<std::vector<ForwardingRule>> filters{};

    static DeviceResult readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const DeviceResult&) const = default;
};

/// Nothing is required, so `{}` decodes. A reply with `error`, and one with neither `error`
/// nor `result`, both decode; telling them apart is the caller's business.
struct DeviceConfiguration {
    std::optional<DeviceError> error{};
    std::optional<std::int64_t> id{};
    std::optional<std::string> jsonrpc{};
    std::optional<DeviceResult> result{};

    static DeviceConfiguration readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const DeviceConfiguration&) const = default;
};

/// The resolvers of the policy: those of every forwarding rule, in rule order, duplicates kept.
/// Empty without `result` or `filters`.
std::vector<std::string> resolverList(const DeviceConfiguration& configuration);

}  // namespace morvane
