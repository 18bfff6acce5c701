#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
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
    std::size_t size() const { return count_; }
    std::size_t capacity() const { return capacity_; }

private:
    static constexpr std::uint32_t kNone = 0xFFFFFFFFu;
    static constexpr std::uint32_t kEmpty = 0;
    static constexpr std::uint32_t kRemoved = 0xFFFFFFFFu;

    // One allocation an answer: the key, then the answer, then the TTL offsets. With the table
    // of slots below, a hit touches three places in memory where a node-based map touched five
    // or six; under load those misses were the larger part of the forwarder's own time.
    struct Entry {
        std::uint64_t hash = 0;
        std::unique_ptr<std::uint8_t[]> block;
        std::uint16_t keyLength = 0;
        std::uint16_t answerLength = 0;
        std::uint16_t ttlCount = 0;
        std::uint32_t ttl = 0;
        std::uint32_t newer = kNone;  // towards the most recently used
        std::uint32_t older = kNone;
        Clock::time_point stored{};
        Clock::time_point expires{};

        std::string_view key() const {
            return {reinterpret_cast<const char*>(block.get()), keyLength};
        }
    };

    static std::uint64_t hashOf(std::string_view key);
    /// The slot that holds `key`, or kNone.
    std::size_t find(std::string_view key, std::uint64_t hash) const;
    void remove(std::size_t slot);
    void unlink(std::uint32_t index);
    void pushNewest(std::uint32_t index);
    void grow();

    std::size_t capacity_;
    std::vector<Entry> entries_;
    std::vector<std::uint32_t> freeEntries_;
    std::vector<std::uint32_t> slots_;  // entry index + 1; 0 empty; kRemoved a removed one
    std::size_t count_ = 0;
    std::size_t removed_ = 0;
    std::uint32_t newest_ = kNone;
    std::uint32_t oldest_ = kNone;
};

}  // namespace morvane::provider
