#pragma once

#include <cstdint>
#include <vector>

namespace morvane::provider {

/// The index of a reusable element of `items`: one given back earlier, or a new one at the
/// end. Indices stay valid as the vector grows, which pointers would not.
template <typename T>
std::uint32_t takeSlot(std::vector<T>& items, std::vector<std::uint32_t>& freeSlots) {
    if (!freeSlots.empty()) {
        const std::uint32_t index = freeSlots.back();
        freeSlots.pop_back();
        return index;
    }
    items.emplace_back();
    return static_cast<std::uint32_t>(items.size() - 1);
}

}  // namespace morvane::provider
