#pragma once

#include <cstdint>
#include <vector>

#include "dns/DNSQuestion.h"

namespace morvane::dns {

class DNSWireWriter;

class DNSQuestionEncoder {
public:
    static std::vector<std::uint8_t> encode(const DNSQuestion& question);
    static void encode(const DNSQuestion& question, DNSWireWriter& writer);
};

}  // namespace morvane::dns
