#pragma once

#include <optional>
#include <string>
#include <vector>

namespace morvane {

class JSONObjectReader;
class JSONWriter;

// The `device_configure` request and the records inside it. Each record has the two coder
// hooks (see device/JSONCoding.h); decodeJSON and encodeJSON work on any of them.

struct Device {
    std::string key{};  // the device key
    std::optional<std::string> version{};

    static Device readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Device&) const = default;
};

/// One network interface of the machine. `enabled` tells whether it is a wireless one, not
/// whether its link is up.
struct NIC {
    std::string nicDescription{};  // "description": the interface's display name
    std::optional<bool> enabled{};
    std::optional<std::string> ipv4{};
    std::optional<std::string> ipv6{};

    static NIC readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const NIC&) const = default;
};

struct OperatingSystemInfo {
    std::string type{};
    std::string version{};  // major.minor only

    static OperatingSystemInfo readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const OperatingSystemInfo&) const = default;
};

/// Part of the format; the client never fills it.
struct PublicIP {
    std::optional<std::string> ipv4{};
    std::optional<std::string> ipv6{};

    static PublicIP readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const PublicIP&) const = default;
};

struct Extra {
    std::vector<NIC> nics{};
    OperatingSystemInfo os{};
    std::optional<PublicIP> publicIP{};  // "public_ip"

    static Extra readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Extra&) const = default;
};

/// The location a device asks for, in requests and in a server's order to move.
struct Location {
    std::optional<std::string> name{};
    std::optional<bool> randomize{};

    static Location readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Location&) const = default;
};

struct User {
    std::string email{};
    std::optional<std::string> name{};
    std::optional<std::string> uuid{};

    static User readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const User&) const = default;
};

struct ConfigParams {
    Device device{};
    std::optional<Extra> extra{};
    std::optional<Location> location{};
    std::optional<User> user{};

    static ConfigParams readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const ConfigParams&) const = default;
};

/// The `device_configure` request. It carries no "id".
struct DeviceRequestModel {
    std::string jsonrpc = "2.0";
    std::string method = "device_configure";
    ConfigParams params{};

    static DeviceRequestModel readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const DeviceRequestModel&) const = default;
};

}  // namespace morvane
