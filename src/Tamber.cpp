#include "Tamber.h"

#include <emmintrin.h>
#include <kiv/Abort.h>
#include <kiv/Timer.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "FactorCommon.h"
#include "Kernels.h"

namespace kivTamber {

namespace {

// Per-precision details of the block layout and of the factorization.
template <typename T>
struct Layout {
    // Padded size (row stride) of a block of s rows: s for float, s rounded up to even for double.
    static unsigned int padded(unsigned int s) { return factorCommon::padded<T>(s); }
    static T* scratch(ScratchPad& pad, unsigned long count);
};

template <>
float* Layout<float>::scratch(ScratchPad& pad, unsigned long count) {
    return pad.getFloatArray(0, count);
}

template <>
double* Layout<double>::scratch(ScratchPad& pad, unsigned long count) {
    return pad.getDoubleArray(0, count);
}

using factorCommon::layoutFactor;
using factorCommon::solveUnitDiagonal;

// Index of the first of the pivots d[0 .. s-1] that is zero or not finite; s when there is none.
template <typename T>
inline unsigned int firstBadPivot(const T* d, unsigned int s) {
    for (unsigned int t = 0; t < s; ++t) {
        if (d[t] == T(0) || !std::isfinite(d[t])) return t;
    }
    return s;
}

// L and LD laid out for the filled pattern `data.skeleton` and the block sizes of `data.matrix`: sized for
// its blocks and 64 + Σ p_i·p_j values (reallocated only when too small), one tile per pattern entry in
// pattern order (layoutFactor), the values zeroed only when the layout differs from the one they held.
template <typename T>
void layOutFactors(TamberData<T>& data) {
    const SkeletonMatrix& S = data.skeleton;
    const unsigned int* sizes = data.matrix.blockSizes;
    const unsigned long nb = S.n;
    const unsigned int* rowStart = S.colPointers;
    const unsigned int* cols = S.rowIndices;
    unsigned long capacity = 64;
    for (unsigned long i = 0; i < nb; ++i) {
        const unsigned long p_i = Layout<T>::padded(sizes[i]);
        for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e)
            capacity += p_i * Layout<T>::padded(sizes[cols[e]]);
    }
    for (SparseMatrix<T>* X : {&data.factor, &data.scaledFactor}) {
        X->setSize(nb, nb, S.numEntries(), capacity);
        layoutFactor(*X, S, sizes, true);
    }
}

// What can be checked of X's layout in O(1): the counts of the pattern S (nb > 0), the scalar dimension N
// and the last tile inside the value storage. The rows are checked one by one with rowLaidOut.
template <typename T>
bool factorLaidOut(const SparseMatrix<T>& X, const SkeletonMatrix& S, const unsigned int* sizes,
                   unsigned long N) {
    const unsigned long nb = S.n, entries = S.numEntries();
    if (X.colPointers == nullptr || X.blockPointers == nullptr || X.numBlockCols != nb ||
        X.numBlocks != entries || entries == 0 || X.colPointers[nb] != entries || X.blockSizes[nb] != N) {
        return false;
    }
    const unsigned long p = Layout<T>::padded(sizes[nb - 1]);
    const std::uintptr_t last = reinterpret_cast<std::uintptr_t>(X.blockPointers[entries - 1]);
    const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(X.values);
    return last >= begin && (last - begin) / sizeof(T) + p * p <= X.valueCapacity;
}

// True when block row i of X is laid out as layoutFactor lays it out for the pattern (rowStart, cols) and
// the block sizes, given that rows 0 .. i-1 are: `offset` is the scalar offset of block i and `next` the
// place of the row's first tile, advanced past the row's tiles.
template <typename T>
inline bool rowLaidOut(const SparseMatrix<T>& X, const unsigned int* rowStart, const unsigned int* cols,
                       const unsigned int* sizes, unsigned int i, unsigned int offset, const T*& next) {
    const unsigned int s_i = sizes[i];
    const unsigned long p_i = Layout<T>::padded(s_i);
    if (X.colPointers[i] != rowStart[i] || X.colPointers[i + 1] != rowStart[i + 1] ||
        X.blockSizes[i] != s_i || X.blockStrides[i] != p_i || X.blockOffsets[i] != offset) {
        return false;
    }
    for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e) {
        if (X.rowIndices[e] != cols[e] || X.blockPointers[e] != next) return false;
        next += p_i * Layout<T>::padded(sizes[cols[e]]);
    }
    return true;
}

