#include "dns/DNSHeaderEncoder.h"

#include "dns/DNSWireFormat.h"
#include "dns/DNSWireWriter.h"

namespace morvane::dns {

std::vector<std::uint8_t> DNSHeaderEncoder::encode(const DNSHeader& header) {
    DNSWireWriter writer;
    encode(header, writer);
    return writer.takeBytes();
}

void DNSHeaderEncoder::encode(const DNSHeader& header, DNSWireWriter& writer) {
    std::uint16_t flags = 0;
    if (!header.isQuery) {
        flags |= wire::responseFlag;
    }
    flags |= (header.opCode & wire::opCodeMask) << wire::opCodeShift;
    if (header.authoritativeAnswer) {
        flags |= wire::authoritativeAnswerFlag;
    }
    if (header.truncated) {
        flags |= wire::truncatedFlag;
    }
    if (header.recursionDesired) {
        flags |= wire::recursionDesiredFlag;
    }
    if (header.recursionAvailable) {
        flags |= wire::recursionAvailableFlag;
    }
    if (header.authenticatedData) {
        flags |= wire::authenticatedDataFlag;
    }
    if (header.checkingDisabled) {
        flags |= wire::checkingDisabledFlag;
    }
    flags |= header.responseCode & wire::responseCodeMask;

    writer.writeUInt16(header.id);
    writer.writeUInt16(flags);
    writer.writeUInt16(header.questionCount);
    writer.writeUInt16(header.answerRecordCount);
    writer.writeUInt16(header.authorityRecordCount);
    writer.writeUInt16(header.additionalRecordCount);
}

}  // namespace morvane::dns
