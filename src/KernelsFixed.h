// Size-specialised and hand-vectorised kernels of the block factorizations, of the double solves and of the
// symmetric block products (internal to the library; part of the Kernels unit). The factorization and solve
// kernels have plain reference implementations with the same operations in the same order in
// src/KernelsRef.cpp (declared in include/Kernels.h, namespace kernels::reference), and Kernels_test compares
// their bits at every block size 1 to 12; the product kernels are checked bit for bit against the scaled
// dense kernels by SparseTypes_test. The double A·Bᵀ updates live in src/Kernels.cpp.
//
// Only SSE2 is used, which every x86-64 processor has, and the build turns FMA contraction off: the results
// are the same bits on every x86-64 machine.
#ifndef KIVTAMBER_SRC_KERNELSFIXED_H
#define KIVTAMBER_SRC_KERNELSFIXED_H

#include <emmintrin.h>

#include <array>
#include <cstddef>
#include <utility>

#include "Kernels.h"

// Complete unrolling of the loops over compile-time sizes, so that the rows of a small block live in
// registers as straight-line code: the compiler's own limits stop short of that at the sizes 5 and 6.
#define KIVTAMBER_UNROLL _Pragma("GCC unroll 16")

namespace kivTamber {
namespace kernels {

// to[0 .. count) = from[0 .. count) for tiles: 16-byte aligned and, for double, of even length; whole 16-byte
// moves inline, since a library call costs more than the copy for the small tiles of physics systems.
inline void copyTile(double* to, const double* from, unsigned long count) {
    for (unsigned long q = 0; q < count; q += 2) _mm_store_pd(to + q, _mm_load_pd(from + q));
}
inline void copyTile(float* to, const float* from, unsigned long count) {
    for (unsigned long q = 0; q < count; ++q) to[q] = from[q];
}

// W ← W·L_jj⁻ᵀ for the s_i × s_j block W (row stride p_j) and the unit lower block L_jj (row stride p_j):
// row by row, forward substitution with the strictly lower part.
// float: the term-by-term substitution of tamber_SM_UD (each w_c −= l_ct·w_t in turn, t ascending) without
// its divisions by the stored diagonal of L_jj, which is exactly 1: the quotients are exact, so the results
// are the same bits.
inline void solveUnitDiagonal(const float* Ljj, unsigned int p_j, float* W, unsigned int s_i,
                              unsigned int s_j) {
    for (unsigned int r = 0; r < s_i; ++r) {
        float* const w = W + static_cast<unsigned long>(r) * p_j;
        for (unsigned int c = 1; c < s_j; ++c) {
            const float* const l = Ljj + static_cast<unsigned long>(c) * p_j;
            float wc = w[c];
            for (unsigned int t = 0; t < c; ++t) wc -= l[t] * w[t];  // w_c -= l_ct·w_t
            w[c] = wc;
        }
    }
}
// double: the same loops inline (the unit diagonal is not read). S > 0 fixes s_j at compile time, so that the
// loops over c and t unroll into straight code; the arithmetic and its order are the same for every S.
template <int S>
inline void solveUnitDiagonalFixed(const double* Ljj, unsigned int p_j, double* W, unsigned int s_i,
                                   unsigned int s_jDynamic) {
    if (S > 0) {
        // Two rows at a time, one per lane: their recurrences are independent and overlap. Rows are worked
        // on in registers: storing single elements and loading them back in pairs would stall on store
        // forwarding.
        unsigned int r = 0;
        for (; r + 1 < s_i; r += 2) {
            double* w0 = W + static_cast<unsigned long>(r) * p_j;
            double* w1 = w0 + p_j;
            __m128d v[S > 0 ? S : 1];
            KIVTAMBER_UNROLL
            for (int c = 0; c < S; ++c) v[c] = _mm_set_pd(w1[c], w0[c]);
            KIVTAMBER_UNROLL
            for (int c = 1; c < S; ++c) {
                const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
                __m128d sum = _mm_setzero_pd();
                KIVTAMBER_UNROLL
                for (int t = 0; t < c; ++t) sum = _mm_add_pd(sum, _mm_mul_pd(_mm_set1_pd(l[t]), v[t]));
                v[c] = _mm_sub_pd(v[c], sum);  // w_c -= Σ_{t<c} l_ct·w_t, in both rows
            }
            KIVTAMBER_UNROLL
            for (int c = 1; c < S; ++c) {
                _mm_storel_pd(w0 + c, v[c]);
                _mm_storeh_pd(w1 + c, v[c]);
            }
        }
        for (; r < s_i; ++r) {
            double* w = W + static_cast<unsigned long>(r) * p_j;
            double v[S > 0 ? S : 1];
            KIVTAMBER_UNROLL
            for (int c = 0; c < S; ++c) v[c] = w[c];
            KIVTAMBER_UNROLL
            for (int c = 1; c < S; ++c) {
                const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
                double sum = 0.0;
                KIVTAMBER_UNROLL
                for (int t = 0; t < c; ++t) sum += l[t] * v[t];
                v[c] -= sum;  // w_c -= Σ_{t<c} l_ct·w_t
            }
            KIVTAMBER_UNROLL
            for (int c = 1; c < S; ++c) w[c] = v[c];
        }
        return;
    }
    // Larger blocks: four rows at a time in two SSE registers, so that four independent sums are in flight.
    const unsigned int s_j = s_jDynamic;
    unsigned int r = 0;
    for (; r + 3 < s_i; r += 4) {
        double* w0 = W + static_cast<unsigned long>(r) * p_j;
        double* w1 = w0 + p_j;
        double* w2 = w1 + p_j;
        double* w3 = w2 + p_j;
        for (unsigned int c = 1; c < s_j; ++c) {
            const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
            __m128d sum01 = _mm_setzero_pd(), sum23 = _mm_setzero_pd();
            for (unsigned int t = 0; t < c; ++t) {
                const __m128d lt = _mm_set1_pd(l[t]);
                sum01 = _mm_add_pd(sum01, _mm_mul_pd(lt, _mm_set_pd(w1[t], w0[t])));
                sum23 = _mm_add_pd(sum23, _mm_mul_pd(lt, _mm_set_pd(w3[t], w2[t])));
            }
            const __m128d v01 = _mm_sub_pd(_mm_set_pd(w1[c], w0[c]), sum01);
            const __m128d v23 = _mm_sub_pd(_mm_set_pd(w3[c], w2[c]), sum23);
            _mm_storel_pd(w0 + c, v01);
            _mm_storeh_pd(w1 + c, v01);
            _mm_storel_pd(w2 + c, v23);
            _mm_storeh_pd(w3 + c, v23);
        }
    }
    for (; r < s_i; ++r) {
        double* w = W + static_cast<unsigned long>(r) * p_j;
        for (unsigned int c = 1; c < s_j; ++c) {
            const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
            double sum = 0.0;
            for (unsigned int t = 0; t < c; ++t) sum += l[t] * w[t];
            w[c] -= sum;  // w_c -= Σ_{t<c} l_ct·w_t
        }
    }
}
inline void solveUnitDiagonal(const double* Ljj, unsigned int p_j, double* W, unsigned int s_i,
                              unsigned int s_j) {
    switch (s_j) {
        case 1:
            return;  // nothing below the unit diagonal
        case 2:
            return solveUnitDiagonalFixed<2>(Ljj, p_j, W, s_i, s_j);
        case 3:
            return solveUnitDiagonalFixed<3>(Ljj, p_j, W, s_i, s_j);
        case 4:
            return solveUnitDiagonalFixed<4>(Ljj, p_j, W, s_i, s_j);
        case 5:
            return solveUnitDiagonalFixed<5>(Ljj, p_j, W, s_i, s_j);
        case 6:
            return solveUnitDiagonalFixed<6>(Ljj, p_j, W, s_i, s_j);
        case 7:
            return solveUnitDiagonalFixed<7>(Ljj, p_j, W, s_i, s_j);
        case 8:
            return solveUnitDiagonalFixed<8>(Ljj, p_j, W, s_i, s_j);
        case 9:
            return solveUnitDiagonalFixed<9>(Ljj, p_j, W, s_i, s_j);
        case 10:
            return solveUnitDiagonalFixed<10>(Ljj, p_j, W, s_i, s_j);
        case 11:
            return solveUnitDiagonalFixed<11>(Ljj, p_j, W, s_i, s_j);
        case 12:
            return solveUnitDiagonalFixed<12>(Ljj, p_j, W, s_i, s_j);
        default:
            return solveUnitDiagonalFixed<0>(Ljj, p_j, W, s_i, s_j);
    }
}

// Writes the unit lower block held in l (entries c < r of row r) to W (row stride p): the diagonal 1, the
// strict upper triangle 0. For double, whole pairs of columns (the padding column of an odd S written 0, as
// it already is), so that the next reads of the block, in pairs, do not stall on store forwarding.
template <int S>
inline void storeUnitLower(double* W, unsigned int p, const double (*l)[S > 0 ? S : 1]) {
    constexpr int P = (S + 1) & ~1;
    KIVTAMBER_UNROLL
    for (int r = 0; r < S; ++r) {
        double* const w = W + static_cast<unsigned long>(r) * p;
        KIVTAMBER_UNROLL
        for (int c = 0; c < P; c += 2) {
            const double v0 = c < r ? l[r][c] : c == r ? 1.0 : 0.0;
            const double v1 = c + 1 < r ? l[r][c + 1] : c + 1 == r ? 1.0 : 0.0;
            _mm_store_pd(w + c, _mm_set_pd(v1, v0));
        }
    }
}
template <int S>
inline void storeUnitLower(float* W, unsigned int p, const float (*l)[S > 0 ? S : 1]) {
    KIVTAMBER_UNROLL
    for (int r = 0; r < S; ++r) {
        float* const w = W + static_cast<unsigned long>(r) * p;
        KIVTAMBER_UNROLL
        for (int c = 0; c < r; ++c) w[c] = l[r][c];
        w[r] = 1.0f;
        KIVTAMBER_UNROLL
        for (int c = r + 1; c < S; ++c) w[c] = 0.0f;
    }
}

// Rows w0 and w1 of an s × S block (S ≤ 12 fixed, row stride P = S rounded up to even, zero padding), one per
// lane: v[c] = (w0[c], w1[c]) for c < P, then v ← v·L_jj⁻ᵀ with the unit lower block L_jj (row stride P),
// the sums of solveUnitDiagonal in the same order. The caller stores v, transposed back to rows in pairs.
template <int S>
inline void solveRowPair(const double* Ljj, const double* w0, const double* w1, __m128d* v) {
    constexpr unsigned int P = (S + 1) & ~1;
    KIVTAMBER_UNROLL
    for (unsigned int c = 0; c < P; ++c) v[c] = _mm_set_pd(w1[c], w0[c]);
    KIVTAMBER_UNROLL
    for (int c = 1; c < S; ++c) {
        const double* l = Ljj + static_cast<unsigned long>(c) * P;
        __m128d sum = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (int t = 0; t < c; ++t) sum = _mm_add_pd(sum, _mm_mul_pd(_mm_set1_pd(l[t]), v[t]));
        v[c] = _mm_sub_pd(v[c], sum);  // w_c -= Σ_{t<c} l_ct·w_t
    }
}
// The same for one row: v[c] = w[c], then v ← v·L_jj⁻ᵀ.
template <int S>
inline void solveRow(const double* Ljj, const double* w, double* v) {
    constexpr unsigned int P = (S + 1) & ~1;
    KIVTAMBER_UNROLL
    for (unsigned int c = 0; c < P; ++c) v[c] = w[c];
    KIVTAMBER_UNROLL
    for (int c = 1; c < S; ++c) {
        const double* l = Ljj + static_cast<unsigned long>(c) * P;
        double sum = 0.0;
        KIVTAMBER_UNROLL
        for (int t = 0; t < c; ++t) sum += l[t] * v[t];
        v[c] -= sum;
    }
}

// Y = X·diag(d) for an s_i × s_k block (row stride p_k), padding columns of Y zero. S > 0 fixes s_k at
// compile time; the arithmetic is the same for every S.
template <typename T, int S>
inline void scaleColumns(const T* __restrict X, const T* __restrict d, T* __restrict Y, unsigned int s_i,
                         unsigned int s_kDynamic, unsigned int p_k) {
    if (S > 0) {  // whole padded rows against the pivots with zero padding: X's padding is zero, so is Y's
        constexpr unsigned int p = S <= 0 ? 1 : S % 2 == 0 || sizeof(T) == sizeof(float) ? S : S + 1;
        T dd[p];
        KIVTAMBER_UNROLL
        for (unsigned int c = 0; c < p; ++c) dd[c] = c < static_cast<unsigned int>(S) ? d[c] : T(0);
        for (unsigned int r = 0; r < s_i; ++r) {
            const unsigned long row = static_cast<unsigned long>(r) * p;
            KIVTAMBER_UNROLL
            for (unsigned int c = 0; c < p; ++c) Y[row + c] = X[row + c] * dd[c];  // l_rc·d_c
        }
        return;
    }
    const unsigned int s_k = s_kDynamic;
    const unsigned int p = p_k;
    for (unsigned int r = 0; r < s_i; ++r) {
        const unsigned long row = static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < s_k; ++c) Y[row + c] = X[row + c] * d[c];  // l_rc·d_c
        for (unsigned int c = s_k; c < p; ++c) Y[row + c] = T(0);
    }
}

// True when every one of the s pivots d[0 .. s) is non-zero and finite, without a branch per pivot
// (x − x is 0 exactly for finite x and NaN otherwise).
template <typename T>
inline bool pivotsGood(const T* d, unsigned int s) {
    bool good = true;
    for (unsigned int t = 0; t < s; ++t) good &= (d[t] != T(0)) & (d[t] - d[t] == T(0));
    return good;
}

// The fixed-size factorization of factorDiagonalBlockFixed from the rows l (entries c ≤ r of the block to
// factor) and dd (its diagonal), both held in registers by the caller: writes W, d, LD and recip as that
// routine describes.
template <typename T, int S>
__attribute__((always_inline)) inline bool factorLoaded(T (*l)[S], T* dd, T* W, unsigned int p, T* d, T* LD,
                                                        T* recip) {
    constexpr bool isDouble = sizeof(T) == sizeof(double);
    // Column by column: every entry gets exactly the operations of the row-by-row order below, but the
    // divisions of one column are independent of each other and overlap, instead of forming one chain
    // per row.
    KIVTAMBER_UNROLL
    for (int c = 0; c < S; ++c) {
        if (c > 0) {
            T sum = T(0);
            KIVTAMBER_UNROLL
            for (int t = 0; t < c; ++t) sum += dd[t] * l[c][t] * l[c][t];
            dd[c] -= sum;  // d_c -= Σ_{t<c} d_t·l_ct²
        }
        KIVTAMBER_UNROLL
        for (int r = c + 1; r < S; ++r) {
            if (c > 0) {
                T sum = T(0);
                KIVTAMBER_UNROLL
                for (int t = 0; t < c; ++t) sum += l[r][t] * dd[t] * l[c][t];
                l[r][c] -= sum;  // w_rc -= Σ_{t<c} l_rt·d_t·l_ct
            }
            l[r][c] = l[r][c] / dd[c];  // l_rc = w_rc / d_c
        }
    }
    storeUnitLower<S>(W, p, l);
    KIVTAMBER_UNROLL
    for (int r = 0; r < S; ++r) d[r] = dd[r];
    if (LD) {
        // LD = L·D from the registers: the products scaleColumns forms from the stored tile (lower l,
        // unit diagonal, zeros above and in the padding column, times the pivots with zero padding).
        constexpr int P = isDouble ? (S + 1) & ~1 : S;
        KIVTAMBER_UNROLL
        for (int r = 0; r < S; ++r) {
            T* const y = LD + static_cast<unsigned long>(r) * p;
            KIVTAMBER_UNROLL
            for (int c = 0; c < P; ++c) {
                const T x = c < r ? l[r][c] : c == r ? T(1) : T(0);
                y[c] = x * (c < S ? dd[c] : T(0));  // l_rc·d_c
            }
        }
    }
    if (!recip) return true;
    KIVTAMBER_UNROLL
    for (int c = 0; c < S; ++c) recip[c] = T(1) / dd[c];
    if (isDouble && S % 2 == 1) recip[S] = T(0);
    return pivotsGood(dd, S);
}

// W = L·D·Lᵀ in place, without pivoting, for the s × s block W (row stride p; only its lower triangle and
// diagonal are read): afterwards W holds the unit lower L (diagonal exactly 1, strict upper triangle exactly
// 0) and d[0 .. s-1] the pivots. Row by row: d_r = w_rr first for every r, then for each row r the entries
// l_rc = w_rc / d_c (c < r) with the running updates of the next entry of the row, then
// d_r -= Σ_{t<r} d_t·l_rt². Divides by d itself: a zero pivot gives non-finite values.
// S > 0 fixes s at compile time (straight code for the small blocks of the scenes); same arithmetic for every
// S.
// LD (optional, s × s of stride p): receives L·D as scaleColumns forms it from the stored L, written from the
// registers while the block is at hand.
// X (optional, s × s of stride p): the block to factor is read from X instead of W (W is then written only),
// which saves the factorization's copy of an input block that nothing updates.
// recip (optional): recip[c] = 1 / d_c for c < s and, for double tiles of odd s, recip[s] = 0 (the padding
// column); the return value then says whether every pivot is non-zero and finite (true without recip).
template <typename T, int S>
inline bool factorDiagonalBlockFixed(T* W, unsigned int p, unsigned int sDynamic, T* d, T* LD = nullptr,
                                     const T* X = nullptr, T* recip = nullptr) {
    if (S > 0) {
        const T* const in = X ? X : W;
        // Rows and pivots in registers (see solveUnitDiagonalFixed); the same operations in the same order.
        T l[S > 0 ? S : 1][S > 0 ? S : 1];
        T dd[S > 0 ? S : 1];
        KIVTAMBER_UNROLL
        for (int r = 0; r < S; ++r) {
            const T* const w = in + static_cast<unsigned long>(r) * p;
            KIVTAMBER_UNROLL
            for (int c = 0; c <= r; ++c) l[r][c] = w[c];
            dd[r] = w[r];
        }
        return factorLoaded<T, (S > 0 ? S : 1)>(l, dd, W, p, d, LD, recip);
    }
    const unsigned int s = sDynamic;
    if (X) {
        for (unsigned int r = 0; r < s; ++r) {
            const T* const x = X + static_cast<unsigned long>(r) * p;
            T* const w = W + static_cast<unsigned long>(r) * p;
            for (unsigned int c = 0; c < p; ++c) w[c] = x[c];
        }
    }
    for (unsigned int r = 0; r < s; ++r) {
        T* const w = W + static_cast<unsigned long>(r) * p;
        d[r] = w[r];
        w[r] = T(1);
    }
    // Column by column, as in the fixed sizes above (the same operations per entry as row by row).
    for (unsigned int c = 0; c < s; ++c) {
        const T* const wc = W + static_cast<unsigned long>(c) * p;
        if (c > 0) {
            T sum = T(0);
            for (unsigned int t = 0; t < c; ++t) sum += d[t] * wc[t] * wc[t];
            d[c] -= sum;  // d_c -= Σ_{t<c} d_t·l_ct²
        }
        for (unsigned int r = c + 1; r < s; ++r) {
            T* const w = W + static_cast<unsigned long>(r) * p;
            if (c > 0) {
                T sum = T(0);
                for (unsigned int t = 0; t < c; ++t) sum += w[t] * d[t] * wc[t];
                w[c] -= sum;  // w_rc -= Σ_{t<c} l_rt·d_t·l_ct
            }
            w[c] = w[c] / d[c];  // l_rc = w_rc / d_c
        }
    }
    for (unsigned int r = 0; r < s; ++r) {
        T* const w = W + static_cast<unsigned long>(r) * p;
        for (unsigned int c = r + 1; c < s; ++c) w[c] = T(0);
    }
    if (LD) scaleColumns<T, 0>(W, d, LD, s, s, p);
    if (!recip) return true;
    for (unsigned int c = 0; c < s; ++c) recip[c] = T(1) / d[c];
    for (unsigned int c = s; c < p; ++c) recip[c] = T(0);
    return pivotsGood(d, s);
}
template <typename T>
inline bool factorDiagonalBlock(T* W, unsigned int p, unsigned int s, T* d, T* LD = nullptr,
                                const T* X = nullptr, T* recip = nullptr) {
    switch (s) {
        case 1:
            return factorDiagonalBlockFixed<T, 1>(W, p, s, d, LD, X, recip);
        case 2:
            return factorDiagonalBlockFixed<T, 2>(W, p, s, d, LD, X, recip);
        case 3:
            return factorDiagonalBlockFixed<T, 3>(W, p, s, d, LD, X, recip);
        case 4:
            return factorDiagonalBlockFixed<T, 4>(W, p, s, d, LD, X, recip);
        case 5:
            return factorDiagonalBlockFixed<T, 5>(W, p, s, d, LD, X, recip);
        case 6:
            return factorDiagonalBlockFixed<T, 6>(W, p, s, d, LD, X, recip);
        case 7:  // 7 to 12: what block merging makes of bodies and constraints
            return factorDiagonalBlockFixed<T, 7>(W, p, s, d, LD, X, recip);
        case 8:
            return factorDiagonalBlockFixed<T, 8>(W, p, s, d, LD, X, recip);
        case 9:
            return factorDiagonalBlockFixed<T, 9>(W, p, s, d, LD, X, recip);
        case 10:
            return factorDiagonalBlockFixed<T, 10>(W, p, s, d, LD, X, recip);
        case 11:
            return factorDiagonalBlockFixed<T, 11>(W, p, s, d, LD, X, recip);
        case 12:
            return factorDiagonalBlockFixed<T, 12>(W, p, s, d, LD, X, recip);
        default:
            return factorDiagonalBlockFixed<T, 0>(W, p, s, d, LD, X, recip);
    }
}

// The sums of a 2×2 block of A·Bᵀ over KP (even) columns, rows A0, A1 against rows B0, B1: the even and the
// odd products accumulated in the two lanes, added at the end, r0 = (c00, c01), r1 = (c10, c11) (the sums of
// the lower A·Bᵀ updates in src/Kernels.cpp).
template <int KP>
inline void pairedBlockSums(const double* A0, const double* A1, const double* B0, const double* B1,
                            __m128d& r0, __m128d& r1) {
    __m128d s00 = _mm_setzero_pd(), s01 = _mm_setzero_pd(), s10 = _mm_setzero_pd(), s11 = _mm_setzero_pd();
    KIVTAMBER_UNROLL
    for (int q = 0; q < KP; q += 2) {
        const __m128d a0 = _mm_load_pd(A0 + q), a1 = _mm_load_pd(A1 + q);
        const __m128d b0 = _mm_load_pd(B0 + q), b1 = _mm_load_pd(B1 + q);
        s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
        s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
        s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
        s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
    }
    r0 = _mm_add_pd(_mm_unpacklo_pd(s00, s01), _mm_unpackhi_pd(s00, s01));
    r1 = _mm_add_pd(_mm_unpacklo_pd(s10, s11), _mm_unpackhi_pd(s10, s11));
}

// The diagonal block of a block row with one off-diagonal entry, for double blocks of S = 2 … 6 rows and
// columns of padded size KP = 2, 4 or 6: C = X − A·Bᵀ on the lower triangle with the sums of
// subtractABtLowerFrom (2×2 blocks of C, even and odd p in the two lanes, added at the end, then subtracted
// from the input), and C factored as factorDiagonalBlockFixed does, C held in registers instead of being
// stored and loaded back. A = L(i, k), B = LD(i, k): S × KP tiles of stride KP (their padding row, read for
// an odd S, zero); X: the input tile (stride p), W: L(i, i).
template <int S, int KP>
bool factorDiagonalUpdatedFixed(const double* A, const double* B, const double* X, double* W, unsigned int p,
                                double* d, double* LD, double* recip) {
    constexpr int NP = (S + 1) & ~1;
    double l[S][S];
    double dd[S];
    KIVTAMBER_UNROLL
    for (int i = 0; i < NP; i += 2) {
        const double* A0 = A + static_cast<unsigned long>(i) * KP;
        const double* A1 = A0 + KP;
        const double* X0 = X + static_cast<unsigned long>(i) * p;
        const double* X1 = X0 + p;
        KIVTAMBER_UNROLL
        for (int j = 0; j <= i; j += 2) {
            const double* B0 = B + static_cast<unsigned long>(j) * KP;
            const double* B1 = B0 + KP;
            __m128d r0, r1;
            pairedBlockSums<KP>(A0, A1, B0, B1, r0, r1);
            // c_rc = x_rc − (even + odd), rows i and i + 1, columns j and j + 1
            const __m128d x0 = _mm_sub_pd(_mm_load_pd(X0 + j), r0);
            l[i][j] = _mm_cvtsd_f64(x0);
            if (j + 1 <= i) l[i][j + 1] = _mm_cvtsd_f64(_mm_unpackhi_pd(x0, x0));
            if (i + 1 < S) {
                const __m128d x1 = _mm_sub_pd(_mm_load_pd(X1 + j), r1);
                l[i + 1][j] = _mm_cvtsd_f64(x1);
                l[i + 1][j + 1] = _mm_cvtsd_f64(_mm_unpackhi_pd(x1, x1));
            }
        }
    }
    KIVTAMBER_UNROLL
    for (int r = 0; r < S; ++r) dd[r] = l[r][r];
    return factorLoaded<double, S>(l, dd, W, p, d, LD, recip);
}

// factorDiagonalUpdatedFixed for 2 ≤ s ≤ 6 and 2 ≤ k ≤ 6 (k: the unpadded size of block column k); false,
// nothing done, for other shapes (the caller updates and factors in two steps). good: whether every pivot
// is non-zero and finite.
inline bool factorDiagonalUpdated(const double* A, const double* B, unsigned int k, const double* X,
                                  double* W, unsigned int p, unsigned int s, double* d, double* LD,
                                  double* recip, bool& good) {
    using Fused = bool (*)(const double*, const double*, const double*, double*, unsigned int, double*,
                           double*, double*);
    static constexpr Fused table[15] = {&factorDiagonalUpdatedFixed<2, 2>, &factorDiagonalUpdatedFixed<2, 4>,
                                        &factorDiagonalUpdatedFixed<2, 6>, &factorDiagonalUpdatedFixed<3, 2>,
                                        &factorDiagonalUpdatedFixed<3, 4>, &factorDiagonalUpdatedFixed<3, 6>,
                                        &factorDiagonalUpdatedFixed<4, 2>, &factorDiagonalUpdatedFixed<4, 4>,
                                        &factorDiagonalUpdatedFixed<4, 6>, &factorDiagonalUpdatedFixed<5, 2>,
                                        &factorDiagonalUpdatedFixed<5, 4>, &factorDiagonalUpdatedFixed<5, 6>,
                                        &factorDiagonalUpdatedFixed<6, 2>, &factorDiagonalUpdatedFixed<6, 4>,
                                        &factorDiagonalUpdatedFixed<6, 6>};
    if (s - 2 > 4 || k - 2 > 4) return false;
    good = table[(s - 2) * 3 + (k + 1) / 2 - 1](A, B, X, W, p, d, LD, recip);
    return true;
}
inline bool factorDiagonalUpdated(const float*, const float*, unsigned int, const float*, float*,
                                  unsigned int, unsigned int, float*, float*, float*, bool&) {
    return false;  // float keeps the two steps
}

// C = Cin − A·Bᵀ on the 2×2 blocks on and below the diagonal of an S × S double tile (2 ≤ S ≤ 6; for an odd S
// its padding row too), A and B: S × KP tiles of stride KP (KP = 2, 4 or 6; their padding rows zero), Cin
// and C of stride ldc (Cin = C: in place). The operations of subtractABtLowerFrom and subtractABtLower for
// these shapes (src/Kernels.cpp: per 2×2 block of C the even and odd products in two lanes, added at the
// end, then subtracted), inline, so that a row of several updates runs as straight code.
template <int S, int KP>
inline void subtractABtLowerFixed(const double* A, const double* B, const double* Cin, double* C,
                                  unsigned int ldc) {
    constexpr int NP = (S + 1) & ~1;
    KIVTAMBER_UNROLL
    for (int i = 0; i < NP; i += 2) {
        const double* A0 = A + static_cast<unsigned long>(i) * KP;
        const double* A1 = A0 + KP;
        double* C0 = C + static_cast<unsigned long>(i) * ldc;
        double* C1 = C0 + ldc;
        const double* I0 = Cin + static_cast<unsigned long>(i) * ldc;
        const double* I1 = I0 + ldc;
        KIVTAMBER_UNROLL
        for (int j = 0; j <= i; j += 2) {
            const double* B0 = B + static_cast<unsigned long>(j) * KP;
            const double* B1 = B0 + KP;
            __m128d r0, r1;
            pairedBlockSums<KP>(A0, A1, B0, B1, r0, r1);
            _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(I0 + j), r0));
            _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(I1 + j), r1));
        }
    }
}

