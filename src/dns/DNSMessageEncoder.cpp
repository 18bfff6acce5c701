#include "dns/DNSMessageEncoder.h"

#include <utility>

#include "dns/DNSHeaderEncoder.h"
#include "dns/DNSQuestionEncoder.h"
#include "dns/DNSWireWriter.h"

namespace morvane::dns {
namespace {

// Enough for a plain UDP answer, so that most messages are written into one allocation.
constexpr std::size_t typicalMessageSize = 512;

std::uint16_t countOf(const std::optional<DNSResourceRecordList>& records) {
    std::size_t count = 0;
    if (records) {
        for (const auto& record : *records) {
            count += record ? 1 : 0;
        }
    }
    return static_cast<std::uint16_t>(count);
}

void encodeRecords(const std::optional<DNSResourceRecordList>& records, DNSWireWriter& writer) {
    if (!records) {
        return;
    }
    for (const auto& record : *records) {
        // An empty slot holds no record; it is left out and not counted. The caller's
        // records are written as they are, as a copy of them would be, and not changed.
        if (record) {
            std::as_const(*record).encode(writer);
        }
    }
}

}  // namespace

std::vector<std::uint8_t> DNSMessageEncoder::encode(const DNSMessage& message) {
    std::vector<std::uint8_t> bytes;
    encode(message, bytes);
    return bytes;
}

void DNSMessageEncoder::encode(const DNSMessage& message, std::vector<std::uint8_t>& bytes) {
    DNSHeader header = message.header;
    header.questionCount =
        static_cast<std::uint16_t>(message.questions ? message.questions->size() : 0);
    header.answerRecordCount = countOf(message.answers);
    header.authorityRecordCount = countOf(message.authorityRecords);
    header.additionalRecordCount = countOf(message.additionalRecords);

    DNSWireWriter writer(std::move(bytes));
    writer.reserve(typicalMessageSize);
    DNSHeaderEncoder::encode(header, writer);
    if (message.questions) {
        for (const DNSQuestion& question : *message.questions) {
            DNSQuestionEncoder::encode(question, writer);
        }
    }
    encodeRecords(message.answers, writer);
    encodeRecords(message.authorityRecords, writer);
    encodeRecords(message.additionalRecords, writer);
    bytes = writer.takeBytes();
}

}  // namespace morvane::dns
