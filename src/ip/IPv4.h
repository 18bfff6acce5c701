#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ip/IPBaseAddress.h"

namespace morvane::ip {

/// An IPv4 address in dotted form with an optional "/" suffix of one or two digits.
/// Leading zeros are allowed ("010.1.1.1" is valid, though not `correct`).
class IPv4 final : public IPBaseAddress {
public:
    /// Parses `address`; an invalid text gives an object with `valid` false and an `error`.
    explicit IPv4(std::string_view address);

    static IPv4 ipv4FromInteger(uint32_t value);
    /// Hexadecimal digits, ":" between them ignored, read as four bytes.
    static IPv4 ipv4FromHex(std::string_view hex);
    /// The low 32 bits of `value`.
    static IPv4 fromBigInteger(const BigInt& value);

    bool valid() const override { return valid_; }
    bool correct() const override;
    const std::optional<std::string>& error() const override { return error_; }
    const std::string& address() const override { return address_; }
    int groups() const override { return 4; }
    bool v4() const override { return true; }
    const std::string& subnet() const override { return subnet_; }
    uint8_t subnetMask() const override { return subnetMask_; }
    const std::optional<std::string>& parsedSubnet() const override { return parsedSubnet_; }
    /// The text without its suffix; absent when the suffix was rejected.
    const std::optional<std::string>& addressMinusSufix() const { return addressMinusSufix_; }
    /// The "."-separated groups as written.
    const std::vector<std::string>& parsedAddress() const override { return parsedAddress_; }

    std::optional<std::string> correctForm() const override;
    BigInt bigInteger() const override;
    std::shared_ptr<const IPBaseAddress> startAddress() const override;
    std::shared_ptr<const IPBaseAddress> endAddress() const override;
    std::string binaryZeroPad() const override;
    std::string reversedForm() const override;
    std::vector<uint8_t> data() const override;
    /// The groups as two-digit hexadecimal numbers joined with ":", e.g. "0a:01:02:03".
    std::string hex() const;
    /// The address as the last two groups of an IPv6 address, e.g. "a01:203".
    std::string v6Group() const;

private:
    std::vector<std::string> parse(const icu::UnicodeString& address);
    std::vector<int32_t> groupValues() const;

    bool valid_ = false;
    std::string address_;
    std::string subnet_ = "/32";
    uint8_t subnetMask_ = 32;
    std::optional<std::string> parsedSubnet_;
    std::optional<std::string> error_;
    std::optional<std::string> addressMinusSufix_;
    std::vector<std::string> parsedAddress_;
};

}  // namespace morvane::ip