// scaleColumns for any s: fixed for the sizes 1 to 4 and 6, the general loop otherwise. X's padding columns
// must be zero (the fixed sizes multiply them by the zero padding of the pivots).
template <typename T>
inline void scaleColumnsAnySize(const T* X, const T* d, T* Y, unsigned int rows, unsigned int s,
                                unsigned int p) {
    switch (s) {
        case 1:
            return scaleColumns<T, 1>(X, d, Y, rows, s, p);
        case 2:
            return scaleColumns<T, 2>(X, d, Y, rows, s, p);
        case 3:
            return scaleColumns<T, 3>(X, d, Y, rows, s, p);
        case 4:
            return scaleColumns<T, 4>(X, d, Y, rows, s, p);
        case 6:
            return scaleColumns<T, 6>(X, d, Y, rows, s, p);
        default:
            return scaleColumns<T, 0>(X, d, Y, rows, s, p);
    }
}

// The end of an off-diagonal block L(i, j) of a small double block column j, in one pass with the rows in
// registers: W ← W·L_jj⁻ᵀ (solveUnitDiagonal), L(i, j) = W·diag(recip) and LD(i, j) = L(i, j)·D_j
// (scaleColumns), the same operations as those routines, two rows at a time; stores are whole pairs of
// columns, so that the next reads of the tiles do not stall on store forwarding.
// W: the s_i × S tile of L(i, j) (row stride P), Ljj its unit lower diagonal block, LDij the tile of LD(i,
// j), recip: P reciprocal pivots (padding 0), dj: the S pivots. X: where the rows are read from (W itself,
// or the input block when nothing has updated it, which saves copying it into W first).
template <int S>
void finishSmallBlockFixed(const double* Ljj, const double* X, double* W, double* LDij, unsigned int s_i,
                           const double* recip, const double* dj) {
    constexpr unsigned int P = (S + 1) & ~1;
    alignas(16) double dd[P];
    KIVTAMBER_UNROLL
    for (unsigned int c = 0; c < P; ++c) dd[c] = c < static_cast<unsigned int>(S) ? dj[c] : 0.0;
    unsigned int r = 0;
    for (; r + 1 < s_i; r += 2) {
        double* w0 = W + static_cast<unsigned long>(r) * P;
        double* w1 = w0 + P;
        const double* x0 = X + static_cast<unsigned long>(r) * P;
        __m128d v[P];
        solveRowPair<S>(Ljj, x0, x0 + P, v);
        double* ld0 = LDij + static_cast<unsigned long>(r) * P;
        double* ld1 = ld0 + P;
        KIVTAMBER_UNROLL
        for (unsigned int c = 0; c < P; c += 2) {
            const __m128d q = _mm_loadu_pd(recip + c), dc = _mm_load_pd(dd + c);
            const __m128d l0 = _mm_mul_pd(_mm_unpacklo_pd(v[c], v[c + 1]), q);  // l_rc = w_rc / d_c
            const __m128d l1 = _mm_mul_pd(_mm_unpackhi_pd(v[c], v[c + 1]), q);
            _mm_store_pd(w0 + c, l0);
            _mm_store_pd(w1 + c, l1);
            _mm_store_pd(ld0 + c, _mm_mul_pd(l0, dc));  // l_rc·d_c
            _mm_store_pd(ld1 + c, _mm_mul_pd(l1, dc));
        }
    }
    if (r < s_i) {
        double* w = W + static_cast<unsigned long>(r) * P;
        double v[P];
        solveRow<S>(Ljj, X + static_cast<unsigned long>(r) * P, v);
        double* ld = LDij + static_cast<unsigned long>(r) * P;
        KIVTAMBER_UNROLL
        for (unsigned int c = 0; c < P; ++c) {
            w[c] = v[c] * recip[c];
            ld[c] = w[c] * dd[c];
        }
    }
}

