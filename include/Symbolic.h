// Symbolic factorization of block patterns: the filled pattern of L, factor costs and the time model, and
// block merging (supernodal amalgamation) with the cost of the merged factor. The analysis (Analysis.h)
// calls these on checked input; like the orderings they trust their input.
#ifndef KIVTAMBER_SYMBOLIC_H
#define KIVTAMBER_SYMBOLIC_H

#include <kiv/VectorPOD.h>

#include "EliminationTree.h"
#include "Reordering.h"
#include "SkeletonMatrix.h"
#include "TamberUtils.h"

namespace kivTamber {
namespace Analysis {

// The factorization-time model: time ≈ (kBlockFlops·blocks + kBlockOperationFlops·blockOperations + flops)
// × the time of a flop, for the serial factorization (Tamber::factorSerial) in double. Fitted by least
// squares on relative errors to 99 factors (chain, ragdolls, cloth and box wall at 10,000 and 50,000 blocks,
// cloth 32×32, 72×72 and 128×128; each in the minimum-degree, the standard and the symamd order, unmerged
// and merged to 16 and 48 rows: `AnalysisBench --fit`) on a shared 2-core x86-64 server: 0.20 ns per flop,
// 8.1 ns per block operation, 118 ns per block column (mean error 18 %, worst 68 % on a noisy machine).
// The weights are those times in flops; only their ratios to a flop matter to the decisions taken on it.
constexpr double kBlockOperationFlops = 40.0;
constexpr double kBlockFlops = 580.0;

// Size of the factor of an order, counted by block-level symbolic factorization with dense blocks. With
// c_k = the number of scalar entries of L strictly below the diagonal in scalar column k and c_j = the number
// of blocks of L strictly below the diagonal in block column j:
// scalarEntries = Σ (c_k + 1) (the unit diagonal included), flops = Σ c_k·(c_k + 2) (one division per
// entry and a multiply-add per entry pair of the symmetric update) and blockOperations = Σ c_j·(c_j + 1)/2
// (a triangular solve per block and a product per pair of blocks of a block column).
struct FactorCost {
    unsigned long blocks = 0;         // block columns of L (the groups, for a merged factor)
    unsigned long blockEntries = 0;   // blocks of L, diagonal blocks included
    unsigned long scalarEntries = 0;  // nnz(L), diagonal included
    double flops = 0.0;
    double blockOperations = 0.0;

