#include "provider/QueryReader.h"

#include <cstring>

#include "dns/DNSWireReader.h"

namespace morvane::provider {

namespace {

constexpr std::size_t kHeaderLength = 12;
constexpr std::uint16_t kTypeOpt = 41;

// Reads a plain (uncompressed) name into `lower`, lower-casing as it goes.
bool readQuestionName(dns::DNSWireReader& reader, ClientQuery& query) {
    std::size_t written = 0;
    for (;;) {
        const std::uint8_t length = reader.readUInt8();
        if (reader.failed() || (length & 0xC0) != 0) {
            return false;
        }
        if (written + 1 + length > 255) {
            return false;  // over 255 bytes with the final zero
        }
        query.lowerName[written++] = length;
        if (length == 0) {
            query.nameLength = static_cast<std::uint16_t>(written);
            return true;
        }
        const auto label = reader.readBytes(length);
        if (reader.failed()) {
            return false;
        }
        for (const std::uint8_t c : label) {
            query.lowerName[written++] =
                (c >= 'A' && c <= 'Z') ? static_cast<std::uint8_t>(c + ('a' - 'A')) : c;
        }
    }
}

}  // namespace

bool skipName(const std::uint8_t* data, std::size_t length, std::size_t& offset) {
    for (;;) {
        if (offset >= length) {
            return false;
        }
        const std::uint8_t label = data[offset];
        if (label == 0) {
            ++offset;
            return true;
        }
        if ((label & 0xC0) == 0xC0) {
            if (offset + 2 > length) {
                return false;
            }
            offset += 2;
            return true;
        }
        if ((label & 0xC0) != 0) {
            return false;
        }
        offset += 1 + std::size_t{label};
    }
}

QueryVerdict readClientQuery(const std::uint8_t* data, std::size_t length, ClientQuery& query) {
    if (data == nullptr || length < kHeaderLength || length > 0xFFFF) {
        return QueryVerdict::drop;
    }
    query.id = readU16(data);
    query.flags = readU16(data + 2);
    query.edns = false;
    query.ednsUdpSize = 0;
    query.ednsVersion = 0;
    query.dnssecOk = false;
    query.questionLength = 0;
    if ((query.flags & 0x8000) != 0) {
        return QueryVerdict::drop;
    }
    const std::uint16_t qdCount = readU16(data + 4);
    const std::uint16_t anCount = readU16(data + 6);
    const std::uint16_t nsCount = readU16(data + 8);
    const std::uint16_t arCount = readU16(data + 10);
    if (qdCount != 1) {
        return QueryVerdict::formatError;
    }
    dns::DNSWireReader reader(data, static_cast<std::uint32_t>(length), kHeaderLength);
    if (!readQuestionName(reader, query)) {
        return QueryVerdict::formatError;
    }
    query.type = reader.readUInt16();
    query.questionClass = reader.readUInt16();
    if (reader.failed()) {
        return QueryVerdict::formatError;
    }
    query.questionLength = static_cast<std::uint16_t>(reader.offset() - kHeaderLength);
    std::memcpy(query.question.data(), data + kHeaderLength, query.questionLength);
    const unsigned opCode = (query.flags >> 11) & 0xF;
    if (opCode != 0) {
        return QueryVerdict::notImplemented;
    }
    if (anCount != 0 || nsCount != 0) {
        return QueryVerdict::formatError;
    }
    std::size_t offset = reader.offset();
    for (unsigned i = 0; i < arCount; ++i) {
        const std::size_t owner = offset;
        if (!skipName(data, length, offset) || offset + 10 > length) {
            return QueryVerdict::formatError;
        }
        const std::uint16_t type = readU16(data + offset);
        const std::uint16_t recordClass = readU16(data + offset + 2);
        const std::uint32_t ttl = readU32(data + offset + 4);
        const std::uint16_t dataLength = readU16(data + offset + 8);
        offset += 10;
        if (offset + dataLength > length) {
            return QueryVerdict::formatError;
        }
        if (type == kTypeOpt) {
            if (query.edns || offset - 10 != owner + 1 || data[owner] != 0) {
                return QueryVerdict::formatError;
            }
            query.edns = true;
            query.ednsUdpSize = recordClass < 512 ? 512 : recordClass;
            query.ednsVersion = static_cast<std::uint8_t>(ttl >> 16);
            query.dnssecOk = (ttl & 0x8000) != 0;
        }
        offset += dataLength;
    }
    if (query.edns && query.ednsVersion != 0) {
        return QueryVerdict::badVersion;
    }
    return QueryVerdict::ok;
}

}  // namespace morvane::provider
