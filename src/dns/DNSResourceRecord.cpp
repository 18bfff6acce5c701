#include "dns/DNSResourceRecord.h"

#include <utility>

#include "dns/DNSLabelEncoder.h"
#include "dns/DNSWireWriter.h"

namespace morvane::dns {

DNSResourceRecord::DNSResourceRecord(std::uint16_t recordType, std::uint16_t recordClass,
                                     std::uint32_t recordTTL, std::string recordName,
                                     std::vector<std::uint8_t> recordData)
    : type(recordType),
      resourceClass(recordClass),
      ttl(recordTTL),
      name(std::move(recordName)),
      data(std::move(recordData)) {}

DNSResourceRecord DNSResourceRecord::fromResource(const DNSResourceRecord& resource) {
    DNSResourceRecord record;
    record.copyFromResource(resource);
    return record;
}

void DNSResourceRecord::copyFromResource(const DNSResourceRecord& resource) {
    name = resource.name;
    type = resource.type;
    resourceClass = resource.resourceClass;
    ttl = resource.ttl;
    decodeFromResource(resource);
}

void DNSResourceRecord::decodeFromResource(const DNSResourceRecord&) {}

std::vector<std::uint8_t> DNSResourceRecord::encode() {
    storeWireFields();
    return std::as_const(*this).encode();
}

void DNSResourceRecord::encode(DNSWireWriter& writer) {
    storeWireFields();
    std::as_const(*this).encode(writer);
}

std::vector<std::uint8_t> DNSResourceRecord::encode() const {
    DNSWireWriter writer;
    encode(writer);
    return writer.takeBytes();
}

void DNSResourceRecord::encode(DNSWireWriter& writer) const {
    encodeRecord(writer, resourceClass, ttl);
}

void DNSResourceRecord::encodeData(DNSWireWriter& writer) const {
    writer.writeBytes(data);
}

std::unique_ptr<DNSResourceRecord> DNSResourceRecord::clone() const {
    return std::make_unique<DNSResourceRecord>(*this);
}

void DNSResourceRecord::encodeRecord(DNSWireWriter& writer, std::uint16_t wireClass,
                                     std::uint32_t wireTTL) const {
    DNSLabelEncoder::encode(name, writer);
    writer.writeUInt16(type);
    writer.writeUInt16(wireClass);
    writer.writeUInt32(wireTTL);
    const std::size_t lengthPosition = writer.size();
    writer.writeUInt16(0);
    encodeData(writer);
    const std::size_t dataLength = writer.size() - lengthPosition - 2;
    writer.overwriteUInt16(lengthPosition, static_cast<std::uint16_t>(dataLength));
}

}  // namespace morvane::dns
