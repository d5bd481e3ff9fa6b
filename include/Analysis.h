// Symbolic analysis of a block saddle-point problem: from the user's block pattern to a TamberData<T> whose
// permutation, filled skeleton, elimination tree and input-matrix layout fit together, plus the assembly of
// values and vectors between the user's numbering and the elimination order.
//
// The problem: a symmetric block matrix A of n blocks in the user's numbering; blocks 0 .. firstConstraint-1
// are bodies (invertible diagonal block), blocks firstConstraint .. n-1 constraints (zero diagonal block):
//
//        [ M  Jᵀ ]     with M symmetric positive definite and J of full row rank,
//    A = [       ]     A = L·D·Lᵀ exists without pivoting in every order that satisfies the rule below.
//        [ J  0  ]
//
// The safe-order rule. Every constraint block c is placed either
//   (S) after all the body blocks it couples to, or
//   (R) directly after a body block b it couples to, with every other constraint block of b placed before c
//       (so c is b's last constraint, and each of b's other constraints precedes b and was itself placed by
//       R).
// Then every leading principal block of the permuted matrix is non-singular, provided J has full row rank and
// each block J(c, b) used by (R) has full row rank: by induction over the R-placed constraints, each one's
// multiplier vanishes on its own body's columns, and the S-placed ones have all their columns present.
// (Couplings between two constraint blocks are allowed in the pattern; the guarantee is for a zero (2,2)
// part.)
//
// Typical use, once per structure and then every time step:
//
//     Analysis::Problem problem{n, firstConstraint, colPointers, rowIndices, blockSizes};
//     Analysis::Analyzer analyzer;  // keep it next to the data
//     TamberData<double> data;
//     Tamber tamber;
//     Analysis::Report r = analyzer.analyze(problem, Analysis::Options(), data);
//     if (!r.ok) { std::fprintf(stderr, "%s\n", r.message.c_str()); return; }
//     tamber.estimateWork(data, nullptr);
//     every step:
//         analyzer.setBlocksAndFactor(tamber, data, values, valuePointers);
//         // = analyzer.setBlocks(data, values, valuePointers) (or setBlock(data, e, values of entry e) per
//         // entry), then tamber.factorSerial(data); the double solve does not factor itself
//         analyzer.permuteVector(b, bp);
//         tamber.solve(data, bp, xp);
//         analyzer.unpermuteVector(xp, x);
//
// The library's low-level operations (orderings, trees, factorizations) trust their input; this layer is
// where bad input is caught and reported with a message that names the offending block or entry.
#ifndef KIVTAMBER_ANALYSIS_H
#define KIVTAMBER_ANALYSIS_H

#include <string>

#include "EliminationTree.h"
#include "SkeletonMatrix.h"
#include "Symbolic.h"
#include "Tamber.h"
#include "TamberUtils.h"

namespace kivTamber {
namespace Analysis {

// ---------------------------------------------------------------------------------------------------------
// The user's problem, options and results.
// ---------------------------------------------------------------------------------------------------------

// The structure of a block saddle-point problem in the user's numbering. The arrays are borrowed for the
// length of a call and never written.
//
// Pattern in list form: the entries colPointers[j] .. colPointers[j+1]-1 of rowIndices are the blocks i <= j
// that couple to block j, strictly ascending, the last one j itself (the diagonal, also for a constraint,
// whose diagonal block is zero). Entry e = (i, j) is "entry e" of the assembly functions below.
struct Problem {
    unsigned int numBlocks = 0;                 // n
    unsigned int firstConstraint = 0;           // blocks at or above it are constraints (<= n)
    const unsigned int* colPointers = nullptr;  // [n + 1]
    const unsigned int* rowIndices = nullptr;   // [colPointers[n]]
    const unsigned int* blockSizes = nullptr;   // [n] scalar rows of each block, >= 1

