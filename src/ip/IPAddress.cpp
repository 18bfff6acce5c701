#include "ip/IPAddress.h"

#include <stdexcept>

#include "ip/IPv4.h"
#include "ip/IPv6.h"
#include "ip/NamedException.h"

namespace morvane::ip {

namespace {

std::shared_ptr<const IPBaseAddress> parseEither(std::string_view address) {
    // Dotted IPv4 has digits and dots only, so a text with a ":" would be thrown away as an
    // invalid IPv4 address; it goes to IPv6 straight away.
    if (address.find(':') == std::string_view::npos) {
        auto v4 = std::make_shared<const IPv4>(address);
        if (v4->valid()) {
            return v4;
        }
    }
    return std::make_shared<const IPv6>(address);
}

}  // namespace

IPAddress::IPAddress(std::string_view address) : addrs_(parseEither(address)) {}

IPAddress::IPAddress(std::shared_ptr<const IPBaseAddress> ip) : addrs_(std::move(ip)) {
    if (!addrs_) {
        throw std::invalid_argument("IPAddress needs an address to wrap");
    }
}

IPAddress IPAddress::addressFromString(std::string_view address) {
    return IPAddress(address);
}

IPAddress IPAddress::addressWithData(std::span<const uint8_t> data) {
    if (data.size() == 4) {
        const uint32_t value = (static_cast<uint32_t>(data[0]) << 24) |
                               (static_cast<uint32_t>(data[1]) << 16) |
                               (static_cast<uint32_t>(data[2]) << 8) | data[3];
        return IPAddress(std::make_shared<const IPv4>(IPv4::ipv4FromInteger(value)));
    }
    if (data.size() == 16) {
        uint32_t words[4] = {};
        for (size_t i = 0; i < 16; ++i) {
            words[i / 4] = (words[i / 4] << 8) | data[i];
        }
        return IPAddress(
            std::make_shared<const IPv6>(IPv6::fromBigInteger(BigInt::createWithUIntArray(words))));
    }
    throw NamedException(
        "ipInvalidLength",
        "The provided data length does not correspond to neighter a IPv4 nor a IPv6 address");
}

}  // namespace morvane::ip
