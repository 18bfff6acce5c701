#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "dns/DNSWireFormat.h"

namespace morvane::dns {

/// Reads one name with a three-state machine: a length byte, the bytes of the label it
/// announced, or the second byte of a compression pointer. A pointer carries the name on at
/// its target; the caller's offset stays behind the two pointer bytes.
///
/// A name fails, and `name` stays absent, when a byte would lie at or past the end of the
/// buffer, when a label holds a byte above 127 (no ASCII text), when the name grows beyond
/// 255 bytes in its wire form, or when more pointers are followed than an honest name can
/// hold, which is how a pointer loop, direct or through others, ends. A pointer whose target
/// fails fails the whole name. On failure the caller's offset is left where it was.
///
/// Labels are kept joined with "." as they are read, straight from the buffer into a fixed
/// array, so a name costs no allocation beyond its own text. One decoder may read many names in
/// turn: each call starts afresh.
class DNSLabelDecoder {
public:
    enum class State : std::uint8_t { readLength = 0, readLabel = 1, readPointer = 2 };

    /// Each pointer followed must lead to at least one more label of two wire bytes for the
    /// name to stay within 255 bytes, so more hops than this cannot be an honest name.
    static constexpr unsigned maximumPointerHops = wire::maximumNameSize / 2;

    void decodeLabelInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                             std::uint32_t length);

    /// The same, writing a decoded name straight into `name`; false, and `name` untouched,
    /// when the name failed. For decoders that put the name into something of their own.
    bool decodeLabelInto(std::string& name, const std::uint8_t* buffer, std::uint32_t& offset,
                         std::uint32_t length);

    /// `name` becomes the labels read so far joined with "." ("." when there are none), and
    /// the decoder is ready for the next name.
    void compileNameAndReset();

    State state() const { return state_; }
    const std::optional<std::string>& name() const { return name_; }
    std::optional<std::string> takeName() {
        auto taken = std::move(name_);
        name_.reset();
        return taken;
    }

private:
    // The state machine; true at the zero byte that ends the name, with the labels read.
    bool readLabels(const std::uint8_t* buffer, std::uint32_t& offset, std::uint32_t length);
    void resetBufferToSize(std::uint32_t size);
    void failAndReset();

    State state_ = State::readLength;
    // What the current state still expects: the label's length in read-label, and in
    // read-pointer the offset bits of the pointer's first byte.
    std::uint32_t bufferSize_ = 0;
    std::uint8_t pointerHighBits_ = 0;
    // The labels read so far, joined with ".", in place: a name's text fits in fewer bytes
    // than its wire form, so no name needs more.
    std::array<char, wire::maximumNameSize> labels_;
    std::uint32_t labelsSize_ = 0;
    std::optional<std::string> name_;
};

}  // namespace morvane::dns
