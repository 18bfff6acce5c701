#pragma once

// What the two halves of the big integer's implementation (arithmetic and number theory)
// share; not part of the public interface.

#include "ip/BigInt.h"

namespace morvane::ip::bigint_detail {

inline constexpr int kWords = BigInt::maxLength;
inline constexpr int kLimbs = kWords / 2;
static_assert(kWords % 2 == 0, "the words must pair up into limbs");

inline constexpr const char* kArithmetic = "ArithmeticException";
inline constexpr const char* kArgument = "ArgumentException";

}  // namespace morvane::ip::bigint_detail
