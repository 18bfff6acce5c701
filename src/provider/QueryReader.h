#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace morvane::provider {

/// What the forwarder needs of a client's query, read in place without allocating: the hot
/// path of every datagram. The project's message decoder builds whole records with owned
/// texts, which is the right thing for the agent and several times the work needed here.
struct ClientQuery {
    std::uint16_t id = 0;
    std::uint16_t flags = 0;  // the second 16 bits of the header as received
    /// The question as received: the name in wire form (letters as the client wrote them),
    /// then type and class. A copy, so that the query outlives its datagram.
    std::array<std::uint8_t, 259> question{};
    std::uint16_t questionLength = 0;
    std::uint16_t nameLength = 0;  // wire length of the name, final zero included
    std::uint16_t type = 0;
    std::uint16_t questionClass = 0;
    /// The name in wire form with ASCII letters made lower case: what routes and caches.
    std::array<std::uint8_t, 256> lowerName{};
    bool edns = false;
    std::uint16_t ednsUdpSize = 0;
    std::uint8_t ednsVersion = 0;
    bool dnssecOk = false;
};

enum class QueryVerdict {
    ok,
    drop,  // too short to answer, or a response: answering could start a loop
    formatError,
    notImplemented,  // an operation other than QUERY; the question is still read when it can be
    badVersion,      // EDNS version above 0
};

/// Reads a client's datagram. Names longer than 255 bytes, compression in the question,
/// label types other than plain, more than one question, records in the answer or authority
/// section, two OPT records or an OPT not owned by the root are format errors.
QueryVerdict readClientQuery(const std::uint8_t* data, std::size_t length, ClientQuery& query);

/// Skips a name that may end in a compression pointer. False when it runs past `length` or
/// holds a label type other than plain or pointer.
bool skipName(const std::uint8_t* data, std::size_t length, std::size_t& offset);

inline std::uint16_t readU16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
inline std::uint32_t readU32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}
inline void writeU16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}
inline void writeU32(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}

}  // namespace morvane::provider
