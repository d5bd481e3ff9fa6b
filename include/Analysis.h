// Symbolic analysis of a block pattern: from the permuted pattern of A and its elimination tree to the
// block pattern of the factor L.
#ifndef KIVTAMBER_ANALYSIS_H
#define KIVTAMBER_ANALYSIS_H

#include "EliminationTree.h"
#include "SkeletonMatrix.h"
#include "TamberUtils.h"

namespace kivTamber {
namespace Analysis {

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
// scratchPad: optional work arrays (its int slot 0, 2n + 1 elements); without it the work arrays are
// allocated and released inside the call.
//
// Returns false, with `filled` unchanged, when the tree has fewer nodes than the pattern has blocks.
// Cost: O(|L| + |A|) for the walks plus a sort of each row of L, O(|L| log) at worst.
bool computeFilledSkeleton(const SkeletonMatrix& permuted, const EliminationTree& etree,
                           SkeletonMatrix& filled, ScratchPad* scratchPad = nullptr);

}  // namespace Analysis
}  // namespace kivTamber

#endif  // KIVTAMBER_ANALYSIS_H
