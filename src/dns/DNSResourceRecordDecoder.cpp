#include "dns/DNSResourceRecordDecoder.h"

#include "dns/DNSWireReader.h"

namespace morvane::dns {

void DNSResourceRecordDecoder::decodeResourceInBuffer(const std::uint8_t* buffer,
                                                      std::uint32_t& offset, std::uint32_t length) {
    resource_.reset();
    auto resource = std::make_unique<DNSResourceRecord>();
    if (decodeResourceInto(*resource, buffer, offset, length)) {
        resource_ = std::move(resource);
    }
}

bool DNSResourceRecordDecoder::decodeResourceInto(DNSResourceRecord& resource,
                                                  const std::uint8_t* buffer, std::uint32_t& offset,
                                                  std::uint32_t length) {
    if (buffer == nullptr || offset >= length) {
        return false;
    }
    std::uint32_t nameEnd = offset;
    if (!labelDecoder_.decodeLabelInto(resource.name, buffer, nameEnd, length)) {
        return false;
    }
    DNSWireReader reader(buffer, length, nameEnd);
    resource.type = reader.readUInt16();
    resource.resourceClass = reader.readUInt16();
    resource.ttl = reader.readUInt32();
    const std::uint16_t dataLength = reader.readUInt16();
    const auto data = reader.readBytes(dataLength);
    if (reader.failed()) {
        return false;
    }
    resource.data.assign(data.begin(), data.end());
    offset = reader.offset();
    return true;
}

}  // namespace morvane::dns
