#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace morvane::provider {

/// A resolver's or a listener's socket address, with the text it was read from.
struct Endpoint {
    sockaddr_storage address{};
    socklen_t length = 0;
    std::string text;  // "ADDR:PORT" or "[ADDR]:PORT", as the forwarder logs it

    const sockaddr* socketAddress() const { return reinterpret_cast<const sockaddr*>(&address); }
    int family() const { return address.ss_family; }
    /// Same family, address and port.
    bool sameAs(const sockaddr* other, socklen_t otherLength) const;
    bool operator==(const Endpoint& other) const {
        return sameAs(other.socketAddress(), other.length);
    }

    /// Reads "1.2.3.4", "1.2.3.4:5353", "::1", "[::1]" or "[::1]:5353"; without a port,
    /// `defaultPort`. Absent for anything else, port 0 included when `allowPortZero` is false.
    static std::optional<Endpoint> parse(std::string_view text, std::uint16_t defaultPort,
                                         bool allowPortZero = false);
    static Endpoint fromSocketAddress(const sockaddr* address, socklen_t length);
};

}  // namespace morvane::provider
