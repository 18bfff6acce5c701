#include "RoundTrip.h"
#include "messages/MainConfiguration.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    morvane::fuzz::checkRoundTrip<morvane::MainConfiguration>(data, size);
    return 0;
}
