#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace morvane::dns {

/// Appends big-endian fields to one growing byte vector, so that a whole message is written
/// into a single allocation instead of one vector per part.
///
/// The vector is grown ahead of the writes and written through a pointer, with its true
/// length kept beside it: one size check per field instead of one per byte. A writer made
/// from a caller's vector writes over what was there and keeps its length and capacity as
/// room, so encoding message after message into one buffer neither allocates nor zeroes
/// anything unless a message is bigger than those before.
class DNSWireWriter {
public:
    DNSWireWriter() = default;
    explicit DNSWireWriter(std::vector<std::uint8_t>&& bytes) : bytes_(std::move(bytes)) {}

    /// Room for `size` bytes without a new allocation; the length stays as it is.
    void reserve(std::size_t size) { bytes_.reserve(size); }
    std::size_t size() const { return size_; }

    void writeUInt8(std::uint8_t value) { *claim(1) = value; }

    void writeUInt16(std::uint16_t value) {
        std::uint8_t* at = claim(2);
        at[0] = static_cast<std::uint8_t>(value >> 8);
        at[1] = static_cast<std::uint8_t>(value);
    }

    void writeUInt32(std::uint32_t value) {
        std::uint8_t* at = claim(4);
        at[0] = static_cast<std::uint8_t>(value >> 24);
        at[1] = static_cast<std::uint8_t>(value >> 16);
        at[2] = static_cast<std::uint8_t>(value >> 8);
        at[3] = static_cast<std::uint8_t>(value);
    }

    void writeBytes(std::span<const std::uint8_t> bytes) {
        if (!bytes.empty()) {
            std::memcpy(claim(bytes.size()), bytes.data(), bytes.size());
        }
    }

    void writeText(std::string_view text) {
        if (!text.empty()) {
            std::memcpy(claim(text.size()), text.data(), text.size());
        }
    }

    /// A length byte and the text behind it, for the pieces of a name: one claim for both.
    void writeLengthAndText(std::uint8_t length, std::string_view text) {
        std::uint8_t* at = claim(1 + text.size());
        at[0] = length;
        if (!text.empty()) {
            std::memcpy(at + 1, text.data(), text.size());
        }
    }

    /// Fills in a 16-bit field written earlier, for lengths known only after what they measure.
    void overwriteUInt16(std::size_t position, std::uint16_t value) {
        bytes_.at(position) = static_cast<std::uint8_t>(value >> 8);
        bytes_.at(position + 1) = static_cast<std::uint8_t>(value);
    }

    std::vector<std::uint8_t> takeBytes() {
        bytes_.resize(size_);
        size_ = 0;
        return std::move(bytes_);
    }

private:
    std::uint8_t* claim(std::size_t count) {
        if (count > bytes_.size() - size_) {
            grow(count);
        }
        std::uint8_t* at = bytes_.data() + size_;
        size_ += count;
        return at;
    }

    // Doubling, as a vector's own growth would. Bytes between the length and the new size are
    // zeroed by the vector once, and then written over.
    void grow(std::size_t count) {
        constexpr std::size_t smallestSize = 64;
        bytes_.resize(std::max({size_ + count, 2 * bytes_.size(), smallestSize}));
    }

    std::vector<std::uint8_t> bytes_;
    std::size_t size_ = 0;
};

}  // namespace morvane::dns