// finishSmallBlockFixed for block sizes 1 to 12 of double (bodies, constraints and what block merging makes
// of them), reading the rows from X (W itself or an input block of the same shape); false (nothing done)
// otherwise.
inline bool finishSmallBlockFrom(const double* Ljj, const double* X, double* W, double* LDij,
                                 unsigned int s_i, unsigned int s_j, const double* recip, const double* dj) {
    using Finish =
        void (*)(const double*, const double*, double*, double*, unsigned int, const double*, const double*);
    static constexpr Finish table[12] = {
        &finishSmallBlockFixed<1>,  &finishSmallBlockFixed<2>,  &finishSmallBlockFixed<3>,
        &finishSmallBlockFixed<4>,  &finishSmallBlockFixed<5>,  &finishSmallBlockFixed<6>,
        &finishSmallBlockFixed<7>,  &finishSmallBlockFixed<8>,  &finishSmallBlockFixed<9>,
        &finishSmallBlockFixed<10>, &finishSmallBlockFixed<11>, &finishSmallBlockFixed<12>};
    if (s_j - 1 >= 12) return false;
    table[s_j - 1](Ljj, X, W, LDij, s_i, recip, dj);
    return true;
}
// The same in place (X = W).
inline bool finishSmallBlock(const double* Ljj, double* W, double* LDij, unsigned int s_i, unsigned int s_j,
                             const double* recip, const double* dj) {
    return finishSmallBlockFrom(Ljj, W, W, LDij, s_i, s_j, recip, dj);
}
inline bool finishSmallBlock(const float*, float*, float*, unsigned int, unsigned int, const float*,
                             const float*) {
    return false;  // float keeps the separate steps (its substitution subtracts term by term)
}
inline bool finishSmallBlockFrom(const float*, const float*, float*, float*, unsigned int, unsigned int,
                                 const float*, const float*) {
    return false;
}

