#include "provider/AnswerCache.h"

#include <algorithm>
#include <cstring>
#include <functional>

#include "provider/FreeSlots.h"
#include "provider/QueryReader.h"

namespace morvane::provider {

namespace {
constexpr std::size_t kFirstSlots = 1024;
}

AnswerCache::AnswerCache(std::size_t capacity)
    : capacity_(std::clamp<std::size_t>(capacity, 1, 1u << 24)), slots_(kFirstSlots, kEmpty) {}

void AnswerCache::makeKey(std::string& key, const std::uint8_t* lowerName, std::size_t nameLength,
                          std::uint16_t type, std::uint16_t questionClass, bool dnssecOk,
                          bool checkingDisabled) {
    key.assign(reinterpret_cast<const char*>(lowerName), nameLength);
    key.push_back(static_cast<char>(type >> 8));
    key.push_back(static_cast<char>(type & 0xFF));
    key.push_back(static_cast<char>(questionClass >> 8));
    key.push_back(static_cast<char>(questionClass & 0xFF));
    key.push_back(static_cast<char>((dnssecOk ? 1 : 0) | (checkingDisabled ? 2 : 0)));
}

std::uint64_t AnswerCache::hashOf(std::string_view key) {
    return std::hash<std::string_view>{}(key);
}

std::size_t AnswerCache::find(std::string_view key, std::uint64_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        const std::uint32_t value = slots_[slot];
        if (value == kEmpty) {
            return kNone;
        }
        if (value != kRemoved) {
            const Entry& entry = entries_[value - 1];
            if (entry.hash == hash && entry.key() == key) {
                return slot;
            }
        }
    }
}

void AnswerCache::unlink(std::uint32_t index) {
    Entry& entry = entries_[index];
    if (entry.newer != kNone) {
        entries_[entry.newer].older = entry.older;
    } else {
        newest_ = entry.older;
    }
    if (entry.older != kNone) {
        entries_[entry.older].newer = entry.newer;
    } else {
        oldest_ = entry.newer;
    }
    entry.newer = entry.older = kNone;
}

void AnswerCache::pushNewest(std::uint32_t index) {
    Entry& entry = entries_[index];
    entry.newer = kNone;
    entry.older = newest_;
    if (newest_ != kNone) {
        entries_[newest_].newer = index;
    }
    newest_ = index;
    if (oldest_ == kNone) {
        oldest_ = index;
    }
}

void AnswerCache::remove(std::size_t slot) {
    const std::uint32_t index = slots_[slot] - 1;
    unlink(index);
    entries_[index].block.reset();
    freeEntries_.push_back(index);
    slots_[slot] = kRemoved;
    --count_;
    ++removed_;
}

void AnswerCache::grow() {
    // Double while the answers fill over a third of the slots; otherwise only sweep out the
    // marks of removed ones.
    std::size_t size = slots_.size();
    while ((count_ + 1) * 3 > size) {
        size *= 2;
    }
    std::vector<std::uint32_t> slots(size, kEmpty);
    const std::size_t mask = size - 1;
    for (const std::uint32_t value : slots_) {
        if (value == kEmpty || value == kRemoved) {
            continue;
        }
        std::size_t slot = entries_[value - 1].hash & mask;
        while (slots[slot] != kEmpty) {
            slot = (slot + 1) & mask;
        }
        slots[slot] = value;
    }
    slots_ = std::move(slots);
    removed_ = 0;
}

bool AnswerCache::lookup(std::string_view key, Clock::time_point now,
                         std::vector<std::uint8_t>& answer) {
    const std::size_t slot = find(key, hashOf(key));
    if (slot == kNone) {
        return false;
    }
    const std::uint32_t index = slots_[slot] - 1;
    Entry& entry = entries_[index];
    if (now >= entry.expires) {
        remove(slot);
        return false;
    }
    unlink(index);
    pushNewest(index);
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - entry.stored).count();
    const std::uint32_t elapsed = age < 0 ? 0 : static_cast<std::uint32_t>(age);
    const std::uint8_t* stored = entry.block.get() + entry.keyLength;
    answer.assign(stored, stored + entry.answerLength);
    const std::uint8_t* offsets = stored + entry.answerLength;
    for (std::uint16_t i = 0; i < entry.ttlCount; ++i) {
        const std::uint16_t offset = readU16(offsets + 2 * i);
        const std::uint32_t original = std::min(readU32(answer.data() + offset), entry.ttl);
        writeU32(answer.data() + offset, original > elapsed ? original - elapsed : 0);
    }
    return true;
}

void AnswerCache::store(std::string_view key, std::span<const std::uint8_t> answer,
                        std::span<const std::uint16_t> ttlOffsets, std::chrono::seconds ttl,
                        Clock::time_point now) {
    if (ttl.count() <= 0 || key.size() > 0xFFFF || answer.size() > 0xFFFF ||
        ttlOffsets.size() > 0xFFFF) {
        return;
    }
    const std::uint64_t hash = hashOf(key);
    if (const std::size_t slot = find(key, hash); slot != kNone) {
        remove(slot);
    }
    while (count_ >= capacity_ && oldest_ != kNone) {
        const Entry& oldest = entries_[oldest_];
        remove(find(oldest.key(), oldest.hash));
    }
    if ((count_ + removed_ + 1) * 3 > slots_.size() * 2 || (count_ + 1) * 3 > slots_.size()) {
        grow();
    }
    const std::uint32_t index = takeSlot(entries_, freeEntries_);
    Entry& entry = entries_[index];
    entry.hash = hash;
    entry.keyLength = static_cast<std::uint16_t>(key.size());
    entry.answerLength = static_cast<std::uint16_t>(answer.size());
    entry.ttlCount = static_cast<std::uint16_t>(ttlOffsets.size());
    entry.block = std::make_unique_for_overwrite<std::uint8_t[]>(key.size() + answer.size() +
                                                                 2 * ttlOffsets.size());
    std::uint8_t* write = entry.block.get();
    std::memcpy(write, key.data(), key.size());
    std::memcpy(write + key.size(), answer.data(), answer.size());
    for (std::size_t i = 0; i < ttlOffsets.size(); ++i) {
        writeU16(write + key.size() + answer.size() + 2 * i, ttlOffsets[i]);
    }
    entry.ttl = static_cast<std::uint32_t>(std::min<std::int64_t>(ttl.count(), 0x7FFFFFFF));
    entry.stored = now;
    entry.expires = now + ttl;
    pushNewest(index);
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = hash & mask;
    while (slots_[slot] != kEmpty && slots_[slot] != kRemoved) {
        slot = (slot + 1) & mask;
    }
    if (slots_[slot] == kRemoved) {
        --removed_;
    }
    slots_[slot] = index + 1;
    ++count_;
}

void AnswerCache::clear() {
    entries_.clear();
    entries_.shrink_to_fit();
    freeEntries_.clear();
    freeEntries_.shrink_to_fit();
    slots_.assign(kFirstSlots, kEmpty);
    slots_.shrink_to_fit();
    count_ = 0;
    removed_ = 0;
    newest_ = oldest_ = kNone;
}

}  // namespace morvane::provider
