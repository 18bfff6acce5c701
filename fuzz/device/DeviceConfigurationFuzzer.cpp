#include "RoundTrip.h"
#include "messages/DeviceConfiguration.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    morvane::fuzz::checkRoundTrip<morvane::DeviceConfiguration>(data, size);
    return 0;
}
