#include "Symbolic.h"

#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "ScratchSlots.h"

namespace kivTamber {
namespace Analysis {

namespace {

using Reordering::kNoBlock;
constexpr unsigned int kNone = kNoBlock;

template <typename V>
void grow(kiv::VectorPOD<V>& v, unsigned long n) {
    if (v.size() < n) v.resize(n);
}

// Work arrays of computeFilledSkeleton: from the scratch pad (int slot `slot`) when one is given, else owned
// for the call.
class WorkArray {
public:
    WorkArray(ScratchPad* pad, unsigned long slot, unsigned long count) : count_(count) {
        if (pad) {
            data_ = reinterpret_cast<unsigned int*>(pad->getIntArray(slot, count));
        } else {
            owned_ = kiv::allocateArray<unsigned int>(count);
            data_ = owned_;
        }
    }
    ~WorkArray() {
        if (owned_) kiv::deallocateArray(owned_, count_);
    }
    WorkArray(const WorkArray&) = delete;
    WorkArray& operator=(const WorkArray&) = delete;

    unsigned int* data() { return data_; }

private:
    unsigned long count_;
    unsigned int* data_ = nullptr;
    unsigned int* owned_ = nullptr;
};

// Visits the row subtree of row i: every node reached from a column j < i of row i of A by walking up
// `parent` until a node already stamped for row i, a node >= i or a root. Calls visit(x) once per node.
template <typename Visit>
void walkRowSubtree(const SkeletonMatrix& S, const unsigned int* parent, unsigned int* stamp, unsigned int i,
                    Visit visit) {
    stamp[i] = i;
    for (unsigned int k = S.colPointers[i]; k < S.colPointers[i + 1]; ++k) {
        unsigned int x = S.rowIndices[k];
        if (x >= i) break;  // the diagonal and anything beyond it
        while (x < i && stamp[x] != i) {
            stamp[x] = i;
            visit(x);
            const unsigned int p = parent[x];
            if (p == x) break;  // a root below i: the tree does not reach i
            x = p;
        }
    }
}

__extension__ typedef unsigned __int128 Wide;  // exact sums of squares up to 2^128

// Σ_{c < M} c·(c + 2) = (M − 1)·M·(2M − 1)/6 + (M − 1)·M.
Wide sumOfCTimesCPlus2(Wide M) {
    if (M == 0) return 0;
    if (M < (Wide(1) << 20)) {  // the same integer in 64 bits (M³ < 2^60), without 128-bit division
        const unsigned long m = static_cast<unsigned long>(M);
        return (m - 1) * m * (2 * m - 1) / 6 + (m - 1) * m;
    }
    return (M - 1) * M * (2 * M - 1) / 6 + (M - 1) * M;
}

// The cost of a factor from its block columns: sizes [n] of the block columns, below [n] the scalar rows and
// count [n] the blocks strictly below each diagonal block.
FactorCost costFromColumns(unsigned int n, const unsigned int* sizeOfPosition, const unsigned long* below,
                           const unsigned int* count) {
    FactorCost cost;
    cost.blocks = n;
    unsigned long blockEntries = n;
    double flops = 0.0, operations = 0.0;
    unsigned long scalars = 0;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned long s = sizeOfPosition[j];
        const double c = count[j];
        blockEntries += count[j];
        operations += c * (c + 1.0) / 2.0;
        // The scalar columns of block j have c_k = below[j] + s − 1, ..., below[j] below the diagonal:
        // Σ c·(c + 2) and Σ (c + 1) over that range, in closed form (exact in 128 bits).
        const Wide lo = below[j], hi = static_cast<Wide>(below[j]) + s;
        flops += static_cast<double>(sumOfCTimesCPlus2(hi) - sumOfCTimesCPlus2(lo));
        scalars += static_cast<unsigned long>(s * below[j] + s * (s + 1) / 2);
    }
    cost.blockEntries = blockEntries;
    cost.flops = flops;
    cost.blockOperations = operations;
    cost.scalarEntries = scalars;
    return cost;
}

}  // namespace

FactorCost filledCost(const SkeletonMatrix& filled, const unsigned int* sizes, CostWork& w) {
    const unsigned int n = static_cast<unsigned int>(filled.n);
    grow(w.below, n);
    grow(w.count, n);
    for (unsigned int j = 0; j < n; ++j) {
        w.below[j] = 0;
        w.count[j] = 0;
    }
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
            w.below[filled.rowIndices[e]] += sizes[i];  // L(i, j): s_i rows below the diagonal of column j
            ++w.count[filled.rowIndices[e]];
        }
    }
    return costFromColumns(n, sizes, w.below.data(), w.count.data());
}

