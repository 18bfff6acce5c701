#pragma once

#include <cstdint>
#include <span>

namespace morvane::dns {

/// The one way the decoders look at wire bytes. Every read is checked against the end of the
/// buffer; the first read that would pass it marks the reader failed, and from then on every
/// read yields zero and moves nothing. A decoder can therefore read a whole fixed block and
/// test once at the end, and whatever the bytes say, nothing is read outside the buffer.
class DNSWireReader {
public:
    DNSWireReader() = default;
    DNSWireReader(const std::uint8_t* buffer, std::uint32_t length, std::uint32_t offset)
        : buffer_(buffer), length_(buffer == nullptr ? 0 : length), offset_(offset) {}

    std::uint32_t offset() const { return offset_; }
    bool failed() const { return failed_; }
    bool atEnd() const { return offset_ >= length_; }
    std::uint32_t remaining() const { return atEnd() ? 0 : length_ - offset_; }

    std::uint8_t readUInt8() {
        if (!claim(1)) {
            return 0;
        }
        return buffer_[offset_++];
    }

    std::uint16_t readUInt16() {
        if (!claim(2)) {
            return 0;
        }
        const auto value = static_cast<std::uint16_t>(buffer_[offset_] << 8 | buffer_[offset_ + 1]);
        offset_ += 2;
        return value;
    }

    std::uint32_t readUInt32() {
        if (!claim(4)) {
            return 0;
        }
        const std::uint32_t value = std::uint32_t{buffer_[offset_]} << 24 |
                                    std::uint32_t{buffer_[offset_ + 1]} << 16 |
                                    std::uint32_t{buffer_[offset_ + 2]} << 8 | buffer_[offset_ + 3];
        offset_ += 4;
        return value;
    }

    /// A view into the buffer, valid as long as the buffer is; empty once the reader failed.
    std::span<const std::uint8_t> readBytes(std::uint32_t count) {
        if (!claim(count)) {
            return {};
        }
        const std::span<const std::uint8_t> bytes(buffer_ + offset_, count);
        offset_ += count;
        return bytes;
    }

private:
    bool claim(std::uint32_t count) {
        if (failed_ || count > remaining()) {
            failed_ = true;
            return false;
        }
        return true;
    }

    const std::uint8_t* buffer_ = nullptr;
    std::uint32_t length_ = 0;
    std::uint32_t offset_ = 0;
    bool failed_ = false;
};

}  // namespace morvane::dns