    // The pattern of a SkeletonMatrix in list form (its fillFlags and blockWords are ignored).
    static Problem fromSkeleton(const SkeletonMatrix& pattern, unsigned int firstConstraint,
                                const unsigned int* blockSizes);
};

// How the analysis orders the blocks. Every order it returns satisfies the safe-order rule.
enum class Ordering : unsigned int {
    // 1. Peel: repeatedly take a body with at most one unplaced neighbour and place it; when that neighbour
    //    is a constraint with at most one other unplaced neighbour, place the constraint right after it
    //    (rule R). No such step makes fill. Chains and trees of bodies joined by two-body constraints
    //    (ragdolls) are placed completely by this step.
    // 2. The rest, bodies first: CCOLAMD's csymamd on the remaining block graph with every body in
    //    constraint set 0 and every constraint in set 1 (rule S).
    // 3. When the predicted unmerged flops exceed Options::nestedDissectionThreshold, also try the
    //    remaining bodies followed by a METIS nested dissection of the constraint graph (two constraints
    //    adjacent when they share a remaining body, or a group of remaining bodies coupled among themselves;
    //    vertex weight = rows), and keep whichever order builds the factor of smaller modelled time
    //    (FactorCost::modelFlops of the factor actually built: merged when merging is on, zeros included).
    standard,
    // COLAMD's symamd on the whole pattern, then Reordering::zeroLeafSwap; constraints that still break the
    // rule are moved after the last of their bodies (repeated until the order satisfies the rule; the
    // report counts the moves). When the swap fails, the repair works on symamd's order.
    symamdSwap,
    // The user's numbering as it is: bodies, then constraints (always rule S).
    natural,
    // Options::userOrder, accepted only when it satisfies the rule.
    user,
    // Reordering::centroidOrder: when the bodies form a forest (chains, ragdolls), each tree of bodies by
    // centroid decomposition and every constraint right after its last body (rule S). The elimination tree is
    // shallow (O(log n) blocks from any block to its root), so switching equations (RankMod) touches few
    // blocks, for somewhat more fill than the standard order. Any other body graph falls back to the
    // standard ordering (Report::centroidFallback). Allocates its work memory on every analysis.
    centroid,
};

struct Options {
    Ordering ordering = Ordering::standard;
    // Step 1 of the standard ordering. Switch it off for constraint types whose Jacobian block on one body
    // can lose rank (rule R needs J(c, b) of full row rank); every constraint then follows all its bodies,
    // in every ordering: the repair and the check of a user order then accept rule S only.
    bool peel = true;
    // Step 3 of the standard ordering, and its threshold in predicted flops.
    bool nestedDissection = true;
    double nestedDissectionThreshold = 5e7;
    // For Ordering::user: [n] forward[k] = the user block placed k-th.
    const unsigned int* userOrder = nullptr;

