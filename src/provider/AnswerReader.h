#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "provider/QueryReader.h"

namespace morvane::provider {

/// What the forwarder needs of a resolver's answer.
struct UpstreamAnswer {
    std::uint8_t responseCode = 0;
    bool truncated = false;
    /// The OPT record, when there is one; it is dropped from what clients get (they get the
    /// forwarder's own), which is possible without rewriting names only when it comes last.
    bool hasOpt = false;
    bool optIsLast = false;
    std::size_t optOffset = 0;
    /// Offsets of every record's TTL but the OPT's, to age the answer when served from cache.
    std::vector<std::uint16_t> ttlOffsets;
    /// How long the answer may be kept: the least TTL of its records, or for a negative answer
    /// (NXDOMAIN, or no answer records) the lesser of the SOA's TTL and its minimum. Zero when
    /// it must not be kept.
    std::uint32_t cacheTtl = 0;
    bool negative = false;
};

enum class AnswerVerdict {
    ok,
    foreign,    // not the answer to this question: someone else's, or spoofed; keep waiting
    malformed,  // the resolver's answer cannot be read: count the resolver as failed
};

/// Reads a resolver's answer to `question` (the client query's question, whose `lowerName`
/// the answer's question must equal in any case) sent with `id`. Sections are walked record by
/// record within `length`; nothing is read outside it.
AnswerVerdict readUpstreamAnswer(const std::uint8_t* data, std::size_t length, std::uint16_t id,
                                 const ClientQuery& question, UpstreamAnswer& answer);

}  // namespace morvane::provider
