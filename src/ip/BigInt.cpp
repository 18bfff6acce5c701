#include "ip/BigInt.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

#include "ip/LimbArithmetic.h"
#include "ip/NamedException.h"

namespace morvane::ip {

using limbs::AliasedLimb;
using limbs::Limb;

namespace {

constexpr int kWords = BigInt::maxLength;
constexpr int kLimbs = kWords / 2;
static_assert(kWords % 2 == 0, "the words must pair up into limbs");

constexpr const char* kArithmetic = "ArithmeticException";
constexpr const char* kArgument = "ArgumentException";

AliasedLimb* limbsOf(uint32_t* words) {
    return reinterpret_cast<AliasedLimb*>(words);
}
const AliasedLimb* limbsOf(const uint32_t* words) {
    return reinterpret_cast<const AliasedLimb*>(words);
}
int limbsFor(int words) {
    return (words + 1) / 2;
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
    const BigInt value = magnitude(*this);

    // Divide by the largest power of the radix that fits a limb, and split each remainder
    // into that many digits.
    Limb chunk = static_cast<Limb>(radix);
    int digitsPerChunk = 1;
    while (chunk <= ~Limb{0} / static_cast<Limb>(radix)) {
        chunk *= static_cast<Limb>(radix);
        ++digitsPerChunk;
    }
    Limb work[kLimbs];
    std::memcpy(work, value.data_, sizeof(work));
    int n = limbs::normalizedSize(work, kLimbs);

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

BigInt BigInt::magnitude(const BigInt& value) {
    if (!value.isNegative()) {
        return value;
    }
    BigInt r(Uninitialized::tag);
    uint64_t carry = 1;
    for (int i = 0; i < kWords; ++i) {
        uint64_t v = static_cast<uint64_t>(~value.data_[i]) + carry;
        r.data_[i] = static_cast<uint32_t>(v);
        carry = v >> 32;
    }
    r.dataLength_ = kWords;
    r.trim();
    return r;
}

BigInt BigInt::fromMagnitude(const BigInt& magnitude, bool negative, const char* overflowReason) {
    if (magnitude.isNegative()) {
        // Only -2^2239 has a magnitude that reaches the sign bit, and its pattern is its own.
        bool mostNegative = negative && magnitude.data_[kWords - 1] == 0x80000000u;
        for (int i = 0; mostNegative && i < kWords - 1; ++i) {
            mostNegative = magnitude.data_[i] == 0;
        }
        if (!mostNegative) {
            throw NamedException(kArithmetic, overflowReason);
        }
        return magnitude;
    }
    return negative && !magnitude.isZero() ? magnitude.negate() : magnitude;
}

int BigInt::compareMagnitudes(const BigInt& a, const BigInt& b) {
    if (a.dataLength_ != b.dataLength_) {
        return a.dataLength_ < b.dataLength_ ? -1 : 1;
    }
    for (int i = a.dataLength_ - 1; i >= 0; --i) {
        if (a.data_[i] != b.data_[i]) {
            return a.data_[i] < b.data_[i] ? -1 : 1;
        }
    }
    return 0;
}

BigInt BigInt::multiply(const BigInt& other) const {
    const bool negative = isNegative() != other.isNegative();
    const BigInt a = magnitude(*this);
    const BigInt b = magnitude(other);
    if (a.isZero() || b.isZero()) {
        return BigInt();
    }
    const AliasedLimb* x = limbsOf(a.data_);
    const AliasedLimb* y = limbsOf(b.data_);
    int nx = limbsFor(a.dataLength_);
    int ny = limbsFor(b.dataLength_);
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
    return fromMagnitude(fromLimbs(product, std::min(nx + ny, kLimbs)), negative,
                         "Multiplication overflow.");
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

void BigInt::singleByteDivide(const BigInt& bi1, const BigInt& bi2, BigInt& outQuotient,
                              BigInt& outRemainder) {
    outQuotient = bi1;
    const int n = limbsFor(bi1.dataLength_);
    const Limb rem =
        limbs::divRem1(limbsOf(outQuotient.data_), limbsOf(outQuotient.data_), n, bi2.data_[0]);
    outQuotient.trim();
    outRemainder = createWithULong(rem);
}

void BigInt::multiByteDivide(const BigInt& bi1, const BigInt& bi2, BigInt& outQuotient,
                             BigInt& outRemainder) {
    const int na = limbsFor(bi1.dataLength_);
    const int nd = limbs::normalizedSize(limbsOf(bi2.data_), limbsFor(bi2.dataLength_));
    if (nd == 1) {
        // Two words that fit one limb: the one-limb division does it.
        outQuotient = bi1;
        const Limb rem = limbs::divRem1(limbsOf(outQuotient.data_), limbsOf(outQuotient.data_), na,
                                        limbsOf(bi2.data_)[0]);
        outQuotient.trim();
        outRemainder = createWithULong(rem);
        return;
    }
    Limb q[kLimbs] = {};
    Limb r[kLimbs];
    Limb work[kLimbs + 1];
    Limb dn[kLimbs];
    limbs::divRem(q, r, limbsOf(bi1.data_), na, limbsOf(bi2.data_), nd, work, dn);
    outQuotient = fromLimbs(q, na - nd + 1);
    outRemainder = fromLimbs(r, nd);
}

void BigInt::divideWithSigns(const BigInt& dividend, const BigInt& divisor, BigInt* quotient,
                             BigInt* remainder) {
    if (divisor.isZero()) {
        throw NamedException(kArithmetic, "Division by zero.");
    }
    const bool dividendNegative = dividend.isNegative();
    const bool divisorNegative = divisor.isNegative();
    const BigInt a = magnitude(dividend);
    const BigInt b = magnitude(divisor);
    BigInt q;
    BigInt r;
    if (compareMagnitudes(a, b) < 0) {
        r = a;
    } else if (b.dataLength_ == 1) {
        singleByteDivide(a, b, q, r);
    } else {
        multiByteDivide(a, b, q, r);
    }
    if (quotient != nullptr) {
        *quotient = fromMagnitude(q, dividendNegative != divisorNegative, "Overflow");
    }
    if (remainder != nullptr) {
        *remainder = fromMagnitude(r, dividendNegative, "Overflow");
    }
}

BigInt BigInt::divide(const BigInt& other) const {
    BigInt q;
    divideWithSigns(*this, other, &q, nullptr);
    return q;
}

BigInt BigInt::mod(const BigInt& other) const {
    BigInt r;
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

BigInt BigInt::bitwiseAnd(const BigInt& other) const {
    BigInt r(Uninitialized::tag);
    const int n = std::max(dataLength_, other.dataLength_);
    for (int i = 0; i < n; ++i) {
        r.data_[i] = data_[i] & other.data_[i];
    }
    r.clearFrom(n);
    r.dataLength_ = n;
    r.trim();
    return r;
}

BigInt BigInt::bitwiseOr(const BigInt& other) const {
    BigInt r(Uninitialized::tag);
    const int n = std::max(dataLength_, other.dataLength_);
    for (int i = 0; i < n; ++i) {
        r.data_[i] = data_[i] | other.data_[i];
    }
    r.clearFrom(n);
    r.dataLength_ = n;
    r.trim();
    return r;
}

BigInt BigInt::xOr(const BigInt& other) const {
    BigInt r(Uninitialized::tag);
    const int n = std::max(dataLength_, other.dataLength_);
    for (int i = 0; i < n; ++i) {
        r.data_[i] = data_[i] ^ other.data_[i];
    }
    r.clearFrom(n);
    r.dataLength_ = n;
    r.trim();
    return r;
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