    // Block merging (supernodal amalgamation), on by default. After the order and its filled pattern are
    // known, runs of consecutive blocks k, k+1, ... of the order in which each block's elimination-tree
    // parent is the next block are joined into one block (a group) of data, whose diagonal tile is dense.
    // The scalar elimination order is unchanged, so the unpivoted L·D·Lᵀ of a group's diagonal tile
    // eliminates the same pivots in the same order as the separate blocks did (a zero constraint diagonal
    // inside a group is fine); only rounding differs. Fewer, larger blocks cut the per-block overhead of
    // factorization and solves on patterns of tiny blocks, for the explicit zeros the dense tiles add
    // (Report::explicitZeros). The next block joins the group when all of these hold:
    //  - it is the elimination-tree parent of the group's last block;
    //  - the group stays within maxMergedSize scalar rows (a larger single block stays alone);
    //  - the join lowers the predicted factorization time (see FactorCost::modelFlops), modelled as
    //        mergeOperationFlops × (block operations) + flops,
    //    block operations = Σ over block columns of L of c·(c + 1)/2 (c its off-diagonal blocks: one
    //    triangular solve per block, one product per pair of blocks) and flops = Σ over scalar columns of
    //    c·(c + 2) (c its scalars below the diagonal, explicit zeros included). The join saves the
    //    operations of the block column it removes and of the tiles it unites in the columns of earlier
    //    groups, and costs the flops of its zeros: in its own columns, and the full tiles in its rows under
    //    the columns of the earlier groups that reach the group. The blocks after the join are counted in
    //    the groups of a previous pass (three passes over the order, the first on the blocks themselves).
    // Chains and ragdolls merge nothing (their blocks have one or two blocks below).
    bool mergeBlocks = true;
    unsigned int maxMergedSize = 48;
    // The time of one block operation in flops; the same weight the ordering decision uses (see
    // FactorCost::modelFlops for how it was fitted). Larger values merge more.
    double mergeOperationFlops = kBlockOperationFlops;
};

// Outcome of Analyzer::analyze.
struct Report {
    bool ok = false;
    // Empty on success; otherwise what is wrong, naming the block, entry or position and the values involved.
    std::string message;
    // Standard ordering: blocks placed by peeling (bodies and their R-placed constraints).
    unsigned long peeledBlocks = 0;
    // symamdSwap: constraints the repair moved after their last body.
    unsigned long movedConstraints = 0;
    // symamdSwap: the zero-leaf swap failed and the repair worked on symamd's order.
    bool swapFailed = false;
    // Standard ordering: the candidates, each as the cost of the factor its order builds (with merging: the
    // groups that order gets, explicit zeros included). The order whose cost has the smaller modelFlops(w),
    // w = Options::mergeOperationFlops, is kept. nestedDissectionCost stays zero when nested dissection was
    // not tried (switched off, a minimum-degree prediction below the threshold, fewer than two constraints
    // left after peeling, or METIS failed). When the nested-dissection order's unmerged flops alone reach the
    // minimum-degree factor's modelled time, it cannot win (merging only adds flops): its groups are not
    // formed and nestedDissectionCost is its unmerged cost.
    FactorCost minimumDegreeCost;
    FactorCost nestedDissectionCost;
    bool usedNestedDissection = false;
    // The unmerged flops of the same candidates (0 when not tried).
    double minimumDegreeFlops = 0.0;
    double nestedDissectionFlops = 0.0;
    // An ordering library failed (out of memory) and the remainder was taken in the user's numbering.
    bool orderingFallback = false;
    // Ordering::centroid: the bodies do not form a forest; the standard ordering was used.
    bool centroidFallback = false;
    // The factor of data: with merging the cost of the merged pattern, explicit zeros included.
    FactorCost cost;
    // Blocks of data: the groups with merging, otherwise the number of blocks of the problem; of them, the
    // groups of more than one block, and the scalar rows of the largest group (Analyzer::groupStarts lists
    // the groups).
    unsigned long mergedBlocks = 0;
    unsigned long multiBlockGroups = 0;
    unsigned int largestGroup = 0;
    // The factor of the chosen order on the problem's own blocks (equals `cost` without merging).
    FactorCost unmergedCost;
    // Scalars of L that merging adds as explicit zeros (cost.scalarEntries − unmergedCost.scalarEntries).
    unsigned long explicitZeros = 0;
    // Seconds spent in the phases: input checks and the block graph, ordering, symbolic factorization
    // (permuted pattern, tree, filled pattern) and the layout of data.matrix and of the assembly map.
    double checkSeconds = 0.0;
    double orderSeconds = 0.0;
    double symbolicSeconds = 0.0;
    double layoutSeconds = 0.0;
};

// ---------------------------------------------------------------------------------------------------------
// Checks and counts (each validates its input first and allocates its own work memory).
// ---------------------------------------------------------------------------------------------------------

// True when the problem is well formed: arrays present (n > 0), firstConstraint <= n, every block size >= 1,
// the scalar dimension within 32 bits, every list in list form (ascending, in range, diagonal last), and
// every constraint block coupled to at least one body block. Otherwise false with `message` (may be null)
// naming the first offence.
bool checkProblem(const Problem& problem, std::string* message = nullptr);

// True when forward[0 .. n-1] places every block exactly once and satisfies the safe-order rule for a
// well-formed problem (with allowRuleR false, rule S only). Otherwise false with `message` (may be null)
// naming the first offending position.
bool checkOrder(const Problem& problem, const unsigned int* forward, std::string* message = nullptr,
                bool allowRuleR = true);

// Makes an order satisfy the rule: every constraint that breaks it is moved behind the constraints that
// follow its last body (rule S), and again until the order satisfies the rule (a move can take away another
// constraint's rule R). Bodies and the constraints that satisfy the rule keep their relative order.
// forward: in/out, [n]. moved: out, may be null: the number of moves. Returns false, forward unchanged, with
// `message` when the problem is not well formed or forward is not a permutation.
bool repairOrder(const Problem& problem, unsigned int* forward, unsigned long* moved = nullptr,
                 std::string* message = nullptr, bool allowRuleR = true);

// The factor cost of an order (forward: [n], the user block placed k-th; any permutation, the rule is not
// required) by an elimination tree and row-subtree counts on the user's pattern. The problem must be well
// formed and forward a permutation (unchecked here; see checkProblem, checkOrder).
FactorCost predictCost(const Problem& problem, const unsigned int* forward);

// ---------------------------------------------------------------------------------------------------------
// The analysis and the assembly.
// ---------------------------------------------------------------------------------------------------------

// Turns a problem into a ready TamberData<T> and then moves values and vectors between the user's numbering
// and the elimination order. Keep one Analyzer next to each TamberData; it holds the map from the user's
// entries to the blocks of data.matrix and reuses all its work memory from call to call. Non-copyable.
class Analyzer {
public:
    static constexpr unsigned long noEntry = ~0ul;

