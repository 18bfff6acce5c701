#pragma once

// Unsigned arithmetic on little-endian arrays of 64-bit limbs, the engine under BigInt.
// BigInt stores 32-bit words; on a little-endian machine two consecutive words are one limb,
// so the words are worked on in place through an aliasing limb type, which halves the number
// of multiplications and divisions against a word-by-word loop.

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace morvane::ip::limbs {

static_assert(std::endian::native == std::endian::little,
              "BigInt reads pairs of 32-bit words as one 64-bit limb");

using Limb = uint64_t;
// A limb that may live inside an array of 32-bit words.
using AliasedLimb = uint64_t __attribute__((may_alias));
__extension__ typedef unsigned __int128 Wide;

/// Number of limbs of `a` without its zero limbs on top.
inline int normalizedSize(const AliasedLimb* a, int n) {
    while (n > 0 && a[n - 1] == 0) {
        --n;
    }
    return n;
}

/// -1, 0 or 1 as a is below, equal to or above b, both `n` limbs.
inline int compare(const AliasedLimb* a, const AliasedLimb* b, int n) {
    for (int i = n - 1; i >= 0; --i) {
        if (a[i] != b[i]) {
            return a[i] < b[i] ? -1 : 1;
        }
    }
    return 0;
}

/// r = a + b over `n` limbs; returns the carry out of the top.
inline Limb addN(AliasedLimb* r, const AliasedLimb* a, const AliasedLimb* b, int n) {
#if defined(__x86_64__)
    // Four limbs a round, so that the adds chain through the carry flag instead of saving
    // it after each limb.
    unsigned char carry = 0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        unsigned long long s0, s1, s2, s3;
        carry = _addcarry_u64(carry, a[i], b[i], &s0);
        carry = _addcarry_u64(carry, a[i + 1], b[i + 1], &s1);
        carry = _addcarry_u64(carry, a[i + 2], b[i + 2], &s2);
        carry = _addcarry_u64(carry, a[i + 3], b[i + 3], &s3);
        r[i] = s0;
        r[i + 1] = s1;
        r[i + 2] = s2;
        r[i + 3] = s3;
    }
    for (; i < n; ++i) {
        unsigned long long sum;
        carry = _addcarry_u64(carry, a[i], b[i], &sum);
        r[i] = sum;
    }
    return carry;
#else
    Limb carry = 0;
    for (int i = 0; i < n; ++i) {
        Limb x = a[i];
        Limb s = x + b[i];
        Limb c1 = s < x;
        Limb t = s + carry;
        carry = c1 | (t < s);
        r[i] = t;
    }
    return carry;
#endif
}

/// r = a - b over `n` limbs; returns the borrow out of the top.
inline Limb subN(AliasedLimb* r, const AliasedLimb* a, const AliasedLimb* b, int n) {
#if defined(__x86_64__)
    unsigned char borrow = 0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        unsigned long long d0, d1, d2, d3;
        borrow = _subborrow_u64(borrow, a[i], b[i], &d0);
        borrow = _subborrow_u64(borrow, a[i + 1], b[i + 1], &d1);
        borrow = _subborrow_u64(borrow, a[i + 2], b[i + 2], &d2);
        borrow = _subborrow_u64(borrow, a[i + 3], b[i + 3], &d3);
        r[i] = d0;
        r[i + 1] = d1;
        r[i + 2] = d2;
        r[i + 3] = d3;
    }
    for (; i < n; ++i) {
        unsigned long long difference;
        borrow = _subborrow_u64(borrow, a[i], b[i], &difference);
        r[i] = difference;
    }
    return borrow;
#else
    Limb borrow = 0;
    for (int i = 0; i < n; ++i) {
        Limb x = a[i];
        Limb y = b[i];
        Limb d = x - y;
        Limb b1 = x < y;
        Limb t = d - borrow;
        borrow = b1 | (d < borrow);
        r[i] = t;
    }
    return borrow;
#endif
}

/// r += a * m over `n` limbs; returns the limb carried out.
inline Limb addMul1(AliasedLimb* r, const AliasedLimb* a, int n, Limb m) {
    Limb carry = 0;
#pragma GCC unroll 4
    for (int i = 0; i < n; ++i) {
        Wide t = static_cast<Wide>(a[i]) * m + r[i] + carry;
        r[i] = static_cast<Limb>(t);
        carry = static_cast<Limb>(t >> 64);
    }
    return carry;
}

