#include "dns/DNSLabelDecoder.h"

#include <span>

#include "dns/DNSWireReader.h"

namespace morvane::dns {
namespace {

// Copies a label's bytes behind the name read so far and tells whether all were ASCII, in one
// pass: labels are short, and a loop the compiler can see through beats a call to memcpy.
bool appendASCII(std::span<const std::uint8_t> label, char* destination) {
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
    if (readLabels(buffer, offset, length)) {
        compileNameAndReset();
    }
}

bool DNSLabelDecoder::decodeLabelInto(std::string& name, const std::uint8_t* buffer,
                                      std::uint32_t& offset, std::uint32_t length) {
    if (!readLabels(buffer, offset, length)) {
        return false;
    }
    // Straight from the labels into the caller's text: one copy, not two.
    if (labelsSize_ == 0) {
        name.assign(1, '.');
    } else {
        name.assign(labels_.data(), labelsSize_);
    }
    labelsSize_ = 0;
    return true;
}

bool DNSLabelDecoder::readLabels(const std::uint8_t* buffer, std::uint32_t& offset,
                                 std::uint32_t length) {
    DNSWireReader reader(buffer, length, offset);
    // Where the caller's offset ends up once the first pointer has been taken.
    std::optional<std::uint32_t> offsetBehindPointer;
    unsigned pointerHops = 0;
    std::uint32_t wireSize = 1;  // the final zero byte

    while (true) {
        if (reader.atEnd()) {
            failAndReset();
            return false;
        }
        switch (state_) {
            case State::readLength: {
                const std::uint8_t byte = reader.readUInt8();
                if ((byte & wire::pointerTag) == wire::pointerTag) {
                    pointerHighBits_ = byte & static_cast<std::uint8_t>(~wire::pointerTag);
                    resetBufferToSize(1);
                    state_ = State::readPointer;
                } else if (byte == 0) {
                    // The name is whole; the caller compiles it from the labels.
                    offset = offsetBehindPointer.value_or(reader.offset());
                    return true;
                } else {
                    wireSize += 1 + byte;
                    if (wireSize > wire::maximumNameSize) {
                        failAndReset();
                        return false;
                    }
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
                    failAndReset();
                    return false;
                }
                // The size check on the length byte keeps this within the array: the text of a
                // name is two bytes shorter than its wire form.
                if (labelsSize_ > 0) {
                    labels_[labelsSize_++] = '.';
                }
                if (!appendASCII(label, labels_.data() + labelsSize_)) {
                    failAndReset();
                    return false;
                }
                labelsSize_ += static_cast<std::uint32_t>(label.size());
                resetBufferToSize(0);
                state_ = State::readLength;
                break;
            }
            case State::readPointer: {
                const std::uint32_t target =
                    std::uint32_t{pointerHighBits_} << 8 | reader.readUInt8();
                if (++pointerHops > maximumPointerHops) {
                    failAndReset();
                    return false;
                }
                if (!offsetBehindPointer) {
                    offsetBehindPointer = reader.offset();
                }
                reader = DNSWireReader(buffer, length, target);
                resetBufferToSize(0);
                state_ = State::readLength;
                break;
            }
        }
    }
}

void DNSLabelDecoder::compileNameAndReset() {
    if (labelsSize_ == 0) {
        name_.emplace(1, '.');
    } else {
        name_.emplace(labels_.data(), labelsSize_);
    }
    labelsSize_ = 0;
    resetBufferToSize(0);
    state_ = State::readLength;
}

void DNSLabelDecoder::resetBufferToSize(std::uint32_t size) {
    bufferSize_ = size;
}

void DNSLabelDecoder::failAndReset() {
    name_.reset();
    labelsSize_ = 0;
    resetBufferToSize(0);
    state_ = State::readLength;
}

}  // namespace morvane::dns
