#pragma once

#include <cstdint>
#include <vector>

#include "dns/DNSMessage.h"

namespace morvane::dns {

/// Writes a whole message without compression. The header's counts are taken from the
/// lists (low 16 bits), not from the caller's header, which is left as it was.
class DNSMessageEncoder {
public:
    static std::vector<std::uint8_t> encode(const DNSMessage& message);
};

}  // namespace morvane::dns
