// Pieces shared by the serial and the multifrontal block factorization (internal to the library).
#ifndef KIVTAMBER_SRC_FACTORCOMMON_H
#define KIVTAMBER_SRC_FACTORCOMMON_H

#include <kiv/Abort.h>

#include <cstdio>
#include <cstring>

#include "Kernels.h"
#include "KernelsFixed.h"
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

// The size-specialised kernels both factorizations share (src/KernelsFixed.h).
using kernels::copyTile;
using kernels::factorDiagonalBlock;
using kernels::factorDiagonalBlockFixed;
using kernels::solveRow;
using kernels::solveRowPair;
using kernels::solveUnitDiagonal;
using kernels::solveUnitDiagonalFixed;
using kernels::storeUnitLower;

// X ← the input tile `from` (count elements), or zero for a fill block (from null).
template <typename T>
inline void loadTile(T* X, const T* from, unsigned long count) {
    if (from) {
        copyTile(X, from, count);
    } else {
        std::memset(static_cast<void*>(X), 0, count * sizeof(T));
    }
}

// L(i, j) = X·L_jjᵀ⁻¹·D_j⁻¹ and LD(i, j) = L(i, j)·D_j (padding columns zero) for an s_i × s_j block whose
// values so far are X (its input tile, or L(i, j) itself once updated; count = s_i·p_j values): the fused
// small-block kernel where it has the sizes, the separate steps otherwise (a copy of X, the triangular solve,
// the reciprocal pivots recip, the scaling by the pivots dj). Every factorization ends an off-diagonal block
// this way, so that they give the same bits.
template <typename T>
inline void finishOffDiagonal(const T* Ljj, const T* X, T* Lij, T* LDij, unsigned int s_i, unsigned int s_j,
                              unsigned int p_j, unsigned long count, const T* recip, const T* dj) {
    if (kernels::finishSmallBlockFrom(Ljj, X, Lij, LDij, s_i, s_j, recip, dj)) return;
    if (X != Lij) copyTile(Lij, X, count);
    solveUnitDiagonal(Ljj, p_j, Lij, s_i, s_j);  // L(i, j) ← L(i, j)·L_jj⁻ᵀ
    for (unsigned int r = 0; r < s_i; ++r) {
        const unsigned long row = static_cast<unsigned long>(r) * p_j;
        for (unsigned int c = 0; c < p_j; ++c) Lij[row + c] *= recip[c];  // l_rc = w_rc / d_c
    }
    kernels::scaleColumnsAnySize(Lij, dj, LDij, s_i, s_j, p_j);
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
// zeroed here, once (as far as values were ever handed out: valueExtent). Without it (the multifrontal
// workers write every element) nothing is zeroed. Returns true when the layout differs from the one X held.
template <typename T>
bool layoutFactor(SparseMatrix<T>& X, const SkeletonMatrix& S, const unsigned int* sizes,
                  bool zeroWhenChanged) {
    const unsigned long nb = S.n;
    const unsigned int* rowStart = S.colPointers;
    const unsigned int* cols = S.rowIndices;
    if (X.colPointers == nullptr) {  // nb = 0 on a matrix that never held a layout
        X.numBlocks = 0;
        return true;
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
    // Elements at or after valueExtent are zero already (a fresh allocation: all of them).
    const unsigned long dirty = at < X.valueExtent ? at : X.valueExtent;
    if (zeroWhenChanged && !same && dirty > 0)
        std::memset(static_cast<void*>(X.values), 0, dirty * sizeof(T));
    if (at > X.valueExtent) X.valueExtent = at;
    return !same;
}

// Zeroes the padding rows of every tile in an odd-sized block row of the double factors L and LD (laid out
// alike). The paired products of the factorizations write and read those rows as c − 0·b, which keeps them
// zero while the factor is finite; once a non-finite b has made them NaN, no later factorization writes them
// otherwise: the next one would read them into its own blocks and the paired solve kernels would multiply
// them into every solution. Called after a factorization that met a zero or non-finite pivot.
inline void clearPaddingRows(SparseMatrix<float>&, SparseMatrix<float>&) {}
inline void clearPaddingRows(SparseMatrix<double>& L, SparseMatrix<double>& LD) {
    for (unsigned long i = 0; i < L.numBlockCols; ++i) {
        const unsigned int s_i = L.blockSizes[i];
        if (s_i % 2 == 0) continue;
        for (unsigned int e = L.colPointers[i]; e < L.colPointers[i + 1]; ++e) {
            const unsigned long p_j = L.blockStrides[L.rowIndices[e]];
            std::memset(static_cast<void*>(L.blockPointers[e] + s_i * p_j), 0, p_j * sizeof(double));
            std::memset(static_cast<void*>(LD.blockPointers[e] + s_i * p_j), 0, p_j * sizeof(double));
        }
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

// C = X − A·Bᵀ on the lower triangle with the values of copying X (n rows of ldc elements) into C and then
// subtractABtLower: the first update of a diagonal block read straight from its input tile X.
void subtractABtLowerFrom(const double* A, int lda, const double* B, int ldb, const double* X, double* C,
                          int ldc, int n, int k);
void subtractABtLowerFrom(const float* A, int lda, const float* B, int ldb, const float* X, float* C, int ldc,
                          int n, int k);

}  // namespace factorCommon
}  // namespace kivTamber

#endif  // KIVTAMBER_SRC_FACTORCOMMON_H
