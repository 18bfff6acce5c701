#include "dns/DNSQuestionEncoder.h"

#include "dns/DNSLabelEncoder.h"
#include "dns/DNSWireWriter.h"

namespace morvane::dns {

std::vector<std::uint8_t> DNSQuestionEncoder::encode(const DNSQuestion& question) {
    DNSWireWriter writer;
    encode(question, writer);
    return writer.takeBytes();
}

void DNSQuestionEncoder::encode(const DNSQuestion& question, DNSWireWriter& writer) {
    DNSLabelEncoder::encode(question.name, writer);
    writer.writeUInt16(question.type);
    writer.writeUInt16(question.questionClass);
}

}  // namespace morvane::dns
