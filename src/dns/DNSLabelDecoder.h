#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace morvane::dns {

/// Reads one name with a three-state machine: a length byte, the bytes of the label it
/// announced, or the second byte of a compression pointer.
///
/// A pointer ends the name. A fresh read at its target, with an offset of its own, gives
/// the name found there, which is added as one more piece behind the labels read so far; the
/// caller's offset stays behind the two pointer bytes. When nothing usable lies at the target
/// (past the end, a label that is no ASCII) the name still ends there, with the labels read
/// before the pointer: "foo" and a pointer past the end give "foo", and "foo" and a pointer
/// to a root byte give "foo..", the root's "." being that one more piece.
///
/// A name fails, and `name` stays absent, when a byte of its own would lie at or past the end
/// of the buffer, when one of its labels holds a byte above 127 (no ASCII text), or when more
/// pointers are followed than an honest name can hold, which is how a pointer loop, direct or
/// through others, ends; a loop fails every name that leads into it. On failure the caller's
/// offset is left where it was.
///
/// The decoder puts no limit of 255 bytes on a name: whoever answers the network and needs
/// one applies it there. One decoder may read many names in turn: each call starts afresh.
class DNSLabelDecoder {
public:
    enum class State : std::uint8_t { readLength = 0, readLabel = 1, readPointer = 2 };

    /// Each pointer of an honest name leads to at least one more label of two wire bytes
    /// within a name of 255 bytes, so a chain longer than this is taken for a loop.
    static constexpr unsigned maximumPointerHops = 127;

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
    enum class Outcome : std::uint8_t { name, failed, loop };

    // Reads the name at `offset` and appends its text to `text`: the labels joined with ".",
    // or "." when there are none. `depth` counts the pointers that led here. On anything but
    // a name `text` is left as it came.
    Outcome readName(const std::uint8_t* buffer, std::uint32_t& offset, std::uint32_t length,
                     unsigned depth, std::string& text);
    void resetBufferToSize(std::uint32_t size);

    State state_ = State::readLength;
    // How many bytes the current state still expects: the label's length in read-label.
    std::uint32_t bufferSize_ = 0;
    // The labels of the present name, joined with "." as they are read.
    std::string labels_;
    std::optional<std::string> name_;
};

}  // namespace morvane::dns
