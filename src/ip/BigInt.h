#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace morvane::ip {

/// A signed integer of fixed capacity: 70 words of 32 bits in two's complement, least
/// significant word first, kept inline so that a number never costs a heap allocation.
///
/// Values are immutable to arithmetic: every operation returns a new number. Results are
/// trimmed: `dataLength` counts the words in use, and a negative number uses all 70 words.
/// Errors raise `NamedException` with the names "ArithmeticException" and
/// "ArgumentException" (and "ArithmaticException" for an oversized word array).
class BigInt {
public:
    static constexpr int maxLength = 70;

    /// Zero.
    BigInt();

    static BigInt createWithInt(int32_t value);
    static BigInt createWithLong(int64_t value);
    static BigInt createWithULong(uint64_t value);
    static BigInt createWithBigInt(const BigInt& other);
    /// `words` is most significant first; more than `maxLength` words raise.
    static BigInt createWithUIntArray(std::span<const uint32_t> words);
    /// Digits "0"-"9" and "A"-"Z" (either case) below `radix`, with an optional leading "-".
    static BigInt createWithString(std::string_view text, int radix);

    /// The `maxLength` words, least significant first.
    const uint32_t* getData() const { return data_; }
    uint32_t getDataAtIndex(int index) const;
    /// Writes one word as it is; the caller keeps `dataLength` right.
    void setData(uint32_t value, int index);
    int dataLength() const { return dataLength_; }
    void setDataLength(int length);
    /// Word 0 read as a signed 32-bit number.
    int32_t intValue() const { return static_cast<int32_t>(data_[0]); }

    /// Digits in upper case, "-" in front of a negative number; radix 2 to 36.
    std::string toStringWithRadix(int radix) const;

    BigInt add(const BigInt& other) const;
    BigInt subtract(const BigInt& other) const;
    BigInt multiply(const BigInt& other) const;
    /// Truncating division: the quotient's sign is the product of the signs.
    BigInt divide(const BigInt& other) const;
    /// The remainder of `divide`, with the dividend's sign.
    BigInt mod(const BigInt& other) const;
    BigInt negate() const;
    BigInt abs() const;

    bool equals(const BigInt& other) const;
    bool greaterThan(const BigInt& other) const;
    bool lessThan(const BigInt& other) const;
    bool isNegative() const { return (data_[maxLength - 1] & 0x80000000u) != 0; }
    bool isZero() const { return dataLength_ == 1 && data_[0] == 0; }

    /// The bitwise operations of the spelling `not`, `and:`, `or:`, over all 70 words.
    BigInt bitwiseNot() const;
    BigInt bitwiseAnd(const BigInt& other) const;
    BigInt bitwiseOr(const BigInt& other) const;
    BigInt xOr(const BigInt& other) const;
    /// Shifts within the 2240 bits; a right shift keeps the sign. A negative count shifts the
    /// other way.
    BigInt shiftLeft(int bits) const;
    BigInt shiftRight(int bits) const;

    /// Position of the highest set bit plus one; 0 for zero.
    int bitCount() const;
    /// Integer square root, rounded down, of a non-negative number.
    BigInt sqrt() const;
    /// Greatest common divisor of the absolute values.
    BigInt gcd(const BigInt& other) const;
    /// This number to the power `exponent`, modulo `modulus`, in [0, modulus). The exponent
    /// must not be negative and the modulus must be positive.
    BigInt modPow(const BigInt& exponent, const BigInt& modulus) const;