// Elimination tree (Liu, with path compression through `ancestor`) and row-subtree counts of the order,
// read straight off the user's graph. sizes: user numbering. sizeOfPosition: workspace, filled here.
FactorCost orderCost(const Reordering::BlockGraph& g, const unsigned int* forward,
                     const unsigned int* inverse, const unsigned int* sizes, CostWork& w,
                     kiv::VectorPOD<unsigned int>& sizeOfPosition) {
    const unsigned int n = g.n;
    grow(w.parent, n);
    grow(w.ancestor, n);
    grow(w.stamp, n);
    grow(w.below, n);
    grow(w.count, n);
    grow(sizeOfPosition, n);
    unsigned int* parent = w.parent.data();
    unsigned int* ancestor = w.ancestor.data();
    for (unsigned int k = 0; k < n; ++k) {
        parent[k] = kNoBlock;
        ancestor[k] = kNoBlock;
        const unsigned int b = forward[k];
        sizeOfPosition[k] = sizes[b];
        for (const unsigned int* u = g.begin(b); u != g.end(b); ++u) {
            unsigned int i = inverse[*u];
            while (i != kNoBlock && i < k) {  // climb to the root, pointing the path at k
                const unsigned int next = ancestor[i];
                ancestor[i] = k;
                if (next == kNoBlock) parent[i] = k;
                i = next;
            }
        }
    }
    for (unsigned int k = 0; k < n; ++k) {
        w.stamp[k] = kNoBlock;
        w.below[k] = 0;
        w.count[k] = 0;
    }
    for (unsigned int k = 0; k < n; ++k) {
        w.stamp[k] = k;
        const unsigned long s = sizeOfPosition[k];
        const unsigned int b = forward[k];
        for (const unsigned int* u = g.begin(b); u != g.end(b); ++u) {
            for (unsigned int x = inverse[*u]; x < k && w.stamp[x] != k; x = parent[x]) {
                w.stamp[x] = k;  // L(k, x) is an entry
                w.below[x] += s;
                ++w.count[x];
            }
        }
    }
    return costFromColumns(n, sizeOfPosition.data(), w.below.data(), w.count.data());
}

// ---------------------------------------------------------------------------------------------------------
// Symbolic factorization.
// ---------------------------------------------------------------------------------------------------------

