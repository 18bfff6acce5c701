#include "ip/BigInt.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

#include "ip/BigIntShared.h"
#include "ip/LimbArithmetic.h"
#include "ip/NamedException.h"

namespace morvane::ip {

using limbs::AliasedLimb;
using limbs::Limb;

namespace {

using namespace bigint_detail;

AliasedLimb* limbsOf(uint32_t* words) {
    return reinterpret_cast<AliasedLimb*>(words);
}
const AliasedLimb* limbsOf(const uint32_t* words) {
    return reinterpret_cast<const AliasedLimb*>(words);
}
int limbsFor(int words) {
    return (words + 1) / 2;
}

/// The limbs of the absolute value: the value's own words when it is not negative, else its
/// negation written to `buffer`. `count` gets the limbs in use (0 for zero). The most negative
/// number gives 2^2239, read as unsigned.
const AliasedLimb* magnitudeOf(const BigInt& value, Limb* buffer, int& count) {
    const AliasedLimb* words = limbsOf(value.getData());
    if (!value.isNegative()) {
        count = limbs::normalizedSize(words, limbsFor(value.dataLength()));
        return words;
    }
    Limb carry = 1;
    for (int i = 0; i < kLimbs; ++i) {
        buffer[i] = ~words[i] + carry;
        carry = carry != 0 && buffer[i] == 0;
    }
    count = limbs::normalizedSize(buffer, kLimbs);
    return buffer;
}

int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'Z') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

BigInt::BigInt() : data_{}, dataLength_(1) {}

void BigInt::trim() {
    while (dataLength_ > 1 && data_[dataLength_ - 1] == 0) {
        --dataLength_;
    }
}

void BigInt::clearFrom(int from) {
    if (from < kWords) {
        std::memset(data_ + from, 0, sizeof(uint32_t) * static_cast<size_t>(kWords - from));
    }
}

BigInt BigInt::fromLimbs(const uint64_t* source, int count) {
    BigInt r(Uninitialized::tag);
    count = std::min(count, kLimbs);
    std::memcpy(r.data_, source, sizeof(Limb) * static_cast<size_t>(count));
    r.clearFrom(2 * count);
    r.dataLength_ = std::max(1, 2 * count);
    r.trim();
    return r;
}

BigInt BigInt::createWithLong(int64_t value) {
    BigInt r;
    if (value >= 0) {
        int i = 0;
        do {
            r.data_[i++] = static_cast<uint32_t>(value);
            value >>= 32;
        } while (value != 0);
        r.dataLength_ = i;
    } else {
        for (int i = 0; i < kWords; ++i) {
            r.data_[i] = static_cast<uint32_t>(value);
            value >>= 32;
        }
        r.dataLength_ = kWords;
    }
    return r;
}

BigInt BigInt::createWithInt(int32_t value) {
    return createWithLong(value);
}

BigInt BigInt::createWithULong(uint64_t value) {
    BigInt r;
    int i = 0;
    do {
        r.data_[i++] = static_cast<uint32_t>(value);
        value >>= 32;
    } while (value != 0);
    r.dataLength_ = i;
    return r;
}

BigInt BigInt::createWithBigInt(const BigInt& other) {
    return other;
}

BigInt BigInt::createWithUIntArray(std::span<const uint32_t> words) {
    if (words.size() > static_cast<size_t>(kWords)) {
        throw NamedException("ArithmaticException", "Byte overflow in constructor");
    }
    BigInt r;
    const int size = static_cast<int>(words.size());
    for (int i = 0; i < size; ++i) {
        r.data_[i] = words[static_cast<size_t>(size - 1 - i)];
    }
    r.dataLength_ = std::max(1, size);
    r.trim();
    return r;
}

BigInt BigInt::createWithString(std::string_view text, int radix) {
    if (text.empty()) {
        throw NamedException(kArithmetic, "Invalid string in constructor.");
    }
    const bool negative = text.front() == '-';
    const size_t limit = negative ? 1 : 0;
    const BigInt radixValue = createWithInt(radix);
    BigInt multiplier = createWithInt(1);
    BigInt sum;
    // Digits are taken from the last one up, each worth the next power of the radix, so that
    // a number too large for the capacity fails where its value leaves the range.
    for (size_t i = text.size(); i-- > limit;) {
        const char c =
            static_cast<char>((text[i] >= 'a' && text[i] <= 'z') ? text[i] - 'a' + 'A' : text[i]);
        const int digit = digitValue(c);
        if (digit < 0 || digit >= radix) {
            throw NamedException(kArithmetic, "Invalid string in constructor.");
        }
        sum = sum.add(multiplier.multiply(createWithInt(negative ? -digit : digit)));
        if (i != limit) {
            multiplier = multiplier.multiply(radixValue);
        }
    }
    if (negative && !sum.isNegative()) {
        throw NamedException(kArithmetic, "Negative underflow in constructor.");
    }
    if (!negative && sum.isNegative()) {
        throw NamedException(kArithmetic, "Positive overflow in constructor.");
    }
    return sum;
}

uint32_t BigInt::getDataAtIndex(int index) const {
    if (index < 0 || index >= kWords) {
        throw std::out_of_range("BigInt word index out of range");
    }
    return data_[index];
}

void BigInt::setData(uint32_t value, int index) {
    if (index < 0 || index >= kWords) {
        throw std::out_of_range("BigInt word index out of range");
    }
    data_[index] = value;
}

void BigInt::setDataLength(int length) {
    if (length < 1 || length > kWords) {
        throw std::out_of_range("BigInt data length out of range");
    }
    dataLength_ = length;
}

std::string BigInt::toStringWithRadix(int radix) const {
    if (radix < 2 || radix > 36) {
        throw NamedException(kArgument, "Radix must be >= 2 and <= 36");
    }
    if (isZero()) {
        return "0";
    }
    const bool negative = isNegative();

    // Divide by the largest power of the radix that fits a limb, and split each remainder
    // into that many digits.
    Limb chunk = static_cast<Limb>(radix);
    int digitsPerChunk = 1;
    while (chunk <= ~Limb{0} / static_cast<Limb>(radix)) {
        chunk *= static_cast<Limb>(radix);
        ++digitsPerChunk;
    }
    Limb work[kLimbs];
    int n = 0;
    const AliasedLimb* value = magnitudeOf(*this, work, n);
    // A negative value is negated before it is rendered, and the most negative one has no
    // negation: its magnitude comes back with the sign bit still set.
    if (negative && (value[kLimbs - 1] >> 63) != 0) {
        throw NamedException(kArithmetic, "Overflow in negation.");
    }
    if (value != work) {
        std::memcpy(work, data_, sizeof(work));
    }

    static constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    char reversed[kWords * 32 + 2];
    int length = 0;
    while (n > 0) {
        Limb rem = limbs::divRem1(work, work, n, chunk);
        n = limbs::normalizedSize(work, n);
        for (int i = 0; i < digitsPerChunk && (n > 0 || rem != 0); ++i) {
            reversed[length++] = kDigits[rem % static_cast<Limb>(radix)];
            rem /= static_cast<Limb>(radix);
        }
    }
    std::string out;
    out.reserve(static_cast<size_t>(length) + 1);
    if (negative) {
        out.push_back('-');
    }
    for (int i = length - 1; i >= 0; --i) {
        out.push_back(reversed[i]);
    }
    return out;
}

BigInt BigInt::add(const BigInt& other) const {
    BigInt r(Uninitialized::tag);
    const int n = limbsFor(std::max(dataLength_, other.dataLength_));
    const Limb carry = limbs::addN(limbsOf(r.data_), limbsOf(data_), limbsOf(other.data_), n);
    int used = 2 * n;
    if (carry != 0 && used < kWords) {
        r.data_[used++] = 1;
    }
    r.clearFrom(used);
    r.dataLength_ = used;
    r.trim();
    const bool sign = isNegative();
    if (sign == other.isNegative() && r.isNegative() != sign) {
        throw NamedException(kArithmetic, "Overflow");
    }
    return r;
}

BigInt BigInt::subtract(const BigInt& other) const {
    BigInt r(Uninitialized::tag);
    const int n = limbsFor(std::max(dataLength_, other.dataLength_));
    const Limb borrow = limbs::subN(limbsOf(r.data_), limbsOf(data_), limbsOf(other.data_), n);
    const int used = 2 * n;
    if (borrow != 0 && used < kWords) {
        std::memset(r.data_ + used, 0xFF, sizeof(uint32_t) * static_cast<size_t>(kWords - used));
        r.dataLength_ = kWords;
    } else {
        r.clearFrom(used);
        r.dataLength_ = used;
    }
    r.trim();
    const bool sign = isNegative();
    if (sign != other.isNegative() && r.isNegative() != sign) {
        throw NamedException(kArithmetic, "Overflow");
    }
    return r;
}

BigInt BigInt::fromMagnitude(const uint64_t* source, int count, bool negative,
                             const char* overflowReason) {
    BigInt r(Uninitialized::tag);
    assignMagnitude(r, source, count, negative, overflowReason);
    return r;
}

void BigInt::assignMagnitude(BigInt& r, const uint64_t* source, int count, bool negative,
                             const char* overflowReason) {
    const AliasedLimb* limbs = reinterpret_cast<const AliasedLimb*>(source);
    count = limbs::normalizedSize(limbs, count);
    AliasedLimb* out = limbsOf(r.data_);
    for (int i = 0; i < count; ++i) {
        out[i] = limbs[i];
    }
    r.clearFrom(2 * count);
    r.dataLength_ = std::max(1, 2 * count);
    r.trim();
    if (r.isNegative()) {
        // Only -2^2239 has a magnitude that reaches the sign bit, and its pattern is its own.
        bool mostNegative = negative && r.data_[kWords - 1] == 0x80000000u;
        for (int i = 0; mostNegative && i < kWords - 1; ++i) {
            mostNegative = r.data_[i] == 0;
        }
        if (!mostNegative) {
            throw NamedException(kArithmetic, overflowReason);
        }
        return;
    }
    if (negative && !r.isZero()) {
        Limb carry = 1;
        for (int i = 0; i < kLimbs; ++i) {
            out[i] = ~out[i] + carry;
            carry = carry != 0 && out[i] == 0;
        }
        r.dataLength_ = kWords;
        r.trim();
    }
}

BigInt BigInt::multiply(const BigInt& other) const {
    const bool negative = isNegative() != other.isNegative();
    Limb xBuffer[kLimbs];
    Limb yBuffer[kLimbs];
    int nx = 0;
    int ny = 0;
    const AliasedLimb* x = magnitudeOf(*this, xBuffer, nx);
    const AliasedLimb* y = magnitudeOf(other, yBuffer, ny);
    if (nx == 0 || ny == 0) {
        return BigInt();
    }
    if (nx < ny) {
        std::swap(x, y);
        std::swap(nx, ny);
    }
    Limb product[2 * kLimbs];
    limbs::mul(product, x, nx, y, ny);
    for (int i = kLimbs; i < nx + ny; ++i) {
        if (product[i] != 0) {
            throw NamedException(kArithmetic, "overflow.");
        }
    }
    return fromMagnitude(product, std::min(nx + ny, kLimbs), negative, "Multiplication overflow.");
}

BigInt BigInt::negate() const {
    if (isZero()) {
        return *this;
    }
    BigInt r(Uninitialized::tag);
    uint64_t carry = 1;
    for (int i = 0; i < kWords; ++i) {
        uint64_t v = static_cast<uint64_t>(~data_[i]) + carry;
        r.data_[i] = static_cast<uint32_t>(v);
        carry = v >> 32;
    }
    r.dataLength_ = kWords;
    r.trim();
    if (r.isNegative() == isNegative()) {
        throw NamedException(kArithmetic, "Overflow in negation.");
    }
    return r;
}

BigInt BigInt::abs() const {
    return isNegative() ? negate() : *this;
}

void BigInt::singleByteDivide(const uint64_t* a, int na, uint32_t divisor, uint64_t* quotient,
                              uint64_t* remainder) {
    remainder[0] = limbs::divRem1(reinterpret_cast<AliasedLimb*>(quotient),
                                  reinterpret_cast<const AliasedLimb*>(a), na, divisor);
}

void BigInt::multiByteDivide(const uint64_t* a, int na, const uint64_t* divisor, int nd,
                             uint64_t* quotient, uint64_t* remainder) {
    const AliasedLimb* u = reinterpret_cast<const AliasedLimb*>(a);
    const AliasedLimb* d = reinterpret_cast<const AliasedLimb*>(divisor);
    AliasedLimb* q = reinterpret_cast<AliasedLimb*>(quotient);
    AliasedLimb* r = reinterpret_cast<AliasedLimb*>(remainder);
    if (nd == 1) {
        // Two words that fit one limb: the one-limb division does it.
        const Limb rest = limbs::divRem1(q, u, na, d[0]);
        if (r != nullptr) {
            r[0] = rest;
        }
        return;
    }
    Limb work[kLimbs + 1];
    Limb dn[kLimbs];
    limbs::divRem(q, r, u, na, d, nd, work, dn);
}

void BigInt::divideWithSigns(const BigInt& dividend, const BigInt& divisor, BigInt* quotient,
                             BigInt* remainder) {
    if (divisor.isZero()) {
        throw NamedException(kArithmetic, "Division by zero.");
    }
    const bool dividendNegative = dividend.isNegative();
    const bool divisorNegative = divisor.isNegative();
    Limb aBuffer[kLimbs];
    Limb bBuffer[kLimbs];
    int na = 0;
    int nb = 0;
    const AliasedLimb* a = magnitudeOf(dividend, aBuffer, na);
    const AliasedLimb* b = magnitudeOf(divisor, bBuffer, nb);
    Limb q[kLimbs];
    Limb r[kLimbs];
    int nq = 0;
    int nr = 0;
    if (na < nb || (na == nb && limbs::compare(a, b, na) < 0)) {
        // A dividend below the divisor is the remainder.
        for (int i = 0; i < na; ++i) {
            r[i] = a[i];
        }
        nr = na;
    } else if (nb == 1 && b[0] <= UINT32_MAX) {
        singleByteDivide(reinterpret_cast<const uint64_t*>(a), na, static_cast<uint32_t>(b[0]), q,
                         r);
        nq = na;
        nr = 1;
    } else {
        // A quotient alone needs no remainder worked out.
        multiByteDivide(reinterpret_cast<const uint64_t*>(a), na,
                        reinterpret_cast<const uint64_t*>(b), nb, q,
                        remainder != nullptr ? r : nullptr);
        nq = na - nb + 1;
        nr = nb;
    }
    if (quotient != nullptr) {
        assignMagnitude(*quotient, q, nq, dividendNegative != divisorNegative, "Overflow");
    }
    if (remainder != nullptr) {
        assignMagnitude(*remainder, r, nr, dividendNegative, "Overflow");
    }
}

BigInt BigInt::divide(const BigInt& other) const {
    BigInt q(Uninitialized::tag);
    divideWithSigns(*this, other, &q, nullptr);
    return q;
}

BigInt BigInt::mod(const BigInt& other) const {
    BigInt r(Uninitialized::tag);
    divideWithSigns(*this, other, nullptr, &r);
    return r;
}

bool BigInt::equals(const BigInt& other) const {
    return dataLength_ == other.dataLength_ &&
           std::memcmp(data_, other.data_, sizeof(uint32_t) * static_cast<size_t>(dataLength_)) ==
               0;
}

bool BigInt::greaterThan(const BigInt& other) const {
    if (isNegative() != other.isNegative()) {
        return !isNegative();
    }
    for (int i = std::max(dataLength_, other.dataLength_) - 1; i >= 0; --i) {
        if (data_[i] != other.data_[i]) {
            return data_[i] > other.data_[i];
        }
    }
    return false;
}

bool BigInt::lessThan(const BigInt& other) const {
    if (isNegative() != other.isNegative()) {
        return isNegative();
    }
    for (int i = std::max(dataLength_, other.dataLength_) - 1; i >= 0; --i) {
        if (data_[i] != other.data_[i]) {
            return data_[i] < other.data_[i];
        }
    }
    return false;
}

BigInt BigInt::bitwiseNot() const {
    BigInt r(Uninitialized::tag);
    for (int i = 0; i < kWords; ++i) {
        r.data_[i] = ~data_[i];
    }
    r.dataLength_ = kWords;
    r.trim();
    return r;
}

template <class Combine>
BigInt BigInt::wordwise(const BigInt& other, Combine combine) const {
    BigInt r(Uninitialized::tag);
    const int n = std::max(dataLength_, other.dataLength_);
    for (int i = 0; i < n; ++i) {
        r.data_[i] = combine(data_[i], other.data_[i]);
    }
    r.clearFrom(n);
    r.dataLength_ = n;
    r.trim();
    return r;
}

BigInt BigInt::bitwiseAnd(const BigInt& other) const {
    return wordwise(other, [](uint32_t a, uint32_t b) { return a & b; });
}

BigInt BigInt::bitwiseOr(const BigInt& other) const {
    return wordwise(other, [](uint32_t a, uint32_t b) { return a | b; });
}

BigInt BigInt::xOr(const BigInt& other) const {
    return wordwise(other, [](uint32_t a, uint32_t b) { return a ^ b; });
}

int BigInt::shiftLeft(uint32_t* buffer, int size, int bits) {
    const int wordShift = bits / 32;
    const int bitShift = bits % 32;
    for (int i = size - 1; i >= 0; --i) {
        const int source = i - wordShift;
        uint32_t v = source >= 0 ? buffer[source] << bitShift : 0;
        if (bitShift != 0 && source >= 1) {
            v |= buffer[source - 1] >> (32 - bitShift);
        }
        buffer[i] = v;
    }
    int length = size;
    while (length > 1 && buffer[length - 1] == 0) {
        --length;
    }
    return std::max(length, 1);
}

int BigInt::shiftRight(uint32_t* buffer, int size, int bits) {
    const int wordShift = bits / 32;
    const int bitShift = bits % 32;
    for (int i = 0; i < size; ++i) {
        const int source = i + wordShift;
        uint32_t v = source < size ? buffer[source] >> bitShift : 0;
        if (bitShift != 0 && source + 1 < size) {
            v |= buffer[source + 1] << (32 - bitShift);
        }
        buffer[i] = v;
    }
    int length = size;
    while (length > 1 && buffer[length - 1] == 0) {
        --length;
    }
    return std::max(length, 1);
}

BigInt BigInt::shiftLeft(int bits) const {
    if (bits < 0) {
        return shiftRight(bits == INT32_MIN ? INT32_MAX : -bits);
    }
    BigInt r = *this;
    if (bits >= kWords * 32) {
        return BigInt();
    }
    r.dataLength_ = shiftLeft(r.data_, kWords, bits);
    return r;
}

BigInt BigInt::shiftRight(int bits) const {
    if (bits < 0) {
        return shiftLeft(bits == INT32_MIN ? INT32_MAX : -bits);
    }
    // A negative number shifts as the complement of the shifted complement, which fills the
    // top with ones.
    const bool negative = isNegative();
    BigInt r = negative ? bitwiseNot() : *this;
    if (bits >= kWords * 32) {
        r = BigInt();
    } else {
        r.dataLength_ = shiftRight(r.data_, kWords, bits);
    }
    return negative ? r.bitwiseNot() : r;
}

int BigInt::bitCount() const {
    int length = dataLength_;
    while (length > 1 && data_[length - 1] == 0) {
        --length;
    }
    const uint32_t top = data_[length - 1];
    if (top == 0) {
        return 0;
    }
    return (length - 1) * 32 + (32 - std::countl_zero(top));
}

}  // namespace morvane::ip
