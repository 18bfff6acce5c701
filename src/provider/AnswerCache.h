#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace morvane::provider {

/// Answers by question, kept for their TTL and bounded in number: when full, the answer used
/// least recently makes room. An answer comes out with every TTL lowered by the time it has
/// spent here, so a client never keeps it longer than its source allowed.
class AnswerCache {
public:
    using Clock = std::chrono::steady_clock;

    explicit AnswerCache(std::size_t capacity);

    /// The key of a question: lower-case wire name, type, class, and the DO and CD bits, which
    /// change what a resolver answers. Written into `key`.
    static void makeKey(std::string& key, const std::uint8_t* lowerName, std::size_t nameLength,
                        std::uint16_t type, std::uint16_t questionClass, bool dnssecOk,
                        bool checkingDisabled);

    /// Copies the answer for `key` into `answer` with its TTLs aged; false when there is none
    /// or it has expired (an expired one is dropped).
    bool lookup(std::string_view key, Clock::time_point now, std::vector<std::uint8_t>& answer);
    /// Keeps `answer` (without an OPT record) for `ttl`; `ttlOffsets` are where its records'
    /// TTLs are. A zero TTL keeps nothing.
    void store(std::string_view key, std::span<const std::uint8_t> answer,
               std::span<const std::uint16_t> ttlOffsets, std::chrono::seconds ttl,
               Clock::time_point now);
    void clear();
    std::size_t size() const { return index_.size(); }
    std::size_t capacity() const { return capacity_; }

private:
    struct Entry {
        std::string key;
        std::vector<std::uint8_t> answer;
        std::vector<std::uint16_t> ttlOffsets;
        Clock::time_point stored;
        Clock::time_point expires;
        std::uint32_t ttl = 0;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };
    using List = std::list<Entry>;

    std::size_t capacity_;
    List entries_;  // most recently used first
    std::unordered_map<std::string_view, List::iterator, Hash, std::equal_to<>> index_;
};

}  // namespace morvane::provider
