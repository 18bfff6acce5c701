#include "dns/DNSResourceRecordDecoder.h"

#include "dns/DNSWireReader.h"

namespace morvane::dns {

void DNSResourceRecordDecoder::decodeResourceInBuffer(const std::uint8_t* buffer,
                                                      std::uint32_t& offset, std::uint32_t length) {
    resource_.reset();
    if (buffer == nullptr || offset >= length) {
        return;
    }
    std::uint32_t nameEnd = offset;
    labelDecoder_.decodeLabelInBuffer(buffer, nameEnd, length);
    if (!labelDecoder_.name()) {
        return;
    }
    DNSWireReader reader(buffer, length, nameEnd);
    const std::uint16_t type = reader.readUInt16();
    const std::uint16_t resourceClass = reader.readUInt16();
    const std::uint32_t ttl = reader.readUInt32();
    const std::uint16_t dataLength = reader.readUInt16();
    const auto data = reader.readBytes(dataLength);
    if (reader.failed()) {
        return;
    }
    resource_ =
        std::make_unique<DNSResourceRecord>(type, resourceClass, ttl, *labelDecoder_.takeName(),
                                            std::vector<std::uint8_t>(data.begin(), data.end()));
    offset = reader.offset();
}

}  // namespace morvane::dns