// The end of an off-diagonal front block of a small double node j, in one pass with two rows in registers:
// W ← W·L_jj⁻ᵀ (solveUnitDiagonal), LD(r, j) = W (with its zero padding, rows included) and L(r, j) =
// W·diag(recip), the same operations as the separate steps; stores are whole pairs of columns, so that the
// next reads of the tiles do not stall on store forwarding. W: the s_r × S front tile (row stride P), Ljj the
// unit lower diagonal block, LDrj the LD tile (P·P' elements, P' = s_r rounded up to even), recip: P
// reciprocal pivots (padding 0).
template <int S>
void finishFrontBlockFixed(const double* Ljj, double* W, double* LDrj, unsigned int s_r,
                           const double* recip) {
    constexpr unsigned int P = (S + 1) & ~1;
    unsigned int r = 0;
    for (; r + 1 < s_r; r += 2) {
        double* w0 = W + static_cast<unsigned long>(r) * P;
        double* w1 = w0 + P;
        __m128d v[P];
        solveRowPair<S>(Ljj, w0, w1, v);
        double* ld0 = LDrj + static_cast<unsigned long>(r) * P;
        double* ld1 = ld0 + P;
        for (unsigned int c = 0; c < P; c += 2) {
            const __m128d x0 = _mm_unpacklo_pd(v[c], v[c + 1]), x1 = _mm_unpackhi_pd(v[c], v[c + 1]);
            const __m128d q = _mm_loadu_pd(recip + c);
            _mm_store_pd(ld0 + c, x0);
            _mm_store_pd(ld1 + c, x1);
            _mm_store_pd(w0 + c, _mm_mul_pd(x0, q));  // l = w / d_c
            _mm_store_pd(w1 + c, _mm_mul_pd(x1, q));
        }
    }
    if (r < s_r) {  // an odd last row, then the zero padding row of LD
        double* w = W + static_cast<unsigned long>(r) * P;
        double v[P];
        solveRow<S>(Ljj, w, v);
        double* ld = LDrj + static_cast<unsigned long>(r) * P;
        for (unsigned int c = 0; c < P; ++c) {
            ld[c] = v[c];
            w[c] = v[c] * recip[c];
            ld[P + c] = 0.0;
        }
    }
}

