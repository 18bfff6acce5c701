#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "provider/QueryReader.h"

namespace morvane::provider {

/// The EDNS buffer size the forwarder offers its resolvers: small enough to avoid IP
/// fragmentation on every common path.
inline constexpr std::uint16_t kUpstreamUdpSize = 1232;
inline constexpr std::uint16_t kOptionLocationTag = 65073;
inline constexpr std::uint16_t kOptionUuid = 65074;
inline constexpr std::uint8_t kServFail = 2;

/// The EDNS options that tell the default resolvers who the device is: `locationTag` and
/// `uuid` as UTF-8 text. An empty text gives no option; a text too long for an option is cut
/// at 512 bytes, which no real tag comes near.
std::vector<std::uint8_t> identityOptions(std::string_view locationTag, std::string_view uuid);

/// A resolver's query for the client's question: the client's RD, AD and CD bits, the
/// question as the client wrote it, and an OPT record of the forwarder's own (buffer 1232, the
/// client's DO bit, then `options`). Appends to `out`.
void writeUpstreamQuery(std::vector<std::uint8_t>& out, std::uint16_t id, const ClientQuery& query,
                        std::span<const std::uint8_t> options);

/// The answer for a query that cannot be served: header with the client's id, opcode and RD,
/// the question when it was read, and `responseCode` (for BADVERS an OPT with the extended
/// code). Replaces `out`.
void writeErrorReply(std::vector<std::uint8_t>& out, const ClientQuery& query,
                     std::uint8_t responseCode, bool withQuestion);

/// Turns a resolver's answer whose OPT record is gone into the client's: the client's id,
/// the question in the client's letters, an OPT of the forwarder's when the client used EDNS;
/// over `maxLength` it becomes an empty answer with TC set, so the client asks over TCP.
/// `keptOpt`: the resolver's OPT could not be taken out (it was not last) and stays instead.
void finishReply(std::vector<std::uint8_t>& answer, const ClientQuery& query, std::size_t maxLength,
                 bool keptOpt = false);

/// Removes the OPT record that ends `answer` (at `optOffset`) and counts it out of the
/// additional section.
void dropTrailingOpt(std::vector<std::uint8_t>& answer, std::size_t optOffset);

}  // namespace morvane::provider
