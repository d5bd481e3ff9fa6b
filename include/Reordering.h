// Fill-reducing block orderings and the zero-leaf swap that repairs an ordering around zero-diagonal blocks.
//
// All routines work on blocks (one graph node per block row and column), never on scalar rows. A block
// pattern is read in the list form of SkeletonMatrix: for each block j the blocks i <= j that couple to j,
// ascending, the last entry j itself; the entries before the last are taken as j's smaller neighbours. None
// of these routines checks its input: the user-facing analysis (Analysis.h) is where bad input is caught.
#ifndef KIVTAMBER_REORDERING_H
#define KIVTAMBER_REORDERING_H

#include <kiv/VectorPOD.h>

#include <algorithm>
#include <cstddef>

#include "EliminationTree.h"
#include "Permutation.h"
#include "SkeletonMatrix.h"
#include "TamberUtils.h"

namespace kivTamber {
namespace Reordering {

// Symmetric approximate minimum degree ordering of the block graph of S (COLAMD's symamd, Davis, Gilbert,
// Larimore and Ng).
//
// S: in, the pattern in list form; its strictly lower part (column i lists every j > i coupled to i) is
// handed to symamd, through int scratch-pad slots 0 (n + 1 entries) and 1 (colPointers[n] entries; more
// than the strictly lower part needs, on purpose).
// P: out. Sized with reserve(n + 8, 1) (arrays of n + 9 entries, room for the n + 1 entries symamd writes),
// then size = n. Its forward array serves as the count array while the input is built. On success
// forward[k] is the block placed k-th; the inverse array is NOT computed (whoever needs it derives it).
// pad: workspace (int slots 0 and 1).
// Returns true when symamd succeeded. Otherwise writes "symamd/colamd failed" and a newline to standard
// error, sets forward and inverse to the identity over P's whole capacity (not only n) and returns false;
// the caller may go on with that order. Allocates nothing of its own apart from the permutation's growth;
// symamd takes its work memory through calloc/free.
bool computeSymamdPermutation(const SkeletonMatrix& S, Permutation& P, ScratchPad& pad);

// Moves constraint blocks (index >= firstConstraint) that are placed before every block they couple to.
// Walks the positions k = 0 .. n-1 of P.forward (n = P.size) with x = forward[k] as it stands: a block
// already placed, a block below firstConstraint (signed 32-bit comparison) or a constraint with an already
// placed smaller neighbour is marked placed; otherwise x is swapped with its smaller neighbour of least input
// position m (the inverse of the input order, never updated during the walk; x's own input position when x
// has no smaller neighbour): forward[k] = forward[m], forward[m] = x, and x is marked. The block that moves
// into position k is not marked.
// S: in, list form. P: in/out; on return P.inverse is the inverse of the order it was given, not of the
// returned one (kept so on purpose: callers recompute it). Allocates one byte per block.
void modifyPermutation(const SkeletonMatrix& S, unsigned long firstConstraint, Permutation& P);

// Disabled orderings, kept in the interface: each writes "Not enabled" and a newline to standard error,
// flushes it and aborts the process. They never return.
[[noreturn]] void computeModifiedAmdPermutation(const SkeletonMatrix& S, Permutation& P);
[[noreturn]] void computeTamberPermutation(const SkeletonMatrix& S, Permutation& P);

// Repairs an ordering so that no constraint block is eliminated before anything has updated it: builds the
// permuted pattern T = P·S·Pᵀ and its elimination tree, then emits the blocks in the incoming order except
// that every constraint block that is a leaf of the tree (a zero leaf) is moved to directly after its parent
// when the parent is a body block. Constraint blocks with children stay where they are.
//
// S: in, the pattern in the user's numbering, list form. Its blockWords, when present, are permuted along.
// T: out, S permuted by the INCOMING order, in list form (one counting pass and one filling pass; entries
// that land in the column being filled are put in place by insertion), fillFlags[k] = 1 where the entry was
// swapped across the diagonal. Its arrays are kept when large enough (SkeletonMatrix::resize); it has
// blockWords exactly when S has them.
// tree: out, the elimination tree of T with child lists, roots and post order (numNodes = n); reallocated
// only when its capacity is below n.
// firstConstraint: the first constraint block in the user's numbering (signed 32-bit comparison).
// P: in/out. On entry only forward[0 .. n-1] is read (the inverse is recomputed). On success forward[i] is
// the user block placed i-th in the repaired order and the inverse array is a COPY of the forward array,
// not its inverse (the caller recomputes it).
// pad: workspace (int slot 0, n entries). Node states, post positions and the emission list are local.
// Returns true when every block was placed. Otherwise (a zero leaf under a constraint block, or a zero leaf
// that is a root) it returns false with P's forward and inverse set to the identity over its capacity; T and
// the tree then still describe the incoming order. No message is written.
bool zeroLeafSwap(const SkeletonMatrix& S, SkeletonMatrix& T, EliminationTree& tree,
                  unsigned long firstConstraint, Permutation& P, ScratchPad& pad);

// An order whose elimination tree is shallow, for systems whose bodies form a forest (chains, ragdolls, trees
// of jointed bodies), at the price of a little fill. Switching equations on and off in a factor costs work
// along the tree path from the equation to its root, which in the fill-free order of a chain is half the
// chain on average; here it is O(log n) blocks.
//
// The body graph joins two bodies when a constraint couples them. When it is a forest, each of its trees is
// ordered by centroid decomposition: a centroid (a body whose removal leaves parts of at most half the size)
// is placed after the orders of the parts it leaves, recursively. Every constraint follows directly after
// the last of its bodies in that order (constraints with the same last body in increasing index), so the
// order satisfies the safe-order rule S.
//
// Pattern in list form for n blocks, bodies 0 .. firstConstraint−1 and constraints firstConstraint .. n−1
// (colPointers: n + 1 entries; rowIndices: the lists; every constraint couples to at least one body).
// forward: out, n entries: forward[k] = the block placed k-th. Returns false, leaving forward unspecified,
// when the body graph is not a forest (a constraint coupling three or more bodies, or a cycle of bodies).
// Allocates its own work memory (O(n + entries)); O((n + entries)·log n) time.
bool centroidOrder(unsigned int n, unsigned int firstConstraint, const unsigned int* colPointers,
                   const unsigned int* rowIndices, unsigned int* forward);

// Memory functions handed to symamd: calloc-like (count, element size) and free-like. By default the C
// library's calloc and free. This is a test seam: a test installs an allocator that fails in order to reach
// the failure path of computeSymamdPermutation through symamd's own result. Passing null for either
// restores both defaults. Process-wide and not synchronised: set it only while no ordering runs.
using AllocateFunction = void* (*)(std::size_t count, std::size_t size);
using ReleaseFunction = void (*)(void* pointer);
void setSymamdMemoryFunctions(AllocateFunction allocate, ReleaseFunction release);

// ---------------------------------------------------------------------------------------------------------
// Orderings that keep the safe-order rule of a block saddle-point problem (stated in Analysis.h): blocks
// 0 .. firstConstraint-1 are bodies, the others constraints. Used by Analysis::Analyzer, which checks the
// problem first; like everything here they trust their input.
// ---------------------------------------------------------------------------------------------------------

constexpr unsigned int kNoBlock = 0xFFFFFFFFu;

// The block graph: full symmetric adjacency of the pattern without the diagonal, every list ascending (so a
// block's bodies come before its constraints).
struct BlockGraph {
    unsigned int n = 0;
    unsigned int firstConstraint = 0;
    kiv::VectorPOD<unsigned int> ptr;  // [n + 1]
    kiv::VectorPOD<unsigned int> adj;  // [2 · off-diagonal entries]

