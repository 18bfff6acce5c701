#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "dns/DNSMessage.h"
#include "dns/DNSQuestionDecoder.h"
#include "dns/DNSResourceRecordDecoder.h"

namespace morvane::dns {

/// Decodes a whole message. The message comes out only when the header and every question
/// and record its counts announce could be read; anything short of that leaves `message`
/// absent. The buffer is read in place, never copied as a whole.
class DNSMessageDecoder {
public:
    void decodeMessageInBuffer(const std::uint8_t* buffer, std::uint32_t length);

    const std::optional<DNSMessage>& message() const { return message_; }
    std::optional<DNSMessage> takeMessage() {
        auto taken = std::move(message_);
        message_.reset();
        return taken;
    }

private:
    bool decodeMessage(DNSMessage& message, const std::uint8_t* buffer, std::uint32_t length);
    bool decodeHeaderWithBuffer(DNSHeader& header, const std::uint8_t* buffer,
                                std::uint32_t& offset, std::uint32_t length);
    std::optional<std::vector<DNSQuestion>> decodeQuestionsWithCount(std::uint16_t count,
                                                                     const std::uint8_t* buffer,
                                                                     std::uint32_t& offset,
                                                                     std::uint32_t length);
    std::optional<DNSResourceRecordList> decodeResourceRecordWithCount(std::uint16_t count,
                                                                       const std::uint8_t* buffer,
                                                                       std::uint32_t& offset,
                                                                       std::uint32_t length);

    // Kept across items so that one message's names share their label storage.
    DNSQuestionDecoder questionDecoder_;
    DNSResourceRecordDecoder resourceDecoder_;
    std::optional<DNSMessage> message_;
};

}  // namespace morvane::dns
