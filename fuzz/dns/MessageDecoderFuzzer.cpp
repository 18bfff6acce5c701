// Any bytes into the message decoder: it must never read outside the buffer, hang or leak.
// Whatever decodes is also encoded again and read through the typed records, whose data is
// just as much attacker-controlled as the message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "dns/DNSAResourceRecord.h"
#include "dns/DNSCNAMEResourceRecord.h"
#include "dns/DNSMessageDecoder.h"
#include "dns/DNSMessageEncoder.h"
#include "dns/DNSOPTResourceRecord.h"
#include "ip/NamedException.h"

namespace {

using namespace morvane::dns;

void readTypedViews(const std::optional<DNSResourceRecordList>& records) {
    if (!records) {
        return;
    }
    for (const auto& record : *records) {
        // Every record's data is tried as a name, not only a CNAME's.
        // An address needs 4 or 16 bytes; for any other length the exception is the
        // documented answer, for those two it would be a fault.
        try {
            (void)DNSAResourceRecord::fromResource(*record).encode();
        } catch (const morvane::ip::NamedException&) {
            if (record->data.size() == 4 || record->data.size() == 16) {
                std::abort();
            }
        }
        const auto cname = DNSCNAMEResourceRecord::fromResource(*record);
        const auto opt = DNSOPTResourceRecord::fromResource(*record);
        (void)cname.encode();
        (void)opt.encode();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > std::numeric_limits<std::uint16_t>::max()) {
        return -1;
    }
    DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(data, static_cast<std::uint32_t>(size));
    if (const auto& message = decoder.message()) {
        (void)DNSMessageEncoder::encode(*message);
        readTypedViews(message->answers);
        readTypedViews(message->authorityRecords);
        readTypedViews(message->additionalRecords);
    }
    return 0;
}
