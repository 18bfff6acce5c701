#include "ip/IPNetworkv4.h"

#include <vector>

#include "ip/DottedQuad.h"
#include "ip/IPAddressParsingError.h"

namespace morvane::ip {

namespace {

[[noreturn]] void reject() {
    throw IPAddressParsingError(IPAddressParsingError::ErrorKind::invalidValue);
}

}  // namespace

IPNetworkv4::IPNetworkv4(std::string_view text) {
    if (text.find('/') != std::string_view::npos) {
        readSubnet(text);
    } else if (text.find('-') != std::string_view::npos) {
        readRange(text);
    } else {
        readSingle(text);
    }
}

void IPNetworkv4::readSubnet(std::string_view text) {
    // Pieces after the second are ignored, and a missing or non-numeric prefix is rejected
    // like any other bad text.
    const std::vector<std::string_view> pieces = dotted::split(text, '/');
    if (pieces.size() < 2) {
        reject();
    }
    const std::optional<uint32_t> value = dotted::readAddress(pieces[0]);
    const std::optional<int64_t> prefix = dotted::readInteger(pieces[1]);
    if (!value || !prefix || *prefix < 1 || *prefix > 32) {
        reject();
    }
    const uint32_t mask = ~uint32_t{0} << (32 - *prefix);
    const uint32_t network = *value & mask;
    const uint32_t broadcast = network | ~mask;

    prefix_ = static_cast<int>(*prefix);
    address_ = std::string(pieces[0]);
    netMask_.emplace(mask);
    networkAddress_.emplace(network);
    broadcastAddress_.emplace(broadcast);
    hosts_ = IPAddressv4List(network, int64_t{broadcast} - network + 1);
    if (hosts_.count() >= 3) {
        usableHosts_ = IPAddressv4List(network + 1, hosts_.count() - 2);
    }
    withPrefix_ = std::string(text);
    withNetMask_ = *address_ + "/" + netMask_->address();
}

void IPNetworkv4::readRange(std::string_view text) {
    const std::vector<std::string_view> pieces = dotted::split(text, '-');
    if (pieces.size() < 2) {
        reject();
    }
    const std::optional<uint32_t> first = dotted::readAddress(pieces[0]);
    const std::optional<uint32_t> last = dotted::readAddress(pieces[1]);
    if (!first || !last) {
        reject();
    }
    isRange_ = true;
    networkAddress_.emplace(pieces[0]);
    broadcastAddress_.emplace(pieces[1]);
    hosts_ = IPAddressv4List(*first, *first <= *last ? int64_t{*last} - *first + 1 : 0);
    usableHosts_ = hosts_;
}

void IPNetworkv4::readSingle(std::string_view text) {
    networkAddress_.emplace(text);
    broadcastAddress_.emplace(text);
    prefix_ = 32;
    netMask_.emplace(std::string_view("255.255.255.255"));
    hosts_ = IPAddressv4List(*networkAddress_);
    usableHosts_ = hosts_;
    withPrefix_ = std::string(text) + "/32";
    withNetMask_ = std::string(text) + "/255.255.255.255";
}

}  // namespace morvane::ip
