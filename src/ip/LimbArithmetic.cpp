#include "ip/LimbArithmetic.h"

namespace morvane::ip::limbs {

void divRem(AliasedLimb* q, AliasedLimb* r, const AliasedLimb* a, int na, const AliasedLimb* d,
            int nd, AliasedLimb* work, AliasedLimb* dn) {
    // Normalise so that the divisor's top limb has its high bit set, as the reciprocal and
    // the three-by-two division below need.
    const int shift = std::countl_zero(static_cast<Limb>(d[nd - 1]));
    AliasedLimb* u = work;
    if (shift != 0) {
        shiftLeftBits(dn, d, nd, shift);
        u[na] = shiftLeftBits(u, a, na, shift);
    } else {
        std::memcpy(dn, d, sizeof(Limb) * static_cast<size_t>(nd));
        std::memcpy(u, a, sizeof(Limb) * static_cast<size_t>(na));
        u[na] = 0;
    }
    const Limb d1 = dn[nd - 1];
    const Limb d0 = dn[nd - 2];
    const Limb inverse = reciprocal3by2(d1, d0);

    // Each step takes the next quotient limb from the top three limbs of the running
    // remainder and the top two of the divisor, which is exact but for a rare single
    // correction, and subtracts it times the divisor's lower limbs from the rest.
    // The remainder's top limb stays in a register from step to step; what the steps leave
    // in memory below it is the rest of the remainder.
    Limb n1 = u[na];
    int first = na - nd;
    if (n1 == 0 && u[na - 1] < d1) {
        // The dividend's top limbs are below the divisor: the first limb is 0 and leaves the
        // remainder as it is. Half of all dividends start so; skipping the step saves a whole
        // multiplication by the divisor.
        q[first] = 0;
        n1 = u[na - 1];
        --first;
    }
    for (int j = first; j >= 0; --j) {
        AliasedLimb* top = u + j + nd;
        const Limb n0 = top[-1];
        Limb qhat;
        if (n1 == d1 && n0 == d0) [[unlikely]] {
            // The remainder's top equals the divisor's, and the remainder is below the
            // divisor times B: the limb can only be the largest one, and the subtraction
            // clears the top limb.
            qhat = ~Limb{0};
            subMul1(u + j, dn, nd, qhat);
            n1 = top[-1];
        } else {
            Limb r1;
            Limb r0;
            qhat = divide3by2(n1, n0, top[-2], d1, d0, inverse, &r1, &r0);
            if (j == 0 && r == nullptr && r1 != 0) {
                // Only the quotient is wanted, and it is right: what the divisor's lower limbs
                // take off is below B^(nd - 1), which a remainder whose top limb is not zero
                // covers.
                q[0] = qhat;
                return;
            }
            const Limb borrow = subMul1(u + j, dn, nd - 2, qhat);
            const Limb borrowHigh = r0 < borrow;
            r0 -= borrow;
            const bool negative = r1 < borrowHigh;
            r1 -= borrowHigh;
            top[-2] = r0;
            if (negative) [[unlikely]] {
                // One too many: add the divisor back once; the carry out of the top is the
                // borrow it cancels.
                --qhat;
                r1 += d1 + addN(u + j, u + j, dn, nd - 1);
            }
            n1 = r1;
        }
        q[j] = qhat;
    }
    u[nd - 1] = n1;

    // What is left below the divisor's length is the remainder, still normalised.
    if (r == nullptr) {
        return;
    }
    if (shift != 0) {
        shiftRightBits(r, u, nd, shift);
    } else {
        std::memcpy(r, u, sizeof(Limb) * static_cast<size_t>(nd));
    }
}

}  // namespace morvane::ip::limbs
