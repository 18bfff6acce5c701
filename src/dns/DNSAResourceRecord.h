#pragma once

#include <memory>
#include <optional>

#include "dns/DNSResourceRecord.h"
#include "ip/IPAddress.h"

namespace morvane::dns {

/// The data of an address record read as an IP address: four bytes give IPv4 and sixteen
/// IPv6. Copies share the address object, which never changes, so they are as good as deep.
class DNSAResourceRecord : public DNSResourceRecord {
public:
    DNSAResourceRecord();

    /// Raises morvane::ip::NamedException "ipInvalidLength" when the source's data is neither 4 nor
    /// 16 bytes long: a caller holding a record from the network checks the length first or
    /// catches the exception.
    static DNSAResourceRecord fromResource(const DNSResourceRecord& resource);

    void decodeFromResource(const DNSResourceRecord& resource) override;
    /// Writes the bytes of `ip`; nothing while it is absent.
    void encodeData(DNSWireWriter& writer) const override;
    std::unique_ptr<DNSResourceRecord> clone() const override;

    /// Absent until decoded or set: an address object always holds some address.
    std::optional<morvane::ip::IPAddress> ip;
};

}  // namespace morvane::dns
