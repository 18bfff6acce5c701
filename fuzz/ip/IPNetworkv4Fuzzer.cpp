// Any text either gives a network with consistent fields or raises IPAddressParsingError of
// kind invalidValue; nothing else escapes.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ip/IPAddressParsingError.h"
#include "ip/IPNetworkv4.h"

using namespace morvane::ip;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const IPNetworkv4 network(text);
        const IPAddressv4List& hosts = network.hosts();
        if (network.count() < 0 || network.count() > (int64_t{1} << 32) ||
            network.usableHosts().count() > network.count()) {
            std::abort();
        }
        if (!hosts.empty() && hosts.front().integer() > hosts.back().integer()) {
            std::abort();
        }
        int64_t seen = 0;
        for (const IPAddressv4& host : network.usableHosts()) {
            (void)host.reversePointer();
            if (++seen == 16) {
                break;
            }
        }
        (void)network.networkAddress().isPrivate();
        (void)network.broadcastAddress().isMulticast();
        (void)network.withNetMask();
    } catch (const IPAddressParsingError& error) {
        if (error.kind != IPAddressParsingError::ErrorKind::invalidValue) {
            std::abort();
        }
    }
    return 0;
}