bool computeFilledSkeleton(const SkeletonMatrix& permuted, const EliminationTree& etree,
                           SkeletonMatrix& filled, ScratchPad* scratchPad, bool withFillFlags) {
    const unsigned long n = permuted.n;
    if (etree.numNodes < n) return false;

    // Work: stamp[n] (the row a node was last visited for), count[n] (entries per row of L), colPtr[n + 1]
    // and cursor[n] (the columns of L strictly below the diagonal).
    WorkArray work(scratchPad, ScratchSlots::symbolicWork, 4 * n + 1);
    unsigned int* stamp = work.data();
    unsigned int* count = stamp + n;
    unsigned int* colPtr = count + n;
    unsigned int* cursor = colPtr + n + 1;
    const unsigned int* parent = etree.parent;

    // Pass 1: sizes of the rows and of the columns of L.
    for (unsigned long x = 0; x < n; ++x) {
        stamp[x] = 0xFFFFFFFFu;
        colPtr[x + 1] = 0;
    }
    colPtr[0] = 0;
    unsigned long entries = 0;
    for (unsigned int i = 0; i < n; ++i) {
        unsigned int c = 1;  // the diagonal
        walkRowSubtree(permuted, parent, stamp, i, [&c, colPtr](unsigned int x) {
            ++c;
            ++colPtr[x + 1];
        });
        count[i] = c;
        entries += c;
    }
    for (unsigned long x = 0; x < n; ++x) {
        colPtr[x + 1] += colPtr[x];
        cursor[x] = colPtr[x];
    }

    // Pass 2: the columns of L, each ascending because the rows are walked in ascending order.
    WorkArray columns(scratchPad, ScratchSlots::symbolicColumns, entries - n + 1);
    unsigned int* colRows = columns.data();
    for (unsigned long x = 0; x < n; ++x) stamp[x] = 0xFFFFFFFFu;
    for (unsigned int i = 0; i < n; ++i)
        walkRowSubtree(permuted, parent, stamp, i,
                       [i, colRows, cursor](unsigned int x) { colRows[cursor[x]++] = i; });

    const bool withWords = permuted.blockWords != nullptr;
    filled.resize(n, entries, withWords);
    if (withWords && n > 0) std::memcpy(filled.blockWords, permuted.blockWords, n * sizeof(unsigned int));
    unsigned int* cp = filled.colPointers;
    cp[0] = 0;
    for (unsigned long i = 0; i < n; ++i) cp[i + 1] = cp[i] + count[i];

    // Pass 3: transpose the columns into rows (ascending, since the columns are taken in ascending order),
    // the diagonal last; flag the entries that are not in A.
    unsigned int* rows = filled.rowIndices;
    for (unsigned long i = 0; i < n; ++i) count[i] = cp[i];
    for (unsigned int x = 0; x < n; ++x) {
        for (unsigned int q = colPtr[x]; q < colPtr[x + 1]; ++q) rows[count[colRows[q]]++] = x;
    }
    for (unsigned int i = 0; i < n; ++i) rows[cp[i + 1] - 1] = i;
    if (withFillFlags) markFillIns(permuted, filled);
    return true;
}

void markFillIns(const SkeletonMatrix& permuted, SkeletonMatrix& filled) {
    const unsigned int n = static_cast<unsigned int>(filled.n);
    const unsigned int* cp = filled.colPointers;
    const unsigned int* rows = filled.rowIndices;
    unsigned char* flags = filled.fillFlags;
    for (unsigned int i = 0; i < n; ++i) {
        const unsigned int end = cp[i + 1] - 1;
        unsigned int a = permuted.colPointers[i];
        const unsigned int aEnd = permuted.colPointers[i + 1];
        for (unsigned int k = cp[i]; k < end; ++k) {
            while (a < aEnd && permuted.rowIndices[a] < rows[k]) ++a;
            flags[k] = (a < aEnd && permuted.rowIndices[a] == rows[k]) ? 0 : 1;  // fill unless in A
        }
        flags[end] = 0;
    }
}

FactorCost factorCost(const SkeletonMatrix& filled, const unsigned int* sizes) {
    CostWork w;
    return filledCost(filled, sizes, w);
}

// ---------------------------------------------------------------------------------------------------------
// Merging.
// ---------------------------------------------------------------------------------------------------------

