#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ip/IPBaseAddress.h"

namespace morvane::ip {

/// An IPv6 address with "::" elision, an optional dotted IPv4 tail, an optional "/" suffix
/// of up to three digits and an optional "%" zone.
class IPv6 final : public IPBaseAddress {
public:
    /// Parses `address` as an address of `groups` groups of 16 bits; an invalid text gives an
    /// object with `valid` false and an `error`.
    explicit IPv6(std::string_view address, int groups = 8);

    static IPv6 fromBigInteger(const BigInt& value);
    /// The groups before `slice` (first and last index), the word "compact", then the groups
    /// behind it.
    static std::vector<std::string> compact(const std::vector<std::string>& groups,
                                            std::pair<int, int> slice);

    bool valid() const override { return valid_; }
    bool correct() const override;
    /// The text without suffix and zone is `canonicalForm`.
    bool canonical() const;
    const std::optional<std::string>& error() const override { return error_; }
    const std::string& address() const override { return address_; }
    int groups() const override { return groups_; }
    /// The text ended in a dotted IPv4 address.
    bool v4() const override { return v4_; }
    const std::string& subnet() const override { return subnet_; }
    uint8_t subnetMask() const override { return subnetMask_; }
    const std::optional<std::string>& parsedSubnet() const override { return parsedSubnet_; }
    /// "%" and what follows it; empty without a zone.
    const std::string& zone() const { return zone_; }
    const std::optional<std::string>& addressMinusSuffix() const { return addressMinusSuffix_; }
    /// One lower-case group each, without leading zeros, elided groups filled in; empty when
    /// parsing failed.
    const std::vector<std::string>& parsedAddress() const override;
    uint8_t elidedGroups() const { return elidedGroups_; }
    uint8_t elisionBegin() const { return elisionBegin_; }
    uint8_t elisionEnd() const { return elisionEnd_; }

    std::optional<std::string> correctForm() const override;
    BigInt bigInteger() const override;
    std::shared_ptr<const IPBaseAddress> startAddress() const override;
    std::shared_ptr<const IPBaseAddress> endAddress() const override;
    std::string binaryZeroPad() const override;
    std::string reversedForm() const override;
    /// Sixteen bytes, most significant first.
    std::vector<uint8_t> data() const override;

    /// Every group as four hexadecimal digits.
    std::string canonicalForm() const;
    /// Every group as five decimal digits; absent when not valid.
    std::optional<std::string> decimal() const;
    /// The bits from `start` up to but not including `end`, as a number.
    BigInt bitsWithStart(int start, int end) const;
    /// The same bits in hexadecimal, one digit per four bits; absent unless the count of
    /// bits is a multiple of four.
    std::optional<std::string> bitsBase16WithStart(int start, int end) const;
    /// The first six groups in their correct form, then the last 32 bits in dotted form.
    std::optional<std::string> v4inv6() const;

private:
    icu::UnicodeString parsev4inv6(const icu::UnicodeString& address);
    std::optional<std::vector<std::string>> parse(const icu::UnicodeString& address);
    std::vector<uint16_t> groupValues() const;

    std::string subnet_ = "/128";
    uint8_t subnetMask_ = 128;
    std::string zone_;
    std::string address_;
    std::optional<std::string> parsedSubnet_;
    bool valid_ = false;
    bool v4_ = false;
    std::optional<std::string> error_;
    std::optional<std::string> addressMinusSuffix_;
    std::optional<std::vector<std::string>> parsedAddress_;
    uint8_t groups_ = 8;
    uint8_t elidedGroups_ = 0;
    uint8_t elisionBegin_ = 0;
    uint8_t elisionEnd_ = 0;
};

}  // namespace morvane::ip