// Scratch-pad int slot of the serial factorization's row map.
constexpr unsigned long serialMapSlot = 0x100010;

// X ← the input block (i, j) of A when row i's next input entry (at position a, before aEnd) is column j,
// stepping past it; X ← 0 for a fill block. count = s_i·p_j elements.
template <typename T>
void loadInput(const SparseMatrix<T>& A, unsigned int& a, unsigned int aEnd, unsigned int j, T* X,
               unsigned long count) {
    if (a < aEnd && A.rowIndices[a] == j) {
        factorCommon::copyTile(X, A.blockPointers[a++], count);
    } else {
        std::memset(static_cast<void*>(X), 0, count * sizeof(T));
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
        for (unsigned int c = 0; c < p; ++c) dd[c] = c < static_cast<unsigned int>(S) ? d[c] : T(0);
        for (unsigned int r = 0; r < s_i; ++r) {
            const unsigned long row = static_cast<unsigned long>(r) * p;
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

// The end of an off-diagonal block L(i, j) of a small double block column j, in one pass with the rows in
// registers: W ← W·L_jj⁻ᵀ (solveUnitDiagonal), L(i, j) = W·diag(recip) and LD(i, j) = L(i, j)·D_j
// (scaleColumns), the same operations as those routines, two rows at a time; stores are whole pairs of
// columns, so that the next reads of the tiles do not stall on store forwarding.
// W: the s_i × S tile of L(i, j) (row stride P), Ljj its unit lower diagonal block, LDij the tile of LD(i,
// j), recip: P reciprocal pivots (padding 0), dj: the S pivots.
template <int S>
void finishSmallBlockFixed(const double* Ljj, double* W, double* LDij, unsigned int s_i, const double* recip,
                           const double* dj) {
    constexpr unsigned int P = (S + 1) & ~1;
    alignas(16) double dd[P];
    for (unsigned int c = 0; c < P; ++c) dd[c] = c < static_cast<unsigned int>(S) ? dj[c] : 0.0;
    unsigned int r = 0;
    for (; r + 1 < s_i; r += 2) {
        double* w0 = W + static_cast<unsigned long>(r) * P;
        double* w1 = w0 + P;
        __m128d v[P];
        factorCommon::solveRowPair<S>(Ljj, w0, w1, v);
        double* ld0 = LDij + static_cast<unsigned long>(r) * P;
        double* ld1 = ld0 + P;
        for (unsigned int c = 0; c < P; c += 2) {
            const __m128d q = _mm_loadu_pd(recip + c), dc = _mm_load_pd(dd + c);
            const __m128d x0 = _mm_mul_pd(_mm_unpacklo_pd(v[c], v[c + 1]), q);  // l_rc = w_rc / d_c
            const __m128d x1 = _mm_mul_pd(_mm_unpackhi_pd(v[c], v[c + 1]), q);
            _mm_store_pd(w0 + c, x0);
            _mm_store_pd(w1 + c, x1);
            _mm_store_pd(ld0 + c, _mm_mul_pd(x0, dc));  // l_rc·d_c
            _mm_store_pd(ld1 + c, _mm_mul_pd(x1, dc));
        }
    }
    if (r < s_i) {
        double* w = W + static_cast<unsigned long>(r) * P;
        double v[P];
        factorCommon::solveRow<S>(Ljj, w, v);
        double* ld = LDij + static_cast<unsigned long>(r) * P;
        for (unsigned int c = 0; c < P; ++c) {
            w[c] = v[c] * recip[c];
            ld[c] = w[c] * dd[c];
        }
    }
}

// finishSmallBlockFixed for block sizes 1 to 6 of double; false (nothing done) otherwise.
inline bool finishSmallBlock(const double* Ljj, double* W, double* LDij, unsigned int s_i, unsigned int s_j,
                             const double* recip, const double* dj) {
    switch (s_j) {
        case 1:
            finishSmallBlockFixed<1>(Ljj, W, LDij, s_i, recip, dj);
            return true;
        case 2:
            finishSmallBlockFixed<2>(Ljj, W, LDij, s_i, recip, dj);
            return true;
        case 3:
            finishSmallBlockFixed<3>(Ljj, W, LDij, s_i, recip, dj);
            return true;
        case 4:
            finishSmallBlockFixed<4>(Ljj, W, LDij, s_i, recip, dj);
            return true;
        case 5:
            finishSmallBlockFixed<5>(Ljj, W, LDij, s_i, recip, dj);
            return true;
        case 6:
            finishSmallBlockFixed<6>(Ljj, W, LDij, s_i, recip, dj);
            return true;
        default:
            return false;
    }
}
inline bool finishSmallBlock(const float*, float*, float*, unsigned int, unsigned int, const float*,
                             const float*) {
    return false;  // float keeps the separate steps (tamber_SM_UD divides by the stored unit diagonal)
}

// The pieces of a factorization that every block step needs.
template <typename T>
struct SerialFactor {
    const unsigned int*
        rowStart;              // skeleton colPointers: row i of the pattern is rowStart[i] .. rowStart[i+1]-1
    const unsigned int* cols;  // skeleton rowIndices: the block column of each pattern entry
    const unsigned int* sizes;    // s_b
    const unsigned int* offsets;  // scalar offset of block b
    SparseMatrix<T>& L;
    SparseMatrix<T>& LD;
    T* d;  // the pivots

    unsigned int padded(unsigned int b) const { return Layout<T>::padded(sizes[b]); }

    // LD(i, k) = L(i, k)·D_k for the pattern entry e = (i, k): computed straight into LD on first use and
    // flagged, returned as stored afterwards. Padding columns of the result are zero.
    const T* scaled(unsigned int e, unsigned int i, unsigned int k) {
        if (LD.blockFlags[e] == 0) {
            const unsigned int s_i = sizes[i], s_k = sizes[k], p_k = padded(k);
            const T* Lik = L.blockPointers[e];
            const T* dk = d + offsets[k];
            switch (s_k) {
                case 1:
                    scaleColumns<T, 1>(Lik, dk, LD.blockPointers[e], s_i, s_k, p_k);
                    break;
                case 2:
                    scaleColumns<T, 2>(Lik, dk, LD.blockPointers[e], s_i, s_k, p_k);
                    break;
                case 3:
                    scaleColumns<T, 3>(Lik, dk, LD.blockPointers[e], s_i, s_k, p_k);
                    break;
                case 4:
                    scaleColumns<T, 4>(Lik, dk, LD.blockPointers[e], s_i, s_k, p_k);
                    break;
                case 6:
                    scaleColumns<T, 6>(Lik, dk, LD.blockPointers[e], s_i, s_k, p_k);
                    break;
                default:
                    scaleColumns<T, 0>(Lik, dk, LD.blockPointers[e], s_i, s_k, p_k);
                    break;
            }
            LD.blockFlags[e] = 1;
        }
        return LD.blockPointers[e];
    }
};

}  // namespace

Tamber::Tamber() : factorTime(0.0), solveTime(0.0) {}

double Tamber::getFactorTime() const {
    return factorTime;
}

double Tamber::getSolveTime() const {
    return solveTime;
}

template <typename T>
unsigned int Tamber::estimateWork(TamberData<T>& data, unsigned int* work) {
    const SkeletonMatrix& S = data.skeleton;
    const SparseMatrix<T>& A = data.matrix;
    const unsigned long nb = S.n;

    layOutFactors(data);
    if (nb == 0) {
        if (work) *work = 0;
        return 0;
    }

    // The pattern entries that the input matrix does not have.
    const unsigned int* rowStart = S.colPointers;
    const unsigned int* cols = S.rowIndices;
    unsigned int fill = 0;
    for (unsigned int i = 0; i < nb; ++i) {
        unsigned int a = A.colPointers[i];
        const unsigned int aEnd = A.colPointers[i + 1];
        for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e) {
            if (a < aEnd && A.rowIndices[a] == cols[e]) {
                ++a;
            } else {
                ++fill;
            }
        }
    }
    if (!work) return fill;

    // One triangular solve per off-diagonal entry (i, j) plus one product per column k < j common to rows i
    // and j.
    unsigned int count = 0;
    for (unsigned int i = 0; i < nb; ++i) {
        const unsigned int iBegin = rowStart[i], iDiag = rowStart[i + 1] - 1;
        for (unsigned int e = iBegin; e < iDiag; ++e) {
            const unsigned int j = cols[e];
            ++count;
            unsigned int p = iBegin, q = rowStart[j];
            const unsigned int jDiag = rowStart[j + 1] - 1;
            while (p < e && q < jDiag) {
                if (cols[p] < cols[q]) {
                    ++p;
                } else if (cols[q] < cols[p]) {
                    ++q;
                } else {
                    ++count;
                    ++p;
                    ++q;
                }
            }
        }
    }
    *work = count;
    return fill;
}

template <typename T>
void Tamber::factorSerial(TamberData<T>& data) {
    const std::uint64_t start = kiv::Timer::ticks();

    const SkeletonMatrix& S = data.skeleton;
    const SparseMatrix<T>& A = data.matrix;
    SparseMatrix<T>& L = data.factor;
    SparseMatrix<T>& LD = data.scaledFactor;
    const unsigned long nb = S.n;
    const unsigned int* rowStart = S.colPointers;
    const unsigned int* cols = S.rowIndices;
    const unsigned int* sizes = A.blockSizes;
    using BadPivot = typename TamberData<T>::BadPivot;
    data.badPivot = BadPivot();

    // The layout of L and LD is made when the structure changes (estimateWork, or here on a mismatch), not
    // on every call. What can be checked in O(1) is checked here; each row is checked against the pattern
    // when the loop reaches it (a few loads per entry), so that a factorization stopped at row k has cost
    // O(work up to k). A mismatch lays both matrices out anew and starts over.
    const unsigned long N = nb == 0 ? 0 : A.blockSizes[nb];
    bool laidOut = nb == 0 || !factorLaidOut(L, S, sizes, N) || !factorLaidOut(LD, S, sizes, N);
    if (laidOut) layOutFactors(data);
    data.diagonal.resize(N);
    T* const d = data.diagonal.data;

    // Reciprocal pivots of the block column being solved, from scratch slot 0, grown as larger blocks come.
    T* recip = nullptr;
    unsigned long recipCount = 0;
    // Map of the row being factored: rowOf[k] = i when row i holds a finished entry in column k, at pattern
    // entry entryOf[k]. Column k is only looked up by rows after k, so it is emptied when row k starts.
    unsigned int* const rowOf =
        reinterpret_cast<unsigned int*>(data.scratchPad.getIntArray(serialMapSlot, 2 * nb + 1));
    unsigned int* const entryOf = rowOf + nb;
    const unsigned int* offsets = L.blockOffsets;

    const std::uint64_t numericStart = kiv::Timer::ticks();
    const double setupTime = static_cast<double>(numericStart - start) * kiv::Timer::clockSpeed();
    auto finishTimes = [&]() {
        factorTime =
            setupTime + static_cast<double>(kiv::Timer::ticks() - numericStart) * kiv::Timer::clockSpeed();
        solveTime = 0.0;
    };

    SerialFactor<T> f{rowStart, cols, sizes, offsets, L, LD, d};
    const T* nextL = L.values;  // where row i's first tile lies in a current layout
    const T* nextLD = LD.values;
    unsigned int offset = 0;  // scalar offset of row i

    for (unsigned int i = 0; i < nb; ++i) {
        const unsigned int s_i = sizes[i], p_i = Layout<T>::padded(s_i);
        const unsigned int iBegin = rowStart[i], iDiag = rowStart[i + 1] - 1;
        if (!laidOut) {
            if (!rowLaidOut(L, rowStart, cols, sizes, i, offset, nextL) ||
                !rowLaidOut(LD, rowStart, cols, sizes, i, offset, nextLD)) {
                layOutFactors(data);  // the structure changed at row i: all rows anew
                laidOut = true;
                offsets = L.blockOffsets;
                f.offsets = offsets;
                data.badPivot = BadPivot();
                i = ~0u;  // ++i: row 0
                continue;
            }
            offset += s_i;
        }
        rowOf[i] = ~0u;
        for (unsigned int e = iBegin; e <= iDiag; ++e) LD.blockFlags[e] = 0;  // LD(i, ·) not yet computed
        unsigned int a = A.colPointers[i];  // the input blocks of row i, in step with the pattern
        const unsigned int aEnd = A.colPointers[i + 1];

        // Off-diagonal blocks: L(i, j) = (A(i, j) − Σ_{k<j} L(i, k)·D_k·L(j, k)ᵀ)·L_jjᵀ⁻¹·D_j⁻¹.
        for (unsigned int e = iBegin; e < iDiag; ++e) {
            const unsigned int j = cols[e];
            const unsigned int s_j = sizes[j], p_j = Layout<T>::padded(s_j);
            T* const Lij = L.blockPointers[e];
            loadInput(A, a, aEnd, j, Lij, static_cast<unsigned long>(s_i) * p_j);  // worked on in place

            // The columns k < j common to rows i and j, ascending: row j's entries looked up in row i's map
            // (the same pairs, in the same order, as merging the two lists).
            const unsigned int jDiag = rowStart[j + 1] - 1;
            for (unsigned int q = rowStart[j]; q < jDiag; ++q) {
                const unsigned int k = cols[q];
                if (rowOf[k] != i) continue;
                const unsigned int p = entryOf[k];
                const unsigned int s_k = sizes[k], p_k = Layout<T>::padded(s_k);
                const T* LDik = f.scaled(p, i, k);
                // L(i, j) -= LD(i, k)·L(j, k)ᵀ
                tamber_MM_CM_ABt(LDik, static_cast<int>(p_k), L.blockPointers[q], static_cast<int>(p_k), Lij,
                                 static_cast<int>(p_j), static_cast<int>(s_i), static_cast<int>(s_j),
                                 static_cast<int>(s_k));
            }
            // Row i's entry (i, j) joins the map once done: later entries of row i see it as a common column.
            rowOf[j] = i;
            entryOf[j] = e;

            const T* dj = d + offsets[j];
            if (p_j > recipCount) {
                recipCount = p_j < 16 ? 16 : p_j;
                recip = Layout<T>::scratch(data.scratchPad, recipCount);
            }
            for (unsigned int c = 0; c < s_j; ++c) recip[c] = T(1) / dj[c];
            for (unsigned int c = s_j; c < p_j; ++c) recip[c] = T(0);  // padding columns stay zero
            if (finishSmallBlock(L.blockPointers[jDiag], Lij, LD.blockPointers[e], s_i, s_j, recip, dj)) {
                LD.blockFlags[e] = 1;  // LD(i, j) written with L(i, j)
                continue;
            }
            solveUnitDiagonal(L.blockPointers[jDiag], p_j, Lij, s_i, s_j);  // L(i, j) ← L(i, j)·L_jj⁻ᵀ
            for (unsigned int r = 0; r < s_i; ++r) {
                const unsigned long row = static_cast<unsigned long>(r) * p_j;
                for (unsigned int c = 0; c < p_j; ++c) Lij[row + c] *= recip[c];  // l_rc = w_rc / d_c
            }
        }

        // Diagonal block: L_ii·D_i·L_iiᵀ = A(i, i) − Σ_{k<i} L(i, k)·D_k·L(i, k)ᵀ.
        T* const Lii = L.blockPointers[iDiag];
        T* const di = d + offsets[i];
        __builtin_prefetch(di, 1);
        loadInput(A, a, aEnd, i, Lii, static_cast<unsigned long>(s_i) * p_i);
        for (unsigned int e = iBegin; e < iDiag; ++e) {
            const unsigned int k = cols[e];
            const unsigned int s_k = sizes[k], p_k = Layout<T>::padded(s_k);
            const T* LDik = f.scaled(e, i, k);
            // L_ii -= L(i, k)·LD(i, k)ᵀ on its lower triangle (the values the whole-square product gives
            // there; the upper triangle is never read and ends up zero)
            factorCommon::subtractABtLower(L.blockPointers[e], static_cast<int>(p_k), LDik,
                                           static_cast<int>(p_k), Lii, static_cast<int>(p_i),
                                           static_cast<int>(s_i), static_cast<int>(s_k));
        }

        // Dense L_ii·D_i·L_iiᵀ in place without pivoting, row by row; strict upper triangle zeroed.
        factorCommon::factorDiagonalBlock(Lii, p_i, s_i, di);

        // The first zero or non-finite pivot, in elimination order: only this block's pivots are looked at,
        // so the check costs O(s_i) and a stop at block i has cost the work up to i.
        if (data.badPivot.scalar == BadPivot::noPivot) {
            const unsigned int t = firstBadPivot(di, s_i);
            if (t < s_i) {
                data.badPivot.scalar = offsets[i] + t;
                data.badPivot.block = i;
                data.badPivot.local = t;
                data.badPivot.value = static_cast<double>(di[t]);
                if (data.stopAtBadPivot) {
                    finishTimes();
                    return;  // isFactored stays 0: the factor is complete only up to block row i
                }
            }
        }

        // LD(i, i) = L_ii·D_i while the block is at hand (both are final here): every diagonal LD block is
        // valid after the factorization.
        f.scaled(iDiag, i, i);
    }

    data.isFactored = 1;
    finishTimes();
}

template unsigned int Tamber::estimateWork<float>(TamberData<float>&, unsigned int*);
template unsigned int Tamber::estimateWork<double>(TamberData<double>&, unsigned int*);
template void Tamber::factorSerial<float>(TamberData<float>&);
template void Tamber::factorSerial<double>(TamberData<double>&);

}  // namespace kivTamber
