#include "Tamber.h"

#include <kiv/Abort.h>
#include <kiv/Timer.h>

#include <algorithm>
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
    static T* scratch(ScratchPad& pad, unsigned long count, unsigned long slot = 0);
};

template <>
float* Layout<float>::scratch(ScratchPad& pad, unsigned long count, unsigned long slot) {
    return pad.getFloatArray(slot, count);
}

template <>
double* Layout<double>::scratch(ScratchPad& pad, unsigned long count, unsigned long slot) {
    return pad.getDoubleArray(slot, count);
}

using factorCommon::layoutFactor;
using factorCommon::loadTile;

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
// pattern order (layoutFactor), the values zeroed only when the layout differs from the one they held. The
// solve plan, whose steps point into the layout, is dropped only when the layout changed.
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
    bool changed = false;
    for (SparseMatrix<T>* X : {&data.factor, &data.scaledFactor}) {
        X->setSize(nb, nb, S.numEntries(), capacity);
        changed |= layoutFactor(*X, S, sizes, true);
    }
    if (changed) {
        data.solvePlan.clear();
        data.factorPlan.clear();
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

// True when block row i of X has the structure of row i of the pattern (rowStart, cols) and the block sizes,
// given that rows 0 .. i-1 have: then its tiles are where layoutFactor puts them, since layoutFactor is
// what lays out both factors and the places follow from the structure. `offset` is the scalar offset of
// block i.
template <typename T>
inline bool rowLaidOut(const SparseMatrix<T>& X, const unsigned int* rowStart, const unsigned int* cols,
                       const unsigned int* sizes, unsigned int i, unsigned int offset) {
    if (X.colPointers[i + 1] != rowStart[i + 1] || X.blockSizes[i] != sizes[i] || X.blockOffsets[i] != offset)
        return false;
    for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e) {
        if (X.rowIndices[e] != cols[e]) return false;
    }
    return true;
}

// Scratch-pad int slot of the serial factorization's row map.
constexpr unsigned long serialMapSlot = 0x100010;
// Scratch-pad float / double slot of the serial factorization's L·D blocks of the current row (lean form).
constexpr unsigned long serialScaledRowSlot = 0x100011;

// The input block (i, j) of A when row i's next input entry (at position a, before aEnd) is column j,
// stepping past it; null for a fill block.
template <typename T>
inline const T* inputBlock(const SparseMatrix<T>& A, unsigned int& a, unsigned int aEnd, unsigned int j) {
    return a < aEnd && A.rowIndices[a] == j ? A.blockPointers[a++] : nullptr;
}

// The first zero or non-finite pivot of block i (its pivots at di), recorded when it is the first one of
// the factorization. Returns true when the factorization stops there.
template <typename T>
inline bool recordBadPivot(TamberData<T>& data, unsigned int i, unsigned int offset, const T* di,
                           unsigned int s_i) {
    using BadPivot = typename TamberData<T>::BadPivot;
    if (data.badPivot.scalar != BadPivot::noPivot) return false;
    const unsigned int t = firstBadPivot(di, s_i);
    data.badPivot.scalar = offset + t;
    data.badPivot.block = i;
    data.badPivot.local = t;
    data.badPivot.value = static_cast<double>(di[t]);
    return data.stopAtBadPivot != 0;
}

// With an input source, rows ahead of the row being factored whose input columns are already written. Each
// row writes one more column as it starts, so the copies' loads and stores run beside the row's chain of
// dependent divisions and products, and the values are in the cache when their row reads them (measured:
// one column per row, two ahead, takes the copies' memory traffic off 10–20 % of an assembly and
// factorization on chains and ragdolls; writing whole groups ahead, 3–8 %).
constexpr unsigned int columnsAhead = 2;

