#include "ip/IPAddressv4.h"

#include <vector>

#include "ip/DottedQuad.h"
#include "ip/IPAddressParsingError.h"

namespace morvane::ip {

namespace {

struct Range {
    uint32_t first;
    uint32_t last;
};

constexpr Range kPrivateRanges[] = {
    {0x0A000000u, 0x0AFFFFFFu},  // 10.0.0.0 - 10.255.255.255
    {0xAC100000u, 0xAC1FFFFFu},  // 172.16.0.0 - 172.31.255.255
    {0xC0A80000u, 0xC0A8FFFFu},  // 192.168.0.0 - 192.168.255.255
};

std::string dottedText(uint32_t value) {
    return std::to_string(value >> 24) + "." + std::to_string((value >> 16) & 0xFF) + "." +
           std::to_string((value >> 8) & 0xFF) + "." + std::to_string(value & 0xFF);
}

}  // namespace

IPAddressv4::IPAddressv4(std::string_view text) {
    const std::optional<uint32_t> value = dotted::readAddress(text);
    if (!value) {
        throw IPAddressParsingError(IPAddressParsingError::ErrorKind::invalidValue);
    }
    address_ = std::string(text);
    integer_ = *value;
    classify();
}

IPAddressv4::IPAddressv4(uint32_t integer) : address_(dottedText(integer)), integer_(integer) {
    classify();
}

void IPAddressv4::classify() {
    isMulticast_ = (integer_ >> 28) == 14;
    isReserved_ = (integer_ >> 28) > 14;
    isLoopback_ = integer_ >= 0x7F000000u && integer_ <= 0x7FFFFFFFu;
    isLinkLocal_ = (integer_ >> 16) == 0xA9FEu;
    isPrivate_ = false;
    for (const Range& range : kPrivateRanges) {
        if (integer_ >= range.first && integer_ <= range.last) {
            isPrivate_ = true;
            break;
        }
    }
    const std::vector<std::string_view> pieces = dotted::split(address_, '.');
    reversePointer_.clear();
    for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) {
        reversePointer_.append(*it);
        reversePointer_.push_back('.');
    }
    reversePointer_.append("in-addr.arpa");
}

}  // namespace morvane::ip
