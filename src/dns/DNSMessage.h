#pragma once

#include <optional>
#include <vector>

#include "dns/DNSHeader.h"
#include "dns/DNSQuestion.h"
#include "dns/DNSResourceRecord.h"

namespace morvane::dns {

/// A whole message. A list that was not decoded (its count was zero) stays absent, which
/// counts as empty. Copies are deep: records are cloned with their class.
class DNSMessage {
public:
    // Written out rather than defaulted: a defaulted constructor makes value-initialisation
    // zero the whole object first, which showed as a tenth of decoding a small query.
    DNSMessage() noexcept {}
    DNSMessage(const DNSMessage& other);
    DNSMessage& operator=(const DNSMessage& other);
    DNSMessage(DNSMessage&&) noexcept = default;
    DNSMessage& operator=(DNSMessage&&) noexcept = default;
    ~DNSMessage() = default;

    DNSHeader header;
    std::optional<std::vector<DNSQuestion>> questions;
    std::optional<DNSResourceRecordList> answers;
    std::optional<DNSResourceRecordList> authorityRecords;
    std::optional<DNSResourceRecordList> additionalRecords;
};

}  // namespace morvane::dns
