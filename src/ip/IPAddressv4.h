#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvane::ip {

/// One IPv4 address of the small network library, with its classification worked out at
/// construction. A constructed object has every field.
class IPAddressv4 {
public:
    /// Four "."-separated signed decimal groups of 0 to 255 (empty pieces are skipped, so
    /// "+1.2.3.4" and "1..2.3.4" pass); anything else raises IPAddressParsingError of kind
    /// invalidValue.
    explicit IPAddressv4(std::string_view text);
    /// Cannot fail; the text is the four bytes in decimal.
    explicit IPAddressv4(uint32_t integer);

    /// The text as given to the text constructor, not normalised.
    const std::string& address() const { return address_; }
    /// First octet in the top byte.
    uint32_t integer() const { return integer_; }
    int version() const { return 4; }
    /// The pieces of the text in reverse, then ".in-addr.arpa" with no final dot.
    const std::string& reversePointer() const { return reversePointer_; }
    bool isMulticast() const { return isMulticast_; }
    bool isPrivate() const { return isPrivate_; }
    bool isReserved() const { return isReserved_; }
    bool isLoopback() const { return isLoopback_; }
    bool isLinkLocal() const { return isLinkLocal_; }

private:
    void classify();

    std::string address_;
    uint32_t integer_ = 0;
    std::string reversePointer_;
    bool isMulticast_ = false;
    bool isPrivate_ = false;
    bool isReserved_ = false;
    bool isLoopback_ = false;
    bool isLinkLocal_ = false;
};

}  // namespace morvane::ip