/// r = a * m over `n` limbs; returns the limb carried out.
inline Limb mul1(AliasedLimb* r, const AliasedLimb* a, int n, Limb m) {
    Limb carry = 0;
    for (int i = 0; i < n; ++i) {
        Wide t = static_cast<Wide>(a[i]) * m + carry;
        r[i] = static_cast<Limb>(t);
        carry = static_cast<Limb>(t >> 64);
    }
    return carry;
}

/// r -= a * m over `n` limbs; returns the limb borrowed from above.
inline Limb subMul1(AliasedLimb* r, const AliasedLimb* a, int n, Limb m) {
    Limb borrow = 0;
#pragma GCC unroll 4
    for (int i = 0; i < n; ++i) {
        Wide p = static_cast<Wide>(a[i]) * m + borrow;
        Limb lo = static_cast<Limb>(p);
        borrow = static_cast<Limb>(p >> 64);
        Limb x = r[i];
        r[i] = x - lo;
        borrow += x < lo;
    }
    return borrow;
}

/// r[0, na + nb) = a * b; r must not overlap a or b. na >= 1, nb >= 1.
inline void mul(AliasedLimb* r, const AliasedLimb* a, int na, const AliasedLimb* b, int nb) {
    r[na] = mul1(r, a, na, b[0]);
    for (int j = 1; j < nb; ++j) {
        r[na + j] = addMul1(r + j, a, na, b[j]);
    }
}

/// r[0, 2n) = a * a, with each cross product computed once; r must not overlap a.
inline void sqr(AliasedLimb* r, const AliasedLimb* a, int n) {
    if (n == 1) {
        Wide t = static_cast<Wide>(a[0]) * a[0];
        r[0] = static_cast<Limb>(t);
        r[1] = static_cast<Limb>(t >> 64);
        return;
    }
    // Cross products a[i] * a[j] for i < j, then doubled, then the squares added.
    r[0] = 0;
    r[n] = mul1(r + 1, a + 1, n - 1, a[0]);
    for (int i = 1; i < n - 1; ++i) {
        r[n + i] = addMul1(r + 2 * i + 1, a + i + 1, n - 1 - i, a[i]);
    }
    r[2 * n - 1] = 0;
    Limb top = 0;
    for (int i = 0; i < 2 * n; ++i) {
        Limb x = r[i];
        r[i] = (x << 1) | top;
        top = x >> 63;
    }
    Limb carry = 0;
    for (int i = 0; i < n; ++i) {
        Wide sq = static_cast<Wide>(a[i]) * a[i];
        Wide lo = static_cast<Wide>(r[2 * i]) + static_cast<Limb>(sq) + carry;
        r[2 * i] = static_cast<Limb>(lo);
        Wide hi = static_cast<Wide>(r[2 * i + 1]) + static_cast<Limb>(sq >> 64) +
                  static_cast<Limb>(lo >> 64);
        r[2 * i + 1] = static_cast<Limb>(hi);
        carry = static_cast<Limb>(hi >> 64);
    }
}

/// (hi:lo) / d with hi < d; the remainder goes to `rem`.
inline Limb divideWide(Limb hi, Limb lo, Limb d, Limb* rem) {
#if defined(__x86_64__)
    Limb q;
    Limb r;
    __asm__("divq %4" : "=a"(q), "=d"(r) : "a"(lo), "d"(hi), "rm"(d) : "cc");
    *rem = r;
    return q;
#else
    Wide n = (static_cast<Wide>(hi) << 64) | lo;
    *rem = static_cast<Limb>(n % d);
    return static_cast<Limb>(n / d);
#endif
}

/// The reciprocal of a normalised divisor d (top bit set): (B^2 - 1) / d - B, for B = 2^64.
inline Limb reciprocal(Limb d) {
    Limb unused;
    return divideWide(~d, ~Limb{0}, d, &unused);
}

