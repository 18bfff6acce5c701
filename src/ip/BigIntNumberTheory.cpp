// The number-theory part of BigInt: modular powers with Barrett reduction, roots, divisors,
// random numbers and the probable-prime tests.
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "ip/BigInt.h"
#include "ip/BigIntShared.h"
#include "ip/LimbArithmetic.h"
#include "ip/NamedException.h"

namespace morvane::ip {

using limbs::AliasedLimb;
using limbs::Limb;

namespace {

using namespace bigint_detail;

constexpr int kPrimeBound = 2000;
constexpr int kPrimeCount = 303;

constexpr std::array<uint16_t, kPrimeCount> smallPrimes() {
    std::array<bool, kPrimeBound> composite{};
    std::array<uint16_t, kPrimeCount> primes{};
    int found = 0;
    for (int i = 2; i < kPrimeBound; ++i) {
        if (composite[static_cast<size_t>(i)]) {
            continue;
        }
        primes[static_cast<size_t>(found++)] = static_cast<uint16_t>(i);
        for (int j = i * i; j < kPrimeBound; j += i) {
            composite[static_cast<size_t>(j)] = true;
        }
    }
    return found == kPrimeCount ? primes : std::array<uint16_t, kPrimeCount>{};
}
constexpr std::array<uint16_t, kPrimeCount> kSmallPrimes = smallPrimes();
static_assert(kSmallPrimes[kPrimeCount - 1] == 1999, "303 primes below 2000");

void fillRandom(void* buffer, size_t size) {
    auto* out = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const ssize_t got = getrandom(out, size, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        out += got;
        size -= static_cast<size_t>(got);
    }
}

/// A uniform random number in [0, bound), bound > 0.
uint32_t randomBelow(uint32_t bound) {
    const uint32_t limit = UINT32_MAX - UINT32_MAX % bound;
    uint32_t value;
    do {
        fillRandom(&value, sizeof(value));
    } while (value >= limit);
    return value % bound;
}

bool isSmallPrime(uint32_t value) {
    if (value < 2) {
        return false;
    }
    for (uint32_t p : kSmallPrimes) {
        if (p * p > value) {
            return true;
        }
        if (value % p == 0) {
            return false;
        }
    }
    return true;
}

int trailingZeros(const BigInt& value) {
    const uint32_t* words = value.getData();
    for (int i = 0; i < value.dataLength(); ++i) {
        if (words[i] != 0) {
            return i * 32 + std::countr_zero(words[i]);
        }
    }
    return 0;
}

bool isOne(const BigInt& value) {
    return value.dataLength() == 1 && value.getData()[0] == 1;
}

/// -1, 0 or 1 as the `na`-limb a is below, equal to or above the `nb`-limb b.
int compareSized(const AliasedLimb* a, int na, const AliasedLimb* b, int nb) {
    na = limbs::normalizedSize(a, na);
    nb = limbs::normalizedSize(b, nb);
    if (na != nb) {
        return na < nb ? -1 : 1;
    }
    return limbs::compare(a, b, na);
}

/// r = a >> bits over `n` limbs into `r`; returns the limbs of the result.
int shiftedDown(AliasedLimb* r, const AliasedLimb* a, int n, int bits) {
    const int limbShift = bits / 64;
    const int bitShift = bits % 64;
    const int size = n - limbShift;
    if (size <= 0) {
        return 0;
    }
    std::memmove(r, a + limbShift, sizeof(Limb) * static_cast<size_t>(size));
    if (bitShift != 0) {
        limbs::shiftRightBits(r, r, size, bitShift);
    }
    return limbs::normalizedSize(r, size);
}

/// The low `size` limbs of a * b into r (size limbs).
void mulLow(AliasedLimb* r, const AliasedLimb* a, int na, const AliasedLimb* b, int nb, int size) {
    std::memset(r, 0, sizeof(Limb) * static_cast<size_t>(size));
    for (int j = 0; j < nb && j < size; ++j) {
        const int length = std::min(na, size - j);
        const Limb carry = limbs::addMul1(r + j, a, length, b[j]);
        if (j + length < size) {
            r[j + length] = carry;
        }
    }
}

}  // namespace

/// Barrett reduction modulo n of k words: with the constant mu = 2^(64k) / n worked out once,
/// x mod n for any x below 2^(64k) costs two multiplications and at most two subtractions.
/// The constant of a modulus of more than 34 words no longer fits a BigInt, so it is kept as
/// plain limbs.
class BigInt::Reducer {
public:
    explicit Reducer(const BigInt& modulus) : modulus_(modulus) {
        words_ = modulus.dataLength_;
        nLimbs_ = limbs::normalizedSize(limbsOf(modulus_), (words_ + 1) / 2);
        computeConstant();
    }