// finishFrontBlockFixed for node sizes 1 to 6 of double; false (nothing done) otherwise, and for float, which
// keeps the separate steps (tamber_SM_UD divides by the stored unit diagonal).
inline bool finishFrontBlock(const double* Ljj, double* W, double* LDrj, unsigned int s_r, unsigned int s_j,
                             const double* recip) {
    switch (s_j) {
        case 1:
            finishFrontBlockFixed<1>(Ljj, W, LDrj, s_r, recip);
            return true;
        case 2:
            finishFrontBlockFixed<2>(Ljj, W, LDrj, s_r, recip);
            return true;
        case 3:
            finishFrontBlockFixed<3>(Ljj, W, LDrj, s_r, recip);
            return true;
        case 4:
            finishFrontBlockFixed<4>(Ljj, W, LDrj, s_r, recip);
            return true;
        case 5:
            finishFrontBlockFixed<5>(Ljj, W, LDrj, s_r, recip);
            return true;
        case 6:
            finishFrontBlockFixed<6>(Ljj, W, LDrj, s_r, recip);
            return true;
        default:
            return false;
    }
}
inline bool finishFrontBlock(const float*, float*, float*, unsigned int, unsigned int, const float*) {
    return false;
}

// x[q] ← x[q] / d[q] for q < size, two entries per division where it can: each lane is the scalar division.
inline void divideEntries(double* x, const double* d, unsigned int size) {
    unsigned int q = 0;
    for (; q + 2 <= size; q += 2) _mm_storeu_pd(x + q, _mm_div_pd(_mm_loadu_pd(x + q), _mm_loadu_pd(d + q)));
    if (q < size) x[q] = x[q] / d[q];
}

// ---------------------------------------------------------------------------------------------------------
// Paired (two-lane) column kernels of the double solves.
// ---------------------------------------------------------------------------------------------------------

// x / u, skipping the division when u is exactly 1 (the unit diagonal of the factor's tiles): x / 1 is x
// bit for bit, and the division would sit in the dependency chain of every row.
inline double divideByDiagonal(double x, double u) {
    return u == 1.0 ? x : x / u;
}