    Analyzer();
    ~Analyzer();
    Analyzer(const Analyzer&) = delete;
    Analyzer& operator=(const Analyzer&) = delete;

    // Checks the problem, orders it (options), and on success leaves in `data`:
    //  - permutation: forward[k] = the user block placed k-th, inverse[forward[k]] = k, size n; with
    //    Options::mergeBlocks the blocks of data are the groups, numbered in elimination order, and the
    //    permutation is the identity of their number (use factorPosition and userPosition to move between
    //    user blocks and data's blocks; permuteVector and unpermuteVector work the same in both modes, since
    //    the scalar order is the same);
    //  - etree: the elimination tree of the permuted pattern, with child lists, roots and post order;
    //  - skeleton: the filled pattern of L in that order (per block row the ascending columns, diagonal last,
    //    fillFlags = 1 on fill-ins);
    //  - matrix: cleared, sized and laid out in upper form on the permuted pattern of A (block column k holds
    //    the blocks (i, k), i <= k ascending, diagonal last) with the permuted block sizes and zero values;
    //    with merging on the pattern of A on the groups, and the assembly writes a user entry whose two
    //    blocks share a group in full symmetry into the group's diagonal tile (both it and its transpose);
    //  - isFactored = 0.
    // On failure (report.ok false, report.message set) neither `data` nor this analyzer's assembly map has
    // changed. Everything is computed in the analyzer's own storage and then swapped in; a std::bad_alloc
    // while laying out data.matrix (the last step) leaves the new structure with an empty matrix and
    // isFactored = 0. data.etree's auxList and fillIns are left alone. A repeated analysis of the same
    // structure allocates nothing of its own after the second call (the ordering libraries use calloc, and
    // Reordering::zeroLeafSwap allocates its three local arrays).
    template <typename T>
    Report analyze(const Problem& problem, const Options& options, TamberData<T>& data);

    // The following need a successful analyze; `data` must be the object it filled. None allocates.

    // Number of blocks, scalar dimension and pattern entries of the analysed problem.
    unsigned int numBlocks() const;
    // Number of blocks of data (the groups with merging, otherwise numBlocks()).
    unsigned int numFactorBlocks() const;
    unsigned int scalarSize() const;
    unsigned long numEntries() const;

    // Index of entry (i, j), i <= j, in the analysed pattern, or noEntry. O(log of the list length).
    unsigned long findEntry(unsigned int i, unsigned int j) const;

    // The order: [n] forward[k] = the user block placed k-th (a copy of data.permutation.forward without
    // merging; with merging the order of the user blocks inside the groups).
    const unsigned int* order() const;

    // The blocks of data as runs of the order: [numFactorBlocks() + 1], block g of data holds the user
    // blocks order()[groupStarts()[g]] .. order()[groupStarts()[g + 1] − 1].
    const unsigned int* groupStarts() const;

    // Scalar `local` of user block `userBlock` → block of data and scalar inside it (without merging block =
    // data.permutation.inverse[userBlock] and localInBlock = local). False, outputs unchanged, when
    // userBlock or local is out of range.
    bool factorPosition(unsigned int userBlock, unsigned int local, unsigned int& block,
                        unsigned int& localInBlock) const;

    // The inverse: scalar `localInBlock` of data's block `block` → user block and scalar inside it. False,
    // outputs unchanged, when block or localInBlock is out of range. O(log of the group's length).
    bool userPosition(unsigned int block, unsigned int localInBlock, unsigned int& userBlock,
                      unsigned int& local) const;

