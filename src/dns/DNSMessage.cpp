#include "dns/DNSMessage.h"

namespace morvane::dns {
namespace {

std::optional<DNSResourceRecordList> cloneRecords(
    const std::optional<DNSResourceRecordList>& records) {
    if (!records) {
        return std::nullopt;
    }
    DNSResourceRecordList copies;
    copies.reserve(records->size());
    for (const auto& record : *records) {
        copies.push_back(record ? record->clone() : nullptr);
    }
    return copies;
}

}  // namespace

DNSMessage::DNSMessage(const DNSMessage& other)
    : header(other.header),
      questions(other.questions),
      answers(cloneRecords(other.answers)),
      authorityRecords(cloneRecords(other.authorityRecords)),
      additionalRecords(cloneRecords(other.additionalRecords)) {}

DNSMessage& DNSMessage::operator=(const DNSMessage& other) {
    if (this != &other) {
        DNSMessage copy(other);
        *this = std::move(copy);
    }
    return *this;
}

}  // namespace morvane::dns
