// Pieces shared by the serial and the multifrontal block factorization (internal to the library).
#ifndef KIVTAMBER_SRC_FACTORCOMMON_H
#define KIVTAMBER_SRC_FACTORCOMMON_H

#include <emmintrin.h>
#include <kiv/Abort.h>

#include <cstdio>
#include <cstring>

#include "Kernels.h"
#include "SkeletonMatrix.h"
#include "SparseTypes.h"

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

// to[0 .. count) = from[0 .. count) for tiles: 16-byte aligned and, for double, of even length; whole 16-byte
// moves inline, since a library call costs more than the copy for the small tiles of physics systems.
inline void copyTile(double* to, const double* from, unsigned long count) {
    for (unsigned long q = 0; q < count; q += 2) _mm_store_pd(to + q, _mm_load_pd(from + q));
}
inline void copyTile(float* to, const float* from, unsigned long count) {
    for (unsigned long q = 0; q < count; ++q) to[q] = from[q];
}

// Writes "Not enough memory, <used> <capacity>" and an end of line to standard error and aborts.
[[noreturn]] inline void outOfBlocks(unsigned long used, unsigned long capacity) {
    char message[96];
    std::snprintf(message, sizeof message, "Not enough memory, %lu %lu", used, capacity);
    kiv::abort(message);
}

// Lays out X (sized for the pattern) with one tile per entry of the filled pattern S in pattern order, as
// acquireBlock would (block index = entry index, flags 0, tiles back to back at their padded sizes), without
// clearing the values. With zeroWhenChanged (the serial factorization, which writes every element of every
// tile except the padding rows of tiles whose block row has an odd size, double): those rows are zero
// whenever X last held this very layout, because nothing writes them; otherwise the used value range is
// zeroed here, once. Without it (the multifrontal workers write every element) nothing is zeroed.
template <typename T>
void layoutFactor(SparseMatrix<T>& X, const SkeletonMatrix& S, const unsigned int* sizes,
                  bool zeroWhenChanged) {
    const unsigned long nb = S.n;
    const unsigned int* rowStart = S.colPointers;
    const unsigned int* cols = S.rowIndices;
    if (X.colPointers == nullptr) {  // nb = 0 on a matrix that never held a layout
        X.numBlocks = 0;
        return;
    }
    bool same = X.numBlocks == S.numEntries();
    unsigned long k = 0, at = 0;
    unsigned int offset = 0;
    for (unsigned int i = 0; i < nb; ++i) {
        const unsigned int s_i = sizes[i], p_i = padded<T>(s_i);
        same = same && X.colPointers[i] == k && X.blockSizes[i] == s_i;
        X.colPointers[i] = static_cast<unsigned int>(k);
        X.blockSizes[i] = s_i;
        X.blockStrides[i] = p_i;
        X.blockOffsets[i] = offset;
        offset += s_i;
        for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e, ++k) {
            if (k >= X.blockCapacity) outOfBlocks(k, X.blockCapacity);
            const unsigned int j = cols[e];
            same = same && X.rowIndices[k] == j && X.blockPointers[k] == X.values + at;
            X.rowIndices[k] = j;
            X.blockFlags[k] = 0;
            X.blockPointers[k] = X.values + at;
            at += static_cast<unsigned long>(p_i) * padded<T>(sizes[j]);
        }
    }
    X.colPointers[nb] = static_cast<unsigned int>(k);
    X.blockSizes[nb] = offset;
    X.numBlocks = k;
    X.numBlockCols = nb;
    if (k < X.blockCapacity) X.blockPointers[k] = X.values + at;
    if (zeroWhenChanged && !same && at > 0) std::memset(static_cast<void*>(X.values), 0, at * sizeof(T));
    if (at > X.valueExtent) X.valueExtent = at;
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
            for (int c = 0; c < S; ++c) v[c] = _mm_set_pd(w1[c], w0[c]);
            for (int c = 1; c < S; ++c) {
                const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
                __m128d sum = _mm_setzero_pd();
                for (int t = 0; t < c; ++t) sum = _mm_add_pd(sum, _mm_mul_pd(_mm_set1_pd(l[t]), v[t]));
                v[c] = _mm_sub_pd(v[c], sum);  // w_c -= Σ_{t<c} l_ct·w_t, in both rows
            }
            for (int c = 1; c < S; ++c) {
                _mm_storel_pd(w0 + c, v[c]);
                _mm_storeh_pd(w1 + c, v[c]);
            }
        }
        for (; r < s_i; ++r) {
            double* w = W + static_cast<unsigned long>(r) * p_j;
            double v[S > 0 ? S : 1];
            for (int c = 0; c < S; ++c) v[c] = w[c];
            for (int c = 1; c < S; ++c) {
                const double* l = Ljj + static_cast<unsigned long>(c) * p_j;
                double sum = 0.0;
                for (int t = 0; t < c; ++t) sum += l[t] * v[t];
                v[c] -= sum;  // w_c -= Σ_{t<c} l_ct·w_t
            }
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
        default:
            return solveUnitDiagonalFixed<0>(Ljj, p_j, W, s_i, s_j);
    }
}