    Reducer(const BigInt& modulus, const BigInt& constant) : Reducer(modulus) {
        const int given = limbs::normalizedSize(
            reinterpret_cast<const AliasedLimb*>(constant.data_), (constant.dataLength_ + 1) / 2);
        if (constant.isNegative() ||
            compareSized(reinterpret_cast<const AliasedLimb*>(constant.data_), given, mu_,
                         muLimbs_) != 0) {
            throw NamedException(kArgument, "Constant is not the reduction constant of n.");
        }
    }

    const BigInt& modulus() const { return modulus_; }

    BigInt mulMod(const BigInt& a, const BigInt& b) const {
        Limb product[2 * kLimbs];
        const int na = std::max(1, limbs::normalizedSize(limbsOf(a), kLimbs));
        const int nb = std::max(1, limbs::normalizedSize(limbsOf(b), kLimbs));
        limbs::mul(product, limbsOf(a), na, limbsOf(b), nb);
        return reduce(product, na + nb);
    }

    BigInt sqrMod(const BigInt& a) const {
        Limb product[2 * kLimbs];
        const int na = std::max(1, limbs::normalizedSize(limbsOf(a), kLimbs));
        limbs::sqr(product, limbsOf(a), na);
        return reduce(product, 2 * na);
    }

    /// a + b mod n for a, b in [0, n); the sum may pass 2^2239 without harm here.
    BigInt addMod(const BigInt& a, const BigInt& b) const {
        Limb sum[kLimbs + 1];
        sum[kLimbs] = limbs::addN(sum, limbsOf(a), limbsOf(b), kLimbs);
        if (compareSized(sum, kLimbs + 1, limbsOf(modulus_), nLimbs_) >= 0) {
            Limb n[kLimbs + 1] = {};
            std::memcpy(n, modulus_.data_, sizeof(Limb) * kLimbs);
            limbs::subN(sum, sum, n, kLimbs + 1);
        }
        return fromLimbs(sum, kLimbs);
    }

    /// a - b mod n for a, b in [0, n).
    BigInt subMod(const BigInt& a, const BigInt& b) const {
        Limb difference[kLimbs];
        if (limbs::subN(difference, limbsOf(a), limbsOf(b), kLimbs) != 0) {
            limbs::addN(difference, difference, limbsOf(modulus_), kLimbs);
        }
        return fromLimbs(difference, kLimbs);
    }

    /// a / 2 mod n for a in [0, n) and n odd.
    BigInt halfMod(const BigInt& a) const {
        Limb value[kLimbs + 1];
        std::memcpy(value, a.data_, sizeof(Limb) * kLimbs);
        value[kLimbs] = 0;
        if ((value[0] & 1) != 0) {
            Limb n[kLimbs + 1] = {};
            std::memcpy(n, modulus_.data_, sizeof(Limb) * kLimbs);
            limbs::addN(value, value, n, kLimbs + 1);
        }
        limbs::shiftRightBits(value, value, kLimbs + 1, 1);
        return fromLimbs(value, kLimbs);
    }

    /// U, V and Q^index of the Lucas sequences at index k * 2^s, from P and Q in [0, n), with
    /// k odd and positive and n odd.
    std::array<BigInt, 3> lucas(const BigInt& P, const BigInt& Q, const BigInt& k, int s) const {
        if (isOne(modulus_)) {
            return {BigInt(), BigInt(), BigInt()};
        }
        const BigInt four = addMod(addMod(Q, Q), addMod(Q, Q));
        const BigInt D = subMod(sqrMod(P), four);
        BigInt U = createWithInt(1);
        BigInt V = P;
        BigInt Qk = Q;
        for (int bit = k.bitCount() - 2; bit >= 0; --bit) {
            doubleIndex(U, V, Qk);
            if (((k.data_[bit / 32] >> (bit % 32)) & 1) != 0) {
                BigInt nextU = halfMod(addMod(mulMod(P, U), V));
                BigInt nextV = halfMod(addMod(mulMod(D, U), mulMod(P, V)));
                U = nextU;
                V = nextV;
                Qk = mulMod(Qk, Q);
            }
        }
        for (int i = 0; i < s; ++i) {
            doubleIndex(U, V, Qk);
        }
        return {U, V, Qk};
    }

