#include "dns/DNSLabelDecoder.h"

#include "dns/DNSWireReader.h"

namespace morvane::dns {

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
        const std::uint8_t byte = reader.readUInt8();
        switch (state_) {
            case State::readLength:
                if ((byte & wire::pointerTag) == wire::pointerTag) {
                    resetBufferToSize(2);
                    buffer_[bufferOffset_++] = byte & static_cast<std::uint8_t>(~wire::pointerTag);
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
            case State::readLabel:
                if (byte > wire::highestLabelByte) {
                    failAndReset();
                    return;
                }
                buffer_[bufferOffset_++] = byte;
                if (bufferOffset_ == bufferSize_) {
                    labels_.emplace_back(reinterpret_cast<const char*>(buffer_.data()),
                                         bufferSize_);
                    resetBufferToSize(0);
                    state_ = State::readLength;
                }
                break;
            case State::readPointer: {
                buffer_[bufferOffset_++] = byte;
                const auto target = static_cast<std::uint32_t>(buffer_[0] << 8 | buffer_[1]);
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
    std::string name;
    if (labels_.empty()) {
        name = ".";
    } else {
        std::size_t size = labels_.size() - 1;
        for (const std::string& label : labels_) {
            size += label.size();
        }
        name.reserve(size);
        name += labels_.front();
        for (std::size_t index = 1; index < labels_.size(); ++index) {
            name += '.';
            name += labels_[index];
        }
    }
    name_ = std::move(name);
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
}

void DNSLabelDecoder::resetBufferToSize(std::uint32_t size) {
    bufferSize_ = size;
    bufferOffset_ = 0;
}

void DNSLabelDecoder::failAndReset() {
    name_.reset();
    labels_.clear();
    resetBufferToSize(0);
    state_ = State::readLength;
}

}  // namespace morvane::dns
