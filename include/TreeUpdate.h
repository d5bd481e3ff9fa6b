// Construction, node-by-node editing and checking of an elimination tree.
#pragma once

#include "EliminationTree.h"
#include "SkeletonMatrix.h"
#include "SparseTypes.h"
#include "TamberUtils.h"

namespace kivTamber {

// Free functions on an EliminationTree passed by pointer. Node indices are trusted: nothing is range-checked.
// The edits (insertChild, removeChild, updateParent, moveChildren) touch parent, firstChild and sibling only;
// postOrder, roots, colParent and rank are left for the caller to recompute.
namespace TreeUpdate {

// Makes `child` the new head of parent's child list: sibling[child] = firstChild[parent],
// firstChild[parent] = child, parent[child] = parent. Does not unlink child from an earlier parent.
void insertChild(EliminationTree* tree, unsigned int child, unsigned int parent);

// Unlinks `child` from parent's child list and makes it a root with no sibling. Nothing when
// child == parent. Precondition: child is in the list (the walk has no end-of-list guard).
void removeChild(EliminationTree* tree, unsigned int child, unsigned int parent);

// Moves `node` from oldParent to newParent: nothing when they are equal; otherwise removeChild, then
// insertChild at the head of newParent's list unless newParent == node (node stays a root).
void updateParent(EliminationTree* tree, unsigned int node, unsigned int oldParent, unsigned int newParent);

// Appends from's whole child list, in its order, at the tail of to's list and re-parents the moved children
// to `to`; from's list becomes empty. When from == to the children all become roots (their sibling links are
// left as they were) and the list is emptied.
void moveChildren(EliminationTree* tree, unsigned int from, unsigned int to);

// Parent of block column j implied by the numeric factor L: the block row c of the first tile L(c, j) listed
// after the first entry of j in `layout` (which is the diagonal and is never examined) that holds a value not
// exactly zero (NaN counts as non-zero); j itself when there is none. The tile has blockSizes[c] columns of
// blockSizes[j] values, column k starting at k·blockStrides[j]; only those values are read.
unsigned int findFirstBlock(const SparseMatrix<double>& L, const MetaLayout& layout, unsigned int j);

// parent[j] = findFirstBlock(L, layout, j) for j < L.numBlockCols. Nothing else is written (no clear, no
// child lists).
void computeTree(EliminationTree* tree, const SparseMatrix<double>& L, const MetaLayout& layout);

// Elimination tree of the block pattern S (lists of blocks i <= j, ascending; only the part i <= j is read,
// each list up to its first i > j): parent[root(i)] = j for every active i < j stored in an active column j,
// with roots found in the disjoint-set forest colParent/rank (Liu's algorithm, path compression).
// active: in, S.n entries, 0 for a node that is left out (it stays an isolated root). Calls the virtual
// clear first and writes parent, colParent and rank only. Precondition: tree capacity >= S.n. Near-linear.
void computeTree(EliminationTree* tree, const SkeletonMatrix& S, const unsigned int* active);

// Checks parent[j] == findFirstBlock(L, layout, j) for every node j < numNodes and parent[c] == p for every
// child c in every list p. A wrong parent prints "[Validate] Incorrect parent for <j>. Parent is <p> but
// should be <f>" and "           <p> has <parent[p]> as parent."; a broken child list prints the tree once.
// Returns true when everything matches.
bool validate(EliminationTree* tree, const SparseMatrix<double>& L, const MetaLayout& layout);

}  // namespace TreeUpdate

}  // namespace kivTamber