// The rows factorSerial runs through data.factorPlan (double), in groups of FactorPlan::groupRows rows, each
// compared with the structure before it runs (so that a stop at row k has cost O(work up to k + a group)).
// Returns the row from which the row loop goes on: nb when the plan factored every row, 0 when it is not
// used, the first row of the first group that differs from the plan (the plan is then made again for the
// current structure, and the row loop's own check finds what changed), or ~0u when it stopped at a bad
// pivot.
// With an input source, its columns are written columnsAhead rows ahead of the row being factored; `written`
// receives the end of the columns written.
template <typename T>
unsigned int factorPlannedRows(TamberData<T>&, T*, T*, InputColumns*, unsigned int&) {
    return 0;  // float runs the row loop
}
template <>
unsigned int factorPlannedRows(TamberData<double>& data, double* d, double* recips, InputColumns* input,
                               unsigned int& written) {
    FactorPlan& P = data.factorPlan;
    const SkeletonMatrix& S = data.skeleton;
    const SparseMatrix<double>& A = data.matrix;
    SparseMatrix<double>& L = data.factor;
    SparseMatrix<double>& LD = data.scaledFactor;
    const unsigned int nb = static_cast<unsigned int>(S.n);
    if (!P.use || nb == 0) return 0;
    const unsigned long entries = S.numEntries(), N = A.blockSizes[nb];
    if (!P.isMade || P.numBlockCols != nb || P.numEntries != entries || P.N != N ||
        P.inputEntries != A.colPointers[nb])
        P.make(S, A.blockSizes, A);
    // The layout of L and LD: checked row by row with the structure below; here that both are the one the
    // plan's offsets describe (their last tiles where the plan has it).
    if (!P.usable || L.blockPointers[entries - 1] != L.values + P.lastTile ||
        LD.blockPointers[entries - 1] != LD.values + P.lastTile)
        return 0;
    const bool lean = data.writeScaledFactor == 0;
    FactorPlan::Target target;
    target.L = L.values;
    target.LD = lean ? nullptr : LD.values;
    target.ldRow = lean && P.rowExtent > 0
                       ? Layout<double>::scratch(data.scratchPad, P.rowExtent, serialScaledRowSlot)
                       : nullptr;
    target.input = A.blockPointers;
    target.d = d;
    target.recips = recips;
    const FactorPlan::Row* const rows = P.rows.data();
    const unsigned int flag = lean ? 0 : 1;  // LD flags: 1 when written, 0 when kept only in the row scratch
    for (unsigned int first = 0; first < nb;) {
        const unsigned int end = nb - first > FactorPlan::groupRows ? first + FactorPlan::groupRows : nb;
        if (!P.rowsMatch(S, A.blockSizes, A, L, first, end)) {
            P.make(S, A.blockSizes, A);  // for the structure the row loop now checks and factors
            return first;
        }
        if (input != nullptr && written < first + columnsAhead) {
            const unsigned int to = first + columnsAhead < nb ? first + columnsAhead : nb;
            if (written < to) input->write(written, to);
            written = to;
        }
        for (unsigned int i = first; i < end; ++i) {
            if (input != nullptr && written < nb) {
                input->write(written, written + 1);
                ++written;
            }
            const FactorPlan::Row& row = rows[i];
            if (row.run(P, row, target)) continue;
            if (recordBadPivot(data, i, row.offset, d + row.offset, row.size)) {
                std::fill(LD.blockFlags + P.rowStart[first], LD.blockFlags + P.rowStart[i + 1], flag);
                return ~0u;
            }
        }
        std::fill(LD.blockFlags + P.rowStart[first], LD.blockFlags + P.rowStart[end], flag);
        first = end;
    }
    return nb;
}

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
    factorSerialFrom(data, nullptr);
}

template <typename T>
void Tamber::factorSerial(TamberData<T>& data, InputColumns& input) {
    factorSerialFrom(data, &input);
}

