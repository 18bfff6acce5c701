// Decode, encode, decode again: wherever the first decode succeeds, the second must give the
// same message. Names whose text has an empty piece between dots are left out: they come from
// labels holding dots, which the text form cannot tell apart from label boundaries, and an
// empty piece is written as a zero byte that ends the name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "dns/DNSMessageDecoder.h"
#include "dns/DNSMessageEncoder.h"

namespace {

using namespace morvane::dns;

bool hasEmptyPiece(std::string_view name) {
    return name != "." &&
           (name.front() == '.' || name.back() == '.' || name.find("..") != name.npos);
}

bool namesSurviveText(const DNSMessage& message) {
    if (message.questions) {
        for (const DNSQuestion& question : *message.questions) {
            if (hasEmptyPiece(question.name)) {
                return false;
            }
        }
    }
    for (const auto* records :
         {&message.answers, &message.authorityRecords, &message.additionalRecords}) {
        if (*records) {
            for (const auto& record : **records) {
                if (hasEmptyPiece(record->name)) {
                    return false;
                }
            }
        }
    }
    return true;
}

bool sameRecords(const std::optional<DNSResourceRecordList>& first,
                 const std::optional<DNSResourceRecordList>& second) {
    if (first.has_value() != second.has_value()) {
        return false;
    }
    if (!first) {
        return true;
    }
    if (first->size() != second->size()) {
        return false;
    }
    for (std::size_t index = 0; index < first->size(); ++index) {
        const DNSResourceRecord& a = *(*first)[index];
        const DNSResourceRecord& b = *(*second)[index];
        if (a.type != b.type || a.resourceClass != b.resourceClass || a.ttl != b.ttl ||
            a.name != b.name || a.data != b.data) {
            return false;
        }
    }
    return true;
}

bool sameMessage(const DNSMessage& first, const DNSMessage& second) {
    return first.header == second.header && first.questions == second.questions &&
           sameRecords(first.answers, second.answers) &&
           sameRecords(first.authorityRecords, second.authorityRecords) &&
           sameRecords(first.additionalRecords, second.additionalRecords);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > std::numeric_limits<std::uint16_t>::max()) {
        return -1;
    }
    DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(data, static_cast<std::uint32_t>(size));
    const auto first = decoder.takeMessage();
    if (!first || !namesSurviveText(*first)) {
        return 0;
    }
    const auto wire = DNSMessageEncoder::encode(*first);
    decoder.decodeMessageInBuffer(wire.data(), static_cast<std::uint32_t>(wire.size()));
    const auto& second = decoder.message();
    if (!second || !sameMessage(*first, *second)) {
        std::abort();
    }
    return 0;
}