    /// Replaces this number with `bits` random bits from the kernel's generator, the top one
    /// set.
    void getRandomBits(int bits);
    /// Trial division by the primes below 2000, then `rabinMillerTestWithConfidence`.
    bool isProbablePrimeWithConfidence(int confidence) const;
    /// Trial division, a strong probable-prime test to base 2, then the strong Lucas test.
    bool isProbablePrime() const;
    /// Miller-Rabin with `confidence` random bases.
    bool rabinMillerTestWithConfidence(int confidence) const;
    static BigInt generatePseudoPrimeWithBits(int bits, int confidence);
    /// The Jacobi symbol (a/b) for odd b: -1, 0 or 1.
    static int jacobi(const BigInt& a, const BigInt& b);
    /// U, V and Q to the power of the index, each modulo `n`, of the Lucas sequences with
    /// parameters `P` and `Q`, at the index `k` times 2 to the power `s`. `k` must be odd, and
    /// `constant` is the reduction constant of `n`: 2^(64 * n.dataLength()) / n.
    static std::array<BigInt, 3> lucasSequence(const BigInt& P, const BigInt& Q, const BigInt& k,
                                               const BigInt& n, const BigInt& constant, int s);
    /// Strong Lucas probable-prime test with Selfridge's choice of parameters.
    static bool lucasStrongTest(const BigInt& candidate);

    BigInt operator+(const BigInt& o) const { return add(o); }
    BigInt operator-(const BigInt& o) const { return subtract(o); }
    BigInt operator*(const BigInt& o) const { return multiply(o); }
    BigInt operator/(const BigInt& o) const { return divide(o); }
    BigInt operator%(const BigInt& o) const { return mod(o); }
    BigInt operator-() const { return negate(); }
    BigInt operator~() const { return bitwiseNot(); }
    BigInt operator&(const BigInt& o) const { return bitwiseAnd(o); }
    BigInt operator|(const BigInt& o) const { return bitwiseOr(o); }
    BigInt operator^(const BigInt& o) const { return xOr(o); }
    BigInt operator<<(int bits) const { return shiftLeft(bits); }
    BigInt operator>>(int bits) const { return shiftRight(bits); }
    bool operator==(const BigInt& o) const { return equals(o); }
    bool operator<(const BigInt& o) const { return lessThan(o); }
    bool operator>(const BigInt& o) const { return greaterThan(o); }
    bool operator<=(const BigInt& o) const { return !greaterThan(o); }
    bool operator>=(const BigInt& o) const { return !lessThan(o); }

private:
    class Reducer;
    friend class Reducer;

    enum class Uninitialized { tag };
    explicit BigInt(Uninitialized) {}

    void trim();
    /// The word-by-word combination of two numbers, as the bitwise operations need it.
    template <class Combine>
    BigInt wordwise(const BigInt& other, Combine combine) const;
    /// Zeroes the words from `from` to the top.
    void clearFrom(int from);
    /// The number made of `count` 64-bit limbs, least significant first, read as unsigned.
    static BigInt fromLimbs(const uint64_t* limbs, int count);
    /// The signed number whose absolute value is `count` limbs, least significant first;
    /// raises `overflowReason` when it does not fit.
    static BigInt fromMagnitude(const uint64_t* limbs, int count, bool negative,
                                const char* overflowReason);
    /// The same, written over `r`, which may be uninitialised.
    static void assignMagnitude(BigInt& r, const uint64_t* limbs, int count, bool negative,
                                const char* overflowReason);

    /// Division of magnitudes: quotient and remainder limbs of `a` (`na` limbs, at least the
    /// divisor) by a divisor of one 32-bit word, or of two words or more; `multiByteDivide`
    /// takes a null remainder when only the quotient is wanted.
    static void singleByteDivide(const uint64_t* a, int na, uint32_t divisor, uint64_t* quotient,
                                 uint64_t* remainder);
    static void multiByteDivide(const uint64_t* a, int na, const uint64_t* divisor, int nd,
                                uint64_t* quotient, uint64_t* remainder);
    /// Quotient and remainder with the signs that `divide` and `mod` give; either may be null,
    /// and either may point to an uninitialised number.
    static void divideWithSigns(const BigInt& dividend, const BigInt& divisor, BigInt* quotient,
                                BigInt* remainder);
    /// Shifts the first `size` words of `buffer` in place and returns the used length.
    static int shiftLeft(uint32_t* buffer, int size, int bits);
    static int shiftRight(uint32_t* buffer, int size, int bits);
    bool strongProbablePrimeToBase(const BigInt& base) const;

    alignas(8) uint32_t data_[maxLength];
    int32_t dataLength_;
};

}  // namespace morvane::ip