// C −= A·Bᵀ on the lower triangle of the square n × n block C (row stride ldc) and possibly some entries just
// above it, for the update of a diagonal block: the entries on and below the diagonal get exactly the values
// that tamber_MM_CM_ABt(A, lda, B, ldb, C, ldc, n, n, k) gives them (the same special cases, the same
// sums), while the strict upper triangle, which the dense factorization never reads and then zeroes, is
// mostly left alone. A, B: n × k (row strides lda, ldb). The kernel's own loops, cut at the diagonal
// (src/Kernels.cpp).
void subtractABtLower(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int k);
void subtractABtLower(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int k);

// Writes the unit lower block held in l (entries c < r of row r) to W (row stride p): the diagonal 1, the
// strict upper triangle 0. For double, whole pairs of columns (the padding column of an odd S written 0, as
// it already is), so that the next reads of the block, in pairs, do not stall on store forwarding.
template <int S>
inline void storeUnitLower(double* W, unsigned int p, const double (*l)[S > 0 ? S : 1]) {
    constexpr int P = (S + 1) & ~1;
    for (int r = 0; r < S; ++r) {
        double* const w = W + static_cast<unsigned long>(r) * p;
        for (int c = 0; c < P; c += 2) {
            const double v0 = c < r ? l[r][c] : c == r ? 1.0 : 0.0;
            const double v1 = c + 1 < r ? l[r][c + 1] : c + 1 == r ? 1.0 : 0.0;
            _mm_store_pd(w + c, _mm_set_pd(v1, v0));
        }
    }
}
template <int S>
inline void storeUnitLower(float* W, unsigned int p, const float (*l)[S > 0 ? S : 1]) {
    for (int r = 0; r < S; ++r) {
        float* const w = W + static_cast<unsigned long>(r) * p;
        for (int c = 0; c < r; ++c) w[c] = l[r][c];
        w[r] = 1.0f;
        for (int c = r + 1; c < S; ++c) w[c] = 0.0f;
    }
}

// Rows w0 and w1 of an s × S block (S ≤ 6 fixed, row stride P = S rounded up to even, zero padding), one per
// lane: v[c] = (w0[c], w1[c]) for c < P, then v ← v·L_jj⁻ᵀ with the unit lower block L_jj (row stride P),
// the sums of solveUnitDiagonal in the same order. The caller stores v, transposed back to rows in pairs.
template <int S>
inline void solveRowPair(const double* Ljj, const double* w0, const double* w1, __m128d* v) {
    constexpr unsigned int P = (S + 1) & ~1;
    for (unsigned int c = 0; c < P; ++c) v[c] = _mm_set_pd(w1[c], w0[c]);
    for (int c = 1; c < S; ++c) {
        const double* l = Ljj + static_cast<unsigned long>(c) * P;
        __m128d sum = _mm_setzero_pd();
        for (int t = 0; t < c; ++t) sum = _mm_add_pd(sum, _mm_mul_pd(_mm_set1_pd(l[t]), v[t]));
        v[c] = _mm_sub_pd(v[c], sum);  // w_c -= Σ_{t<c} l_ct·w_t
    }
}
// The same for one row: v[c] = w[c], then v ← v·L_jj⁻ᵀ.
template <int S>
inline void solveRow(const double* Ljj, const double* w, double* v) {
    constexpr unsigned int P = (S + 1) & ~1;
    for (unsigned int c = 0; c < P; ++c) v[c] = w[c];
    for (int c = 1; c < S; ++c) {
        const double* l = Ljj + static_cast<unsigned long>(c) * P;
        double sum = 0.0;
        for (int t = 0; t < c; ++t) sum += l[t] * v[t];
        v[c] -= sum;
    }
}

