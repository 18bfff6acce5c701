#include "dns/DNSQuestionDecoder.h"

#include "dns/DNSWireReader.h"

namespace morvane::dns {

void DNSQuestionDecoder::decodeQuestionInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                                std::uint32_t length) {
    question_.reset();
    std::uint32_t nameEnd = offset;
    labelDecoder_.decodeLabelInBuffer(buffer, nameEnd, length);
    if (!labelDecoder_.name()) {
        return;
    }
    DNSWireReader reader(buffer, length, nameEnd);
    const std::uint16_t type = reader.readUInt16();
    const std::uint16_t questionClass = reader.readUInt16();
    if (reader.failed()) {
        return;
    }
    question_ = DNSQuestion{type, questionClass, *labelDecoder_.takeName()};
    offset = reader.offset();
}

}  // namespace morvane::dns
