#pragma once

#include <optional>
#include <string>

#include "messages/DeviceRequestModel.h"

namespace morvane {

class JSONObjectReader;
class JSONWriter;

// One-shot orders from the server, carried in the policy.

/// An order to move to another device server.
struct MigrateToANewRPCServer {
    std::optional<std::string> key{};  // the device key at the new server
    std::optional<Location> location{};
    std::optional<std::string> rpc{};  // the new server's URL

    static MigrateToANewRPCServer readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const MigrateToANewRPCServer&) const = default;
};

/// A new version on offer.
struct Upgrade {
    std::optional<std::string> args{};  // arguments for the installer
    std::optional<std::string> url{};   // where the package lies
    std::optional<std::string> version{};

    static Upgrade readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Upgrade&) const = default;
};

struct Actions {
    std::optional<bool> disable{};
    std::optional<MigrateToANewRPCServer> move{};
    std::optional<bool> shutdown{};
    std::optional<bool> uninstall{};
    std::optional<Upgrade> upgrade{};

    static Actions readFields(JSONObjectReader& in);
    void writeFields(JSONWriter& out) const;
    bool operator==(const Actions&) const = default;
};

}  // namespace morvane