template <typename T>
void Tamber::factorSerialFrom(TamberData<T>& data, InputColumns* input) {
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

    // Reciprocal pivots, computed once per pivot right after its block's factorization (scratch slot 0): the
    // p_j reciprocals of block j start at recips + offset_j + j, padding 0, so that every block gets one
    // spare slot for the padding column of an odd size.
    T* const recips = Layout<T>::scratch(data.scratchPad, N + nb + 1);
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

    // Where row i's L·D blocks go: LD's tiles, or with writeScaledFactor = 0 a scratch row that holds them at
    // the offsets their tiles have from the row's first tile (the layouts of L and LD are the same).
    const bool lean = data.writeScaledFactor == 0;
    T* ldRow = nullptr;
    unsigned long ldRowCapacity = 0;
    unsigned int offset = 0;  // scalar offset of row i

    // The rows the plan factors, then the row loop from where the plan stopped (the rows before it match
    // the plan: their map entries are emptied as the loop would have done).
    unsigned int written = 0;  // the input's columns written so far
    const unsigned int firstRow = factorPlannedRows(data, d, recips, input, written);
    if (input != nullptr && written < nb) input->write(written, static_cast<unsigned int>(nb));
    if (firstRow == ~0u) {  // stopped at a bad pivot
        factorCommon::clearPaddingRows(L, LD);
        finishTimes();
        return;
    }
    for (unsigned int k = 0; k < firstRow && firstRow < nb; ++k) {
        rowOf[k] = ~0u;
        offset += sizes[k];
    }

    for (unsigned int i = firstRow; i < nb; ++i) {
        const unsigned int s_i = sizes[i], p_i = Layout<T>::padded(s_i);
        const unsigned int iBegin = rowStart[i], iDiag = rowStart[i + 1] - 1;
        if (!laidOut) {
            if (!rowLaidOut(L, rowStart, cols, sizes, i, offset)) {
                layOutFactors(data);  // the structure changed at row i: all rows anew
                laidOut = true;
                offsets = L.blockOffsets;
                data.badPivot = BadPivot();
                i = ~0u;  // ++i: row 0
                continue;
            }
            offset += s_i;
        }
        rowOf[i] = ~0u;
        unsigned int a = A.colPointers[i];  // the input blocks of row i, in step with the pattern
        const unsigned int aEnd = A.colPointers[i + 1];
        T* const rowTiles = L.blockPointers[iBegin];
        if (lean) {
            const unsigned long extent = static_cast<unsigned long>(L.blockPointers[iDiag] - rowTiles);
            if (extent > ldRowCapacity) {
                ldRow = Layout<T>::scratch(data.scratchPad, extent, serialScaledRowSlot);
                ldRowCapacity = extent;
            }
            for (unsigned int e = iBegin; e <= iDiag; ++e) LD.blockFlags[e] = 0;
        }
        // LD(i, ·) of the pattern entry e of row i.
        T* const* const tilesL = L.blockPointers;
        T* const* const tilesLD = LD.blockPointers;
        T* const rowLD = ldRow;
        auto ldTile = [lean, tilesL, tilesLD, rowTiles, rowLD](unsigned int e) {
            return lean ? rowLD + (tilesL[e] - rowTiles) : tilesLD[e];
        };

        // Off-diagonal blocks: L(i, j) = (A(i, j) − Σ_{k<j} L(i, k)·D_k·L(j, k)ᵀ)·L_jjᵀ⁻¹·D_j⁻¹.
        for (unsigned int e = iBegin; e < iDiag; ++e) {
            const unsigned int j = cols[e];
            const unsigned int s_j = sizes[j], p_j = Layout<T>::padded(s_j);
            T* const Lij = L.blockPointers[e];
            T* const LDij = ldTile(e);
            const unsigned long count = static_cast<unsigned long>(s_i) * p_j;
            // The block's values so far: the input tile until an update has been made in L(i, j).
            const T* X = inputBlock(A, a, aEnd, j);

            // The columns k < j common to rows i and j, ascending: row j's entries looked up in row i's map
            // (the same pairs, in the same order, as merging the two lists).
            const unsigned int jDiag = rowStart[j + 1] - 1;
            unsigned int q = rowStart[j];
            while (q < jDiag && rowOf[cols[q]] != i) ++q;
            if (q < jDiag) {
                loadTile(Lij, X, count);  // worked on in place from the first update
                X = Lij;
            }
            for (; q < jDiag; ++q) {
                const unsigned int k = cols[q];
                if (rowOf[k] != i) continue;
                const unsigned int s_k = sizes[k], p_k = Layout<T>::padded(s_k);
                // L(i, j) -= LD(i, k)·L(j, k)ᵀ, LD(i, k) final: an earlier entry of row i
                tamber_MM_CM_ABt(ldTile(entryOf[k]), static_cast<int>(p_k), L.blockPointers[q],
                                 static_cast<int>(p_k), Lij, static_cast<int>(p_j), static_cast<int>(s_i),
                                 static_cast<int>(s_j), static_cast<int>(s_k));
            }
            if (X == nullptr) {  // a fill block nothing updates stays zero
                loadTile(Lij, X, count);
                X = Lij;
            }
            // Row i's entry (i, j) joins the map once done: later entries of row i see it as a common column.
            rowOf[j] = i;
            entryOf[j] = e;

            const T* dj = d + offsets[j];
            const T* recip = recips + offsets[j] + j;
            factorCommon::finishOffDiagonal(L.blockPointers[jDiag], X, Lij, LDij, s_i, s_j, p_j, count, recip,
                                            dj);
            if (!lean) {
                LD.blockFlags[e] = 1;  // LD(i, j) written with L(i, j)
            } else if (p_i != s_i) {
                // The padding row, which the paired products read: zero, as in LD's own tiles.
                T* const pad = LDij + count;
                for (unsigned int c = 0; c < p_j; ++c) pad[c] = T(0);
            }
        }

        // Diagonal block: L_ii·D_i·L_iiᵀ = A(i, i) − Σ_{k<i} L(i, k)·D_k·L(i, k)ᵀ.
        T* const Lii = L.blockPointers[iDiag];
        T* const di = d + offsets[i];
        __builtin_prefetch(di, 1);
        const T* X = inputBlock(A, a, aEnd, i);
        // The reciprocal pivots of the later rows' blocks in column i: p_i of them from recips + offset_i +
        // i, padding 0. LD(i, i) = L_ii·D_i is written with the factorization, from the registers, unless LD
        // is not kept.
        T* const recip = recips + offsets[i] + i;
        T* const LDii = lean ? nullptr : LD.blockPointers[iDiag];
        bool good = false;
        if (X != nullptr && iDiag == iBegin + 1 &&
            kernels::factorDiagonalUpdated(L.blockPointers[iBegin], ldTile(iBegin), sizes[cols[iBegin]], X,
                                           Lii, p_i, s_i, di, LDii, recip, good)) {
            // One update of a small block, fused with the factorization: the bits of the two steps below.
        } else {
            if (X == nullptr) {
                loadTile(Lii, X, static_cast<unsigned long>(s_i) * p_i);
                X = Lii;
            }
            for (unsigned int e = iBegin; e < iDiag; ++e) {
                const unsigned int k = cols[e];
                const int p_k = static_cast<int>(Layout<T>::padded(sizes[k]));
                // L_ii -= L(i, k)·LD(i, k)ᵀ on its lower triangle (the values the whole-square product gives
                // there; the upper triangle is never read), the first one straight from the input tile
                if (X != Lii) {
                    factorCommon::subtractABtLowerFrom(L.blockPointers[e], p_k, ldTile(e), p_k, X, Lii,
                                                       static_cast<int>(p_i), static_cast<int>(s_i),
                                                       static_cast<int>(sizes[k]));
                    X = Lii;
                } else {
                    factorCommon::subtractABtLower(L.blockPointers[e], p_k, ldTile(e), p_k, Lii,
                                                   static_cast<int>(p_i), static_cast<int>(s_i),
                                                   static_cast<int>(sizes[k]));
                }
            }
            // Dense L_ii·D_i·L_iiᵀ without pivoting, row by row; strict upper triangle zeroed.
            good = factorCommon::factorDiagonalBlock(Lii, p_i, s_i, di, LDii, X == Lii ? nullptr : X, recip);
        }
        if (!lean) LD.blockFlags[iDiag] = 1;

        // The first zero or non-finite pivot, in elimination order: only this block's pivots are looked at,
        // so the check costs O(s_i) and a stop at block i has cost the work up to i.
        if (!good && recordBadPivot(data, i, offsets[i], di, s_i)) {
            factorCommon::clearPaddingRows(L, LD);
            finishTimes();
            return;  // isFactored stays 0: the factor is complete only up to block row i
        }
    }

    if (data.badPivot.scalar != BadPivot::noPivot) factorCommon::clearPaddingRows(L, LD);
    data.isFactored = 1;
    finishTimes();
}