// Groups of consecutive positions (Options::mergeBlocks); without merging every position is its own group.
// sizes: [n] block size of each position. Reads parent and the filled pattern; returns the explicit zeros of
// L the merging adds.
//
// The factorization time is modelled as (block operations)·w + flops, w = Options::mergeOperationFlops,
// with block operations = Σ over block columns of c·(c + 1)/2 (c its off-diagonal blocks: one solve per
// block and one product per pair) and flops = Σ over scalar columns of c·(c + 2) (c its scalars below the
// diagonal). The positions are scanned in order and block k joins the open group H (positions start .. k-1,
// S scalars) when the join lowers the modelled time, counted on the groups closed so far and, for the
// blocks after k, on the groups of the previous pass (the first pass counts the blocks themselves and
// lowers a group's count as tiles unite; blocks counted unmerged overrate every join, so that pass merges
// too much, the second too little, and the third, kept, lies between):
//  - H's columns: S + s columns above the R_k scalar rows below block k replace S columns above R_{k-1}
//    and s columns above R_k (R_x = scalar rows below x in L; the structure of a column minus its parent
//    lies in the parent's, so the structure below a chain is that of its last block), and block column k
//    disappears: c_{k-1}·(c_{k-1} + 1)/2 operations fewer;
//  - an earlier group G whose columns reach both H and k: its tiles (H, G) and (k, G) become one, so its
//    column loses a block (c_G operations fewer) and no scalar;
//  - an earlier group G that reaches k only gets S more rows, one that reaches H only s more: each of its
//    S_G columns, c scalars below the diagonal, costs (c + d)·(c + d + 2) − c·(c + 2) = d·(2c + d + 2)
//    more flops for d rows more.
// Per group G the rows below it are kept as base[G] + (the size of the group its columns reached last),
// base[G] = R of its last block − the rows of reached blocks + the sizes of the closed groups reached, so
// the groups reaching H but not k are counted through sums over all groups reaching H.
//
// Scalars of L a group H adds beyond the separate blocks:
//  - in its own columns: S·(S + 1)/2 + S·R_k against Σ s_x·(s_x + 1)/2 + s_x·R_x over its blocks;
//  - in its rows: every earlier group G whose columns reach a member gets the full tile (H, G), S_G·S
//    scalars, against S_G·(the rows of the members it reaches).
// Counted group by group, these add up to the difference of the merged and the unmerged factor's scalars.
double findGroups(const SkeletonMatrix& filled, const unsigned int* parent, const unsigned int* sizes,
                  bool merge, unsigned int maxMergedSize, double operationFlops, Groups& groups,
                  MergeWork& work, const ColumnCounts* counts) {
    const unsigned int n = static_cast<unsigned int>(filled.n);
    kiv::VectorPOD<unsigned int>& groupOf = groups.groupOf;
    kiv::VectorPOD<unsigned int>& offsetInGroup = groups.offsetInGroup;
    kiv::VectorPOD<unsigned int>& groupStart = groups.groupStart;
    kiv::VectorPOD<double>& below = work.below;
    groupOf.resize(n);
    offsetInGroup.resize(n);
    groupStart.clear();
    if (!merge) {
        for (unsigned int k = 0; k < n; ++k) {
            groupOf[k] = k;
            offsetInGroup[k] = 0;
            groupStart.push_back(k);
        }
        groupStart.push_back(n);
        return 0.0;
    }
    below.resize(4ul * n);
    double* R = below.data();  // scalar rows below each position
    double* C = R + n;         // blocks below each position (in groups of the previous pass, if any)
    double* Cg = C + n;        // by group: blocks below it
    double* base = Cg + n;     // by group: rows below it without the group it reached last
    if (counts) {
        for (unsigned int k = 0; k < n; ++k) {
            R[k] = static_cast<double>(counts->rows[k]);
            C[k] = counts->blocks[k];
        }
    } else {
        for (unsigned long k = 0; k < 2ul * n; ++k) R[k] = 0.0;
        for (unsigned int i = 0; i < n; ++i) {
            for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
                R[filled.rowIndices[e]] += sizes[i];  // L(i, j): s_i rows below block j
                C[filled.rowIndices[e]] += 1.0;
            }
        }
    }
    grow(work.groupSize, n);
    grow(work.touched, n);
    unsigned int* groupSize = work.groupSize.data();  // S_G of the closed groups
    unsigned int* touched = work.touched.data();      // the last group that reached G's columns, by G
    const double w = operationFlops;
    // Σ_{m < M} m·(m + 2): the flops of M dense columns above no further rows.
    auto Q = [](double M) { return (M - 1.0) * M * (2.0 * M - 1.0) / 6.0 + (M - 1.0) * M; };
    auto columnFlops = [&](double cols, double rows) { return Q(rows + cols) - Q(rows); };

    // The open group H = positions start .. k-1 (group g): S, the scalars of its columns unmerged, T = Σ S_G
    // over the earlier groups that reach it, Σ S_G·(its rows they reach), and P = Σ over those groups of
    // S_G·(S_G − 1)/2 + S_G·base[G] (their columns hold P + S·T scalars below the diagonal).
    double S = 0.0, ownCols = 0.0, T = 0.0, rowsReached = 0.0, P = 0.0, zeros = 0.0, totalZeros = 0.0;
    unsigned int g = 0, start = 0;
    bool firstPass = true;
    // Over the closed groups in row k (before `limit`): the rows below each as they are now, its tiles
    // reached by H and k (set B) or by k only (set F).
    struct RowSums {
        double all = 0.0, fresh = 0.0;          // Σ S_G over B ∪ F and over F
        double scalarsB = 0.0, scalarsF = 0.0;  // Σ over B and F of the scalars below G's columns
        double blocksB = 0.0;                   // Σ over B of the blocks below G
    };
    // The closed groups of row k before `limit`, in order, listed once per row and limit: markRow walks the
    // list scanRow made for the same row and limit instead of the row again.
    grow(work.rowGroups, n);
    unsigned int* rowGroups = work.rowGroups.data();
    unsigned int listedRow = kNone, listedLimit = kNone, listed = 0;
    auto listRow = [&](unsigned int k, unsigned int limit) {
        if (listedRow == k && listedLimit == limit) return;
        listedRow = k;
        listedLimit = limit;
        listed = 0;
        unsigned int last = kNone;
        for (unsigned int e = filled.colPointers[k]; e + 1 < filled.colPointers[k + 1]; ++e) {
            const unsigned int x = filled.rowIndices[e];
            if (x >= limit) break;
            const unsigned int G = groupOf[x];
            if (G == last) continue;  // a group's columns are consecutive in the ascending row
            last = G;
            rowGroups[listed++] = G;
        }
    };
    auto scanRow = [&](unsigned int k, unsigned int limit, RowSums& r) {
        r = RowSums();
        listRow(k, limit);
        for (unsigned int q = 0; q < listed; ++q) {
            const unsigned int G = rowGroups[q];
            const double SG = groupSize[G];
            r.all += SG;
            if (touched[G] == g) {
                r.scalarsB += SG * (SG - 1.0) / 2.0 + SG * (base[G] + S);
                r.blocksB += Cg[G];
            } else {
                const double rows = base[G] + (touched[G] == kNone ? 0.0 : groupSize[touched[G]]);
                r.fresh += SG;
                r.scalarsF += SG * (SG - 1.0) / 2.0 + SG * rows;
            }
        }
    };
    // Block k becomes a member of group g: the closed groups in row k reach it.
    auto markRow = [&](unsigned int k, unsigned int limit, double s) {
        listRow(k, limit);
        for (unsigned int q = 0; q < listed; ++q) {
            const unsigned int G = rowGroups[q];
            const double SG = groupSize[G];
            if (touched[G] == g) {
                if (firstPass) Cg[G] -= 1.0;
                base[G] -= s;
                P -= SG * s;
            } else {
                if (touched[G] != kNone) base[G] += groupSize[touched[G]];
                touched[G] = g;
                base[G] -= s;
                P += SG * (SG - 1.0) / 2.0 + SG * base[G];
            }
        }
    };
    for (int pass = 0; pass < 3; ++pass) {
        if (pass > 0) {
            // A pass whose input the previous one had, and that behaves like it, repeats it: after a first
            // pass that formed no group (no tile united, so the first pass's own counting never applied), or
            // after two passes with the same groups, the later passes change nothing.
            groupStart.push_back(n);
            const bool same =
                pass == 1 ? groupStart.size() == n + 1ul
                          : groupStart.size() == work.previousStart.size() &&
                                std::equal(groupStart.begin(), groupStart.end(), work.previousStart.begin());
            if (same) return totalZeros + zeros;
            work.previousStart.resize(groupStart.size());
            std::copy(groupStart.begin(), groupStart.end(), work.previousStart.begin());
            groupStart.pop_back();
        }
        firstPass = pass == 0;
        listedRow = kNone;
        if (!firstPass) {
            // Blocks below each position counted in the groups of the previous pass.
            for (unsigned int k = 0; k < n; ++k) {
                C[k] = 0.0;
                touched[k] = kNone;
            }
            for (unsigned int i = 0; i < n; ++i) {
                for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
                    const unsigned int j = filled.rowIndices[e];
                    if (touched[j] != groupOf[i] && groupOf[j] != groupOf[i]) {
                        touched[j] = groupOf[i];
                        C[j] += 1.0;
                    }
                }
            }
        }
        for (unsigned int G = 0; G < n; ++G) touched[G] = kNone;
        groupStart.clear();
        S = ownCols = T = rowsReached = P = zeros = totalZeros = 0.0;
        g = start = 0;
        for (unsigned int k = 0; k < n; ++k) {
            const double s = sizes[k];
            const double own = s * (s + 1.0) / 2.0 + s * R[k];
            RowSums r;
            bool join = k > 0 && parent[k - 1] == k && S + s <= static_cast<double>(maxMergedSize);
            if (join) {
                scanRow(k, start, r);
                const double S2 = S + s, T2 = T + r.fresh, reached2 = rowsReached + s * r.all;
                const double cols = S2 * (S2 + 1.0) / 2.0 + S2 * R[k];
                const double cH = std::max(C[k - 1], 1.0);
                const double opsSaved = cH * (cH + 1.0) / 2.0 + r.blocksB;
                const double onlyH = T - (r.all - r.fresh), scalarsOnlyH = P + S * T - r.scalarsB;
                const double flopsAdded = columnFlops(S2, R[k]) - columnFlops(S, R[k - 1]) -
                                          columnFlops(s, R[k]) +
                                          S * (2.0 * r.scalarsF + r.fresh * (S + 2.0)) +
                                          s * (2.0 * scalarsOnlyH + onlyH * (s + 2.0));
                join = flopsAdded <= w * opsSaved;
                if (join) {
                    S = S2;
                    ownCols += own;
                    T = T2;
                    rowsReached = reached2;
                    zeros = (cols - ownCols) + (S2 * T2 - reached2);
                }
            }
            if (!join) {
                if (k > 0) {
                    groupSize[g] = static_cast<unsigned int>(S);
                    base[g] = R[k - 1];
                    Cg[g] = C[k - 1];
                    totalZeros += zeros;
                    ++g;
                }
                groupStart.push_back(k);
                start = k;
                scanRow(k, k, r);
                S = s;
                ownCols = own;
                T = r.all;
                rowsReached = s * r.all;
                P = 0.0;
                zeros = 0.0;
            }
            markRow(k, start, s);
            groupOf[k] = g;
            offsetInGroup[k] = static_cast<unsigned int>(S - s);
        }
    }
    totalZeros += zeros;
    groupStart.push_back(n);
    return totalZeros;
}

