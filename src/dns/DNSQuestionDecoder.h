#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "dns/DNSLabelDecoder.h"
#include "dns/DNSQuestion.h"

namespace morvane::dns {

class DNSQuestionDecoder {
public:
    /// Reads a name, type and class at `offset` and moves it behind them. A failed name or a
    /// buffer that ends inside the fixed fields leaves `question` absent and the offset where
    /// it was.
    void decodeQuestionInBuffer(const std::uint8_t* buffer, std::uint32_t& offset,
                                std::uint32_t length);

    /// The same, reading straight into `question`; false when it failed, with `question`
    /// then in no particular state. For decoders that collect many questions.
    bool decodeQuestionInto(DNSQuestion& question, const std::uint8_t* buffer,
                            std::uint32_t& offset, std::uint32_t length);

    const std::optional<DNSQuestion>& question() const { return question_; }
    std::optional<DNSQuestion> takeQuestion() {
        auto taken = std::move(question_);
        question_.reset();
        return taken;
    }

private:
    DNSLabelDecoder labelDecoder_;
    std::optional<DNSQuestion> question_;
};

}  // namespace morvane::dns
