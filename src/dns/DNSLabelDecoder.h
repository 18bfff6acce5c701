#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dns/DNSWireFormat.h"

namespace morvane::dns {

/// Reads one name, byte by byte, with a three-state machine: a length byte, the bytes of a
/// label, or the second byte of a compression pointer. A pointer carries the name on at its
/// target; the caller's offset stays behind the two pointer bytes.
///
/// A name fails, and `name` stays absent, when a byte would lie at or past the end of the
/// buffer, when a label holds a byte above 127 (no ASCII text), when the name grows beyond
/// 255 bytes in its wire form, or when more pointers are followed than an honest name can
/// hold, which is how a pointer loop, direct or through others, ends. A pointer whose target
/// fails fails the whole name. On failure the caller's offset is left where it was.
///
/// One decoder may read many names in turn: each call starts afresh, and the label list
/// keeps its capacity, so a message's names cost no allocation beyond their own text.
class DNSLabelDecoder {
public:
    enum class State : std::uint8_t { readLength = 0, readLabel = 1, readPointer = 2 };

    /// Each pointer followed must lead to at least one more label of two wire bytes for the
    /// name to stay within 255 bytes, so more hops than this cannot be an honest name.
    static constexpr unsigned maximumPointerHops = wire::maximumNameSize / 2;

    void decodeLabelInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                             std::uint32_t length);

    /// Joins the labels read so far with "." into `name` ("." when there are none) and makes
    /// the decoder ready for the next name.
    void compileNameAndReset();

    State state() const { return state_; }
    const std::optional<std::string>& name() const { return name_; }
    std::optional<std::string> takeName() {
        auto taken = std::move(name_);
        name_.reset();
        return taken;
    }

private:
    void resetBufferToSize(std::uint32_t size);
    void failAndReset();

    State state_ = State::readLength;
    // Large enough for the longest label a length byte can announce; no allocation per label.
    std::array<std::uint8_t, wire::maximumLabelSize> buffer_{};
    std::uint32_t bufferSize_ = 0;
    std::uint32_t bufferOffset_ = 0;
    std::vector<std::string> labels_;
    std::optional<std::string> name_;
};

}  // namespace morvane::dns
