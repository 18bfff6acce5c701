#include "dns/DNSOPTResourceRecord.h"

#include "dns/DNSWireFormat.h"

namespace morvane::dns {

// The owner of an OPT record is always the root.
DNSOPTResourceRecord::DNSOPTResourceRecord() : DNSResourceRecord(wire::optType, 0, 0, ".", {}) {}

DNSOPTResourceRecord DNSOPTResourceRecord::fromResource(const DNSResourceRecord& resource) {
    DNSOPTResourceRecord record;
    record.copyFromResource(resource);
    return record;
}

void DNSOPTResourceRecord::decodeFromResource(const DNSResourceRecord& resource) {
    udpPayloadSize = resource.resourceClass;
    extendedRCode = static_cast<std::uint8_t>(resource.ttl >> wire::extendedRCodeShift);
    version = static_cast<std::uint8_t>(resource.ttl >> wire::versionShift);
    dnssecOK = (resource.ttl & wire::dnssecOKFlag) != 0;
    // The options travel in the data; without them a decoded and re-encoded OPT record would
    // silently drop cookies, client subnets and the like.
    data = resource.data;
}

std::uint32_t DNSOPTResourceRecord::ttlWord() const {
    return std::uint32_t{extendedRCode} << wire::extendedRCodeShift |
           std::uint32_t{version} << wire::versionShift | (dnssecOK ? wire::dnssecOKFlag : 0);
}

void DNSOPTResourceRecord::storeWireFields() {
    resourceClass = udpPayloadSize;
    ttl = ttlWord();
}

void DNSOPTResourceRecord::encode(DNSWireWriter& writer) const {
    encodeRecord(writer, udpPayloadSize, ttlWord());
}

std::unique_ptr<DNSResourceRecord> DNSOPTResourceRecord::clone() const {
    return std::make_unique<DNSOPTResourceRecord>(*this);
}

}  // namespace morvane::dns
