#include "dns/DNSAResourceRecord.h"

#include "dns/DNSWireFormat.h"
#include "dns/DNSWireWriter.h"

namespace morvane::dns {

DNSAResourceRecord::DNSAResourceRecord() : DNSResourceRecord(wire::aType, 0, 0, {}, {}) {}

DNSAResourceRecord DNSAResourceRecord::fromResource(const DNSResourceRecord& resource) {
    DNSAResourceRecord record;
    record.copyFromResource(resource);
    return record;
}

void DNSAResourceRecord::decodeFromResource(const DNSResourceRecord& resource) {
    ip = morvane::ip::IPAddress::addressWithData(resource.data);
}

void DNSAResourceRecord::encodeData(DNSWireWriter& writer) const {
    if (ip) {
        writer.writeBytes(ip->data());
    }
}

std::unique_ptr<DNSResourceRecord> DNSAResourceRecord::clone() const {
    return std::make_unique<DNSAResourceRecord>(*this);
}

}  // namespace morvane::dns