// The cost of the factor on the groups (groupOf, groupStart) of the filled pattern, sizes [n] by position.
// Block column G of the merged factor holds group H > G exactly when some block of H has an entry of L in a
// column of G: eliminating the blocks of a group one after the other, each column's structure below the
// group lies in the structure of the next (the group is a path of the elimination tree), so the merged
// elimination makes no fill beyond the groups the blocks' factor already reaches. Every such tile is dense.
FactorCost groupCost(const SkeletonMatrix& filled, const Groups& groups, const unsigned int* sizes,
                     CostWork& w) {
    const unsigned int n = static_cast<unsigned int>(filled.n);
    const kiv::VectorPOD<unsigned int>& groupOf = groups.groupOf;
    const kiv::VectorPOD<unsigned int>& groupStart = groups.groupStart;
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    grow(w.stamp, ng);
    grow(w.count, ng);
    grow(w.below, ng);
    grow(w.parent, ng);  // the group sizes
    unsigned int* groupSize = w.parent.data();
    for (unsigned int G = 0; G < ng; ++G) {
        w.stamp[G] = kNone;
        w.count[G] = 0;
        w.below[G] = 0;
        groupSize[G] = 0;
    }
    for (unsigned int k = 0; k < n; ++k) groupSize[groupOf[k]] += sizes[k];
    for (unsigned int H = 0; H < ng; ++H) {
        for (unsigned int i = groupStart[H]; i < groupStart[H + 1]; ++i) {
            for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
                const unsigned int G = groupOf[filled.rowIndices[e]];
                if (G == H || w.stamp[G] == H) continue;
                w.stamp[G] = H;  // tile (H, G)
                ++w.count[G];
                w.below[G] += groupSize[H];
            }
        }
    }
    return costFromColumns(ng, groupSize, w.below.data(), w.count.data());
}

