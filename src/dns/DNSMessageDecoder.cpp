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
    // Built in place, so that a decoded message is never moved or copied on its way out.
    if (!decodeMessage(message_.emplace(), buffer, length)) {
        message_.reset();
    }
}

bool DNSMessageDecoder::decodeMessage(DNSMessage& message, const std::uint8_t* buffer,
                                      std::uint32_t length) {
    std::uint32_t offset = 0;
    if (!decodeHeaderWithBuffer(message.header, buffer, offset, length)) {
        return false;
    }
    const DNSHeader& header = message.header;
    if (header.questionCount > 0) {
        message.questions = decodeQuestionsWithCount(header.questionCount, buffer, offset, length);
        if (!message.questions) {
            return false;
        }
    }
    const std::pair<std::uint16_t, std::optional<DNSResourceRecordList>*> sections[] = {
        {header.answerRecordCount, &message.answers},
        {header.authorityRecordCount, &message.authorityRecords},
        {header.additionalRecordCount, &message.additionalRecords},
    };
    for (const auto& [count, records] : sections) {
        if (count > 0) {
            *records = decodeResourceRecordWithCount(count, buffer, offset, length);
            if (!*records) {
                return false;
            }
        }
    }
    return true;
}

bool DNSMessageDecoder::decodeHeaderWithBuffer(DNSHeader& header, const std::uint8_t* buffer,
                                               std::uint32_t& offset, std::uint32_t length) {
    DNSHeaderDecoder decoder;
    return decoder.decodeHeaderInto(header, buffer, offset, length);
}

// One failed item means the list comes up short of its count and the message is lost, so
// the first failure ends the section at once.
std::optional<std::vector<DNSQuestion>> DNSMessageDecoder::decodeQuestionsWithCount(
    std::uint16_t count, const std::uint8_t* buffer, std::uint32_t& offset, std::uint32_t length) {
    std::vector<DNSQuestion> questions;
    questions.reserve(
        plausibleCount(count, offset, length, wire::minimumNameSize + wire::questionFixedSize));
    for (std::uint16_t index = 0; index < count; ++index) {
        if (!questionDecoder_.decodeQuestionInto(questions.emplace_back(), buffer, offset,
                                                 length)) {
            return std::nullopt;
        }
    }
    return questions;
}

std::optional<DNSResourceRecordList> DNSMessageDecoder::decodeResourceRecordWithCount(
    std::uint16_t count, const std::uint8_t* buffer, std::uint32_t& offset, std::uint32_t length) {
    DNSResourceRecordList records;
    records.reserve(
        plausibleCount(count, offset, length, wire::minimumNameSize + wire::recordFixedSize));
    for (std::uint16_t index = 0; index < count; ++index) {
        auto record = std::make_unique<DNSResourceRecord>();
        if (!resourceDecoder_.decodeResourceInto(*record, buffer, offset, length)) {
            return std::nullopt;
        }
        records.push_back(std::move(record));
    }
    return records;
}

}  // namespace morvane::dns
