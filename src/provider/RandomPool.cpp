#include "provider/RandomPool.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>

namespace morvane::provider {

std::uint16_t RandomPool::next16() {
    if (used_ + 2 > bytes_.size()) {
        refill();
    }
    const auto value = static_cast<std::uint16_t>(bytes_[used_] << 8 | bytes_[used_ + 1]);
    used_ += 2;
    return value;
}

void RandomPool::refill() {
    std::size_t filled = 0;
    while (filled < bytes_.size()) {
        const ssize_t got = ::getrandom(bytes_.data() + filled, bytes_.size() - filled, 0);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            // Only an ancient kernel lacks getrandom; ids must never be guessable, so stop.
            std::abort();
        }
    }
    used_ = 0;
}

}  // namespace morvane::provider