// W = L·D·Lᵀ in place, without pivoting, for the s × s block W (row stride p; only its lower triangle and
// diagonal are read): afterwards W holds the unit lower L (diagonal exactly 1, strict upper triangle exactly
// 0) and d[0 .. s-1] the pivots. Row by row: d_r = w_rr first for every r, then for each row r the entries
// l_rc = w_rc / d_c (c < r) with the running updates of the next entry of the row, then
// d_r -= Σ_{t<r} d_t·l_rt². Divides by d itself: a zero pivot gives non-finite values.
// S > 0 fixes s at compile time (straight code for the small blocks of the scenes); same arithmetic for every
// S.
template <typename T, int S>
inline void factorDiagonalBlockFixed(T* W, unsigned int p, unsigned int sDynamic, T* d) {
    if (S > 0) {
        // Rows and pivots in registers (see solveUnitDiagonalFixed); the same operations in the same order.
        T l[S > 0 ? S : 1][S > 0 ? S : 1];
        T dd[S > 0 ? S : 1];
        for (int r = 0; r < S; ++r) {
            const T* const w = W + static_cast<unsigned long>(r) * p;
            for (int c = 0; c <= r; ++c) l[r][c] = w[c];
            dd[r] = w[r];
        }
        // Column by column: every entry gets exactly the operations of the row-by-row order below, but the
        // divisions of one column are independent of each other and overlap, instead of forming one chain
        // per row.
        for (int c = 0; c < S; ++c) {
            if (c > 0) {
                T sum = T(0);
                for (int t = 0; t < c; ++t) sum += dd[t] * l[c][t] * l[c][t];
                dd[c] -= sum;  // d_c -= Σ_{t<c} d_t·l_ct²
            }
            for (int r = c + 1; r < S; ++r) {
                if (c > 0) {
                    T sum = T(0);
                    for (int t = 0; t < c; ++t) sum += l[r][t] * dd[t] * l[c][t];
                    l[r][c] -= sum;  // w_rc -= Σ_{t<c} l_rt·d_t·l_ct
                }
                l[r][c] = l[r][c] / dd[c];  // l_rc = w_rc / d_c
            }
        }
        storeUnitLower<S>(W, p, l);
        for (int r = 0; r < S; ++r) d[r] = dd[r];
        return;
    }
    const unsigned int s = sDynamic;
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
}
template <typename T>
inline void factorDiagonalBlock(T* W, unsigned int p, unsigned int s, T* d) {
    switch (s) {
        case 1:
            return factorDiagonalBlockFixed<T, 1>(W, p, s, d);
        case 2:
            return factorDiagonalBlockFixed<T, 2>(W, p, s, d);
        case 3:
            return factorDiagonalBlockFixed<T, 3>(W, p, s, d);
        case 4:
            return factorDiagonalBlockFixed<T, 4>(W, p, s, d);
        case 5:
            return factorDiagonalBlockFixed<T, 5>(W, p, s, d);
        case 6:
            return factorDiagonalBlockFixed<T, 6>(W, p, s, d);
        default:
            return factorDiagonalBlockFixed<T, 0>(W, p, s, d);
    }
}

}  // namespace factorCommon
}  // namespace kivTamber

#endif  // KIVTAMBER_SRC_FACTORCOMMON_H