    const unsigned int* begin(unsigned int v) const { return adj.data() + ptr[v]; }
    const unsigned int* end(unsigned int v) const { return adj.data() + ptr[v + 1]; }
    bool isBody(unsigned int v) const { return v < firstConstraint; }
    bool adjacent(unsigned int u, unsigned int v) const { return std::binary_search(begin(u), end(u), v); }
};

// The graph of a pattern in list form (colPointers [n + 1], rowIndices [colPointers[n]], well formed).
// fill: workspace, grown to n entries.
void buildBlockGraph(unsigned int n, unsigned int firstConstraint, const unsigned int* colPointers,
                     const unsigned int* rowIndices, BlockGraph& g, kiv::VectorPOD<unsigned int>& fill);

// The rule on an order (forward [n]: the block placed k-th; inverse [n]: the position of each block):
// lastBody = the body of constraint c placed last; lastOtherConstraint = the constraint of body b other than
// c placed last (kNoBlock when none); satisfiesRule = the constraint at position k satisfies S or R (R only
// with allowR); firstRuleOffence = the first position that breaks the rule, or n.
unsigned int lastBody(const BlockGraph& g, unsigned int c, const unsigned int* inverse);
unsigned int lastOtherConstraint(const BlockGraph& g, unsigned int b, unsigned int c,
                                 const unsigned int* inverse);
bool satisfiesRule(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                   unsigned int k, bool allowR);
unsigned int firstRuleOffence(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                              bool allowR);

struct RepairWork {
    kiv::VectorPOD<unsigned int> inverse, offenders, anchor, sorted, sortedAnchor, start, rebuilt;
    kiv::VectorPOD<unsigned char> isOffender;
};

// Moves every constraint that breaks the rule to the end of the run of constraints that follows its last body
// (rule S), round after round: a move can make another constraint of the same body break rule R. A moved
// constraint satisfies S for good, so there is at most one round per constraint (in practice a few). Bodies
// and the constraints that satisfy the rule keep their relative order. order: in/out [n], a permutation.
// Returns the number of moves.
unsigned long repairRule(const BlockGraph& g, kiv::VectorPOD<unsigned int>& order, RepairWork& w,
                         bool allowR);

// Work memory of the standard ordering's steps, kept from call to call.
struct SafeOrderWork {
    struct Arrays;
    Arrays* arrays;
    SafeOrderWork();
    ~SafeOrderWork();
    SafeOrderWork(const SafeOrderWork&) = delete;
    SafeOrderWork& operator=(const SafeOrderWork&) = delete;
};

// Steps 1 and 2 of the standard ordering (Analysis::Ordering::standard). 1 (peel): repeatedly a body with at
// most one unplaced neighbour is placed, and when that neighbour is a constraint with at most one other
// unplaced neighbour the constraint right after it (rule R); no step makes fill, so the degrees stay exact.
// 2: the rest by CCOLAMD's csymamd on the remaining block graph, bodies in constraint set 0 and constraints
// in set 1 (rule S). order: out [n]. remainingBodies: out, the bodies left to step 2. fallback: out, csymamd
// ran out of memory and the rest is in the user's numbering (bodies first). Returns the number of peeled
// blocks. The placed flags stay in `work` for constraintNestedDissection.
unsigned int peelAndMinimumDegree(const BlockGraph& g, bool peel, kiv::VectorPOD<unsigned int>& order,
                                  SafeOrderWork& work, unsigned int& remainingBodies, bool& fallback);

// Step 3's candidate: candidate = order[0 .. placedCount) + the remaining bodies in their order + the
// remaining constraints in a METIS nested-dissection order of the constraint graph (two constraints adjacent
// when they share a remaining body, or a group of remaining bodies coupled among themselves; vertex weight =
// rows, sizes [n]). Precondition: peelAndMinimumDegree produced `order` with this `work`. False when METIS
// fails (candidate unusable).
bool constraintNestedDissection(const BlockGraph& g, const unsigned int* sizes,
                                const kiv::VectorPOD<unsigned int>& order, unsigned int placedCount,
                                unsigned int remainingBodies, kiv::VectorPOD<unsigned int>& candidate,
                                SafeOrderWork& work);

// Work memory of symamdSafeOrder.
struct SymamdWork {
    SkeletonMatrix userPattern, permuted;
    EliminationTree tree;
    Permutation permutation;
    ScratchPad pad;
    RepairWork repair;
    kiv::VectorPOD<unsigned int> saved;
};

// Analysis::Ordering::symamdSwap: symamd on the whole pattern (list form, colPointers/rowIndices), then
// zeroLeafSwap, then repairRule (on symamd's order when the swap fails: swapFailed). order: out [n].
// fallback: out, symamd failed (the identity was used). Returns the repair's moves.
unsigned long symamdSafeOrder(const BlockGraph& g, const unsigned int* colPointers,
                              const unsigned int* rowIndices, bool allowR,
                              kiv::VectorPOD<unsigned int>& order, SymamdWork& w, bool& swapFailed,
                              bool& fallback);

}  // namespace Reordering
}  // namespace kivTamber

#endif  // KIVTAMBER_REORDERING_H
