#pragma once

#include <cstdint>
#include <vector>

#include "dns/DNSHeader.h"

namespace morvane::dns {

class DNSWireWriter;

/// Writes the 12 header bytes. Fields wider than their wire bits (the 4 bits of OPCODE and
/// RCODE) are cut to those bits rather than spilling into their neighbours.
class DNSHeaderEncoder {
public:
    static std::vector<std::uint8_t> encode(const DNSHeader& header);
    static void encode(const DNSHeader& header, DNSWireWriter& writer);
};

}  // namespace morvane::dns