// Sum of the two lanes: even part + odd part.
inline double laneSum(__m128d v) {
    return _mm_cvtsd_f64(_mm_add_sd(v, _mm_unpackhi_pd(v, v)));
}

// ---------------------------------------------------------------------------------------------------------
// Paired (two-lane) column kernels of the double solves. Preconditions of TamberSolve.h: even leading
// dimensions, zero padding, and one more entry of x after every slice that is processed with an odd size.
// ---------------------------------------------------------------------------------------------------------

// x_j ← x_j − Bᵀ·x_i for an s_i × s_j tile B (leading dimension ld), two r and two q at a time.
inline void forwardOffDiagonalPaired(const double* B, unsigned int ld, const double* xi, unsigned int si,
                                     double* xj, unsigned int sj) {
    unsigned int r = 0;
    // Two pairs of r at a time: four independent sums in flight (the same sums as pair by pair).
    for (; r + 2 < sj; r += 4) {
        const double* b0 = B + static_cast<unsigned long>(r) * ld;
        const double* b1 = b0 + ld;
        const double* b2 = b1 + ld;
        const double* b3 = b2 + ld;
        __m128d a0 = _mm_setzero_pd(), a1 = _mm_setzero_pd(), a2 = _mm_setzero_pd(), a3 = _mm_setzero_pd();
        for (unsigned int q = 0; q < si; q += 2) {
            const __m128d v = _mm_loadu_pd(xi + q);
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(b0 + q), v));
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(b1 + q), v));
            a2 = _mm_add_pd(a2, _mm_mul_pd(_mm_loadu_pd(b2 + q), v));
            a3 = _mm_add_pd(a3, _mm_mul_pd(_mm_loadu_pd(b3 + q), v));
        }
        _mm_storeu_pd(xj + r, _mm_set_pd(xj[r + 1] - laneSum(a1), xj[r] - laneSum(a0)));
        _mm_storeu_pd(xj + r + 2, _mm_set_pd(xj[r + 3] - laneSum(a3), xj[r + 2] - laneSum(a2)));
    }
    for (; r < sj; r += 2) {
        const double* b0 = B + static_cast<unsigned long>(r) * ld;
        const double* b1 = b0 + ld;
        __m128d a0 = _mm_setzero_pd();
        __m128d a1 = _mm_setzero_pd();
        for (unsigned int q = 0; q < si; q += 2) {
            const __m128d v = _mm_loadu_pd(xi + q);
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(b0 + q), v));  // B(q, r)·x_i(q)
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(b1 + q), v));  // B(q, r+1)·x_i(q)
        }
        // One store of the pair: the next column loads it as a pair, which two single stores would stall.
        const double x0 = xj[r] - laneSum(a0);
        const double x1 = xj[r + 1] - laneSum(a1);
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));
    }
}

// x_j ← U_jj⁻ᵀ·x_j with the unit upper tile U (leading dimension ld), two r and two q at a time. Pair
// (r, r+1) sums over q < r in pairs; x_j(r+1) then also takes U(r, r+1)·x_j(r). The diagonal is not read.
inline void forwardDiagonalPaired(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    for (unsigned int r = 0; r < sj; r += 2) {
        const double* u0 = U + static_cast<unsigned long>(r) * ld;
        const double* u1 = u0 + ld;
        __m128d a0 = _mm_setzero_pd();
        __m128d a1 = _mm_setzero_pd();
        for (unsigned int q = 0; q < r; q += 2) {
            const __m128d v = _mm_loadu_pd(xj + q);
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(u0 + q), v));
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(u1 + q), v));
        }
        const double x0 = xj[r] - laneSum(a0);
        const double x1 = xj[r + 1] - (laneSum(a1) + u1[r] * x0);
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));  // as a pair (see forwardOffDiagonalPaired)
    }
}

// x_j ← U_jj⁻¹·x_j with the upper tile U (leading dimension ld), dividing by its stored diagonal. An odd top
// row is divided alone (its padding partner has a zero diagonal); the rest runs in pairs (r, r+1) from the
// bottom, each pair then updating the rows above it two at a time.
inline void backwardDiagonalPaired(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    unsigned int r = sj;
    if (sj & 1u) {
        r = sj - 1;
        const double* u0 = U + static_cast<unsigned long>(r) * ld;
        xj[r] = divideByDiagonal(xj[r], u0[r]);
        const __m128d s0 = _mm_set1_pd(xj[r]);
        for (unsigned int q = 0; q < r; q += 2)
            _mm_storeu_pd(xj + q, _mm_sub_pd(_mm_loadu_pd(xj + q), _mm_mul_pd(_mm_loadu_pd(u0 + q), s0)));
    }
    while (r >= 2) {
        r -= 2;
        const double* u0 = U + static_cast<unsigned long>(r) * ld;
        const double* u1 = u0 + ld;
        const double x1 = divideByDiagonal(xj[r + 1], u1[r + 1]);
        const double x0 = divideByDiagonal(xj[r] - u1[r] * x1, u0[r]);
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));
        const __m128d s0 = _mm_set1_pd(x0);
        const __m128d s1 = _mm_set1_pd(x1);
        for (unsigned int q = 0; q < r; q += 2) {
            const __m128d t =
                _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(u0 + q), s0), _mm_mul_pd(_mm_loadu_pd(u1 + q), s1));
            _mm_storeu_pd(xj + q, _mm_sub_pd(_mm_loadu_pd(xj + q), t));
        }
    }
}

// x_i ← x_i − B·x_j for an s_i × s_j tile B (leading dimension ld): for each pair of q the products over
// pairs of r are accumulated and subtracted once.
inline void backwardOffDiagonalPaired(const double* B, unsigned int ld, const double* xj, unsigned int sj,
                                      double* xi, unsigned int si) {
    unsigned int q = 0;
    // Two pairs of q at a time: two independent sums in flight (the same sums as pair by pair).
    for (; q + 2 < si; q += 4) {
        __m128d acc0 = _mm_setzero_pd(), acc1 = _mm_setzero_pd();
        for (unsigned int r = 0; r < sj; r += 2) {
            const double* b0 = B + static_cast<unsigned long>(r) * ld + q;
            const __m128d x0 = _mm_set1_pd(xj[r]), x1 = _mm_set1_pd(xj[r + 1]);
            acc0 = _mm_add_pd(acc0, _mm_mul_pd(_mm_loadu_pd(b0), x0));
            acc1 = _mm_add_pd(acc1, _mm_mul_pd(_mm_loadu_pd(b0 + 2), x0));
            acc0 = _mm_add_pd(acc0, _mm_mul_pd(_mm_loadu_pd(b0 + ld), x1));
            acc1 = _mm_add_pd(acc1, _mm_mul_pd(_mm_loadu_pd(b0 + ld + 2), x1));
        }
        _mm_storeu_pd(xi + q, _mm_sub_pd(_mm_loadu_pd(xi + q), acc0));
        _mm_storeu_pd(xi + q + 2, _mm_sub_pd(_mm_loadu_pd(xi + q + 2), acc1));
    }
    for (; q < si; q += 2) {
        __m128d acc = _mm_setzero_pd();
        for (unsigned int r = 0; r < sj; r += 2) {
            const double* b0 = B + static_cast<unsigned long>(r) * ld + q;
            acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(b0), _mm_set1_pd(xj[r])));  // B(q.., r)·x_j(r)
            acc = _mm_add_pd(
                acc, _mm_mul_pd(_mm_loadu_pd(b0 + ld), _mm_set1_pd(xj[r + 1])));  // B(q.., r+1)·x_j(r+1)
        }
        _mm_storeu_pd(xi + q, _mm_sub_pd(_mm_loadu_pd(xi + q), acc));
    }
}

// ---------------------------------------------------------------------------------------------------------
// The paired solve steps for sizes up to 6 fixed at compile time: the operations of the kernels above, entry
// by entry in the same order, as straight-line code (their loops run one to three times on the tiles of
// physics systems and cost as much as the arithmetic).
// ---------------------------------------------------------------------------------------------------------

