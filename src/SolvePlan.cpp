// The steps of the double solves over one layout of the factor (see SolvePlan.h), and their kernels: the
// paired tile kernels of src/KernelsFixed.h with the sizes and leading dimensions fixed at compile time.
#include "SolvePlan.h"

#include <array>
#include <cstddef>
#include <utility>

#include "KernelsFixed.h"

namespace kivTamber {
namespace {

using Step = SolvePlan::Step;

constexpr unsigned int padded(unsigned int s) {
    return (s + 1) & ~1u;
}

// Forward steps: x_j ← x_j − B_ijᵀ·x_i, x_j ← U_jj⁻ᵀ·x_j, or both in turn. Each is flattened (the paired
// kernels inlined into it), so that x_j passes from one kernel to the next in registers: the passes are
// bound by the latency of the chain of dependent entries, and a store and reload cost more than the call.
template <int SI, int SJ>
[[gnu::flatten]] void forwardTile(const Step& s, double* x) {
    kernels::forwardOffDiagonalFixed<SI, SJ>(s.tile, padded(SI), x + s.source, x + s.target);
}
template <int SI, int SJ>
[[gnu::flatten]] void forwardTileAndDiagonal(const Step& s, double* x) {
    double* xj = x + s.target;
    kernels::forwardOffDiagonalFixed<SI, SJ>(s.tile, padded(SI), x + s.source, xj);
    kernels::forwardDiagonalFixed<SJ>(s.tile + padded(SI) * padded(SJ), padded(SJ), xj);  // U_jj follows
}
template <int SJ>
[[gnu::flatten]] void forwardDiagonal(const Step& s, double* x) {
    kernels::forwardDiagonalFixed<SJ>(s.tile, padded(SJ), x + s.target);
}
void forwardTileAnySize(const Step& s, double* x) {
    kernels::forwardOffDiagonalStep(s.tile, padded(s.si), x + s.source, s.si, x + s.target, s.sj);
}
void forwardDiagonalAnySize(const Step& s, double* x) {
    kernels::forwardDiagonalStep(s.tile, padded(s.sj), x + s.target, s.sj);
}

// Backward steps: x_j ← U_jj⁻¹·x_j, x_i ← x_i − B_ij·x_j, or both in turn.
template <int SI, int SJ>
[[gnu::flatten]] void backwardTile(const Step& s, double* x) {
    kernels::backwardOffDiagonalFixed<SI, SJ>(s.tile, padded(SI), x + s.target, x + s.source);
}
template <int SI, int SJ>
[[gnu::flatten]] void backwardDiagonalAndTile(const Step& s, double* x) {
    double* xj = x + s.target;
    kernels::backwardDiagonalFixed<SJ>(s.tile + padded(SI) * padded(SJ), padded(SJ), xj);  // U_jj follows
    kernels::backwardOffDiagonalFixed<SI, SJ>(s.tile, padded(SI), xj, x + s.source);
}
template <int SJ>
[[gnu::flatten]] void backwardDiagonal(const Step& s, double* x) {
    kernels::backwardDiagonalFixed<SJ>(s.tile, padded(SJ), x + s.target);
}
void backwardTileAnySize(const Step& s, double* x) {
    kernels::backwardOffDiagonalStep(s.tile, padded(s.si), x + s.target, s.sj, x + s.source, s.si);
}
void backwardDiagonalAnySize(const Step& s, double* x) {
    kernels::backwardDiagonalStep(s.tile, padded(s.sj), x + s.target, s.sj);
}

using Run = void (*)(const Step&, double*);
constexpr unsigned int fixedSizes = 6;  // sizes 1 … 6 have steps of their own

template <std::size_t... I>
constexpr std::array<Run, sizeof...(I)> pairTable(std::index_sequence<I...>, int which) {
    return which == 0 ? std::array<Run, sizeof...(I)>{{&forwardTile<int(I) / 6 + 1, int(I) % 6 + 1>...}}
           : which == 1
               ? std::array<Run, sizeof...(I)>{{&forwardTileAndDiagonal<int(I) / 6 + 1, int(I) % 6 + 1>...}}
           : which == 2
               ? std::array<Run, sizeof...(I)>{{&backwardTile<int(I) / 6 + 1, int(I) % 6 + 1>...}}
               : std::array<Run, sizeof...(I)>{{&backwardDiagonalAndTile<int(I) / 6 + 1, int(I) % 6 + 1>...}};
}
constexpr std::array<Run, 36> forwardTiles = pairTable(std::make_index_sequence<36>(), 0);
constexpr std::array<Run, 36> forwardColumns = pairTable(std::make_index_sequence<36>(), 1);
constexpr std::array<Run, 36> backwardTiles = pairTable(std::make_index_sequence<36>(), 2);
constexpr std::array<Run, 36> backwardColumns = pairTable(std::make_index_sequence<36>(), 3);
constexpr Run forwardDiagonals[6] = {&forwardDiagonal<1>, &forwardDiagonal<2>, &forwardDiagonal<3>,
                                     &forwardDiagonal<4>, &forwardDiagonal<5>, &forwardDiagonal<6>};
constexpr Run backwardDiagonals[6] = {&backwardDiagonal<1>, &backwardDiagonal<2>, &backwardDiagonal<3>,
                                      &backwardDiagonal<4>, &backwardDiagonal<5>, &backwardDiagonal<6>};

// True when s has steps of its own.
inline bool fixed(unsigned int s) {
    return s - 1 < fixedSizes;
}

struct LaneOrder {
    const SparseMatrix<double>& U;
    const unsigned int* first;  // [m] smallest column of each subtree, `none` when not contiguous
    unsigned int* order;        // [m] identity on entry
    unsigned int* buffer;       // [m]

