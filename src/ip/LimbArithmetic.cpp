#include "ip/LimbArithmetic.h"

namespace morvane::ip::limbs {

void divRem(AliasedLimb* q, AliasedLimb* r, const AliasedLimb* a, int na, const AliasedLimb* d,
            int nd, AliasedLimb* work, AliasedLimb* dn) {
    // Normalise so that the divisor's top limb has its high bit set: then each estimated
    // quotient limb is at most two above the true one, and the test below makes it exact
    // but for a rare single correction.
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
    const Limb top = dn[nd - 1];
    const Limb next = dn[nd - 2];
    const Limb inverse = reciprocal(top);

    for (int j = na - nd; j >= 0; --j) {
        const Limb uHigh = u[j + nd];
        const Limb uMid = u[j + nd - 1];
        Limb qhat;
        Limb rhat;
        bool rhatFits = true;
        if (uHigh >= top) {
            // The two-limb quotient would not fit a limb; start from the largest limb.
            qhat = ~Limb{0};
            rhat = uMid + top;
            rhatFits = rhat >= uMid;
        } else {
            qhat = divideWithReciprocal(uHigh, uMid, top, inverse, &rhat);
        }
        while (rhatFits &&
               static_cast<Wide>(qhat) * next > ((static_cast<Wide>(rhat) << 64) | u[j + nd - 2])) {
            --qhat;
            Limb before = rhat;
            rhat += top;
            rhatFits = rhat >= before;
        }
        const Limb borrow = subMul1(u + j, dn, nd, qhat);
        const Limb high = u[j + nd];
        u[j + nd] = high - borrow;
        if (high < borrow) {
            // Estimated one too many: add the divisor back once.
            --qhat;
            u[j + nd] += addN(u + j, u + j, dn, nd);
        }
        q[j] = qhat;
    }

    // What is left below the divisor's length is the remainder, still normalised.
    if (shift != 0) {
        shiftRightBits(r, u, nd, shift);
    } else {
        std::memcpy(r, u, sizeof(Limb) * static_cast<size_t>(nd));
    }
}

}  // namespace morvane::ip::limbs
