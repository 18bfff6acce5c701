#include "platform/Uuid.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <random>

namespace morvane::platform {

namespace {

void fillRandom(std::array<std::uint8_t, 16>& bytes) {
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            break;
        }
    }
    // A kernel without getrandom (or a seccomp filter refusing it) must not leave callers
    // with a fixed identifier: two queues would share a label.
    if (filled < bytes.size()) {
        std::random_device device;
        for (std::size_t i = filled; i < bytes.size(); ++i) {
            bytes[i] = static_cast<std::uint8_t>(device());
        }
    }
}

}  // namespace

std::string makeUUID() {
    std::array<std::uint8_t, 16> bytes{};
    fillRandom(bytes);
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);

    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

}  // namespace morvane::platform
