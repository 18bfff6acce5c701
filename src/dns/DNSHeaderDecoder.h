#pragma once

#include <cstdint>
#include <optional>

#include "dns/DNSHeader.h"

namespace morvane::dns {

class DNSHeaderDecoder {
public:
    /// Reads the 12 header bytes at `offset` and moves it behind them. A buffer too short
    /// for them leaves `header` absent and the offset where it was.
    void decodeHeaderInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                              std::uint32_t length);

    /// The same, reading straight into `header`; false when the buffer was too short, with
    /// `header` then untouched.
    bool decodeHeaderInto(DNSHeader& header, const std::uint8_t* buffer, std::uint32_t& offset,
                          std::uint32_t length);

    const std::optional<DNSHeader>& header() const { return header_; }

private:
    std::optional<DNSHeader> header_;
};

}  // namespace morvane::dns
