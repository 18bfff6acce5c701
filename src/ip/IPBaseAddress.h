#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ip/BigInt.h"

namespace morvane::ip {

/// What every address object answers, whichever of IPv4, IPv6 or IPAddress it is. Parsing
/// never fails by raising: an object always comes back, and `valid` and `error` tell what
/// was wrong. Objects do not change after construction.
class IPBaseAddress {
public:
    virtual ~IPBaseAddress() = default;

    virtual bool valid() const = 0;
    /// The text was written the way `correctForm` writes it, suffix included.
    virtual bool correct() const = 0;
    virtual const std::optional<std::string>& error() const = 0;
    /// The text as given, suffix included.
    virtual const std::string& address() const = 0;
    virtual int groups() const = 0;
    virtual bool v4() const = 0;
    /// "/" and the mask length.
    virtual const std::string& subnet() const = 0;
    virtual uint8_t subnetMask() const = 0;
    /// The digits of the suffix as written.
    virtual const std::optional<std::string>& parsedSubnet() const = 0;
    /// The groups; empty when the text did not get as far as them.
    virtual const std::vector<std::string>& parsedAddress() const = 0;
    /// The first `subnetMask` bits of `binaryZeroPad`.
    virtual std::string mask() const;

    /// The text in its usual written form; an invalid IPv6 address has none.
    virtual std::optional<std::string> correctForm() const = 0;
    /// The address as a number; 0 when not valid.
    virtual BigInt bigInteger() const = 0;
    /// The first and last address of the subnet, as an object of the same kind.
    virtual std::shared_ptr<const IPBaseAddress> startAddress() const = 0;
    virtual std::shared_ptr<const IPBaseAddress> endAddress() const = 0;
    /// The first `bits` bits of `binaryZeroPad`.
    virtual std::string maskWith(int bits) const;
    /// `binaryZeroPad` from `start` up to but not including `end`, cut to what exists.
    virtual std::string bitsBase2WithStart(int start, int end) const;
    /// This address lies in the subnet of `other`.
    virtual bool isInSubnet(const IPBaseAddress& other) const;
    /// `bigInteger` in binary, padded with zeros to the full width.
    virtual std::string binaryZeroPad() const = 0;
    /// The name for reverse lookups, ending in "in-addr.arpa." or "ip6.arpa.".
    virtual std::string reversedForm() const = 0;
    /// The address in network byte order.
    virtual std::vector<uint8_t> data() const = 0;

protected:
    IPBaseAddress() = default;
    IPBaseAddress(const IPBaseAddress&) = default;
    IPBaseAddress& operator=(const IPBaseAddress&) = default;

    /// The mask bits followed by `fill` up to `width` digits.
    std::string maskFilledWith(char fill, int width) const;
    /// `correct` for either family: the text without suffix equals `correctForm`, and the
    /// suffix is the full width or written as `subnet` writes it.
    bool correctWith(const std::optional<std::string>& addressWithoutSuffix, int width) const;
};

}  // namespace morvane::ip
