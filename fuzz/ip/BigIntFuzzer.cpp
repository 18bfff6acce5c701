// Any text read in radix 16 either gives a number that renders back to itself (all but the most
// negative one) or raises the documented ArithmeticException; arithmetic on what was read raises
// only named errors.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ip/BigInt.h"
#include "ip/NamedException.h"

using namespace morvane::ip;

namespace {

void expectDocumented(const NamedException& error) {
    if (error.name() != "ArithmeticException" && error.name() != "ArgumentException") {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    BigInt value;
    try {
        value = BigInt::createWithString(text, 16);
    } catch (const NamedException& error) {
        if (error.name() != "ArithmeticException") {
            std::abort();
        }
        return 0;
    }
    std::string rendered;
    try {
        rendered = value.toStringWithRadix(16);
    } catch (const NamedException& error) {
        // The most negative value has no negation and so no rendering; it is the only one.
        static const BigInt mostNegative =
            BigInt::createWithString("-8" + std::string(559, '0'), 16);
        if (error.reason() != "Overflow in negation." || !value.equals(mostNegative)) {
            std::abort();
        }
        return 0;
    }
    if (!BigInt::createWithString(rendered, 16).equals(value)) {
        std::abort();
    }
    try {
        const BigInt seven = BigInt::createWithInt(7);
        const BigInt square = value.multiply(value);
        const BigInt quotient = square.divide(value.add(seven));
        (void)quotient.toStringWithRadix(10);
        (void)value.mod(seven).modPow(value.abs(), BigInt::createWithInt(1000003));
        (void)value.abs().sqrt();
        (void)value.shiftRight(13).xOr(value.shiftLeft(3));
    } catch (const NamedException& error) {
        expectDocumented(error);
    }
    return 0;
}
