#pragma once

#include <memory>
#include <optional>
#include <string>

#include "dns/DNSResourceRecord.h"

namespace morvane::dns {

/// The data of a CNAME record read as a name. The data is decoded as a buffer of its own,
/// from its first byte, so a compression pointer inside it is taken against the record
/// data, not against the message it came in.
class DNSCNAMEResourceRecord : public DNSResourceRecord {
public:
    DNSCNAMEResourceRecord();

    static DNSCNAMEResourceRecord fromResource(const DNSResourceRecord& resource);

    /// Empty data, or data that holds no readable name, leaves `canonicalName` absent.
    void decodeFromResource(const DNSResourceRecord& resource) override;
    /// Writes `canonicalName` through the label encoder; nothing when it is absent.
    void encodeData(DNSWireWriter& writer) const override;
    std::unique_ptr<DNSResourceRecord> clone() const override;

    std::optional<std::string> canonicalName;
};

}  // namespace morvane::dns