/// (hi:lo) / d with hi < d and d normalised, by two multiplications with the reciprocal v
/// instead of a hardware division (Moller and Granlund, "Improved division by invariant
/// integers", 2011).
inline Limb divideWithReciprocal(Limb hi, Limb lo, Limb d, Limb v, Limb* rem) {
    Wide q = static_cast<Wide>(v) * hi;
    q += (static_cast<Wide>(hi) << 64) | lo;
    Limb q1 = static_cast<Limb>(q >> 64) + 1;
    const Limb q0 = static_cast<Limb>(q);
    Limb r = lo - q1 * d;
    if (r > q0) {
        --q1;
        r += d;
    }
    if (r >= d) {
        ++q1;
        r -= d;
    }
    *rem = r;
    return q1;
}

/// The reciprocal of a normalised two-limb divisor (d1:d0), d1's top bit set:
/// (B^3 - 1) / (d1:d0) - B (Moller and Granlund, 2011, algorithm 6).
inline Limb reciprocal3by2(Limb d1, Limb d0) {
    Limb v = reciprocal(d1);
    Limb p = d1 * v + d0;
    if (p < d0) {
        --v;
        if (p >= d1) {
            --v;
            p -= d1;
        }
        p -= d1;
    }
    const Wide t = static_cast<Wide>(v) * d0;
    const Limb t1 = static_cast<Limb>(t >> 64);
    const Limb t0 = static_cast<Limb>(t);
    p += t1;
    if (p < t1) {
        --v;
        if (p > d1 || (p == d1 && t0 >= d0)) {
            --v;
        }
    }
    return v;
}

/// (u2:u1:u0) / (d1:d0) with (u2:u1) below (d1:d0), the divisor normalised and v its
/// reciprocal3by2; the two-limb remainder goes to (r1:r0). The quotient is exact, where a
/// two-by-one estimate may be two too large (Moller and Granlund, 2011, algorithm 5).
inline Limb divide3by2(Limb u2, Limb u1, Limb u0, Limb d1, Limb d0, Limb v, Limb* r1, Limb* r0) {
    const Wide d = (static_cast<Wide>(d1) << 64) | d0;
    Wide q = static_cast<Wide>(v) * u2 + ((static_cast<Wide>(u2) << 64) | u1);
    Limb q1 = static_cast<Limb>(q >> 64);
    const Limb q0 = static_cast<Limb>(q);
    const Limb high = u1 - q1 * d1;
    Wide r = ((static_cast<Wide>(high) << 64) | u0) - static_cast<Wide>(d0) * q1 - d;
    ++q1;
    if (static_cast<Limb>(r >> 64) >= q0) {
        --q1;
        r += d;
    }
    if (r >= d) [[unlikely]] {
        ++q1;
        r -= d;
    }
    *r1 = static_cast<Limb>(r >> 64);
    *r0 = static_cast<Limb>(r);
    return q1;
}

/// q = a / d over `n` limbs (q may be a); returns the remainder. d != 0.
inline Limb divRem1(AliasedLimb* q, const AliasedLimb* a, int n, Limb d) {
    Limb rem = 0;
    for (int i = n - 1; i >= 0; --i) {
        q[i] = divideWide(rem, a[i], d, &rem);
    }
    return rem;
}

/// r = a << bits over `n` limbs, 0 < bits < 64 (r may be a); returns the bits shifted out.
inline Limb shiftLeftBits(AliasedLimb* r, const AliasedLimb* a, int n, int bits) {
    Limb out = a[n - 1] >> (64 - bits);
    for (int i = n - 1; i > 0; --i) {
        r[i] = (a[i] << bits) | (a[i - 1] >> (64 - bits));
    }
    r[0] = a[0] << bits;
    return out;
}

/// r = a >> bits over `n` limbs, 0 < bits < 64 (r may be a).
inline void shiftRightBits(AliasedLimb* r, const AliasedLimb* a, int n, int bits) {
    for (int i = 0; i < n - 1; ++i) {
        r[i] = (a[i] >> bits) | (a[i + 1] << (64 - bits));
    }
    r[n - 1] = a[n - 1] >> bits;
}

/// Schoolbook long division: q[0, na - nd + 1) = a / d and r[0, nd) = a % d, for na >= nd >= 2
/// and d[nd - 1] != 0; r may be null when only the quotient is wanted. `work` holds na + 1 limbs
/// and `dn` nd limbs of scratch.
void divRem(AliasedLimb* q, AliasedLimb* r, const AliasedLimb* a, int na, const AliasedLimb* d,
            int nd, AliasedLimb* work, AliasedLimb* dn);

}  // namespace morvane::ip::limbs