template <int SI, int SJ>
void forwardOffDiagonalFixed(const double* B, unsigned int ld, const double* xi, double* xj) {
    constexpr int PI = (SI + 1) & ~1, PJ = (SJ + 1) & ~1;
    __m128d v[PI / 2];
    KIVTAMBER_UNROLL
    for (int q = 0; q < PI; q += 2) v[q / 2] = _mm_loadu_pd(xi + q);
    KIVTAMBER_UNROLL
    for (int r = 0; r < PJ; r += 2) {
        const double* b0 = B + static_cast<unsigned long>(r) * ld;
        const double* b1 = b0 + ld;
        __m128d a0 = _mm_setzero_pd(), a1 = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (int q = 0; q < PI; q += 2) {
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(b0 + q), v[q / 2]));  // B(q, r)·x_i(q)
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(b1 + q), v[q / 2]));
        }
        _mm_storeu_pd(xj + r, _mm_set_pd(xj[r + 1] - laneSum(a1), xj[r] - laneSum(a0)));
    }
}

template <int SJ>
void forwardDiagonalFixed(const double* U, unsigned int ld, double* xj) {
    KIVTAMBER_UNROLL
    for (int r = 0; r < SJ; r += 2) {
        const double* u0 = U + static_cast<unsigned long>(r) * ld;
        const double* u1 = u0 + ld;
        __m128d a0 = _mm_setzero_pd(), a1 = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (int q = 0; q < r; q += 2) {
            const __m128d v = _mm_loadu_pd(xj + q);
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(u0 + q), v));
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(u1 + q), v));
        }
        const double x0 = xj[r] - laneSum(a0);
        const double x1 = xj[r + 1] - (laneSum(a1) + u1[r] * x0);
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));
    }
}

template <int SJ>
void backwardDiagonalFixed(const double* U, unsigned int ld, double* xj) {
    constexpr int top = SJ & ~1;  // an odd top row first, alone
    if (SJ & 1) {
        const double* u0 = U + static_cast<unsigned long>(top) * ld;
        xj[top] = divideByDiagonal(xj[top], u0[top]);
        const __m128d s0 = _mm_set1_pd(xj[top]);
        KIVTAMBER_UNROLL
        for (int q = 0; q < top; q += 2)
            _mm_storeu_pd(xj + q, _mm_sub_pd(_mm_loadu_pd(xj + q), _mm_mul_pd(_mm_loadu_pd(u0 + q), s0)));
    }
    KIVTAMBER_UNROLL
    for (int r = top - 2; r >= 0; r -= 2) {
        const double* u0 = U + static_cast<unsigned long>(r) * ld;
        const double* u1 = u0 + ld;
        const double x1 = divideByDiagonal(xj[r + 1], u1[r + 1]);
        const double x0 = divideByDiagonal(xj[r] - u1[r] * x1, u0[r]);
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));
        const __m128d s0 = _mm_set1_pd(x0);
        const __m128d s1 = _mm_set1_pd(x1);
        KIVTAMBER_UNROLL
        for (int q = 0; q < r; q += 2) {
            const __m128d t =
                _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(u0 + q), s0), _mm_mul_pd(_mm_loadu_pd(u1 + q), s1));
            _mm_storeu_pd(xj + q, _mm_sub_pd(_mm_loadu_pd(xj + q), t));
        }
    }
}

template <int SI, int SJ>
void backwardOffDiagonalFixed(const double* B, unsigned int ld, const double* xj, double* xi) {
    constexpr int PI = (SI + 1) & ~1, PJ = (SJ + 1) & ~1;
    __m128d x[PJ];
    KIVTAMBER_UNROLL
    for (int r = 0; r < PJ; ++r) x[r] = _mm_set1_pd(xj[r]);
    KIVTAMBER_UNROLL
    for (int q = 0; q < PI; q += 2) {
        __m128d acc = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (int r = 0; r < PJ; r += 2) {
            const double* b0 = B + static_cast<unsigned long>(r) * ld + q;
            acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(b0), x[r]));           // B(q.., r)·x_j(r)
            acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(b0 + ld), x[r + 1]));  // B(q.., r+1)·x_j(r+1)
        }
        _mm_storeu_pd(xi + q, _mm_sub_pd(_mm_loadu_pd(xi + q), acc));
    }
}

// The off-diagonal steps with only the inner size fixed (padded, even, at most 12: the q of the forward
// step, the r of the backward step), the outer loop over pairs at run time: the same operations per entry.
template <int PI>
void forwardOffDiagonalInner(const double* B, unsigned int ld, const double* xi, double* xj,
                             unsigned int sj) {
    __m128d v[PI / 2];
    KIVTAMBER_UNROLL
    for (int q = 0; q < PI; q += 2) v[q / 2] = _mm_loadu_pd(xi + q);
    for (unsigned int r = 0; r < sj; r += 2) {
        const double* b0 = B + static_cast<unsigned long>(r) * ld;
        const double* b1 = b0 + ld;
        __m128d a0 = _mm_setzero_pd(), a1 = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (int q = 0; q < PI; q += 2) {
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(b0 + q), v[q / 2]));
            a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(b1 + q), v[q / 2]));
        }
        _mm_storeu_pd(xj + r, _mm_set_pd(xj[r + 1] - laneSum(a1), xj[r] - laneSum(a0)));
    }
}

template <int PJ>
void backwardOffDiagonalInner(const double* B, unsigned int ld, const double* xj, double* xi,
                              unsigned int si) {
    __m128d x[PJ];
    KIVTAMBER_UNROLL
    for (int r = 0; r < PJ; ++r) x[r] = _mm_set1_pd(xj[r]);
    for (unsigned int q = 0; q < si; q += 2) {
        __m128d acc = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (int r = 0; r < PJ; r += 2) {
            const double* b0 = B + static_cast<unsigned long>(r) * ld + q;
            acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(b0), x[r]));
            acc = _mm_add_pd(acc, _mm_mul_pd(_mm_loadu_pd(b0 + ld), x[r + 1]));
        }
        _mm_storeu_pd(xi + q, _mm_sub_pd(_mm_loadu_pd(xi + q), acc));
    }
}

using InnerStep = void (*)(const double*, unsigned int, const double*, double*, unsigned int);

using OffDiagonalStep = void (*)(const double*, unsigned int, const double*, double*);
using DiagonalStep = void (*)(const double*, unsigned int, double*);

template <std::size_t... I>
constexpr std::array<OffDiagonalStep, sizeof...(I)> forwardOffDiagonalTable(std::index_sequence<I...>) {
    return {{&forwardOffDiagonalFixed<int(I) / 6 + 1, int(I) % 6 + 1>...}};
}
template <std::size_t... I>
constexpr std::array<OffDiagonalStep, sizeof...(I)> backwardOffDiagonalTable(std::index_sequence<I...>) {
    return {{&backwardOffDiagonalFixed<int(I) / 6 + 1, int(I) % 6 + 1>...}};
}