    /// From index m to 2m: U = U V, V = V^2 - 2 Q^m, Q^2m.
    void doubleIndex(BigInt& U, BigInt& V, BigInt& Qk) const {
        U = mulMod(U, V);
        V = subMod(sqrMod(V), addMod(Qk, Qk));
        Qk = sqrMod(Qk);
    }

private:
    static AliasedLimb* limbsOf(BigInt& value) {
        return reinterpret_cast<AliasedLimb*>(value.data_);
    }
    static const AliasedLimb* limbsOf(const BigInt& value) {
        return reinterpret_cast<const AliasedLimb*>(value.data_);
    }

    void computeConstant() {
        // 2^(64k) has its single bit in limb k.
        Limb dividend[2 * kLimbs + 1] = {};
        dividend[words_] = 1;
        const int na = words_ + 1;
        Limb quotient[2 * kLimbs + 1] = {};
        if (nLimbs_ == 1) {
            std::memcpy(quotient, dividend, sizeof(Limb) * static_cast<size_t>(na));
            limbs::divRem1(quotient, quotient, na, limbsOf(modulus_)[0]);
        } else {
            Limb remainder[kLimbs];
            Limb work[2 * kLimbs + 2];
            Limb dn[kLimbs];
            limbs::divRem(quotient, remainder, dividend, na, limbsOf(modulus_), nLimbs_, work, dn);
        }
        muLimbs_ = limbs::normalizedSize(quotient, na);
        std::memcpy(mu_, quotient, sizeof(Limb) * static_cast<size_t>(muLimbs_));
    }

    /// x mod n for x of `size` limbs below 2^(64k).
    BigInt reduce(const AliasedLimb* x, int size) const {
        size = limbs::normalizedSize(x, size);
        const int k = words_;
        Limb q1[kLimbs + 2];
        const int n1 = shiftedDown(q1, x, size, 32 * (k - 1));
        if (n1 == 0) {
            // x is below b^(k-1), which is not above n.
            return fromLimbs(x, std::max(size, 1));
        }
        Limb q2[2 * kLimbs + 4];
        limbs::mul(q2, q1, n1, mu_, muLimbs_);
        Limb q3[kLimbs + 4];
        const int n3 = shiftedDown(q3, q2, n1 + muLimbs_, 32 * (k + 1));

        // r = (x - q3 n) mod b^(k+1), which is the true difference, below 3n.
        const int width = (k + 2) / 2;
        Limb r[kLimbs + 1] = {};
        std::memcpy(r, x, sizeof(Limb) * static_cast<size_t>(std::min(size, width)));
        if (n3 > 0) {
            Limb product[kLimbs + 1];
            mulLow(product, q3, n3, limbsOf(modulus_), nLimbs_, width);
            limbs::subN(r, r, product, width);
        }
        if ((k + 1) % 2 != 0) {
            r[width - 1] &= 0xFFFFFFFFu;
        }
        while (compareSized(r, width, limbsOf(modulus_), nLimbs_) >= 0) {
            Limb n[kLimbs + 1] = {};
            std::memcpy(n, modulus_.data_, sizeof(Limb) * static_cast<size_t>(nLimbs_));
            limbs::subN(r, r, n, width);
        }
        return fromLimbs(r, std::min(width, kLimbs));
    }

