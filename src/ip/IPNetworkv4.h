#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ip/IPAddressv4.h"
#include "ip/IPAddressv4List.h"

namespace morvane::ip {

/// A set of IPv4 addresses read from text in one of three forms: a subnet in CIDR form
/// ("10.1.2.3/8", the address may have host bits set), a range of two addresses
/// ("1.2.3.4-1.2.3.9", ends reversed give an empty set) or a single address. Every field is
/// worked out at construction; a text that fits no form raises IPAddressParsingError of kind
/// invalidValue, and no partial object reaches the caller.
class IPNetworkv4 {
public:
    explicit IPNetworkv4(std::string_view text);

    int version() const { return 4; }
    int maxPrefixLen() const { return 32; }
    /// The number of `hosts`, network and broadcast address included.
    int64_t count() const { return hosts_.count(); }
    /// Every address of the set, ascending.
    const IPAddressv4List& hosts() const { return hosts_; }
    /// The addresses open to hosts: a subnet without its first and last address (none below
    /// three addresses), a range or a single address whole.
    const IPAddressv4List& usableHosts() const { return usableHosts_; }
    /// Absent for a range.
    std::optional<int> prefix() const { return prefix_; }
    const std::optional<IPAddressv4>& netMask() const { return netMask_; }
    /// The first address; for a range, the first end as written.
    const IPAddressv4& networkAddress() const { return *networkAddress_; }
    /// The last address; for a range, the second end as written.
    const IPAddressv4& broadcastAddress() const { return *broadcastAddress_; }
    const std::optional<std::string>& withPrefix() const { return withPrefix_; }
    const std::optional<std::string>& withNetMask() const { return withNetMask_; }
    bool isRange() const { return isRange_; }
    /// The address piece of the CIDR form; absent in the other forms.
    const std::optional<std::string>& address() const { return address_; }

private:
    void readSubnet(std::string_view text);
    void readRange(std::string_view text);
    void readSingle(std::string_view text);

    IPAddressv4List hosts_;
    IPAddressv4List usableHosts_;
    std::optional<int> prefix_;
    std::optional<IPAddressv4> netMask_;
    std::optional<IPAddressv4> networkAddress_;
    std::optional<IPAddressv4> broadcastAddress_;
    std::optional<std::string> withPrefix_;
    std::optional<std::string> withNetMask_;
    bool isRange_ = false;
    std::optional<std::string> address_;
};

}  // namespace morvane::ip
