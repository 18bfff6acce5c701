#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace morvane::dns {

class DNSWireWriter;

/// One record as the wire carries it. The decoder only ever makes these plain records; a
/// caller that wants a typed view asks the typed class for one with fromResource.
class DNSResourceRecord {
public:
    DNSResourceRecord() = default;
    DNSResourceRecord(std::uint16_t type, std::uint16_t resourceClass, std::uint32_t ttl,
                      std::string name, std::vector<std::uint8_t> data);
    virtual ~DNSResourceRecord() = default;
    DNSResourceRecord(const DNSResourceRecord&) = default;
    DNSResourceRecord& operator=(const DNSResourceRecord&) = default;
    DNSResourceRecord(DNSResourceRecord&&) noexcept = default;
    DNSResourceRecord& operator=(DNSResourceRecord&&) noexcept = default;

    static DNSResourceRecord fromResource(const DNSResourceRecord& resource);

    /// Takes name, type, class and TTL of the source, then lets the class read what it needs
    /// of the source's data. The data itself is not copied: a typed record writes its data
    /// from its own fields.
    void copyFromResource(const DNSResourceRecord& resource);
    virtual void decodeFromResource(const DNSResourceRecord& resource);

    /// Name, type, class, TTL, data length and data. A data length above 65535 has no wire
    /// form; only its low 16 bits are written, as for the counts of a message. A record whose
    /// class and TTL stand for fields of its own writes those fields into them first.
    std::vector<std::uint8_t> encode();
    void encode(DNSWireWriter& writer);
    /// What encode writes, leaving this record as it is, as if a copy were encoded: the
    /// message encoder writes the caller's records this way.
    std::vector<std::uint8_t> encode() const;
    virtual void encode(DNSWireWriter& writer) const;
    virtual void encodeData(DNSWireWriter& writer) const;

    /// A deep copy that keeps the record's class, for copying messages.
    virtual std::unique_ptr<DNSResourceRecord> clone() const;

    std::uint16_t type = 0;
    std::uint16_t resourceClass = 0;
    std::uint32_t ttl = 0;
    std::string name;
    std::vector<std::uint8_t> data;

protected:
    /// Brings `resourceClass` and `ttl` in line with the fields of a typed record before
    /// encode writes them; nothing to do for a plain record.
    virtual void storeWireFields() {}
    void encodeRecord(DNSWireWriter& writer, std::uint16_t wireClass, std::uint32_t wireTTL) const;
};

using DNSResourceRecordList = std::vector<std::unique_ptr<DNSResourceRecord>>;

}  // namespace morvane::dns