    BigInt modulus_;
    int words_ = 1;
    int nLimbs_ = 1;
    Limb mu_[kLimbs + 2] = {};
    int muLimbs_ = 1;
};

BigInt BigInt::modPow(const BigInt& exponent, const BigInt& modulus) const {
    if (exponent.isNegative()) {
        throw NamedException(kArithmetic, "Positive exponents only.");
    }
    if (modulus.isNegative() || modulus.isZero()) {
        throw NamedException(kArgument, "Modulus must be positive.");
    }
    if (isOne(modulus)) {
        return BigInt();
    }
    BigInt base = mod(modulus);
    if (base.isNegative()) {
        base = base.add(modulus);
    }
    const Reducer reducer(modulus);
    BigInt result = createWithInt(1);
    const int bits = exponent.bitCount();
    for (int i = 0; i < bits; ++i) {
        if (((exponent.data_[i / 32] >> (i % 32)) & 1) != 0) {
            result = reducer.mulMod(result, base);
        }
        if (i + 1 < bits) {
            base = reducer.sqrMod(base);
        }
    }
    return result;
}

BigInt BigInt::sqrt() const {
    if (isNegative()) {
        throw NamedException(kArgument, "Square root of a negative number.");
    }
    if (isZero()) {
        return BigInt();
    }
    const AliasedLimb* value = reinterpret_cast<const AliasedLimb*>(data_);
    const int valueLimbs = (dataLength_ + 1) / 2;
    const int rootBits = (bitCount() + 1) / 2;
    Limb root[kLimbs / 2 + 1] = {};
    const int rootLimbs = (rootBits + 63) / 64;
    Limb square[kLimbs + 2];
    // Each bit from the top stays when the square of the root so far does not pass the value.
    for (int bit = rootBits - 1; bit >= 0; --bit) {
        root[bit / 64] |= Limb{1} << (bit % 64);
        limbs::sqr(square, root, rootLimbs);
        if (compareSized(square, 2 * rootLimbs, value, valueLimbs) > 0) {
            root[bit / 64] &= ~(Limb{1} << (bit % 64));
        }
    }
    return fromLimbs(root, rootLimbs);
}

BigInt BigInt::gcd(const BigInt& other) const {
    BigInt a = abs();
    BigInt b = other.abs();
    while (!b.isZero()) {
        BigInt r = a.mod(b);
        a = b;
        b = r;
    }
    return a;
}

void BigInt::getRandomBits(int bits) {
    if (bits > kWords * 32) {
        throw NamedException(kArithmetic, "Number of required bits > maxLength.");
    }
    *this = BigInt();
    if (bits <= 0) {
        return;
    }
    const int words = (bits + 31) / 32;
    fillRandom(data_, sizeof(uint32_t) * static_cast<size_t>(words));
    const int unused = words * 32 - bits;
    if (unused != 0) {
        data_[words - 1] &= 0xFFFFFFFFu >> unused;
    }
    data_[words - 1] |= 1u << ((bits - 1) % 32);
    dataLength_ = words;
}

bool BigInt::strongProbablePrimeToBase(const BigInt& base) const {
    const BigInt nMinusOne = subtract(createWithInt(1));
    const int s = trailingZeros(nMinusOne);
    BigInt x = base.modPow(nMinusOne.shiftRight(s), *this);
    if (isOne(x) || x.equals(nMinusOne)) {
        return true;
    }
    const Reducer reducer(*this);
    for (int r = 1; r < s; ++r) {
        x = reducer.sqrMod(x);
        if (x.equals(nMinusOne)) {
            return true;
        }
        if (isOne(x)) {
            return false;
        }
    }
    return false;
}

namespace {

/// 1 for a listed small prime, 0 for a multiple of one, -1 when trial division says nothing.
int trialDivision(const BigInt& n) {
    for (uint16_t p : kSmallPrimes) {
        const BigInt prime = BigInt::createWithInt(p);
        if (n.equals(prime)) {
            return 1;
        }
        if (n.mod(prime).isZero()) {
            return 0;
        }
    }
    return -1;
}

}  // namespace

bool BigInt::isProbablePrimeWithConfidence(int confidence) const {
    if (isNegative() || lessThan(createWithInt(2))) {
        return false;
    }
    const int trial = trialDivision(*this);
    if (trial >= 0) {
        return trial == 1;
    }
    return rabinMillerTestWithConfidence(confidence);
}

bool BigInt::isProbablePrime() const {
    if (isNegative() || lessThan(createWithInt(2))) {
        return false;
    }
    const int trial = trialDivision(*this);
    if (trial >= 0) {
        return trial == 1;
    }
    return strongProbablePrimeToBase(createWithInt(2)) && lucasStrongTest(*this);
}

bool BigInt::rabinMillerTestWithConfidence(int confidence) const {
    if (isNegative() || lessThan(createWithInt(2))) {
        return false;
    }
    if (dataLength_ == 1 && (data_[0] == 2 || data_[0] == 3)) {
        return true;
    }
    if ((data_[0] & 1) == 0) {
        return false;
    }
    const int bits = bitCount();
    for (int round = 0; round < confidence; ++round) {
        // A base of 2 to bits - 1 bits lies in [2, n - 1].
        BigInt base;
        base.getRandomBits(2 + static_cast<int>(randomBelow(static_cast<uint32_t>(bits - 2))));
        if (!isOne(base.gcd(*this))) {
            return false;
        }
        if (!strongProbablePrimeToBase(base)) {
            return false;
        }
    }
    return true;
}

BigInt BigInt::generatePseudoPrimeWithBits(int bits, int confidence) {
    if (bits < 2 || bits >= kWords * 32) {
        throw NamedException(kArgument, "Number of bits must be from 2 to 2239.");
    }
    for (;;) {
        BigInt candidate;
        candidate.getRandomBits(bits);
        candidate.data_[0] |= 1;
        if (candidate.isProbablePrimeWithConfidence(confidence)) {
            return candidate;
        }
    }
}

int BigInt::jacobi(const BigInt& a, const BigInt& b) {
    if ((b.data_[0] & 1) == 0) {
        throw NamedException(kArgument, "Jacobi defined only for odd integers.");
    }
    BigInt n = b.abs();
    BigInt x = a.mod(n);
    if (x.isNegative()) {
        x = x.add(n);
    }
    int result = 1;
    while (!x.isZero()) {
        const int zeros = trailingZeros(x);
        x = x.shiftRight(zeros);
        const uint32_t nMod8 = n.data_[0] & 7;
        if ((zeros & 1) != 0 && (nMod8 == 3 || nMod8 == 5)) {
            result = -result;
        }
        if ((x.data_[0] & 3) == 3 && (n.data_[0] & 3) == 3) {
            result = -result;
        }
        BigInt r = n.mod(x);
        n = x;
        x = r;
    }
    return isOne(n) ? result : 0;
}

std::array<BigInt, 3> BigInt::lucasSequence(const BigInt& P, const BigInt& Q, const BigInt& k,
                                            const BigInt& n, const BigInt& constant, int s) {
    if ((k.data_[0] & 1) == 0) {
        throw NamedException(kArgument, "Argument k must be odd.");
    }
    if (k.isNegative()) {
        throw NamedException(kArgument, "Argument k must be positive.");
    }
    if (n.isNegative() || (n.data_[0] & 1) == 0) {
        throw NamedException(kArgument, "Argument n must be odd and positive.");
    }
    const Reducer reducer(n, constant);
    auto reduced = [&n](const BigInt& v) {
        BigInt r = v.mod(n);
        return r.isNegative() ? r.add(n) : r;
    };
    return reducer.lucas(reduced(P), reduced(Q), k, std::max(s, 0));
}

bool BigInt::lucasStrongTest(const BigInt& candidate) {
    const BigInt& n = candidate;
    if (n.isNegative() || n.lessThan(createWithInt(2))) {
        return false;
    }
    if ((n.data_[0] & 1) == 0) {
        return n.dataLength_ == 1 && n.data_[0] == 2;
    }
    if (n.bitCount() <= 11) {
        // Below 2048 the parameters could share a factor with n; division answers exactly.
        return isSmallPrime(n.data_[0]);
    }
    const BigInt root = n.sqrt();
    if (root.multiply(root).equals(n)) {
        // No D with (D/n) = -1 exists for a square.
        return false;
    }
    // Selfridge: the first D of 5, -7, 9, -11, ... with (D/n) = -1; P = 1, Q = (1 - D) / 4.
    int d = 5;
    for (;;) {
        const int symbol = jacobi(createWithInt(d), n);
        if (symbol == -1) {
            break;
        }
        if (symbol == 0 && !n.equals(createWithInt(d < 0 ? -d : d))) {
            return false;
        }
        d = d > 0 ? -(d + 2) : -d + 2;
    }
    const BigInt Q = createWithInt((1 - d) / 4);
    const BigInt common = Q.gcd(n);
    if (!isOne(common)) {
        return false;
    }

    // n + 1 = d 2^s with d odd; n is odd, so (n >> 1) + 1 = (n + 1) / 2 without overflow.
    BigInt index = n.shiftRight(1).add(createWithInt(1));
    const int zeros = trailingZeros(index);
    index = index.shiftRight(zeros);
    const int s = zeros + 1;

    const Reducer reducer(n);
    BigInt reducedQ = Q.mod(n);
    if (reducedQ.isNegative()) {
        reducedQ = reducedQ.add(n);
    }
    auto [U, V, Qk] = reducer.lucas(createWithInt(1), reducedQ, index, 0);
    if (U.isZero() || V.isZero()) {
        return true;
    }
    for (int r = 1; r < s; ++r) {
        V = reducer.subMod(reducer.sqrMod(V), reducer.addMod(Qk, Qk));
        if (V.isZero()) {
            return true;
        }
        Qk = reducer.sqrMod(Qk);
    }
    return false;
}

}  // namespace morvane::ip
