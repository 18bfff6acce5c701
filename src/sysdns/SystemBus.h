#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sd_bus;
struct sd_bus_message;

namespace morvane::sysdns {

/// A connection to the system bus ($DBUS_SYSTEM_BUS_ADDRESS when set, as in tests) through
/// sd-bus, where every call has a time-out: a daemon that hangs costs a failed call, never a
/// hung provider.
class SystemBus {
public:
    /// Fills a method call's arguments; false when appending failed.
    using Arguments = std::function<bool(sd_bus_message*)>;
    /// Reads a reply; false when it was not what was expected.
    using ReplyReader = std::function<bool(sd_bus_message*)>;

    static std::shared_ptr<SystemBus> open(std::chrono::milliseconds timeout, std::string& error);
    ~SystemBus();
    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;

    /// Whether a peer owns the name now. Never starts a bus-activatable service.
    bool nameHasOwner(const std::string& name);

    bool call(const std::string& destination, const std::string& path, const std::string& interface,
              const std::string& member, const Arguments& arguments, const ReplyReader& reader,
              std::string& error);
    /// Reads one property through org.freedesktop.DBus.Properties.Get; `reader` is given the
    /// reply entered into its variant of type `signature`.
    bool getProperty(const std::string& destination, const std::string& path,
                     const std::string& interface, const std::string& property,
                     const std::string& signature, const ReplyReader& reader, std::string& error);

    /// A method call to fill by hand (for arguments copied from another message); nullptr on
    /// failure. `send` takes it over.
    sd_bus_message* newCall(const std::string& destination, const std::string& path,
                            const std::string& interface, const std::string& member);
    bool send(sd_bus_message* request, const ReplyReader& reader, std::string& error);

    /// Listens for the signals that match (a D-Bus match rule); `takeSignals` tells whether
    /// any came since the last time.
    bool watchSignals(const std::string& match, std::string& error);
    /// Readable when something arrived on the connection.
    int descriptor() const;
    /// Handles what arrived; true when a watched signal was among it.
    bool takeSignals();

    sd_bus* handle() const { return bus_; }

private:
    explicit SystemBus(sd_bus* bus) : bus_(bus) {}
    sd_bus* bus_;
    bool signalled_ = false;
};

/// Reads one text ("s", "o") of a message.
bool readBusText(sd_bus_message* message, const char* type, std::string& value);
/// Reads an array of object paths ("ao").
bool readObjectPaths(sd_bus_message* message, std::vector<std::string>& paths);

/// The text of a negative sd-bus return value.
std::string busErrorText(int code);

}  // namespace morvane::sysdns