    // Writes block A(i, j) of entry e = (i, j), given as s_i × s_j values row-major (row stride s_j; a
    // diagonal block in full), into its place in data.matrix, transposed when the permutation moved it
    // across the diagonal, and also transposed when both blocks share a group (merging); clears
    // data.isFactored. The destinations were computed by analyze: one tight copy loop per entry.
    // Returns false, writing nothing, when `entry` is not an entry of the pattern (noEntry included) or
    // `values` is null. The values must hold entryRows(e) × entryCols(e) elements (not checkable here).
    template <typename T, typename V>
    bool setBlock(TamberData<T>& data, unsigned long entry, const V* values) const;

    // The same with the block given as its transpose A(j, i) = A(i, j)ᵀ, s_j × s_i row-major: the form in
    // which a physics engine holds a Jacobian block J(c, b) of a constraint c on a body b < c.
    template <typename T, typename V>
    bool setBlockTransposed(TamberData<T>& data, unsigned long entry, const V* values) const;

    // Rows s_i and columns s_j of entry e = (i, j); 0 when e is not an entry.
    unsigned int entryRows(unsigned long entry) const;
    unsigned int entryCols(unsigned long entry) const;

    // The block column of data.matrix that entry e is written to (its values are read by the factorization
    // of that block row: see setBlocksAndFactor and Tamber::factorSerial(data, input)); ~0u when e is not an
    // entry.
    unsigned int entryMatrixColumn(unsigned long entry) const;

    // setBlock for every entry e, its values at values + valuePointers[e] (valuePointers: [numEntries()]).
    template <typename T, typename V>
    void setBlocks(TamberData<T>& data, const V* values, const unsigned long* valuePointers) const;

    // setBlocks followed by tamber.factorSerial(data), with each block column of data.matrix written just
    // before the factorization reads it, while the factorization's own work hides the copies' memory
    // traffic: the same data.matrix, factor and reports as the two calls.
    template <typename T, typename V>
    void setBlocksAndFactor(Tamber& tamber, TamberData<T>& data, const V* values,
                            const unsigned long* valuePointers) const;

    // permuted = P·user: the slice of user block forward[k] goes to the k-th place (both N values).
    template <typename T>
    void permuteVector(const T* user, T* permuted) const;

    // user = Pᵀ·permuted, the inverse of permuteVector (both N values).
    template <typename T>
    void unpermuteVector(const T* permuted, T* user) const;

private:
    struct Impl;
    Impl* impl_;
};

extern template Report Analyzer::analyze<float>(const Problem&, const Options&, TamberData<float>&);
extern template Report Analyzer::analyze<double>(const Problem&, const Options&, TamberData<double>&);
extern template bool Analyzer::setBlock<float, float>(TamberData<float>&, unsigned long, const float*) const;
extern template bool Analyzer::setBlockTransposed<float, float>(TamberData<float>&, unsigned long,
                                                                const float*) const;
extern template bool Analyzer::setBlock<float, double>(TamberData<float>&, unsigned long,
                                                       const double*) const;
extern template bool Analyzer::setBlockTransposed<float, double>(TamberData<float>&, unsigned long,
                                                                 const double*) const;
extern template bool Analyzer::setBlock<double, float>(TamberData<double>&, unsigned long,
                                                       const float*) const;
extern template bool Analyzer::setBlockTransposed<double, float>(TamberData<double>&, unsigned long,
                                                                 const float*) const;
extern template bool Analyzer::setBlock<double, double>(TamberData<double>&, unsigned long,
                                                        const double*) const;
extern template bool Analyzer::setBlockTransposed<double, double>(TamberData<double>&, unsigned long,
                                                                  const double*) const;
extern template void Analyzer::setBlocks<float, float>(TamberData<float>&, const float*,
                                                       const unsigned long*) const;
extern template void Analyzer::setBlocks<float, double>(TamberData<float>&, const double*,
                                                        const unsigned long*) const;
extern template void Analyzer::setBlocks<double, float>(TamberData<double>&, const float*,
                                                        const unsigned long*) const;
extern template void Analyzer::setBlocks<double, double>(TamberData<double>&, const double*,
                                                         const unsigned long*) const;
extern template void Analyzer::permuteVector<float>(const float*, float*) const;
extern template void Analyzer::permuteVector<double>(const double*, double*) const;
extern template void Analyzer::unpermuteVector<float>(const float*, float*) const;
extern template void Analyzer::unpermuteVector<double>(const double*, double*) const;

}  // namespace Analysis
}  // namespace kivTamber

#endif  // KIVTAMBER_ANALYSIS_H
