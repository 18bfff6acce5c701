#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "dns/DNSLabelDecoder.h"
#include "dns/DNSResourceRecord.h"

namespace morvane::dns {

class DNSResourceRecordDecoder {
public:
    /// Reads one record at `offset` and moves it behind the record's data. The data is copied
    /// as it stands: names inside it are not followed here. A failed name, or fixed fields or
    /// data that run past the buffer, leave `resource` absent and the offset where it was.
    void decodeResourceInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                std::uint32_t length);

    /// The same, reading straight into `resource`; false when it failed, with `resource`
    /// then in no particular state. For decoders that collect many records.
    bool decodeResourceInto(DNSResourceRecord& resource, const std::uint8_t* buffer,
                            std::uint32_t& offset, std::uint32_t length);

    /// Always a plain DNSResourceRecord; null when the last call failed.
    const std::unique_ptr<DNSResourceRecord>& resource() const { return resource_; }
    std::unique_ptr<DNSResourceRecord> takeResource() { return std::move(resource_); }

private:
    DNSLabelDecoder labelDecoder_;
    std::unique_ptr<DNSResourceRecord> resource_;
};

}  // namespace morvane::dns
