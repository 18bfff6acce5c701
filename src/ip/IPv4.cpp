#include "ip/IPv4.h"

#include <algorithm>

#include "ip/AddressPatterns.h"
#include "ip/TextHelpers.h"

namespace morvane::ip {

namespace patterns {

const Regex& ipv4Address() {
    static const Regex pattern(R"(^(?:(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3})"
                               R"((?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$)");
    return pattern;
}

}  // namespace patterns

namespace {

const Regex& suffixPattern() {
    static const Regex pattern(R"(/\d{1,2}$)");
    return pattern;
}

}  // namespace

IPv4::IPv4(std::string_view address) : address_(address) {
    icu::UnicodeString text = text::fromUtf8(address);
    if (const auto match = suffixPattern().find(text)) {
        const icu::UnicodeString digits(text, match->start + 1, match->end - match->start - 1);
        const int value = text::digitsValue(digits);
        parsedSubnet_ = text::toUtf8(digits);
        subnetMask_ = static_cast<uint8_t>(value);
        subnet_ = "/" + std::to_string(value);
        if (value > 32) {
            error_ = "Invalid subnet mask";
            return;
        }
        text.truncate(match->start);
    }
    addressMinusSufix_ = text::toUtf8(text);
    parsedAddress_ = parse(text);
}

std::vector<std::string> IPv4::parse(const icu::UnicodeString& address) {
    if (patterns::ipv4Address().find(address)) {
        valid_ = true;
    } else {
        error_ = "Invalid IPv4 Address";
    }
    return text::split(text::toUtf8(address), '.');
}

IPv4 IPv4::ipv4FromHex(std::string_view hex) {
    std::string digits;
    for (char c : hex) {
        if (c != ':') {
            digits.push_back(c);
        }
    }
    digits = stringByPaddingLeftToLength(digits, 8, "0");
    std::vector<std::string> groups;
    for (size_t i = 0; i < 8; i += 2) {
        groups.push_back(std::to_string(text::leadingHex(std::string_view(digits).substr(i, 2))));
    }
    return IPv4(text::join(groups, "."));
}

IPv4 IPv4::ipv4FromInteger(uint32_t value) {
    return ipv4FromHex(text::hex(value, 2));
}

IPv4 IPv4::fromBigInteger(const BigInt& value) {
    return ipv4FromInteger(static_cast<uint32_t>(value.intValue()));
}

std::vector<int32_t> IPv4::groupValues() const {
    std::vector<int32_t> values;
    values.reserve(parsedAddress_.size());
    for (const std::string& group : parsedAddress_) {
        values.push_back(text::leadingDecimal(group));
    }
    return values;
}

bool IPv4::correct() const {
    return correctWith(addressMinusSufix_, 32);
}

std::optional<std::string> IPv4::correctForm() const {
    std::vector<std::string> groups;
    for (int32_t value : groupValues()) {
        groups.push_back(std::to_string(value));
    }
    return text::join(groups, ".");
}

BigInt IPv4::bigInteger() const {
    if (!valid_) {
        return BigInt();
    }
    uint64_t value = 0;
    for (int32_t group : groupValues()) {
        value = (value << 8) | static_cast<uint8_t>(group);
    }
    return BigInt::createWithULong(value);
}

std::string IPv4::binaryZeroPad() const {
    return stringByPaddingLeftToLength(bigInteger().toStringWithRadix(2), 32, "0");
}

std::shared_ptr<const IPBaseAddress> IPv4::startAddress() const {
    return std::make_shared<IPv4>(
        fromBigInteger(BigInt::createWithString(maskFilledWith('0', 32), 2)));
}

std::shared_ptr<const IPBaseAddress> IPv4::endAddress() const {
    return std::make_shared<IPv4>(
        fromBigInteger(BigInt::createWithString(maskFilledWith('1', 32), 2)));
}

std::string IPv4::hex() const {
    std::vector<std::string> groups;
    for (int32_t value : groupValues()) {
        groups.push_back(text::hex(static_cast<uint32_t>(value), 2));
    }
    return text::join(groups, ":");
}

std::string IPv4::v6Group() const {
    const std::vector<int32_t> values = groupValues();
    std::vector<std::string> pieces;
    for (size_t i = 0; i + 1 < values.size(); i += 2) {
        const std::string pair = text::hex(static_cast<uint32_t>(values[i]), 2) +
                                 text::hex(static_cast<uint32_t>(values[i + 1]), 2);
        pieces.push_back(text::hex(static_cast<uint16_t>(text::leadingHex(pair))));
    }
    return text::join(pieces, ":");
}

std::string IPv4::reversedForm() const {
    std::vector<std::string> groups(parsedAddress_.rbegin(), parsedAddress_.rend());
    return text::join(groups, ".") + ".in-addr.arpa.";
}

std::vector<uint8_t> IPv4::data() const {
    std::vector<uint8_t> bytes;
    for (int32_t value : groupValues()) {
        bytes.push_back(static_cast<uint8_t>(value));
    }
    return bytes;
}

}  // namespace morvane::ip
