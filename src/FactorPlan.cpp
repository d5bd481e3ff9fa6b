// The plan of the serial double factorization (see FactorPlan.h) and its row routines: the row loop of
// Tamber::factorSerial with the structure looked up once, calling the same kernels with the same arguments.
#include "FactorPlan.h"

#include <array>
#include <cstring>

#include "FactorCommon.h"
#include "Kernels.h"

namespace kivTamber {
namespace {

using Row = FactorPlan::Row;
using Step = FactorPlan::Step;
using Pair = FactorPlan::Pair;
using Target = FactorPlan::Target;
using RowRun = FactorPlan::RowRun;
using factorCommon::loadTile;

constexpr unsigned int padded(unsigned int s) {
    return (s + 1) & ~1u;
}

inline const double* inputTile(const Target& t, unsigned int input) {
    return input == FactorPlan::noInput ? nullptr : t.input[input];
}

// The tile of L·D at value offset `tile` of a row whose first tile is at `rowTile`.
inline double* ldTile(const Target& t, unsigned int rowTile, unsigned int tile) {
    return t.LD ? t.LD + tile : t.ldRow + (tile - rowTile);
}

// Any row: the row loop's steps, one by one.
bool rowAnyShape(const FactorPlan& plan, const Row& row, const Target& t) {
    const unsigned int s_i = row.size, p_i = padded(s_i);
    const bool lean = t.LD == nullptr;
    for (unsigned int st = row.firstStep; st < row.endStep; ++st) {
        const Step& step = plan.steps[st];
        const unsigned int s_j = step.size, p_j = padded(s_j);
        double* const Lij = t.L + step.tile;
        double* const LDij = ldTile(t, row.tile, step.tile);
        const unsigned long count = static_cast<unsigned long>(s_i) * p_j;
        const double* X = inputTile(t, step.input);
        if (step.firstPair < step.endPair) {
            loadTile(Lij, X, count);  // worked on in place from the first update
            X = Lij;
        }
        for (unsigned int q = step.firstPair; q < step.endPair; ++q) {
            const Pair& pair = plan.pairs[q];
            const int p_k = static_cast<int>(padded(pair.size));
            // L(i, j) -= LD(i, k)·L(j, k)ᵀ
            tamber_MM_CM_ABt(ldTile(t, row.tile, pair.ldTile), p_k, t.L + pair.lTile, p_k, Lij,
                             static_cast<int>(p_j), static_cast<int>(s_i), static_cast<int>(s_j),
                             static_cast<int>(pair.size));
        }
        if (X == nullptr) {  // a fill block nothing updates stays zero
            loadTile(Lij, X, count);
            X = Lij;
        }
        const double* dj = t.d + step.offset;
        const double* recip = t.recips + step.recip;
        const double* Ljj = t.L + step.diagTile;
        factorCommon::finishOffDiagonal(Ljj, X, Lij, LDij, s_i, s_j, p_j, count, recip, dj);
        if (lean && p_i != s_i) {  // the padding row, which the paired products read: zero
            double* const pad = LDij + count;
            for (unsigned int c = 0; c < p_j; ++c) pad[c] = 0.0;
        }
    }

    // Diagonal block: L_ii·D_i·L_iiᵀ = A(i, i) − Σ_{k<i} L(i, k)·D_k·L(i, k)ᵀ.
    double* const Lii = t.L + row.diagTile;
    double* const di = t.d + row.offset;
    const double* X = inputTile(t, row.diagInput);
    double* const recip = t.recips + row.recip;
    double* const LDii = lean ? nullptr : t.LD + row.diagTile;
    bool good = false;
    if (X != nullptr && row.endStep == row.firstStep + 1) {
        const Step& step = plan.steps[row.firstStep];
        if (kernels::factorDiagonalUpdated(t.L + step.tile, ldTile(t, row.tile, step.tile), step.size, X, Lii,
                                           p_i, s_i, di, LDii, recip, good))
            return good;
    }
    if (X == nullptr) {
        loadTile(Lii, X, static_cast<unsigned long>(s_i) * p_i);
        X = Lii;
    }
    for (unsigned int st = row.firstStep; st < row.endStep; ++st) {
        const Step& step = plan.steps[st];
        const int p_k = static_cast<int>(padded(step.size));
        // L_ii -= L(i, k)·LD(i, k)ᵀ on its lower triangle, the first one straight from the input tile
        if (X != Lii) {
            factorCommon::subtractABtLowerFrom(t.L + step.tile, p_k, ldTile(t, row.tile, step.tile), p_k, X,
                                               Lii, static_cast<int>(p_i), static_cast<int>(s_i),
                                               static_cast<int>(step.size));
            X = Lii;
        } else {
            factorCommon::subtractABtLower(t.L + step.tile, p_k, ldTile(t, row.tile, step.tile), p_k, Lii,
                                           static_cast<int>(p_i), static_cast<int>(s_i),
                                           static_cast<int>(step.size));
        }
    }
    return factorCommon::factorDiagonalBlock(Lii, p_i, s_i, di, LDii, X == Lii ? nullptr : X, recip);
}

// One off-diagonal entry (i, j) with nothing to update and both input tiles present, s_i = SI and s_j = SJ
// of 2 … 6: the finish of L(i, j) and the fused update and factorization of the diagonal block.
template <int SI, int SJ>
inline bool oneEntry(const FactorPlan& plan, const Row& row, const Target& t) {
    constexpr unsigned int PI = padded(SI), PJ = padded(SJ);
    const Step& step = plan.steps[row.firstStep];
    double* const Lij = t.L + step.tile;
    double* const LDij = ldTile(t, row.tile, step.tile);
    kernels::finishSmallBlockFixed<SJ>(t.L + step.diagTile, t.input[step.input], Lij, LDij, SI,
                                       t.recips + step.recip, t.d + step.offset);
    if (PI != SI && t.LD == nullptr) {  // the padding row, which the paired products read: zero
        double* const pad = LDij + SI * PJ;
        for (unsigned int c = 0; c < PJ; ++c) pad[c] = 0.0;
    }
    return kernels::factorDiagonalUpdatedFixed<SI, PJ>(
        Lij, LDij, t.input[row.diagInput], t.L + row.diagTile, PI, t.d + row.offset,
        t.LD ? t.LD + row.diagTile : nullptr, t.recips + row.recip);
}

// Several off-diagonal entries (i, j), all of s_j = SJ, with nothing to update and every input tile present,
// s_i = SI and s_j of 2 … 6 (a body with its joints): the finish of each L(i, j), then the updates of the
// diagonal block, the first one from its input tile, and its factorization.
template <int SI, int SJ>
inline bool manyEntries(const FactorPlan& plan, const Row& row, const Target& t) {
    constexpr unsigned int PI = padded(SI), PJ = padded(SJ);
    for (unsigned int st = row.firstStep; st < row.endStep; ++st) {
        const Step& step = plan.steps[st];
        double* const LDij = ldTile(t, row.tile, step.tile);
        kernels::finishSmallBlockFixed<SJ>(t.L + step.diagTile, t.input[step.input], t.L + step.tile, LDij,
                                           SI, t.recips + step.recip, t.d + step.offset);
        if (PI != SI && t.LD == nullptr) {  // the padding row, which the paired products read: zero
            double* const pad = LDij + SI * PJ;
            for (unsigned int c = 0; c < PJ; ++c) pad[c] = 0.0;
        }
    }
    double* const Lii = t.L + row.diagTile;
    const double* X = t.input[row.diagInput];
    for (unsigned int st = row.firstStep; st < row.endStep; ++st) {
        const unsigned int tile = plan.steps[st].tile;
        kernels::subtractABtLowerFixed<SI, PJ>(t.L + tile, ldTile(t, row.tile, tile), X, Lii, PI);
        X = Lii;
    }
    return kernels::factorDiagonalBlockFixed<double, SI>(
        Lii, PI, SI, t.d + row.offset, t.LD ? t.LD + row.diagTile : nullptr, nullptr, t.recips + row.recip);
}

// A diagonal block alone (no off-diagonal entry) with its input tile, s_i = SI of 1 … 12.
template <int SI>
inline bool diagonalAlone(const Row& row, const Target& t) {
    return kernels::factorDiagonalBlockFixed<double, SI>(t.L + row.diagTile, padded(SI), SI, t.d + row.offset,
                                                         t.LD ? t.LD + row.diagTile : nullptr,
                                                         t.input[row.diagInput], t.recips + row.recip);
}

// The two routines of each of these shapes: portable, and the same code compiled for AVX2 (every call
// inlined), which the plan takes where the processor has it. The operations on every entry and their order
// are the same (the build never contracts a product and a sum, and vectorising does not reassociate), so the
// bits are the same; the three-operand instructions only save the register copies of the two-operand forms.
template <int SI, int SJ>
bool rowOne(const FactorPlan& plan, const Row& row, const Target& t) {
    return oneEntry<SI, SJ>(plan, row, t);
}
template <int SI, int SJ>
[[gnu::flatten]] __attribute__((target("avx2"))) bool rowOneWide(const FactorPlan& plan, const Row& row,
                                                                 const Target& t) {
    return oneEntry<SI, SJ>(plan, row, t);
}
template <int SI, int SJ>
bool rowMany(const FactorPlan& plan, const Row& row, const Target& t) {
    return manyEntries<SI, SJ>(plan, row, t);
}
template <int SI, int SJ>
[[gnu::flatten]] __attribute__((target("avx2"))) bool rowManyWide(const FactorPlan& plan, const Row& row,
                                                                  const Target& t) {
    return manyEntries<SI, SJ>(plan, row, t);
}
template <int SI>
bool rowDiagonal(const FactorPlan&, const Row& row, const Target& t) {
    return diagonalAlone<SI>(row, t);
}
template <int SI>
[[gnu::flatten]] __attribute__((target("avx2"))) bool rowDiagonalWide(const FactorPlan&, const Row& row,
                                                                      const Target& t) {
    return diagonalAlone<SI>(row, t);
}

template <int... S>
struct Sizes {};

template <int SI, int... SJ>
constexpr std::array<RowRun, sizeof...(SJ)> oneRow(Sizes<SJ...>, bool wide) {
    return wide ? std::array<RowRun, sizeof...(SJ)>{{&rowOneWide<SI, SJ>...}}
                : std::array<RowRun, sizeof...(SJ)>{{&rowOne<SI, SJ>...}};
}
template <int SI, int... SJ>
constexpr std::array<RowRun, sizeof...(SJ)> manyRow(Sizes<SJ...>, bool wide) {
    return wide ? std::array<RowRun, sizeof...(SJ)>{{&rowManyWide<SI, SJ>...}}
                : std::array<RowRun, sizeof...(SJ)>{{&rowMany<SI, SJ>...}};
}
// rowOne<s_i, s_j> at [wide][s_i − 2][s_j − 2], rowMany likewise.
using Two6 = Sizes<2, 3, 4, 5, 6>;
constexpr std::array<RowRun, 5> oneRows[2][5] = {
    {oneRow<2>(Two6(), false), oneRow<3>(Two6(), false), oneRow<4>(Two6(), false), oneRow<5>(Two6(), false),
     oneRow<6>(Two6(), false)},
    {oneRow<2>(Two6(), true), oneRow<3>(Two6(), true), oneRow<4>(Two6(), true), oneRow<5>(Two6(), true),
     oneRow<6>(Two6(), true)}};
constexpr std::array<RowRun, 5> manyRows[2][5] = {
    {manyRow<2>(Two6(), false), manyRow<3>(Two6(), false), manyRow<4>(Two6(), false),
     manyRow<5>(Two6(), false), manyRow<6>(Two6(), false)},
    {manyRow<2>(Two6(), true), manyRow<3>(Two6(), true), manyRow<4>(Two6(), true), manyRow<5>(Two6(), true),
     manyRow<6>(Two6(), true)}};
// rowDiagonal<s_i> at [wide][s_i − 1].
template <int... SI>
constexpr std::array<RowRun, sizeof...(SI)> diagonalRow(Sizes<SI...>, bool wide) {
    return wide ? std::array<RowRun, sizeof...(SI)>{{&rowDiagonalWide<SI>...}}
                : std::array<RowRun, sizeof...(SI)>{{&rowDiagonal<SI>...}};
}
using One12 = Sizes<1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12>;
constexpr std::array<RowRun, 12> diagonalRows[2] = {diagonalRow(One12(), false), diagonalRow(One12(), true)};

// The routine of a row of this shape.
RowRun chooseRun(const FactorPlan& plan, const Row& row, bool wide) {
    const unsigned int s_i = row.size;
    if (row.diagInput == FactorPlan::noInput) return &rowAnyShape;
    if (row.firstStep == row.endStep) return s_i - 1 < 12 ? diagonalRows[wide][s_i - 1] : &rowAnyShape;
    // Off-diagonal entries of one size s_j, each with its input tile and nothing to update, sizes 2 … 6.
    const unsigned int s_j = plan.steps[row.firstStep].size;
    if (s_i - 2 > 4 || s_j - 2 > 4) return &rowAnyShape;
    for (unsigned int st = row.firstStep; st < row.endStep; ++st) {
        const Step& step = plan.steps[st];
        if (step.input == FactorPlan::noInput || step.firstPair != step.endPair || step.size != s_j)
            return &rowAnyShape;
    }
    return row.endStep == row.firstStep + 1 ? oneRows[wide][s_i - 2][s_j - 2]
                                            : manyRows[wide][s_i - 2][s_j - 2];
}

template <typename U>
void assign(kiv::VectorPOD<U>& to, const U* from, unsigned long count) {
    to.resize(count);
    if (count > 0) std::memcpy(static_cast<void*>(to.data()), from, count * sizeof(U));
}

template <typename U>
bool same(const U* a, const U* b, unsigned long count) {
    return count == 0 || std::memcmp(a, b, count * sizeof(U)) == 0;
}

}  // namespace

void FactorPlan::make(const SkeletonMatrix& S, const unsigned int* blockSizes,
                      const SparseMatrix<double>& A) {
    const unsigned int n = static_cast<unsigned int>(S.n);
    isMade = 1;
    usable = 0;
    numBlockCols = n;
    numEntries = n == 0 ? 0 : S.numEntries();
    inputEntries = n == 0 ? 0 : A.colPointers[n];
    steps.clear();
    pairs.clear();
    if (n == 0) {
        N = 0;
        return;
    }
    const unsigned int* rs = S.colPointers;
    const unsigned int* cs = S.rowIndices;
    assign(rowStart, rs, n + 1ul);
    assign(cols, cs, numEntries);
    assign(sizes, blockSizes, n);
    assign(inputStart, A.colPointers, n + 1ul);
    assign(inputCols, A.rowIndices, inputEntries);

    // Scalar offsets and the value offset of every tile, as the layout puts them.
    offsets.resize(n);
    tileAt.resize(numEntries + 1);
    unsigned long offset = 0, at = 0;
    rowExtent = 0;
    for (unsigned int i = 0; i < n; ++i) {
        offsets[i] = static_cast<unsigned int>(offset);
        offset += blockSizes[i];
        const unsigned long rowAt = at;
        for (unsigned int e = rs[i]; e < rs[i + 1]; ++e) {
            if (e + 1 == rs[i + 1] && at - rowAt > rowExtent) rowExtent = at - rowAt;
            tileAt[e] = static_cast<unsigned int>(at);
            at += static_cast<unsigned long>(padded(blockSizes[i])) * padded(blockSizes[cs[e]]);
        }
    }
    N = offset;
    if (at > 0xffffffffUL || offset + n > 0xffffffffUL) return;  // offsets beyond 32 bits: no plan
    lastTile = tileAt[numEntries - 1];

    // Per row: its steps and, per step, the columns k < j common to rows i and j, ascending, found as the
    // row loop finds them (row j's entries looked up in the map of row i's finished entries).
    rowOf.resize(n);
    entryOf.resize(n);
    for (unsigned int k = 0; k < n; ++k) rowOf[k] = ~0u;
    rows.resize(n);  // every field written below (not cleared first: resize zeroes only new elements)
    steps.reserve(numEntries - n);
    for (unsigned int i = 0; i < n; ++i) {
        const unsigned int iBegin = rs[i], iDiag = rs[i + 1] - 1;
        unsigned int a = A.colPointers[i];
        const unsigned int aEnd = A.colPointers[i + 1];
        auto input = [&](unsigned int j) { return a < aEnd && A.rowIndices[a] == j ? a++ : noInput; };
        Row& row = rows[i];
        row.size = blockSizes[i];
        row.offset = offsets[i];
        row.recip = offsets[i] + i;
        row.firstStep = static_cast<unsigned int>(steps.size());
        row.tile = tileAt[iBegin];
        row.diagTile = tileAt[iDiag];
        for (unsigned int e = iBegin; e < iDiag; ++e) {
            const unsigned int j = cs[e];
            Step step;
            step.tile = tileAt[e];
            step.diagTile = tileAt[rs[j + 1] - 1];
            step.input = input(j);
            step.size = blockSizes[j];
            step.offset = offsets[j];
            step.recip = offsets[j] + j;
            step.firstPair = static_cast<unsigned int>(pairs.size());
            for (unsigned int q = rs[j]; q + 1 < rs[j + 1]; ++q) {
                const unsigned int k = cs[q];
                if (rowOf[k] != i) continue;
                pairs.push_back(Pair{tileAt[entryOf[k]], tileAt[q], blockSizes[k]});
            }
            step.endPair = static_cast<unsigned int>(pairs.size());
            rowOf[j] = i;
            entryOf[j] = e;
            steps.push_back(step);
        }
        row.endStep = static_cast<unsigned int>(steps.size());
        row.diagInput = input(i);
    }
    const bool wide = __builtin_cpu_supports("avx2");
    for (unsigned int i = 0; i < n; ++i) rows[i].run = chooseRun(*this, rows[i], wide);
    usable = 1;
}

bool FactorPlan::rowsMatch(const SkeletonMatrix& S, const unsigned int* blockSizes,
                           const SparseMatrix<double>& A, const SparseMatrix<double>& L, unsigned int first,
                           unsigned int end) const {
    const unsigned long heads = end - first + 1ul, blocks = end - first;
    const unsigned int e0 = rowStart[first], e1 = rowStart[end];
    const unsigned int a0 = inputStart[first], a1 = inputStart[end];
    return same(S.colPointers + first, rowStart.data() + first, heads) &&
           same(L.colPointers + first, rowStart.data() + first, heads) &&
           same(A.colPointers + first, inputStart.data() + first, heads) &&
           same(blockSizes + first, sizes.data() + first, blocks) &&
           same(L.blockSizes + first, sizes.data() + first, blocks) &&
           same(L.blockOffsets + first, offsets.data() + first, blocks) &&
           same(S.rowIndices + e0, cols.data() + e0, e1 - e0) &&
           same(L.rowIndices + e0, cols.data() + e0, e1 - e0) &&
           same(A.rowIndices + a0, inputCols.data() + a0, a1 - a0);
}

}  // namespace kivTamber
