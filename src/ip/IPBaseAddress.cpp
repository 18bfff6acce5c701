#include "ip/IPBaseAddress.h"

#include <algorithm>

namespace morvane::ip {

std::string IPBaseAddress::mask() const {
    return maskWith(subnetMask());
}

std::string IPBaseAddress::maskWith(int bits) const {
    return bitsBase2WithStart(0, bits);
}

std::string IPBaseAddress::bitsBase2WithStart(int start, int end) const {
    const std::string bits = binaryZeroPad();
    const int size = static_cast<int>(bits.size());
    start = std::clamp(start, 0, size);
    end = std::clamp(end, 0, size);
    if (end <= start) {
        return {};
    }
    return bits.substr(static_cast<size_t>(start), static_cast<size_t>(end - start));
}

bool IPBaseAddress::isInSubnet(const IPBaseAddress& other) const {
    if (subnetMask() < other.subnetMask()) {
        return false;
    }
    return maskWith(other.subnetMask()) == other.mask();
}

std::string IPBaseAddress::maskFilledWith(char fill, int width) const {
    std::string bits = mask();
    if (static_cast<int>(bits.size()) < width) {
        bits.append(static_cast<size_t>(width) - bits.size(), fill);
    }
    return bits;
}

bool IPBaseAddress::correctWith(const std::optional<std::string>& addressWithoutSuffix,
                                int width) const {
    const std::optional<std::string> form = correctForm();
    if (!addressWithoutSuffix || !form || *addressWithoutSuffix != *form) {
        return false;
    }
    return subnetMask() == width || (parsedSubnet() && *parsedSubnet() == subnet().substr(1));
}

}  // namespace morvane::ip
