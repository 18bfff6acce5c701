#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace morvane::dns {

/// Appends big-endian fields to one growing byte vector, so that a whole message is written
/// into a single allocation instead of one vector per part.
class DNSWireWriter {
public:
    void reserve(std::size_t size) { bytes_.reserve(size); }
    std::size_t size() const { return bytes_.size(); }

    void writeUInt8(std::uint8_t value) { bytes_.push_back(value); }

    void writeUInt16(std::uint16_t value) {
        bytes_.push_back(static_cast<std::uint8_t>(value >> 8));
        bytes_.push_back(static_cast<std::uint8_t>(value));
    }

    void writeUInt32(std::uint32_t value) {
        writeUInt16(static_cast<std::uint16_t>(value >> 16));
        writeUInt16(static_cast<std::uint16_t>(value));
    }

    void writeBytes(std::span<const std::uint8_t> bytes) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    }

    void writeText(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }

    /// Fills in a 16-bit field written earlier, for lengths known only after what they measure.
    void overwriteUInt16(std::size_t position, std::uint16_t value) {
        bytes_.at(position) = static_cast<std::uint8_t>(value >> 8);
        bytes_.at(position + 1) = static_cast<std::uint8_t>(value);
    }

    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    std::vector<std::uint8_t> takeBytes() { return std::move(bytes_); }

private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace morvane::dns
