#include "provider/AnswerReader.h"

#include <algorithm>

namespace morvane::provider {

namespace {

constexpr std::uint16_t kTypeSoa = 6;
constexpr std::uint16_t kTypeOpt = 41;
constexpr std::uint8_t kNxDomain = 3;

// A TTL with the top bit set is taken as zero (it was meant as a negative number).
std::uint32_t sanitizedTtl(std::uint32_t ttl) {
    return (ttl & 0x80000000u) != 0 ? 0 : ttl;
}

}  // namespace

AnswerVerdict readUpstreamAnswer(const std::uint8_t* data, std::size_t length, std::uint16_t id,
                                 const ClientQuery& question, UpstreamAnswer& answer) {
    answer.hasOpt = false;
    answer.optIsLast = false;
    answer.optOffset = 0;
    answer.ttlOffsets.clear();
    answer.cacheTtl = 0;
    answer.negative = false;
    if (data == nullptr || length < 12 || length > 0xFFFF) {
        return AnswerVerdict::foreign;
    }
    const std::uint16_t flags = readU16(data + 2);
    if (readU16(data) != id || (flags & 0x8000) == 0) {
        return AnswerVerdict::foreign;
    }
    answer.truncated = (flags & 0x0200) != 0;
    answer.responseCode = static_cast<std::uint8_t>(flags & 0xF);
    const std::uint16_t qdCount = readU16(data + 4);
    const std::uint16_t anCount = readU16(data + 6);
    const std::uint16_t nsCount = readU16(data + 8);
    const std::uint16_t arCount = readU16(data + 10);
    if (qdCount != 1) {
        // A truncated answer or an error may come without its question; those are only told
        // apart from strangers by the id, which the caller has already matched to the source.
        return (qdCount == 0 && (answer.truncated || answer.responseCode != 0))
                   ? AnswerVerdict::ok
                   : AnswerVerdict::malformed;
    }
    const std::size_t questionEnd = 12 + std::size_t{question.nameLength} + 4;
    if (length < questionEnd) {
        return answer.truncated ? AnswerVerdict::ok : AnswerVerdict::malformed;
    }
    for (std::size_t i = 0; i < question.nameLength; ++i) {
        std::uint8_t c = data[12 + i];
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<std::uint8_t>(c + ('a' - 'A'));
        }
        if (c != question.lowerName[i]) {
            return AnswerVerdict::foreign;
        }
    }
    if (readU16(data + 12 + question.nameLength) != question.type ||
        readU16(data + 14 + question.nameLength) != question.questionClass) {
        return AnswerVerdict::foreign;
    }
    if (answer.truncated) {
        return AnswerVerdict::ok;  // asked again over TCP; the rest does not matter
    }

    std::size_t offset = questionEnd;
    const unsigned total = unsigned{anCount} + nsCount + arCount;
    std::uint32_t least = 0xFFFFFFFFu;
    bool soaSeen = false;
    std::uint32_t soaTtl = 0;
    for (unsigned i = 0; i < total; ++i) {
        const std::size_t recordStart = offset;
        if (!skipName(data, length, offset) || offset + 10 > length) {
            return AnswerVerdict::malformed;
        }
        const std::uint16_t type = readU16(data + offset);
        const std::uint32_t ttl = sanitizedTtl(readU32(data + offset + 4));
        const std::uint16_t dataLength = readU16(data + offset + 8);
        const std::size_t ttlOffset = offset + 4;
        offset += 10;
        if (offset + dataLength > length) {
            return AnswerVerdict::malformed;
        }
        if (type == kTypeOpt && i >= unsigned{anCount} + nsCount) {
            if (answer.hasOpt) {
                return AnswerVerdict::malformed;
            }
            answer.hasOpt = true;
            answer.optOffset = recordStart;
            answer.optIsLast = i + 1 == total;
        } else {
            answer.ttlOffsets.push_back(static_cast<std::uint16_t>(ttlOffset));
            least = std::min(least, ttl);
            if (type == kTypeSoa && i >= anCount && i < unsigned{anCount} + nsCount &&
                dataLength >= 22 && !soaSeen) {
                soaSeen = true;
                const std::uint32_t minimum = sanitizedTtl(readU32(data + offset + dataLength - 4));
                soaTtl = std::min(ttl, minimum);
            }
        }
        offset += dataLength;
    }
    answer.negative =
        answer.responseCode == kNxDomain || (answer.responseCode == 0 && anCount == 0);
    if (answer.responseCode != 0 && answer.responseCode != kNxDomain) {
        answer.cacheTtl = 0;
    } else if (answer.negative) {
        answer.cacheTtl = soaSeen ? soaTtl : 0;
    } else {
        answer.cacheTtl = least == 0xFFFFFFFFu ? 0 : least;
    }
    return AnswerVerdict::ok;
}

}  // namespace morvane::provider