void mergedPattern(const SkeletonMatrix& permuted, const Groups& groups, SkeletonMatrix& mergedPermuted,
                   kiv::VectorPOD<unsigned int>& mergedEntry, kiv::VectorPOD<unsigned int>& work4,
                   kiv::VectorPOD<unsigned int>& work5) {
    const kiv::VectorPOD<unsigned int>& groupOf = groups.groupOf;
    const kiv::VectorPOD<unsigned int>& groupStart = groups.groupStart;
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    const unsigned long entries = permuted.numEntries();
    mergedPermuted.resize(ng, entries, false);
    grow(mergedEntry, entries);
    grow(work4, ng);
    grow(work5, ng);
    unsigned int* stamp = work4.data();
    unsigned int* slot = work5.data();
    for (unsigned int h = 0; h < ng; ++h) stamp[h] = kNone;
    unsigned int* mcp = mergedPermuted.colPointers;
    unsigned int* mrows = mergedPermuted.rowIndices;
    mcp[0] = 0;
    unsigned int at = 0;
    for (unsigned int G = 0; G < ng; ++G) {
        const unsigned int begin = at;
        for (unsigned int c = groupStart[G]; c < groupStart[G + 1]; ++c) {
            for (unsigned int k = permuted.colPointers[c]; k < permuted.colPointers[c + 1]; ++k) {
                const unsigned int h = groupOf[permuted.rowIndices[k]];
                if (stamp[h] != G) {
                    stamp[h] = G;
                    mrows[at++] = h;
                }
            }
        }
        std::sort(mrows + begin, mrows + at);  // G itself, the largest, comes last
        for (unsigned int q = begin; q < at; ++q) slot[mrows[q]] = q;
        for (unsigned int c = groupStart[G]; c < groupStart[G + 1]; ++c) {
            for (unsigned int k = permuted.colPointers[c]; k < permuted.colPointers[c + 1]; ++k)
                mergedEntry[k] = slot[groupOf[permuted.rowIndices[k]]];
        }
        mcp[G + 1] = at;
    }
    if (at > 0) std::memset(mergedPermuted.fillFlags, 0, at);
}

