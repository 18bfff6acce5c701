#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace morvane::dns {

class DNSWireWriter;

/// Writes a name in full, one length byte and the bytes of each piece between dots, then a
/// zero byte. Names are never compressed. Pieces are not checked against the limits of 63
/// and 255 bytes, and a piece longer than 255 bytes gets only the low 8 bits of its length:
/// keeping names within the limits is the caller's responsibility. Text is written byte for
/// byte, so only ASCII has defined meaning.
class DNSLabelEncoder {
public:
    static std::vector<std::uint8_t> encode(std::string_view name);
    static void encode(std::string_view name, DNSWireWriter& writer);
};

}  // namespace morvane::dns
