#include "provider/AnswerCache.h"

#include <algorithm>

#include "provider/QueryReader.h"

namespace morvane::provider {

AnswerCache::AnswerCache(std::size_t capacity) : capacity_(std::max<std::size_t>(capacity, 1)) {
    index_.reserve(std::min<std::size_t>(capacity_, 1 << 16));
}

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

bool AnswerCache::lookup(std::string_view key, Clock::time_point now,
                         std::vector<std::uint8_t>& answer) {
    const auto found = index_.find(key);
    if (found == index_.end()) {
        return false;
    }
    const auto entry = found->second;
    if (now >= entry->expires) {
        index_.erase(found);
        entries_.erase(entry);
        return false;
    }
    entries_.splice(entries_.begin(), entries_, entry);
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - entry->stored).count();
    const std::uint32_t elapsed = age < 0 ? 0 : static_cast<std::uint32_t>(age);
    answer.assign(entry->answer.begin(), entry->answer.end());
    for (const std::uint16_t offset : entry->ttlOffsets) {
        const std::uint32_t original = std::min(readU32(answer.data() + offset), entry->ttl);
        writeU32(answer.data() + offset, original > elapsed ? original - elapsed : 0);
    }
    return true;
}

void AnswerCache::store(std::string_view key, std::span<const std::uint8_t> answer,
                        std::span<const std::uint16_t> ttlOffsets, std::chrono::seconds ttl,
                        Clock::time_point now) {
    if (ttl.count() <= 0) {
        return;
    }
    if (const auto found = index_.find(key); found != index_.end()) {
        const auto entry = found->second;
        index_.erase(found);
        entries_.erase(entry);
    }
    while (index_.size() >= capacity_ && !entries_.empty()) {
        index_.erase(std::string_view(entries_.back().key));
        entries_.pop_back();
    }
    entries_.push_front(Entry{std::string(key),
                              std::vector<std::uint8_t>(answer.begin(), answer.end()),
                              std::vector<std::uint16_t>(ttlOffsets.begin(), ttlOffsets.end()), now,
                              now + ttl, static_cast<std::uint32_t>(ttl.count())});
    index_.emplace(std::string_view(entries_.front().key), entries_.begin());
}

void AnswerCache::clear() {
    index_.clear();
    entries_.clear();
}

}  // namespace morvane::provider
