#include "dns/DNSHeaderDecoder.h"

#include "dns/DNSWireFormat.h"
#include "dns/DNSWireReader.h"

namespace morvane::dns {

void DNSHeaderDecoder::decodeHeaderInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                            std::uint32_t length) {
    header_.reset();
    DNSHeader header;
    if (decodeHeaderInto(header, buffer, offset, length)) {
        header_ = header;
    }
}

bool DNSHeaderDecoder::decodeHeaderInto(DNSHeader& header, const std::uint8_t* buffer,
                                        std::uint32_t& offset, std::uint32_t length) {
    DNSWireReader reader(buffer, length, offset);
    if (reader.remaining() < wire::headerSize) {
        return false;
    }
    header.id = reader.readUInt16();
    const std::uint16_t flags = reader.readUInt16();
    header.questionCount = reader.readUInt16();
    header.answerRecordCount = reader.readUInt16();
    header.authorityRecordCount = reader.readUInt16();
    header.additionalRecordCount = reader.readUInt16();
    header.isQuery = (flags & wire::responseFlag) == 0;
    header.opCode = (flags >> wire::opCodeShift) & wire::opCodeMask;
    header.authoritativeAnswer = (flags & wire::authoritativeAnswerFlag) != 0;
    header.truncated = (flags & wire::truncatedFlag) != 0;
    header.recursionDesired = (flags & wire::recursionDesiredFlag) != 0;
    header.recursionAvailable = (flags & wire::recursionAvailableFlag) != 0;
    header.authenticatedData = (flags & wire::authenticatedDataFlag) != 0;
    header.checkingDisabled = (flags & wire::checkingDisabledFlag) != 0;
    header.responseCode = static_cast<std::uint8_t>(flags & wire::responseCodeMask);
    offset = reader.offset();
    return true;
}

}  // namespace morvane::dns
