#include "dns/DNSLabelDecoder.h"

#include <span>

#include "dns/DNSWireReader.h"

namespace morvane::dns {
namespace {

bool isASCII(std::span<const std::uint8_t> bytes) {
    std::uint8_t all = 0;
    for (const std::uint8_t byte : bytes) {
        all |= byte;
    }
    return all <= wire::highestLabelByte;
}

}  // namespace

void DNSLabelDecoder::decodeLabelInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                          std::uint32_t length) {
    name_.reset();
    DNSWireReader reader(buffer, length, offset);
    // Where the caller's offset ends up once the first pointer has been taken.
    std::optional<std::uint32_t> offsetBehindPointer;
    unsigned pointerHops = 0;
    std::uint32_t wireSize = 1;  // the final zero byte

    while (true) {
        if (reader.atEnd()) {
            failAndReset();
            return;
        }
        switch (state_) {
            case State::readLength: {
                const std::uint8_t byte = reader.readUInt8();
                if ((byte & wire::pointerTag) == wire::pointerTag) {
                    pointerHighBits_ = byte & static_cast<std::uint8_t>(~wire::pointerTag);
                    resetBufferToSize(1);
                    state_ = State::readPointer;
                } else if (byte == 0) {
                    compileNameAndReset();
                    offset = offsetBehindPointer.value_or(reader.offset());
                    return;
                } else {
                    wireSize += 1 + byte;
                    if (wireSize > wire::maximumNameSize) {
                        failAndReset();
                        return;
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
                if (reader.failed() || !isASCII(label)) {
                    failAndReset();
                    return;
                }
                if (!labels_.empty()) {
                    labels_ += '.';
                }
                labels_.append(reinterpret_cast<const char*>(label.data()), label.size());
                resetBufferToSize(0);
                state_ = State::readLength;
                break;
            }
            case State::readPointer: {
                const std::uint32_t target =
                    std::uint32_t{pointerHighBits_} << 8 | reader.readUInt8();
                if (++pointerHops > maximumPointerHops) {
                    failAndReset();
                    return;
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
    if (labels_.empty()) {
        name_.emplace(1, '.');
    } else {
        name_ = std::move(labels_);
    }
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
}

void DNSLabelDecoder::resetBufferToSize(std::uint32_t size) {
    bufferSize_ = size;
}

void DNSLabelDecoder::failAndReset() {
    name_.reset();
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
}

}  // namespace morvane::dns
