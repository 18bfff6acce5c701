#include "dns/DNSQuestionDecoder.h"

#include "dns/DNSWireReader.h"

namespace morvane::dns {

void DNSQuestionDecoder::decodeQuestionInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                                std::uint32_t length) {
    question_.reset();
    DNSQuestion question;
    if (decodeQuestionInto(question, buffer, offset, length)) {
        question_ = std::move(question);
    }
}

bool DNSQuestionDecoder::decodeQuestionInto(DNSQuestion& question, const std::uint8_t* buffer,
                                            std::uint32_t& offset, std::uint32_t length) {
    std::uint32_t nameEnd = offset;
    if (!labelDecoder_.decodeLabelInto(question.name, buffer, nameEnd, length)) {
        return false;
    }
    DNSWireReader reader(buffer, length, nameEnd);
    question.type = reader.readUInt16();
    question.questionClass = reader.readUInt16();
    if (reader.failed()) {
        return false;
    }
    offset = reader.offset();
    return true;
}

}  // namespace morvane::dns
