#include "provider/MessageWriter.h"

#include <algorithm>

namespace morvane::provider {

namespace {

constexpr std::uint16_t kTypeOpt = 41;
constexpr std::uint8_t kBadVersExtended = 1;  // BADVERS is 16: 1 in the OPT's upper bits

void appendU16(std::vector<std::uint8_t>& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v >> 8));
    out.push_back(static_cast<std::uint8_t>(v));
}

void appendOpt(std::vector<std::uint8_t>& out, std::uint16_t udpSize, std::uint8_t extendedCode,
               bool dnssecOk, std::span<const std::uint8_t> options) {
    out.push_back(0);  // the root owns it
    appendU16(out, kTypeOpt);
    appendU16(out, udpSize);
    out.push_back(extendedCode);
    out.push_back(0);  // version
    appendU16(out, dnssecOk ? 0x8000 : 0);
    appendU16(out, static_cast<std::uint16_t>(options.size()));
    out.insert(out.end(), options.begin(), options.end());
}

void appendOption(std::vector<std::uint8_t>& out, std::uint16_t code, std::string_view text) {
    if (text.empty()) {
        return;
    }
    text = text.substr(0, 512);
    appendU16(out, code);
    appendU16(out, static_cast<std::uint16_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

}  // namespace

std::vector<std::uint8_t> identityOptions(std::string_view locationTag, std::string_view uuid) {
    std::vector<std::uint8_t> out;
    appendOption(out, kOptionLocationTag, locationTag);
    appendOption(out, kOptionUuid, uuid);
    return out;
}

void writeUpstreamQuery(std::vector<std::uint8_t>& out, std::uint16_t id, const ClientQuery& query,
                        std::span<const std::uint8_t> options) {
    appendU16(out, id);
    // RD (0x0100), AD (0x0020) and CD (0x0010) are the client's; everything else is ours.
    appendU16(out, static_cast<std::uint16_t>(query.flags & 0x0130));
    appendU16(out, 1);
    appendU16(out, 0);
    appendU16(out, 0);
    appendU16(out, 1);
    out.insert(out.end(), query.question.begin(), query.question.begin() + query.questionLength);
    appendOpt(out, kUpstreamUdpSize, 0, query.dnssecOk, options);
}

void writeErrorReply(std::vector<std::uint8_t>& out, const ClientQuery& query,
                     std::uint8_t responseCode, bool withQuestion) {
    out.clear();
    const bool badVersion = responseCode == 16;
    appendU16(out, query.id);
    // QR, the client's opcode and RD, RA as a recursive service, and the code's low four bits.
    const auto flags =
        static_cast<std::uint16_t>(0x8000 | (query.flags & 0x7900) | 0x0080 | (responseCode & 0xF));
    appendU16(out, flags);
    appendU16(out, withQuestion ? 1 : 0);
    appendU16(out, 0);
    appendU16(out, 0);
    appendU16(out, badVersion || (query.edns && withQuestion) ? 1 : 0);
    if (withQuestion) {
        out.insert(out.end(), query.question.begin(),
                   query.question.begin() + query.questionLength);
    }
    if (badVersion) {
        appendOpt(out, kUpstreamUdpSize, kBadVersExtended, false, {});
    } else if (query.edns && withQuestion) {
        appendOpt(out, kUpstreamUdpSize, 0, query.dnssecOk, {});
    }
}

void dropTrailingOpt(std::vector<std::uint8_t>& answer, std::size_t optOffset) {
    if (optOffset >= answer.size() || answer.size() < 12) {
        return;
    }
    answer.resize(optOffset);
    const std::uint16_t additional = readU16(answer.data() + 10);
    writeU16(answer.data() + 10, static_cast<std::uint16_t>(additional == 0 ? 0 : additional - 1));
}

void finishReply(std::vector<std::uint8_t>& answer, const ClientQuery& query, std::size_t maxLength,
                 bool keptOpt) {
    if (answer.size() < 12) {
        return;
    }
    writeU16(answer.data(), query.id);
    if (readU16(answer.data() + 4) == 1 && answer.size() >= 12u + query.questionLength) {
        std::copy(query.question.begin(), query.question.begin() + query.nameLength,
                  answer.begin() + 12);
    }
    const bool addOpt = query.edns && !keptOpt;
    const std::size_t optLength = addOpt ? 11 : 0;
    if (answer.size() + optLength > maxLength) {
        // Too big for the client's buffer: header and question only, TC set.
        answer.resize(12);
        const auto flags = static_cast<std::uint16_t>(readU16(answer.data() + 2) | 0x0200);
        writeU16(answer.data() + 2, flags);
        writeU16(answer.data() + 4, 1);
        writeU16(answer.data() + 6, 0);
        writeU16(answer.data() + 8, 0);
        writeU16(answer.data() + 10, 0);
        answer.insert(answer.end(), query.question.begin(),
                      query.question.begin() + query.questionLength);
        if (query.edns) {
            appendOpt(answer, kUpstreamUdpSize, 0, query.dnssecOk, {});
            writeU16(answer.data() + 10, 1);
        }
        return;
    }
    if (addOpt) {
        appendOpt(answer, kUpstreamUdpSize, 0, query.dnssecOk, {});
        writeU16(answer.data() + 10, static_cast<std::uint16_t>(readU16(answer.data() + 10) + 1));
    }
}

}  // namespace morvane::provider