    // The modelled factorization time in flops: kBlockFlops·blocks + w·blockOperations + flops (w
    // defaults to kBlockOperationFlops).
    double modelFlops(double w = kBlockOperationFlops) const {
        return kBlockFlops * static_cast<double>(blocks) + w * blockOperations + flops;
    }
};

// ---------------------------------------------------------------------------------------------------------
// Symbolic factorization.
// ---------------------------------------------------------------------------------------------------------

// Block pattern of L for A = L·D·Lᵀ: row i of L holds column j < i exactly when j lies in the row subtree of
// i, the part of the elimination tree spanned by the paths from the columns j < i of row i of A up to i
// (Liu's row-subtree characterisation). Every such entry that is not in A is a fill-in.
//
// permuted: in; the pattern of A in the factor's order, per block row i the ascending columns j <= i with
// the diagonal last (the list form of SkeletonMatrix). Entries j >= i of a row are ignored, so a missing or
// duplicated diagonal is harmless; its fillFlags are not read.
// etree: in; the elimination tree of that pattern (parent[j] > j for every non-root j, roots their own
// parent). Only `parent` and `numNodes` are read. Walks stop at a root, and nodes at or above i are never
// added to row i, so an inconsistent tree yields a wrong pattern but no out-of-range access.
// filled: out, must not be `permuted`; receives the pattern of L in the same form: per block row i the
// ascending columns of its row subtree, then i itself, with fillFlags[k] = 1 on the fill-in entries and 0
// on the entries of A. blockWords are copied when `permuted` has them and released otherwise. The arrays are
// reused when large enough (SkeletonMatrix::resize).
// scratchPad: optional work arrays (its int slots ScratchSlots::symbolicWork and symbolicColumns, 4n + 1
// elements and |L| − n + 1 elements);
// without it the work arrays are allocated and released inside the call.
//
// Returns false, with `filled` unchanged, when the tree has fewer nodes than the pattern has blocks.
// Cost: O(|L| + |A|): two walks of the row subtrees (sizes, then the columns of L, which come out ascending)
// and one transpose of the columns into rows, so no row is sorted.
// withFillFlags false: the fillFlags of `filled` are left unwritten (for a caller that needs the pattern
// only; saves a merge of every row of L with its row of A).
bool computeFilledSkeleton(const SkeletonMatrix& permuted, const EliminationTree& etree,
                           SkeletonMatrix& filled, ScratchPad* scratchPad = nullptr,
                           bool withFillFlags = true);

// The fillFlags of a filled pattern `filled` of `permuted` (both list form, same order): 1 on the entries
// that are not in `permuted`, 0 on the others and on the diagonal. O(|L| + |A|).
void markFillIns(const SkeletonMatrix& permuted, SkeletonMatrix& filled);

// The factor cost read from a filled pattern (list form, in elimination order) with sizes[k] the size of
// block k in that order. Equals predictCost of the order that produced it.
FactorCost factorCost(const SkeletonMatrix& filled, const unsigned int* sizes);

// ---------------------------------------------------------------------------------------------------------
// Counts and merging on the analyzer's work arrays.
// ---------------------------------------------------------------------------------------------------------

struct CostWork {
    kiv::VectorPOD<unsigned int> parent, ancestor, stamp, count;
    kiv::VectorPOD<unsigned long> below;
};

// factorCost with the work arrays of w (no allocation once they are large enough).
FactorCost filledCost(const SkeletonMatrix& filled, const unsigned int* sizes, CostWork& w);

// The factor cost of an order read straight off the block graph: elimination tree (Liu, with path compression
// through an ancestor array) and row-subtree counts. forward/inverse [n]: the order; sizes [n] in the graph's
// numbering. sizeOfPosition: out, [n] the size of the block at each position. Cost O(|L| + |A|).
FactorCost orderCost(const Reordering::BlockGraph& g, const unsigned int* forward,
                     const unsigned int* inverse, const unsigned int* sizes, CostWork& w,
                     kiv::VectorPOD<unsigned int>& sizeOfPosition);

// Column counts of L: rows [n] the scalar rows strictly below each diagonal block, blocks [n] the blocks.
struct ColumnCounts {
    kiv::VectorPOD<unsigned long> rows;
    kiv::VectorPOD<unsigned int> blocks;
};

// Groups of consecutive positions of an order: groupOf [n] the group of each position, offsetInGroup [n] its
// first scalar inside the group, groupStart [groups + 1] the first position of each group.
struct Groups {
    kiv::VectorPOD<unsigned int> groupOf, offsetInGroup, groupStart;
};

struct MergeWork {
    kiv::VectorPOD<double> below;
    kiv::VectorPOD<unsigned int> groupSize, touched, rowGroups, previousStart;
};

// The groups of block merging (Options::mergeBlocks in Analysis.h states the criterion), or one group per
// position when merge is false. filled: the filled pattern in list form; parent [n]: its elimination tree;
// sizes [n]: block size of each position. Returns the explicit zeros of L the merging adds. Cost O(|L|) per
// pass, three passes.
// counts: the column counts of the filled pattern (countedCost), or null to read them off it.
double findGroups(const SkeletonMatrix& filled, const unsigned int* parent, const unsigned int* sizes,
                  bool merge, unsigned int maxMergedSize, double operationFlops, Groups& groups,
                  MergeWork& work, const ColumnCounts* counts = nullptr);

// The cost of the factor on the groups, every tile dense. Block column G of the merged factor holds group
// H > G exactly when some block of H has an entry of L in a column of G. Cost O(|L|).
FactorCost groupCost(const SkeletonMatrix& filled, const Groups& groups, const unsigned int* sizes,
                     CostWork& w);

// The pattern of A on the groups: mergedPermuted (list form, fillFlags 0) from the pattern `permuted` of the
// blocks, and mergedEntry [entries of permuted] = the entry of mergedPermuted that holds each entry.
// work4, work5: workspace of groups entries each.
void mergedPattern(const SkeletonMatrix& permuted, const Groups& groups, SkeletonMatrix& mergedPermuted,
                   kiv::VectorPOD<unsigned int>& mergedEntry, kiv::VectorPOD<unsigned int>& work4,
                   kiv::VectorPOD<unsigned int>& work5);

struct CountWork {
    kiv::VectorPOD<unsigned int> post, first, maxFirst, prevLeaf, ancestor, colPtr, cursor, colRows;
    kiv::VectorPOD<long> deltaRows, deltaBlocks;
};

// The column counts of L for the pattern S (list form) and its elimination tree (parent [n], roots their own
// parent, parent[j] > j otherwise; postOrder [n]: the post-order number of each node), weighted by the block
// sizes [n], without forming L: Gilbert, Ng and Peyton's algorithm ("An efficient algorithm to compute row
// and column counts for sparse Cholesky factorization", 1994) on the row subtrees' leaves and least common
// ancestors. Returns the cost of the factor. Cost O(|A|·α(n)).
FactorCost countedCost(const SkeletonMatrix& S, const unsigned int* parent, const unsigned int* postOrder,
                       const unsigned int* sizes, ColumnCounts& counts, CountWork& w);

}  // namespace Analysis
}  // namespace kivTamber

#endif  // KIVTAMBER_SYMBOLIC_H
