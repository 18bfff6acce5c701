#include "dns/DNSLabelEncoder.h"

#include "dns/DNSWireWriter.h"

namespace morvane::dns {

std::vector<std::uint8_t> DNSLabelEncoder::encode(std::string_view name) {
    DNSWireWriter writer;
    encode(name, writer);
    return writer.takeBytes();
}

void DNSLabelEncoder::encode(std::string_view name, DNSWireWriter& writer) {
    // Only "." is the root. Every other text is split at "." into pieces, so the empty text
    // is one empty piece and ends in two zero bytes, like a trailing dot.
    if (name == ".") {
        writer.writeUInt8(0);
        return;
    }
    // A trailing dot gives an empty last piece and so a second zero byte; names are given
    // without one.
    while (true) {
        const std::size_t dot = name.find('.');
        const std::string_view piece = name.substr(0, dot);
        writer.writeLengthAndText(static_cast<std::uint8_t>(piece.size()), piece);
        if (dot == std::string_view::npos) {
            break;
        }
        name.remove_prefix(dot + 1);
    }
    writer.writeUInt8(0);
}

}  // namespace morvane::dns
