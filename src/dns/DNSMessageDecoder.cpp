#include "dns/DNSMessageDecoder.h"

#include <algorithm>

#include "dns/DNSHeaderDecoder.h"
#include "dns/DNSWireFormat.h"

namespace morvane::dns {
namespace {

// A count is what the sender claims; room for the items is reserved only as far as the
// bytes left could hold them, so that a count of 65535 in a short buffer costs nothing.
std::size_t plausibleCount(std::uint16_t count, std::uint32_t offset, std::uint32_t length,
                           std::uint32_t smallestItem) {
    const std::uint32_t remaining = offset < length ? length - offset : 0;
    return std::min<std::size_t>(count, remaining / smallestItem);
}

}  // namespace

void DNSMessageDecoder::decodeMessageInBuffer(const std::uint8_t* buffer, std::uint32_t length) {
    message_.reset();
    std::uint32_t offset = 0;
    std::optional<DNSHeader> header = decodeHeaderWithBuffer(buffer, offset, length);
    if (!header) {
        return;
    }
    DNSMessage message;
    message.header = *header;
    if (header->questionCount > 0) {
        message.questions = decodeQuestionsWithCount(header->questionCount, buffer, offset, length);
        if (!message.questions) {
            return;
        }
    }
    const std::pair<std::uint16_t, std::optional<DNSResourceRecordList>*> sections[] = {
        {header->answerRecordCount, &message.answers},
        {header->authorityRecordCount, &message.authorityRecords},
        {header->additionalRecordCount, &message.additionalRecords},
    };
    for (const auto& [count, records] : sections) {
        if (count > 0) {
            *records = decodeResourceRecordWithCount(count, buffer, offset, length);
            if (!*records) {
                return;
            }
        }
    }
    message_ = std::move(message);
}

std::optional<DNSHeader> DNSMessageDecoder::decodeHeaderWithBuffer(const std::uint8_t* buffer,
                                                                   std::uint32_t& offset,
                                                                   std::uint32_t length) {
    DNSHeaderDecoder decoder;
    decoder.decodeHeaderInBuffer(buffer, offset, length);
    return decoder.header();
}

// One failed item means the list comes up short of its count and the message is lost, so
// the first failure ends the section at once.
std::optional<std::vector<DNSQuestion>> DNSMessageDecoder::decodeQuestionsWithCount(
    std::uint16_t count, const std::uint8_t* buffer, std::uint32_t& offset, std::uint32_t length) {
    std::vector<DNSQuestion> questions;
    questions.reserve(
        plausibleCount(count, offset, length, wire::minimumNameSize + wire::questionFixedSize));
    for (std::uint16_t index = 0; index < count; ++index) {
        questionDecoder_.decodeQuestionInBuffer(buffer, offset, length);
        if (!questionDecoder_.question()) {
            return std::nullopt;
        }
        questions.push_back(*questionDecoder_.takeQuestion());
    }
    return questions;
}

std::optional<DNSResourceRecordList> DNSMessageDecoder::decodeResourceRecordWithCount(
    std::uint16_t count, const std::uint8_t* buffer, std::uint32_t& offset, std::uint32_t length) {
    DNSResourceRecordList records;
    records.reserve(
        plausibleCount(count, offset, length, wire::minimumNameSize + wire::recordFixedSize));
    for (std::uint16_t index = 0; index < count; ++index) {
        resourceDecoder_.decodeResourceInBuffer(buffer, offset, length);
        if (!resourceDecoder_.resource()) {
            return std::nullopt;
        }
        records.push_back(resourceDecoder_.takeResource());
    }
    return records;
}

}  // namespace morvane::dns
