#pragma once

#include <cstdint>

namespace morvane::dns {

/// The fixed 12 bytes at the start of every message. The counts are what the wire said; the
/// message encoder replaces them with the sizes of the lists it writes.
struct DNSHeader {
    bool isQuery = false;
    bool authoritativeAnswer = false;
    bool truncated = false;
    bool recursionDesired = false;
    bool recursionAvailable = false;
    bool authenticatedData = false;
    bool checkingDisabled = false;
    std::uint8_t responseCode = 0;
    std::uint16_t id = 0;
    std::uint16_t opCode = 0;
    std::uint16_t questionCount = 0;
    std::uint16_t answerRecordCount = 0;
    std::uint16_t authorityRecordCount = 0;
    std::uint16_t additionalRecordCount = 0;

    friend bool operator==(const DNSHeader&, const DNSHeader&) = default;
};

}  // namespace morvane::dns