// The solve steps of the double solves: fixed code for sizes up to 6, the inner size fixed up to 12, the
// general paired loops above.
inline void forwardOffDiagonalStep(const double* B, unsigned int ld, const double* xi, unsigned int si,
                                   double* xj, unsigned int sj) {
    static constexpr std::array<OffDiagonalStep, 36> table =
        forwardOffDiagonalTable(std::make_index_sequence<36>());
    static constexpr InnerStep inner[6] = {&forwardOffDiagonalInner<2>,  &forwardOffDiagonalInner<4>,
                                           &forwardOffDiagonalInner<6>,  &forwardOffDiagonalInner<8>,
                                           &forwardOffDiagonalInner<10>, &forwardOffDiagonalInner<12>};
    if (si - 1 < 6 && sj - 1 < 6) return table[(si - 1) * 6 + (sj - 1)](B, ld, xi, xj);
    if (si - 1 < 12) return inner[(si - 1) / 2](B, ld, xi, xj, sj);
    forwardOffDiagonalPaired(B, ld, xi, si, xj, sj);
}
inline void backwardOffDiagonalStep(const double* B, unsigned int ld, const double* xj, unsigned int sj,
                                    double* xi, unsigned int si) {
    static constexpr std::array<OffDiagonalStep, 36> table =
        backwardOffDiagonalTable(std::make_index_sequence<36>());
    static constexpr InnerStep inner[6] = {&backwardOffDiagonalInner<2>,  &backwardOffDiagonalInner<4>,
                                           &backwardOffDiagonalInner<6>,  &backwardOffDiagonalInner<8>,
                                           &backwardOffDiagonalInner<10>, &backwardOffDiagonalInner<12>};
    if (si - 1 < 6 && sj - 1 < 6) return table[(si - 1) * 6 + (sj - 1)](B, ld, xj, xi);
    if (sj - 1 < 12) return inner[(sj - 1) / 2](B, ld, xj, xi, si);
    backwardOffDiagonalPaired(B, ld, xj, sj, xi, si);
}
inline void forwardDiagonalStep(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    static constexpr DiagonalStep table[6] = {&forwardDiagonalFixed<1>, &forwardDiagonalFixed<2>,
                                              &forwardDiagonalFixed<3>, &forwardDiagonalFixed<4>,
                                              &forwardDiagonalFixed<5>, &forwardDiagonalFixed<6>};
    if (sj - 1 < 6) return table[sj - 1](U, ld, xj);
    forwardDiagonalPaired(U, ld, xj, sj);
}
inline void backwardDiagonalStep(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    static constexpr DiagonalStep table[6] = {&backwardDiagonalFixed<1>, &backwardDiagonalFixed<2>,
                                              &backwardDiagonalFixed<3>, &backwardDiagonalFixed<4>,
                                              &backwardDiagonalFixed<5>, &backwardDiagonalFixed<6>};
    if (sj - 1 < 6) return table[sj - 1](U, ld, xj);
    backwardDiagonalPaired(U, ld, xj, sj);
}

// ---------------------------------------------------------------------------------------------------------
// Products of a block-sparse symmetric matrix with a vector (SparseMatrix::multiplyAdd), per tile.
// ---------------------------------------------------------------------------------------------------------

// Both products of an off-diagonal tile in one pass: y_i += B·x_j and y_j += Bᵀ·x_i, with K = Bᵀ the
// row-major view (s_j × s_i, leading dimension ld): y_i(q) += k_rq·x_j(r) over r ascending, y_j(r) +=
// k_rq·x_i(q) over q ascending, each entry accumulated in that order. SI, SJ > 0 fix the sizes at compile
// time (the same operations).
template <typename T, int SI, int SJ>
inline void addBothProducts(const T* __restrict K, unsigned int ld, const T* __restrict xi,
                            const T* __restrict xj, T* __restrict yi, T* __restrict yj,
                            unsigned int siDynamic, unsigned int sjDynamic) {
    if (SI > 0 && SJ > 0) {
        T y[SI > 0 ? SI : 1];
        KIVTAMBER_UNROLL
        for (int q = 0; q < SI; ++q) y[q] = yi[q];
        KIVTAMBER_UNROLL
        for (int r = 0; r < SJ; ++r) {
            const T* k = K + static_cast<unsigned long>(r) * ld;
            const T s = xj[r];
            T acc = yj[r];
            KIVTAMBER_UNROLL
            for (int q = 0; q < SI; ++q) {
                y[q] += k[q] * s;     // y_i += B·x_j
                acc += k[q] * xi[q];  // y_j += Bᵀ·x_i
            }
            yj[r] = acc;
        }
        KIVTAMBER_UNROLL
        for (int q = 0; q < SI; ++q) yi[q] = y[q];
        return;
    }
    for (unsigned int r = 0; r < sjDynamic; ++r) {
        const T* k = K + static_cast<unsigned long>(r) * ld;
        const T s = xj[r];
        T acc = yj[r];
        for (unsigned int q = 0; q < siDynamic; ++q) {
            yi[q] += k[q] * s;
            acc += k[q] * xi[q];
        }
        yj[r] = acc;
    }
}

// y += A·x for a symmetric tile from the row-major lower triangle of its view K (leading dimension ld): for
// each row i, y_i += k_ii·x_i, then for j < i, y_i += k_ij·x_j and y_j += k_ij·x_i. S > 0 fixes the size.
template <typename T, int S>
inline void addSymmetricProduct(const T* __restrict K, unsigned int ld, const T* __restrict x,
                                T* __restrict y, unsigned int nDynamic) {
    const unsigned int n = S > 0 ? static_cast<unsigned int>(S) : nDynamic;
    if (S > 0) {
        T v[S > 0 ? S : 1];
        KIVTAMBER_UNROLL
        for (int i = 0; i < S; ++i) v[i] = y[i];
        KIVTAMBER_UNROLL
        for (int i = 0; i < S; ++i) {
            const T* k = K + static_cast<unsigned long>(i) * ld;
            const T xi = x[i];
            T yi = v[i] + k[i] * xi;
            KIVTAMBER_UNROLL
            for (int j = 0; j < i; ++j) {
                yi += k[j] * x[j];  // y_i += a_ij x_j
                v[j] += k[j] * xi;  // y_j += a_ij x_i
            }
            v[i] = yi;
        }
        KIVTAMBER_UNROLL
        for (int i = 0; i < S; ++i) y[i] = v[i];
        return;
    }
    for (unsigned int i = 0; i < n; ++i) {
        const T* k = K + static_cast<unsigned long>(i) * ld;
        const T xi = x[i];
        T yi = y[i] + k[i] * xi;
        for (unsigned int j = 0; j < i; ++j) {
            yi += k[j] * x[j];
            y[j] += k[j] * xi;
        }
        y[i] = yi;
    }
}

template <typename T>
using BothProducts = void (*)(const T*, unsigned int, const T*, const T*, T*, T*, unsigned int, unsigned int);
template <typename T>
using SymmetricProduct = void (*)(const T*, unsigned int, const T*, T*, unsigned int);

template <typename T, std::size_t... I>
constexpr std::array<BothProducts<T>, sizeof...(I)> bothProductsTable(std::index_sequence<I...>) {
    return {{&addBothProducts<T, int(I) / 6 + 1, int(I) % 6 + 1>...}};
}

// addBothProducts through fixed code for sizes up to 6.
template <typename T>
inline void addBothProductsAnySize(const T* K, unsigned int ld, const T* xi, const T* xj, T* yi, T* yj,
                                   unsigned int si, unsigned int sj) {
    static constexpr std::array<BothProducts<T>, 36> table =
        bothProductsTable<T>(std::make_index_sequence<36>());
    if (si - 1 < 6 && sj - 1 < 6) return table[(si - 1) * 6 + (sj - 1)](K, ld, xi, xj, yi, yj, si, sj);
    addBothProducts<T, 0, 0>(K, ld, xi, xj, yi, yj, si, sj);
}

// addSymmetricProduct through fixed code for sizes up to 6.
template <typename T>
inline void addSymmetricProductAnySize(const T* K, unsigned int ld, const T* x, T* y, unsigned int n) {
    static constexpr SymmetricProduct<T> table[6] = {&addSymmetricProduct<T, 1>, &addSymmetricProduct<T, 2>,
                                                     &addSymmetricProduct<T, 3>, &addSymmetricProduct<T, 4>,
                                                     &addSymmetricProduct<T, 5>, &addSymmetricProduct<T, 6>};
    if (n - 1 < 6) return table[n - 1](K, ld, x, y, n);
    addSymmetricProduct<T, 0>(K, ld, x, y, n);
}

}  // namespace kernels
}  // namespace kivTamber

#endif  // KIVTAMBER_SRC_KERNELSFIXED_H
