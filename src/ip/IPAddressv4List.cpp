#include "ip/IPAddressv4List.h"

#include <stdexcept>

namespace morvane::ip {

IPAddressv4List::IPAddressv4List(uint32_t first, int64_t count)
    : first_(first), count_(count < 0 ? 0 : count) {
    if (count_ > int64_t{UINT32_MAX} - first + 1) {
        throw std::out_of_range("IPv4 address list runs past 255.255.255.255");
    }
}

IPAddressv4List::IPAddressv4List(IPAddressv4 only)
    : first_(only.integer()), count_(1), only_(std::move(only)) {}

IPAddressv4 IPAddressv4List::operator[](int64_t index) const {
    if (index < 0 || index >= count_) {
        throw std::out_of_range("IPv4 address list index out of range");
    }
    if (only_) {
        return *only_;
    }
    return IPAddressv4(static_cast<uint32_t>(first_ + static_cast<uint64_t>(index)));
}

}  // namespace morvane::ip
