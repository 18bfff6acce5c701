#!/usr/bin/env python3
"""Writes BigIntCases.h: expected results of BigInt arithmetic worked out with Python's own
integers, so that the tests check our words against an independent computation.

Run from this folder: python3 gen_bigint_cases.py > BigIntCases.h
The seed is fixed, so the output only changes when this script does.
"""
import math
import random

rng = random.Random(20240611)
MAX = (1 << 2239) - 1  # largest positive BigInt


def hexs(v):
    return ("-" if v < 0 else "") + format(abs(v), "X")


def trunc_divmod(a, b):
    q = abs(a) // abs(b)
    if (a < 0) != (b < 0):
        q = -q
    return q, a - q * b


def structured(bits):
    """Random numbers with long runs of ones and zeros, where carries and estimates go wrong."""
    kind = rng.randrange(4)
    low = rng.randrange(1, max(2, min(64, bits - 1)))
    if kind == 0 or bits < 3:
        return rng.getrandbits(bits) | (1 << (bits - 1))
    if kind == 1:
        return (1 << bits) - 1 - rng.getrandbits(low)
    if kind == 2:
        return (1 << (bits - 1)) | rng.getrandbits(low)
    limbs = [rng.choice([0, (1 << 64) - 1, 1 << 63, rng.getrandbits(64)]) for _ in range((bits + 63) // 64)]
    v = sum(l << (64 * i) for i, l in enumerate(limbs)) & ((1 << bits) - 1)
    return v | (1 << (bits - 1))


def needs_add_back(u, v):
    """Knuth's algorithm D on 64-bit limbs: does some step subtract one divisor too many?"""
    B = 1 << 64
    vl = []
    x = v
    while x:
        vl.append(x % B)
        x //= B
    n = len(vl)
    if n < 2:
        return False
    s = 64 - vl[-1].bit_length()
    u, v = u << s, v << s
    ul = [(u >> (64 * i)) % B for i in range((u.bit_length() + 63) // 64 + 1)]
    vl = [(v >> (64 * i)) % B for i in range(n)]
    m = len(ul) - n - 1
    for j in range(m, -1, -1):
        num = ul[j + n] * B + ul[j + n - 1]
        qhat, rhat = num // vl[-1], num % vl[-1]
        while qhat >= B or (rhat < B and qhat * vl[-2] > rhat * B + ul[j + n - 2]):
            qhat -= 1
            rhat += vl[-1]
        part = sum(ul[j + i] << (64 * i) for i in range(n + 1))
        prod = qhat * v
        if part < prod:
            return True
        part -= prod
        for i in range(n + 1):
            ul[j + i] = (part >> (64 * i)) % B
    return False


def division_cases():
    cases = []
    sizes = [(64, 20), (200, 31), (300, 32), (600, 63), (1000, 64), (1500, 65), (2238, 127),
             (2238, 128), (2238, 700), (2238, 1119), (2238, 2000), (1120, 1119), (700, 700)]
    for a_bits, b_bits in sizes:
        for _ in range(5):
            a, b = structured(a_bits), structured(b_bits)
            cases.append((a, b))
    # Signs: the quotient truncates toward zero and the remainder keeps the dividend's sign.
    for _ in range(12):
        a, b = structured(rng.randrange(40, 2238)), structured(rng.randrange(2, 1500))
        cases.append((rng.choice([-1, 1]) * a, rng.choice([-1, 1]) * b))
    # One-word and two-word divisors at the edges of a word.
    for d in [1, 2, 3, 10, 0xFFFFFFFF, 0x100000000, 0xFFFFFFFFFFFFFFFF, 0x8000000000000000]:
        cases.append((structured(2000), d))
    # Dividend below the divisor, and equal.
    cases.append((12345, structured(900)))
    v = structured(900)
    cases.append((v, v))
    # Steps where the estimated quotient limb is one too large and must be added back.
    found = 0
    while found < 6:
        nb = rng.randrange(2, 6)
        v = structured(64 * nb)
        u = v * structured(64 * rng.randrange(1, 4)) + rng.randrange(v)
        if u.bit_length() <= 2238 and needs_add_back(u, v):
            cases.append((u, v))
            found += 1
    return cases


def is_prime(n):
    """Miller-Rabin with the first 13 prime bases: exact below 3.3e24, and for larger numbers
    only used on values built to be prime or composite."""
    if n < 2:
        return False
    small = [2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31, 37, 41]
    for p in small:
        if n % p == 0:
            return n == p
    d, s = n - 1, 0
    while d % 2 == 0:
        d, s = d // 2, s + 1
    for a in small:
        x = pow(a, d, n)
        if x in (1, n - 1):
            continue
        for _ in range(s - 1):
            x = x * x % n
            if x == n - 1:
                break
        else:
            return False
    return True


def jacobi(a, n):
    a %= n
    result = 1
    while a:
        while a % 2 == 0:
            a //= 2
            if n % 8 in (3, 5):
                result = -result
        a, n = n, a
        if a % 4 == 3 and n % 4 == 3:
            result = -result
        a %= n
    return result if n == 1 else 0


def lucas_uv(p, q, k, n):
    """U_k, V_k and Q^k mod n by the plain recurrence, step by step."""
    u0, u1 = 0, 1
    v0, v1 = 2, p
    for _ in range(k - 1):
        u0, u1 = u1, (p * u1 - q * u0) % n
        v0, v1 = v1, (p * v1 - q * v0) % n
    return u1 % n, v1 % n, pow(q, k, n)


def strong_lucas(n):
    if n % 2 == 0 or math.isqrt(n) ** 2 == n:
        return False
    d = 5
    while True:
        j = jacobi(d, n)
        if j == -1:
            break
        if j == 0 and abs(d) != n:
            return False
        d = -(d + 2) if d > 0 else -d + 2
    q = (1 - d) // 4
    k, s = n + 1, 0
    while k % 2 == 0:
        k, s = k // 2, s + 1
    u, v, qk = lucas_uv(1, q, k, n)
    if u == 0 or v == 0:
        return True
    for _ in range(s - 1):
        v = (v * v - 2 * qk) % n
        qk = qk * qk % n
        if v == 0:
            return True
    return False


def chernick():
    """Carmichael numbers (6k+1)(12k+1)(18k+1) whose factors all lie above 2000."""
    found = []
    k = 334
    while len(found) < 4:
        f = [6 * k + 1, 12 * k + 1, 18 * k + 1]
        if all(is_prime(x) for x in f):
            found.append(f[0] * f[1] * f[2])
        k += 1
    return found


def main():
    out = []
    w = out.append
    w("// Generated by gen_bigint_cases.py from Python's integers; do not edit.")
    w("#pragma once\n")
    w("namespace morvane::ip::cases {\n")
    w("struct Division { const char* a; const char* b; const char* quotient; const char* remainder; };")
    w("inline const Division kDivisions[] = {")
    for a, b in division_cases():
        q, r = trunc_divmod(a, b)
        w(f'    {{"{hexs(a)}", "{hexs(b)}", "{hexs(q)}", "{hexs(r)}"}},')
    w("};\n")

    w("struct Product { const char* a; const char* b; const char* product; const char* sum; const char* difference; };")
    w("inline const Product kProducts[] = {")
    for bits_a, bits_b in [(32, 32), (64, 64), (100, 900), (560, 560), (1119, 1119), (1500, 700), (2200, 30)]:
        for _ in range(3):
            a = rng.choice([-1, 1]) * structured(bits_a)
            b = rng.choice([-1, 1]) * structured(bits_b)
            w(f'    {{"{hexs(a)}", "{hexs(b)}", "{hexs(a * b)}", "{hexs(a + b)}", "{hexs(a - b)}"}},')
    w("};\n")

    w("struct Power { const char* base; const char* exponent; const char* modulus; const char* result; };")
    w("inline const Power kPowers[] = {")
    powers = []
    for mod_bits in [5, 31, 32, 64, 65, 200, 1088, 1120, 1500, 2238, 2239]:
        m = structured(mod_bits) | (rng.randrange(2) if mod_bits > 5 else 1)
        powers.append((rng.choice([-1, 1]) * structured(rng.randrange(2, 2238)), structured(rng.randrange(1, 300)), m))
    powers.append((structured(400), 0, structured(300)))
    powers.append((structured(400), structured(100), 1))
    powers.append((2, MAX - 1, MAX))
    for b, e, m in powers:
        w(f'    {{"{hexs(b)}", "{hexs(e)}", "{hexs(m)}", "{hexs(pow(b, e, m))}"}},')
    w("};\n")

    w("struct Root { const char* value; const char* root; };")
    w("inline const Root kRoots[] = {")
    for v in [0, 1, 2, 3, 4, 15, 16, 17, (1 << 64) - 1, MAX, structured(2238), structured(1119), structured(640)]:
        w(f'    {{"{hexs(v)}", "{hexs(math.isqrt(v))}"}},')
    w("};\n")

    w("struct Divisor { const char* a; const char* b; const char* gcd; };")
    w("inline const Divisor kDivisors[] = {")
    for _ in range(6):
        c = structured(rng.randrange(1, 600))
        a = c * structured(rng.randrange(1, 800)) * rng.choice([-1, 1])
        b = c * structured(rng.randrange(1, 800))
        w(f'    {{"{hexs(a)}", "{hexs(b)}", "{hexs(math.gcd(a, b))}"}},')
    w(f'    {{"0", "{hexs(12345)}", "{hexs(12345)}"}},')
    w("};\n")

    w("struct Symbol { const char* a; const char* b; int jacobi; };")
    w("inline const Symbol kSymbols[] = {")
    for _ in range(16):
        b = structured(rng.randrange(2, 700)) | 1
        a = rng.choice([-1, 1]) * structured(rng.randrange(1, 700))
        if rng.randrange(4) == 0:
            a = a * b  # a zero symbol now and then
        w(f'    {{"{hexs(a)}", "{hexs(b)}", {jacobi(a, b)}}},')
    w("};\n")

    w("struct Lucas { const char* p; const char* q; unsigned k; const char* n; const char* u; const char* v; const char* qk; };")
    w("inline const Lucas kLucas[] = {")
    for p, q, k, n in [(1, -1, 1, 1000003), (1, -1, 99, 1000003), (1, -1, 301, (1 << 127) - 1),
                       (3, 2, 77, 998244353), (5, -3, 1001, structured(300) | 1),
                       (2, 7, 513, structured(1000) | 1), (1, 2, 255, structured(64) | 1)]:
        u, v, qk = lucas_uv(p, q, k, n)
        w(f'    {{"{hexs(p)}", "{hexs(q)}", {k}, "{hexs(n)}", "{hexs(u)}", "{hexs(v)}", "{hexs(qk)}"}},')
    w("};\n")

    w("// Odd composites below 40000 that pass the strong Lucas test with Selfridge's parameters.")
    w("inline const unsigned kStrongLucasPseudoprimes[] = {")
    w("    " + ", ".join(str(n) for n in range(2049, 40000, 2) if not is_prime(n) and strong_lucas(n)) + ",")
    w("};\n")

    w("// Carmichael numbers with no factor below 2000, which trial division does not catch.")
    w("inline const char* const kCarmichaels[] = {")
    for c in chernick():
        w(f'    "{c}",')
    w("};\n")

    w("}  // namespace morvane::ip::cases")
    print("\n".join(out))


if __name__ == "__main__":
    main()
