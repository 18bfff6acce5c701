#include "dns/DNSCNAMEResourceRecord.h"

#include <limits>

#include "dns/DNSLabelDecoder.h"
#include "dns/DNSLabelEncoder.h"
#include "dns/DNSWireFormat.h"

namespace morvane::dns {

DNSCNAMEResourceRecord::DNSCNAMEResourceRecord()
    : DNSResourceRecord(wire::cnameType, 0, 0, {}, {}) {}

DNSCNAMEResourceRecord DNSCNAMEResourceRecord::fromResource(const DNSResourceRecord& resource) {
    DNSCNAMEResourceRecord record;
    record.copyFromResource(resource);
    return record;
}

void DNSCNAMEResourceRecord::decodeFromResource(const DNSResourceRecord& resource) {
    canonicalName.reset();
    // Data from the wire is at most 65535 bytes; longer hand-made data cannot hold a name the
    // decoder would accept anyway, so it is read no further than a 32-bit length reaches.
    if (resource.data.empty() || resource.data.size() > std::numeric_limits<std::uint32_t>::max()) {
        return;
    }
    DNSLabelDecoder decoder;
    std::uint32_t offset = 0;
    decoder.decodeLabelInBuffer(resource.data.data(), offset,
                                static_cast<std::uint32_t>(resource.data.size()));
    canonicalName = decoder.takeName();
}

void DNSCNAMEResourceRecord::encodeData(DNSWireWriter& writer) const {
    if (canonicalName) {
        DNSLabelEncoder::encode(*canonicalName, writer);
    }
}

std::unique_ptr<DNSResourceRecord> DNSCNAMEResourceRecord::clone() const {
    return std::make_unique<DNSCNAMEResourceRecord>(*this);
}

}  // namespace morvane::dns
