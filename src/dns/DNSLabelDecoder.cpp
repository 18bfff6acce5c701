#include "dns/DNSLabelDecoder.h"

#include <span>

#include "dns/DNSWireFormat.h"
#include "dns/DNSWireReader.h"

namespace morvane::dns {
namespace {

// Appends a label's bytes and tells whether all were ASCII, in one pass: labels are short,
// and a loop the compiler can see through beats a call to memcpy.
bool appendASCII(std::span<const std::uint8_t> label, std::string& text) {
    const std::size_t start = text.size();
    text.resize(start + label.size());
    char* destination = text.data() + start;
    std::uint8_t all = 0;
    for (const std::uint8_t byte : label) {
        all |= byte;
        *destination++ = static_cast<char>(byte);
    }
    return all <= wire::highestLabelByte;
}

}  // namespace

void DNSLabelDecoder::decodeLabelInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                          std::uint32_t length) {
    name_.reset();
    labels_.clear();
    if (readName(buffer, offset, length, 0, labels_) == Outcome::name) {
        name_.emplace(std::move(labels_));
    }
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
}

bool DNSLabelDecoder::decodeLabelInto(std::string& name, const std::uint8_t* buffer,
                                      std::uint32_t& offset, std::uint32_t length) {
    // Straight into a text of our own that keeps its capacity from name to name, then one
    // copy into the caller's.
    labels_.clear();
    const bool decoded = readName(buffer, offset, length, 0, labels_) == Outcome::name;
    if (decoded) {
        name.assign(labels_);
    }
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
    return decoded;
}

DNSLabelDecoder::Outcome DNSLabelDecoder::readName(const std::uint8_t* buffer,
                                                   std::uint32_t& offset, std::uint32_t length,
                                                   unsigned depth, std::string& text) {
    const std::size_t start = text.size();
    const auto fail = [&](Outcome outcome) {
        text.resize(start);
        resetBufferToSize(0);
        state_ = State::readLength;
        return outcome;
    };
    // Ends the name with what was read, the root's "." when no piece was.
    const auto compile = [&](std::uint32_t end) {
        if (text.size() == start) {
            text.push_back('.');
        }
        resetBufferToSize(0);
        state_ = State::readLength;
        offset = end;
        return Outcome::name;
    };

    DNSWireReader reader(buffer, length, offset);
    std::uint8_t pointerHighBits = 0;
    state_ = State::readLength;
    while (true) {
        if (reader.atEnd()) {
            return fail(Outcome::failed);
        }
        switch (state_) {
            case State::readLength: {
                const std::uint8_t byte = reader.readUInt8();
                if ((byte & wire::pointerTag) == wire::pointerTag) {
                    pointerHighBits = byte & static_cast<std::uint8_t>(~wire::pointerTag);
                    resetBufferToSize(1);
                    state_ = State::readPointer;
                } else if (byte == 0) {
                    return compile(reader.offset());
                } else {
                    resetBufferToSize(byte);
                    state_ = State::readLabel;
                }
                break;
            }
            case State::readLabel: {
                // The whole label in one step; it fails like a byte-wise read would, at the
                // end of the buffer or at the first byte that is no ASCII.
                const auto label = reader.readBytes(bufferSize_);
                if (reader.failed()) {
                    return fail(Outcome::failed);
                }
                if (text.size() > start) {
                    text.push_back('.');
                }
                if (!appendASCII(label, text)) {
                    return fail(Outcome::failed);
                }
                resetBufferToSize(0);
                state_ = State::readLength;
                break;
            }
            case State::readPointer: {
                std::uint32_t target = std::uint32_t{pointerHighBits} << 8 | reader.readUInt8();
                if (depth >= maximumPointerHops) {
                    return fail(Outcome::loop);
                }
                const std::uint32_t behindPointer = reader.offset();
                const std::size_t beforePiece = text.size();
                if (beforePiece > start) {
                    text.push_back('.');
                }
                const Outcome targetOutcome = readName(buffer, target, length, depth + 1, text);
                if (targetOutcome == Outcome::loop) {
                    return fail(Outcome::loop);
                }
                if (targetOutcome == Outcome::failed) {
                    // Nothing usable there: the name ends with the labels it had.
                    text.resize(beforePiece);
                }
                return compile(behindPointer);
            }
        }
    }
}

void DNSLabelDecoder::compileNameAndReset() {
    if (labels_.empty()) {
        name_.emplace(1, '.');
    } else {
        name_.emplace(std::move(labels_));
    }
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
}

void DNSLabelDecoder::resetBufferToSize(std::uint32_t size) {
    bufferSize_ = size;
}

}  // namespace morvane::dns
