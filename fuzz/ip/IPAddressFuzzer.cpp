// Any text gives an address object and never raises; every form of it can be asked for, and
// a valid address survives the trip through its correct form and through its bytes.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ip/AddressPatterns.h"
#include "ip/IPAddress.h"
#include "ip/IPv6.h"
#include "ip/TextHelpers.h"

using namespace morvane::ip;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const IPAddress address(text);

    (void)address.correct();
    (void)address.mask();
    (void)address.binaryZeroPad();
    (void)address.reversedForm();
    (void)address.bigInteger().toStringWithRadix(16);
    (void)address.startAddress()->correctForm();
    (void)address.endAddress()->correctForm();
    (void)address.isInSubnet(address);
    (void)address.bitsBase2WithStart(-5, 300);
    if (const auto* v6 = dynamic_cast<const IPv6*>(address.addrs().get())) {
        (void)v6->canonicalForm();
        (void)v6->decimal();
        (void)v6->v4inv6();
        (void)v6->bitsBase16WithStart(8, 64);
        (void)v6->bitsWithStart(0, 128);
        (void)v6->canonical();
    }

    if (address.valid()) {
        const std::string form = address.correctForm().value_or("");
        if (IPAddress(form).correctForm() != form) {
            std::abort();
        }
        if (IPAddress::addressWithData(address.data()).correctForm() != form) {
            std::abort();
        }
    }

    // The quick test in front of the malformed-shape pattern must never hide a match.
    const icu::UnicodeString unicode = text::fromUtf8(text);
    if (!patterns::mayBeMalformed(unicode) && !patterns::ipv6Malformed().findAll(unicode).empty()) {
        std::abort();
    }
    return 0;
}
