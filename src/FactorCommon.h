// Pieces shared by the serial and the multifrontal block factorization (internal to the library).
#ifndef KIVTAMBER_SRC_FACTORCOMMON_H
#define KIVTAMBER_SRC_FACTORCOMMON_H

#include "Kernels.h"

namespace kivTamber {
namespace factorCommon {

// Padded size p of a block of s rows: the row stride of its tiles. float: s; double: s rounded up to even,
// so that pairs of doubles stay 16-byte aligned.
inline unsigned int padded(unsigned int s, const float*) {
    return s;
}
inline unsigned int padded(unsigned int s, const double*) {
    return (s + 1) & ~1u;
}
template <typename T>
inline unsigned int padded(unsigned int s) {
    return padded(s, static_cast<const T*>(nullptr));
}

// W ← W·L_jj⁻ᵀ for the s_i × s_j block W (row stride p_j) and the unit lower block L_jj (row stride p_j):
// row by row, forward substitution with the strictly lower part.
// float: tamber_SM_UD, which divides by the stored diagonal of L_jj; that diagonal is exactly 1, so the
// quotients are exact.
inline void solveUnitDiagonal(const float* Ljj, unsigned int p_j, float* W, unsigned int s_i,
                              unsigned int s_j) {
    tamber_SM_UD(Ljj, static_cast<int>(p_j), W, static_cast<int>(p_j), static_cast<int>(s_i),
                 static_cast<int>(s_j));
}
// double: the same loops inline (the unit diagonal is not read).
inline void solveUnitDiagonal(const double* Ljj, unsigned int p_j, double* W, unsigned int s_i,
                              unsigned int s_j) {
    for (unsigned int r = 0; r < s_i; ++r) {
        double* w = W + static_cast<unsigned long>(r) * p_j;
        for (unsigned int c = 1; c < s_j; ++c) {
            const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
            double sum = 0.0;
            for (unsigned int t = 0; t < c; ++t) sum += l[t] * w[t];
            w[c] -= sum;  // w_c -= Σ_{t<c} l_ct·w_t
        }
    }
}

// W = L·D·Lᵀ in place, without pivoting, for the s × s block W (row stride p; only its lower triangle and
// diagonal are read): afterwards W holds the unit lower L (diagonal exactly 1, strict upper triangle exactly
// 0) and d[0 .. s-1] the pivots. Row by row: d_r = w_rr first for every r, then for each row r the entries
// l_rc = w_rc / d_c (c < r) with the running updates of the next entry of the row, then
// d_r -= Σ_{t<r} d_t·l_rt². Divides by d itself: a zero pivot gives non-finite values.
template <typename T>
inline void factorDiagonalBlock(T* W, unsigned int p, unsigned int s, T* d) {
    for (unsigned int r = 0; r < s; ++r) {
        T* const w = W + static_cast<unsigned long>(r) * p;
        d[r] = w[r];
        w[r] = T(1);
    }
    for (unsigned int r = 1; r < s; ++r) {
        T* const w = W + static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < r; ++c) {
            w[c] = w[c] / d[c];  // l_rc = w_rc / d_c
            if (c + 1 < r) {
                const T* const wNext = W + static_cast<unsigned long>(c + 1) * p;
                T sum = T(0);
                for (unsigned int t = 0; t <= c; ++t) sum += w[t] * d[t] * wNext[t];
                w[c + 1] -= sum;  // w_r,c+1 -= Σ_{t≤c} l_rt·d_t·l_c+1,t
            }
        }
        T sum = T(0);
        for (unsigned int t = 0; t < r; ++t) sum += d[t] * w[t] * w[t];
        d[r] -= sum;  // d_r -= Σ_{t<r} d_t·l_rt²
    }
    for (unsigned int r = 0; r < s; ++r) {
        T* const w = W + static_cast<unsigned long>(r) * p;
        for (unsigned int c = r + 1; c < s; ++c) w[c] = T(0);
    }
}

}  // namespace factorCommon
}  // namespace kivTamber

#endif  // KIVTAMBER_SRC_FACTORCOMMON_H