// ---------------------------------------------------------------------------------------------------------
// Column counts and grouping without the filled pattern.
// ---------------------------------------------------------------------------------------------------------

FactorCost countedCost(const SkeletonMatrix& S, const unsigned int* parent, const unsigned int* postOrder,
                       const unsigned int* sizes, ColumnCounts& counts, CountWork& w) {
    const unsigned int n = static_cast<unsigned int>(S.n);
    grow(w.post, n);
    grow(w.first, n);
    grow(w.maxFirst, n);
    grow(w.prevLeaf, n);
    grow(w.ancestor, n);
    grow(w.colPtr, n + 1);
    grow(w.cursor, n);
    grow(w.deltaRows, n);
    grow(w.deltaBlocks, n);
    grow(counts.rows, n);
    grow(counts.blocks, n);
    unsigned int* post = w.post.data();
    unsigned int* first = w.first.data();
    unsigned int* maxFirst = w.maxFirst.data();  // 1 + the largest first[j] of a leaf seen in row i, 0: none
    unsigned int* prevLeaf = w.prevLeaf.data();
    unsigned int* ancestor = w.ancestor.data();
    long* dr = w.deltaRows.data();
    long* db = w.deltaBlocks.data();

    // The strictly lower part by columns: colRows[colPtr[j] ..] = the rows i > j with A(i, j) in the pattern.
    unsigned int* colPtr = w.colPtr.data();
    for (unsigned int j = 0; j <= n; ++j) colPtr[j] = 0;
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e];
            if (j >= i) break;
            ++colPtr[j + 1];
        }
    }
    for (unsigned int j = 0; j < n; ++j) {
        colPtr[j + 1] += colPtr[j];
        w.cursor[j] = colPtr[j];
    }
    grow(w.colRows, colPtr[n] + 1);
    unsigned int* colRows = w.colRows.data();
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e];
            if (j >= i) break;
            colRows[w.cursor[j]++] = i;
        }
    }

    // Post order as a list; first[j] = the first post-order number in j's subtree; a leaf of the tree holds
    // its own diagonal (δ = its size, one block).
    for (unsigned int j = 0; j < n; ++j) {
        post[postOrder[j]] = j;
        first[j] = kNone;
        maxFirst[j] = 0;
        prevLeaf[j] = kNone;
        ancestor[j] = j;
    }
    for (unsigned int k = 0; k < n; ++k) {
        unsigned int j = post[k];
        const bool leaf = first[j] == kNone;
        dr[j] = leaf ? static_cast<long>(sizes[j]) : 0;
        db[j] = leaf ? 1 : 0;
        for (;;) {
            if (first[j] != kNone) break;
            first[j] = k;
            if (parent[j] == j) break;
            j = parent[j];
        }
    }
    // Each row i adds its weight at the leaves of its row subtree and takes it back at the least common
    // ancestor of consecutive leaves and at its parent (Gilbert, Ng and Peyton; the least common ancestors by
    // a disjoint-set forest with path compression).
    for (unsigned int k = 0; k < n; ++k) {
        const unsigned int j = post[k];
        const bool root = parent[j] == j;
        if (!root) {
            dr[parent[j]] -= sizes[j];
            db[parent[j]] -= 1;
        }
        for (unsigned int q = colPtr[j]; q < colPtr[j + 1]; ++q) {
            const unsigned int i = colRows[q];
            if (first[j] + 1 <= maxFirst[i]) continue;  // j is not a leaf of row i's subtree
            maxFirst[i] = first[j] + 1;
            const unsigned int jPrev = prevLeaf[i];
            prevLeaf[i] = j;
            dr[j] += sizes[i];
            db[j] += 1;
            if (jPrev == kNone) continue;
            unsigned int a = jPrev;  // lca(jPrev, j): the root of jPrev's set
            while (ancestor[a] != a) a = ancestor[a];
            for (unsigned int x = jPrev; x != a;) {
                const unsigned int next = ancestor[x];
                ancestor[x] = a;
                x = next;
            }
            dr[a] -= sizes[i];
            db[a] -= 1;
        }
        if (!root) ancestor[j] = parent[j];
    }
    // Sums over the subtrees (parent[j] > j), then the diagonal block taken off.
    for (unsigned int j = 0; j < n; ++j) {
        if (parent[j] != j) {
            dr[parent[j]] += dr[j];
            db[parent[j]] += db[j];
        }
    }
    for (unsigned int j = 0; j < n; ++j) {
        counts.rows[j] = static_cast<unsigned long>(dr[j]) - sizes[j];
        counts.blocks[j] = static_cast<unsigned int>(db[j] - 1);
    }
    return costFromColumns(n, sizes, counts.rows.data(), counts.blocks.data());
}

}  // namespace Analysis
}  // namespace kivTamber
