#pragma once

#include <cstdint>
#include <memory>

#include "dns/DNSResourceRecord.h"

namespace morvane::dns {

/// The EDNS pseudo-record (RFC 6891): the class carries the UDP payload size and the TTL
/// word carries the extended RCODE (top 8 bits), the version (next 8) and the DO bit (bit
/// 15). Its data, the EDNS options, is kept as it came and written back unchanged.
class DNSOPTResourceRecord : public DNSResourceRecord {
public:
    DNSOPTResourceRecord();

    static DNSOPTResourceRecord fromResource(const DNSResourceRecord& resource);

    void decodeFromResource(const DNSResourceRecord& resource) override;
    using DNSResourceRecord::encode;
    /// Writes class and TTL from the EDNS fields, so those fields win over `resourceClass`
    /// and `ttl`; the other bits of the TTL word go out as zero. The non-const encode stores
    /// them into `resourceClass` and `ttl` as well.
    void encode(DNSWireWriter& writer) const override;
    std::unique_ptr<DNSResourceRecord> clone() const override;

    std::uint8_t extendedRCode = 0;
    std::uint8_t version = 0;
    bool dnssecOK = false;
    std::uint16_t udpPayloadSize = 0;

protected:
    void storeWireFields() override;

private:
    std::uint32_t ttlWord() const;
};

}  // namespace morvane::dns
