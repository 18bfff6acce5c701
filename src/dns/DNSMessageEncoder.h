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
    /// The same into `bytes`, whose old content is replaced and whose capacity is reused:
    /// for a caller that encodes message after message, such as a server answering queries.
    static void encode(const DNSMessage& message, std::vector<std::uint8_t>& bytes);
};

}  // namespace morvane::dns