template <typename T>
void Tamber::computeScaledFactor(TamberData<T>& data) {
    const SparseMatrix<T>& L = data.factor;
    SparseMatrix<T>& LD = data.scaledFactor;
    const unsigned long blocks = L.numBlocks;
    if (blocks == 0 || L.numBlockCols == 0 || LD.blockFlags[blocks - 1] == 1) return;
    const unsigned long nb = L.numBlockCols;
    const T* const d = data.diagonal.data;
    for (unsigned long i = 0; i < nb; ++i) {
        const unsigned int s_i = L.blockSizes[i];
        for (unsigned int e = L.colPointers[i]; e < L.colPointers[i + 1]; ++e) {
            if (LD.blockFlags[e] == 1) continue;
            const unsigned int j = L.rowIndices[e];
            // l_rc·d_c, the products the factorization forms (padding columns 0)
            kernels::scaleColumnsAnySize(L.blockPointers[e], d + L.blockOffsets[j], LD.blockPointers[e], s_i,
                                         L.blockSizes[j], Layout<T>::padded(L.blockSizes[j]));
            LD.blockFlags[e] = 1;
        }
    }
}

template unsigned int Tamber::estimateWork<float>(TamberData<float>&, unsigned int*);
template unsigned int Tamber::estimateWork<double>(TamberData<double>&, unsigned int*);
template void Tamber::factorSerial<float>(TamberData<float>&);
template void Tamber::factorSerial<double>(TamberData<double>&);
template void Tamber::factorSerial<float>(TamberData<float>&, InputColumns&);
template void Tamber::factorSerial<double>(TamberData<double>&, InputColumns&);
template void Tamber::computeScaledFactor<float>(TamberData<float>&);
template void Tamber::computeScaledFactor<double>(TamberData<double>&);

}  // namespace kivTamber
