#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ip/IPBaseAddress.h"

namespace morvane::ip {

/// An address of either family: the text is tried as IPv4 first and, when that is not valid,
/// kept as IPv6, valid or not, so an invalid text reports the IPv6 error. Every property and
/// operation forwards to the wrapped address. Copies share the wrapped object, which never
/// changes.
class IPAddress final : public IPBaseAddress {
public:
    explicit IPAddress(std::string_view address);
    /// Wraps a ready address; null is a fault of the caller and throws std::invalid_argument.
    explicit IPAddress(std::shared_ptr<const IPBaseAddress> ip);

    static IPAddress addressFromString(std::string_view address);
    /// Four bytes make an IPv4 address and sixteen an IPv6 one, most significant first; any
    /// other length raises NamedException "ipInvalidLength".
    static IPAddress addressWithData(std::span<const uint8_t> data);

    /// The wrapped IPv4 or IPv6 object.
    const std::shared_ptr<const IPBaseAddress>& addrs() const { return addrs_; }

    bool valid() const override { return addrs_->valid(); }
    bool correct() const override { return addrs_->correct(); }
    const std::optional<std::string>& error() const override { return addrs_->error(); }
    const std::string& address() const override { return addrs_->address(); }
    int groups() const override { return addrs_->groups(); }
    bool v4() const override { return addrs_->v4(); }
    const std::string& subnet() const override { return addrs_->subnet(); }
    uint8_t subnetMask() const override { return addrs_->subnetMask(); }
    const std::optional<std::string>& parsedSubnet() const override {
        return addrs_->parsedSubnet();
    }
    const std::vector<std::string>& parsedAddress() const override {
        return addrs_->parsedAddress();
    }
    std::string mask() const override { return addrs_->mask(); }

    std::optional<std::string> correctForm() const override { return addrs_->correctForm(); }
    BigInt bigInteger() const override { return addrs_->bigInteger(); }
    std::shared_ptr<const IPBaseAddress> startAddress() const override {
        return addrs_->startAddress();
    }
    std::shared_ptr<const IPBaseAddress> endAddress() const override {
        return addrs_->endAddress();
    }
    std::string maskWith(int bits) const override { return addrs_->maskWith(bits); }
    std::string bitsBase2WithStart(int start, int end) const override {
        return addrs_->bitsBase2WithStart(start, end);
    }
    bool isInSubnet(const IPBaseAddress& other) const override { return addrs_->isInSubnet(other); }
    std::string binaryZeroPad() const override { return addrs_->binaryZeroPad(); }
    std::string reversedForm() const override { return addrs_->reversedForm(); }
    std::vector<uint8_t> data() const override { return addrs_->data(); }

private:
    std::shared_ptr<const IPBaseAddress> addrs_;
};

}  // namespace morvane::ip
