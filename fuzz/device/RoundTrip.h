#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "messages/JSONCoding.h"

namespace morvane::fuzz {

// Whatever the bytes, decoding must return; and a record that decodes must encode, and its
// text must decode to the same record and encode to the same text again.
template <typename Message>
void checkRoundTrip(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto message = decodeJSON<Message>(bytes);
    if (!message) {
        return;
    }
    auto text = encodeJSON(*message);
    if (!text) {
        std::abort();
    }
    auto again = decodeJSON<Message>(*text);
    if (!again || !(*again == *message) || encodeJSON(*again) != text) {
        std::abort();
    }
}

}  // namespace morvane::fuzz
