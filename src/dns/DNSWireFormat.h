#pragma once

#include <cstdint>

// Sizes and bit positions of the DNS wire form (RFC 1035 section 4.1, RFC 6891 section 6.1),
// named once so that the encoders and decoders agree and nobody writes a bare 12 or 0xC0.
namespace morvane::dns::wire {

inline constexpr std::uint32_t headerSize = 12;
// Type and class behind a question's name.
inline constexpr std::uint32_t questionFixedSize = 4;
// Type, class, TTL and data length behind a record's name.
inline constexpr std::uint32_t recordFixedSize = 10;
// The smallest name is the root: one zero byte.
inline constexpr std::uint32_t minimumNameSize = 1;

// The 16-bit flags word at offset 2 of the header.
inline constexpr std::uint16_t responseFlag = 0x8000;
inline constexpr unsigned opCodeShift = 11;
inline constexpr std::uint16_t opCodeMask = 0x0F;
inline constexpr std::uint16_t authoritativeAnswerFlag = 0x0400;
inline constexpr std::uint16_t truncatedFlag = 0x0200;
inline constexpr std::uint16_t recursionDesiredFlag = 0x0100;
inline constexpr std::uint16_t recursionAvailableFlag = 0x0080;
inline constexpr std::uint16_t authenticatedDataFlag = 0x0020;
inline constexpr std::uint16_t checkingDisabledFlag = 0x0010;
inline constexpr std::uint16_t responseCodeMask = 0x0F;

// A length byte with both top bits set starts a two-byte compression pointer.
inline constexpr std::uint8_t pointerTag = 0xC0;
inline constexpr std::uint16_t pointerOffsetMask = 0x3FFF;
// Any length byte below the pointer tag is read as a label length.
inline constexpr std::uint32_t maximumLabelSize = 0xBF;
// Length bytes, label bytes and the final zero of one name together (RFC 1035 section 3.1).
inline constexpr std::uint32_t maximumNameSize = 255;
// Label bytes are read as ASCII text.
inline constexpr std::uint8_t highestLabelByte = 0x7F;

// The TTL word of an OPT record.
inline constexpr unsigned extendedRCodeShift = 24;
inline constexpr unsigned versionShift = 16;
inline constexpr std::uint32_t dnssecOKFlag = 0x8000;
inline constexpr std::uint16_t optType = 41;

inline constexpr std::uint16_t aType = 1;
inline constexpr std::uint16_t cnameType = 5;

}  // namespace morvane::dns::wire
