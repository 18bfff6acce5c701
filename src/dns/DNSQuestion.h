#pragma once

#include <cstdint>
#include <string>

namespace morvane::dns {

struct DNSQuestion {
    std::uint16_t type = 0;
    std::uint16_t questionClass = 0;
    std::string name;

    friend bool operator==(const DNSQuestion&, const DNSQuestion&) = default;
};

}  // namespace morvane::dns