    unsigned long steps(unsigned int j) const { return U.colPointers[j + 1] - U.colPointers[j]; }

    // Arranges the columns 0 … m−1 in order[0 … m): lane A = [0, cut) and lane B = [cut, top) in turns, then
    // the top part [top, m). Returns cut, or 0 when they stay in column order.
    unsigned int arrange(unsigned int m) {
        const unsigned int none = ~0u;
        unsigned int top = m;
        while (top > 0 && first[top - 1] == 0) --top;  // a single tree: its root joins the top part
        if (top < 2) return 0;
        // The cut: the tree boundary b (b − 1 of even size) closest to half the steps of [0, top).
        unsigned long total = 0;
        for (unsigned int j = 0; j < top; ++j) total += steps(j);
        unsigned long after = 0, bestGap = ~0ul;
        unsigned int cut = 0;
        for (unsigned int c = top - 1;;) {
            const unsigned int b = first[c];
            if (b == none) return 0;
            for (unsigned int j = b; j <= c; ++j) after += steps(j);
            if (b == 0) break;
            const unsigned long before = total - after;
            const unsigned long gap = before > after ? before - after : after - before;
            if ((U.blockSizes[b - 1] & 1u) == 0 && gap < bestGap) bestGap = gap, cut = b;
            c = b - 1;
        }
        if (cut == 0) return 0;
        // Merge the two lanes in proportion to their steps.
        unsigned long totalA = 0;
        for (unsigned int j = 0; j < cut; ++j) totalA += steps(j);
        const unsigned long totalB = total - totalA;
        unsigned int a = 0, b = cut, k = 0;
        unsigned long doneA = 0, doneB = 0;
        while (a < cut || b < top) {
            if (b == top || (a < cut && doneA * totalB <= doneB * totalA)) {
                doneA += steps(a);
                buffer[k++] = a++;
            } else {
                doneB += steps(b);
                buffer[k++] = b++;
            }
        }
        for (unsigned int j = 0; j < top; ++j) order[j] = buffer[j];
        return cut;
    }
};

// Lanes of the elimination forest of the columns 0 … m−1 of U (parent of i: the first column j > i with a
// tile (i, j)), for a forward pass that takes two independent parts in turns. On the tree-like systems of
// physics the passes wait on the chain of dependent entries from one column to its parent more than they
// compute; the steps of an independent column in between run in that wait. Each block still gets the
// operations of the pass in column order: the columns that read or write a block (its own and its
// ancestors') fall in one lane, or in the top part that follows both, in their relative order.
//
// Only whole subtrees that are contiguous ranges first[j] … j (as in a postorder) are moved; when no cut is
// found the order is 0 … m−1. From the roots down, a single root goes to the top part (taken after
// both lanes, in column order) and its children become the forest, until it has two trees or more; the
// forest [0, top) is then cut at a tree boundary b into lanes [0, b) and [b, top), balancing the steps
// (tiles) of the two (more lanes, cut likewise inside each, measured no faster than two). A cut after a
// column of odd size is never taken: the paired steps of that column write the first entry of the next block
// back (x − 0), which must stay in the pass's order with the steps of the next column. The lanes are merged
// in proportion to their steps, so that both end together.
void orderColumns(const SparseMatrix<double>& U, unsigned int m, kiv::VectorPOD<unsigned int>& order,
                  kiv::VectorPOD<unsigned int>& parent, kiv::VectorPOD<unsigned int>& first,
                  unsigned char& inOrder) {
    order.resize(m);
    for (unsigned int j = 0; j < m; ++j) order[j] = j;
    inOrder = 1;
    if (m < 4) return;
    const unsigned int none = ~0u;
    parent.resize(m);
    first.resize(m);
    for (unsigned int j = 0; j < m; ++j) parent[j] = none, first[j] = j;
    for (unsigned int j = 0; j < m; ++j)
        for (unsigned int k = U.colPointers[j]; k + 1 < U.colPointers[j + 1]; ++k) {
            const unsigned int i = U.rowIndices[k];
            if (parent[i] == none) parent[i] = j;
        }
    // first[j]: the smallest column of j's subtree (subtree sizes in `order` meanwhile); `none` when the
    // subtree is not the contiguous range first[j] … j, which is then never cut.
    for (unsigned int j = 0; j < m; ++j) order[j] = 1;
    for (unsigned int j = 0; j < m; ++j) {
        const unsigned int p = parent[j];
        if (p < m) {
            if (first[j] < first[p]) first[p] = first[j];
            order[p] += order[j];
        }
    }
    for (unsigned int j = 0; j < m; ++j)
        if (order[j] != j - first[j] + 1) first[j] = none;
    for (unsigned int j = 0; j < m; ++j) order[j] = j;
    LaneOrder lanes{U, first.data(), order.data(), parent.data()};  // parent: the merge buffer from here on
    inOrder = lanes.arrange(m) == 0 ? 1 : 0;
}

}  // namespace

bool SolvePlan::matches(const SparseMatrix<double>& U) const {
    if (!isMade || U.numBlockCols != numBlockCols || U.numBlocks != numBlocks || U.values != values)
        return false;
    if (numBlockCols == 0) return true;
    return U.blockSizes[numBlockCols] == N && (numBlocks == 0 || U.blockPointers[numBlocks - 1] == lastTile);
}

void SolvePlan::make(const SparseMatrix<double>& U) {
    const unsigned int n = static_cast<unsigned int>(U.numBlockCols);
    isMade = 0;
    numBlockCols = n;
    numBlocks = U.numBlocks;
    values = U.values;
    N = n == 0 ? 0 : U.blockSizes[n];
    lastTile = numBlocks == 0 ? nullptr : U.blockPointers[numBlocks - 1];
    forward.clear();
    backward.clear();
    // At most one step per tile and column in each pass: reserved once, no growth on the way.
    forward.reserve(numBlocks);
    backward.reserve(numBlocks);
    // The kernels take every leading dimension to be the padded size (the layout of estimateWork).
    usable = 0;
    for (unsigned int j = 0; j < n; ++j)
        if (U.blockStrides[j] != padded(U.blockSizes[j])) {
            isMade = 1;
            return;
        }
    usable = 1;
    // The last column runs scalar when its size is odd (its padding column would reach past x).
    scalarColumn = n > 0 && (U.blockSizes[n - 1] & 1u) ? n - 1 : n;
    // Per column: the step of off-diagonal tile k (container index) or of the diagonal tile.
    auto tileStep = [&U](unsigned int k, unsigned int j) {
        const unsigned int i = U.rowIndices[k];
        return Step{nullptr,
                    U.blockPointers[k],
                    U.blockOffsets[i],
                    U.blockOffsets[j],
                    U.blockSizes[i],
                    U.blockSizes[j],
                    0,
                    0};
    };
    auto diagonalStep = [&U](unsigned int j) {
        const unsigned int diag = U.colPointers[j + 1] - 1;
        return Step{nullptr, U.blockPointers[diag], 0, U.blockOffsets[j], 0, U.blockSizes[j], 0, 0};
    };
    // Tile k of column j is directly followed in storage by the diagonal tile of the column (as the layout
    // of Tamber::estimateWork places them).
    auto follows = [&U](unsigned int k, unsigned int j) {
        const unsigned long extent =
            static_cast<unsigned long>(padded(U.blockSizes[U.rowIndices[k]])) * padded(U.blockSizes[j]);
        return U.blockPointers[k + 1] == U.blockPointers[k] + extent;
    };
    // The divisions, bucketed by the column that reads each block last in the forward pass: lastReader[c]
    // first counts column c's blocks, then becomes the start of its bucket.
    lastReader.resize(n);
    for (unsigned int b = 0; b < n; ++b) lastReader[b] = b;
    for (unsigned int j = 0; j < n; ++j)
        for (unsigned int k = U.colPointers[j]; k + 1 < U.colPointers[j + 1]; ++k) {
            unsigned int& last = lastReader[U.rowIndices[k]];
            if (last < j) last = j;
        }
    divisions.resize(n);
    {
        kiv::VectorPOD<unsigned int>& start = columnStart;
        start.resize(n + 1);
        for (unsigned int c = 0; c <= n; ++c) start[c] = 0;
        for (unsigned int b = 0; b < n; ++b) ++start[lastReader[b] + 1];
        for (unsigned int c = 0; c < n; ++c) start[c + 1] += start[c];
        for (unsigned int b = 0; b < n; ++b)
            divisions[start[lastReader[b]]++] = Division{U.blockOffsets[b], U.blockSizes[b]};
        // start[c] is now the end of bucket c, that is the start of bucket c + 1.
    }
    auto bucketBegin = [this](unsigned int c) { return c == 0 ? 0u : columnStart[c - 1]; };
    tailDivision = scalarColumn < n ? bucketBegin(scalarColumn) : static_cast<unsigned int>(n);
    auto pair = [](const Step& t) { return (t.si - 1) * fixedSizes + (t.sj - 1); };
    // A column's diagonal tile shares the step of its last off-diagonal tile, which it follows in storage,
    // when both have fixed steps: x_j passes between the two kernels in registers. Forward, that step comes
    // last in the column (the tiles in storage order, then the diagonal tile); backward, it comes first (the
    // diagonal tile, then the last tile, then the others in storage order: the tiles of one column update
    // different blocks, so their order does not change any entry).
    orderColumns(U, scalarColumn, columnOrder, parentColumn, firstColumn, inOrder);
    for (unsigned int position = 0; position < scalarColumn; ++position) {
        const unsigned int j = columnOrder[position];
        const unsigned int first = U.colPointers[j], diag = U.colPointers[j + 1] - 1;
        const bool fixedJ = fixed(U.blockSizes[j]);
        bool joined = false;
        for (unsigned int k = first; k < diag; ++k) {
            Step t = tileStep(k, j);
            const bool fixedTile = fixedJ && fixed(t.si);
            joined = k + 1 == diag && fixedTile && follows(k, j);
            t.run = joined      ? forwardColumns[pair(t)]
                    : fixedTile ? forwardTiles[pair(t)]
                                : &forwardTileAnySize;
            forward.push_back(t);
        }
        if (!joined) {
            Step d = diagonalStep(j);
            d.run = fixedJ ? forwardDiagonals[d.sj - 1] : &forwardDiagonalAnySize;
            forward.push_back(d);
        }
        forward.back().firstDivision = bucketBegin(j);
        forward.back().endDivision = columnStart[j];
    }
    for (unsigned int position = scalarColumn; position-- > 0;) {
        const unsigned int j = columnOrder[position];
        const unsigned int first = U.colPointers[j], diag = U.colPointers[j + 1] - 1;
        const bool fixedJ = fixed(U.blockSizes[j]);
        unsigned int end = diag;  // the tiles first … end−1 follow the first step
        if (first < diag && fixedJ && fixed(U.blockSizes[U.rowIndices[diag - 1]]) && follows(diag - 1, j)) {
            Step t = tileStep(--end, j);
            t.run = backwardColumns[pair(t)];
            backward.push_back(t);
        } else {
            Step d = diagonalStep(j);
            d.run = fixedJ ? backwardDiagonals[d.sj - 1] : &backwardDiagonalAnySize;
            backward.push_back(d);
        }
        backward.back().firstDivision = 1;  // x_j is final after the column's first step
        for (unsigned int k = first; k < end; ++k) {
            Step t = tileStep(k, j);
            t.run = fixedJ && fixed(t.si) ? backwardTiles[pair(t)] : &backwardTileAnySize;
            backward.push_back(t);
        }
    }
    isMade = 1;
}

}  // namespace kivTamber
