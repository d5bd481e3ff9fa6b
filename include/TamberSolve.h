// Triangular and diagonal solves with a finished factorization A = Uᵀ·D·U, and the contract of the solve
// driver built on them (Tamber::solve, Tamber::unitSolve, Tamber::iterativeRefinement, defined in
// src/TamberSolve.cpp).
//
// The factor is read through its container (column) view. Container column j of `factor` is block row j of
// the unit lower factor L, so the columns show U = Lᵀ, unit upper block-triangular: block column j holds the
// off-diagonal tiles B_ij (i < j) in storage order and then its diagonal tile U_jj, at index
// colPointers[j+1] - 1. Tiles are laid out as SparseTypes.h describes (column-major, leading dimension
// blockStrides[i], zero padding): B_ij(q, r) is element r·blockStrides[i] + q. U_jj(q, r) for q < r holds
// the strict upper triangle, its diagonal is 1 (in `factor`). x_j is the slice of length s_j at
// blockOffsets[j] of a right-hand side of N = blockSizes[n] doubles.
//
// Preconditions shared by the double solves below (none is checked):
//  - the factor is a SparseMatrix<double>: every leading dimension is even, every tile starts on a 16-byte
//    boundary and its padding rows and columns are zero;
//  - every container column holds at least its diagonal tile, and it is the last one of the column;
//  - x holds N doubles (the vector forms: x.data does).
// Deliberate behaviours of the paired loops: a tile of odd size is processed as if its size were even. The
// extra row q reads x_i(s_i), the first entry of the next block, times a zero padding entry; the extra column
// r writes x_j(s_j) − 0 (forward) or x_i(s_i) − 0 (backward), the next block's first entry, unchanged. Both
// stay inside x except for the last block column, which is therefore solved with scalar loops when its size
// is odd. A non-finite value in the next block's first entry turns into NaN through 0·inf.
#ifndef KIVTAMBER_TAMBERSOLVE_H
#define KIVTAMBER_TAMBERSOLVE_H

#include <set>

#include "DenseTypes.h"
#include "EliminationTree.h"
#include "SparseTypes.h"
#include "Tamber.h"

namespace kivTamber {
namespace TamberSolve {

// Scratch-pad slots of the solve driver (see the notes at the end of this header). They lie far above the
// slot numbers the ordering and the factorizations use (slot 0, 1 and one slot per worker thread index).
// Int slot: the root path of Tamber::unitSolve (n entries).
constexpr unsigned long unitSolvePathSlot = 0x100000;
// Double slots: the residual r and the entry copy x0 of Tamber::iterativeRefinement (N entries each).
constexpr unsigned long refinementResidualSlot = 0x100001;
constexpr unsigned long refinementEntrySlot = 0x100002;

// Forward solve x ← U⁻ᵀ·x, block columns j = 0 … n−1 in order:
//   1. for each off-diagonal tile B_ij of column j, in storage order: x_j ← x_j − B_ijᵀ·x_i;
//   2. unit triangular solve with U_jj: for r = 1 … s_j−1, x_j(r) ← x_j(r) − Σ_{q<r} U_jj(q, r)·x_j(q)
//      (the diagonal of U_jj is not read).
// Every column except a last column of odd size runs two entries r and two entries q at a time: for each
// tile and pair of r the products are gathered in two partial sums (even q, odd q), added, and subtracted
// once. A last column of odd size subtracts term by term with scalar loops.
// U: in, the factor (see the preconditions above). x: in/out, N doubles. Returns true.
bool forwardSolve(const SparseMatrix<double>& U, double* x);

// Partial forward solve: the forward solve above on x.data, over the block columns j = startBlock … n−1,
// computing only the scalar entries below `limit`:
//   - the rows of column j are cut to m = min(s_j, limit − blockOffsets[j]) (m = 0 when the offset is at or
//     past limit); rows at or after `limit` are neither read as targets nor written;
//   - the column with blockOffsets[j] + s_j ≥ limit is the last one processed;
//   - the off-diagonal products still read all s_i entries of every source slice x_i, also those at or after
//     `limit` (they must hold the caller's values: normally zeros, or earlier results).
// Scalar loops throughout (no pairing, no padding touched). Nothing happens when startBlock ≥ n.
// U: in. x: in/out, N entries in x.data (x.size is not read). Returns true.
bool forwardSolve(const SparseMatrix<double>& U, DenseVector<double>& x, unsigned int limit,
                  unsigned int startBlock);

// Reach-restricted forward solve for a right-hand side that is non-zero only in the block columns listed in
// `blocks`. With Uᵀ's sparsity the result can only be non-zero in those blocks and their elimination-tree
// ancestors, so only those columns are solved:
//   1. if `blocks` is empty, return; let j be its smallest element; if limit < blockOffsets[j], return;
//   2. solve column j as the partial forward solve does (rows cut at `limit`);
//   3. p = tree->parent[j]; if p ≠ j insert p into `blocks`;
//   4. move to the next larger element of `blocks` (possibly the parent just inserted); stop when there is
//      none or its offset exceeds `limit`; otherwise repeat from 2.
// A block whose offset equals `limit` is still visited (with zero rows) and still adds its parent. On return
// `blocks` holds the starting blocks and every ancestor visited, up to `limit`.
// Each visited column reads every source slice x_i of its off-diagonal tiles, reached or not; entries outside
// the reach are read but never written, so the caller keeps them zero.
// U: in. x: in/out, N entries in x.data. blocks: in/out, block indices < n. tree: in; parent[j] is a node
// (> j) or j itself for a root. Returns true.
bool forwardSolve(const SparseMatrix<double>& U, DenseVector<double>& x, unsigned int limit,
                  std::set<unsigned int>& blocks, const EliminationTree* tree);

// Diagonal solve x_k ← x_k / d_k for every k < D.size (the size taken as 32 bits). No test for zero pivots.
// D: in, the pivots. x: in/out, at least D.size doubles. Returns true.
bool diagSolve(const DenseVector<double>& D, double* x);

// The pointer form on x.data when x.size equals D.size; otherwise returns false and changes nothing.
bool diagSolve(const DenseVector<double>& D, DenseVector<double>& x);

// Backward solve x ← U⁻¹·x, block columns j = n−1 down to 0:
//   1. triangular solve with U_jj from the bottom row: for r = s_j−1 down to 0, x_j(r) ← x_j(r) / U_jj(r, r),
//      then x_j(q) ← x_j(q) − U_jj(q, r)·x_j(r) for q < r. The division is by the stored diagonal (1 in
//      `factor`), so the routine is also right for tiles that carry pivots on their diagonal;
//   2. for each off-diagonal tile B_ij of column j: x_i ← x_i − B_ij·x_j.
// A last column of odd size is done first with scalar loops (its off-diagonal updates run over r outermost,
// q innermost); every other column is paired: for each pair of q the products over pairs of r are
// accumulated and subtracted once. The top row of an odd diagonal tile is divided on its own, so the zero
// padding diagonal is never a divisor.
// U: in. x: in/out, N doubles. Returns true.
bool backwardTSolve(const SparseMatrix<double>& U, double* x);

// x ← A⁻¹·x: forwardSolve(data.factor, x), diagSolve(data.diagonal, x), backwardTSolve(data.factor, x), in
// that order. x: in/out, N doubles. Returns true.
// The passes run as the steps of data.solvePlan (SolvePlan.h), made here first when the factor's layout is
// not the one it was made for: the steps of forwardSolve and backwardTSolve on the same tiles in the same
// order, with the divisions of diagSolve done inside the forward pass (each block after the last step that
// reads it; the separate pass when data.diagonal does not hold N pivots). The result is the three calls'
// bit for bit whenever no pivot is zero or non-finite; with such a pivot both are non-finite, though not
// necessarily in the same entries (see SolvePlan.h).
//
// Tamber::solve<double>(data, x) is exactly this call, on purpose unlike Tamber::solve<float>: it does not
// factor when data.isFactored is 0, does not check for an empty factor, does not skip leading zero blocks
// and does not add to solveTime. A caller of the double solve factors beforehand (Tamber::factorSerial or
// a float/unit solve). The same holds for Tamber::solve<double>(data, b, x), which copies b into x first.
// isFactored is not read, so the result says nothing about the factor: on an object that was never factored
// (no block columns, no pivots) x comes back unchanged, that is x = b, and the call still returns true; after
// a factorization stopped at a bad pivot (isFactored = 0) it runs over the incomplete factor. A caller that
// can meet either case checks data.isFactored (and data.badPivot) itself before solving.
bool solve(const TamberData<double>& data, double* x);

// Several right-hand sides at once: x holds numRhs vectors of N doubles, column-major, vector r starting at
// x + r·ld (ld >= N). Each vector receives exactly the operations of solve(data, x + r·ld), in the same
// order, so the results equal numRhs single solves bit for bit; the passes read each tile of the factor once
// for all vectors instead of once per vector (the steps of data.solvePlan, as solve). numRhs = 0 does
// nothing. Same preconditions and the same unchecked isFactored as solve. Returns true.
bool solveMany(const TamberData<double>& data, double* x, unsigned int numRhs, unsigned long ld);

// x ← A⁻¹·x through the driver's solve (Tamber::solve<T>), right for a right-hand side of any scale. The
// single-precision solve skips its forward pass over the leading blocks whose entries all lie below the
// float epsilon in magnitude (it takes the right-hand side to be of order 1), so a tiny vector, such as a
// residual, would be solved as if it were zero there; here x is first scaled by a power of two (exact) to a
// largest entry in [1, 2) and scaled back afterwards. In double precision this is Tamber::solve<double>.
// A zero or non-finite x is solved as it stands. x: in/out, N values. Returns the solve's result.
template <typename T>
bool solveAtAnyScale(Tamber& tamber, TamberData<T>& data, T* x);

// The same on x.data, with the vector form of diagSolve: a size mismatch between x and data.diagonal skips
// the diagonal step silently. x: in/out. Returns true.
bool solve(const TamberData<double>& data, DenseVector<double>& x);

// ---------------------------------------------------------------------------------------------------------
// Pivot diagnostic
// ---------------------------------------------------------------------------------------------------------

// Where and why the factorization met a bad pivot. A factorization without pivoting does not stop at a zero
// pivot d_k = 0: it divides by it and every later value that depends on it becomes infinite or NaN, so a
// solve returns a meaningless x. findBadPivot names the first such pivot instead.
struct PivotReport {
    enum Kind : unsigned int {
        none = 0,       // no pivot matched
        zero = 1,       // d_k = 0 (either sign)
        nonFinite = 2,  // d_k is ±inf or NaN
        tiny = 3,       // 0 < |d_k| <= the threshold given to findBadPivot
    };
    Kind kind = none;
    // The pivot d_k, widened to double.
    double value = 0.0;
    // k: its scalar index in the elimination order (the index into data.diagonal).
    unsigned long scalar = 0;
    // The block of the factor's (permuted) order that holds k, and k's index inside it:
    // k = matrix.blockOffsets[block] + local.
    unsigned int block = 0;
    unsigned int local = 0;
    // The same pivot in the caller's numbering, the numbering before data.permutation: userBlock =
    // permutation.forward[block], and userScalar = (sum of the sizes of the user blocks 0 .. userBlock-1) +
    // local. For data prepared by Analysis::Analyzer this is the numbering of the Analysis::Problem; the
    // permutation moves whole blocks, so `local` is the same in both numberings.
    unsigned int userBlock = 0;
    unsigned long userScalar = 0;
    // Number of pivots that match (the first one above and all later ones), and of pivots scanned (N, or 0
    // when data is not factored).
    unsigned long count = 0;
    unsigned long scanned = 0;
};

// Scans the pivots d_0 … d_{N-1} of a finished factorization in elimination order and reports the first one
// that is zero, not finite, or (threshold > 0) at most `threshold` in magnitude:
//     bad(d) = !isfinite(d) || |d| <= threshold.
// threshold = 0 (the default) finds exact zeros and non-finite pivots only; a caller who also wants pivots
// that lost all their digits to cancellation passes e.g. ε·‖A‖∞ with ε the unit roundoff of T.
// data: in; factored (isFactored = 1): data.diagonal holds N = data.matrix.blockSizes[n] pivots, and
// data.matrix's blockOffsets give the blocks. data.permutation maps to the user's numbering when its size is
// n (forward and inverse both valid); otherwise the user's numbering is taken to be the factor's own
// (userBlock = block, userScalar = scalar).
// out: out; reset first, then filled when a pivot matches (count and scanned always).
// Returns true when a pivot matches. An unfactored data object has no pivots: false, scanned = 0.
// Cost O(N), plus O(log n) to find the block and O(n) for the user offset of the one reported pivot.
// Reads only; allocates nothing.
template <typename T>
bool findBadPivot(const TamberData<T>& data, PivotReport& out, double threshold = 0.0);

// "zero", "non-finite", "tiny" or "none": the kind as a word for messages.
const char* pivotKindName(PivotReport::Kind kind);

extern template bool solveAtAnyScale<float>(Tamber&, TamberData<float>&, float*);
extern template bool solveAtAnyScale<double>(Tamber&, TamberData<double>&, double*);
extern template bool findBadPivot<float>(const TamberData<float>&, PivotReport&, double);
extern template bool findBadPivot<double>(const TamberData<double>&, PivotReport&, double);

}  // namespace TamberSolve

// Notes on the driver members declared in Tamber.h and defined with the solves:
//
// Tamber::solve<float>(data, x), x ← A⁻¹·x: factors when data.isFactored is 0 (the serial factorization);
// returns false, adding no time, when the factor has no block column or no block; otherwise finds the first
// block column s whose slice of x holds an entry with |x_k| ≥ 1.1920929e-07 (s = n−1 when there is none) and
// skips the forward pass of the columns before s (their input values enter the later columns and the backward
// pass as they stand); forward pass over `factor` with tamber_MV_YM_AX / tamber_SV_TRIL_UD, columns s … n−1;
// backward pass over
// `scaledFactor` (whose diagonal tiles carry D) with tamber_SV_TRILt / tamber_MV_YM_AtX over every column
// n−1 … 0; adds the elapsed time to solveTime and returns true.
//
// Tamber::solve<T>(data, b, x) copies the N = matrix.blockSizes[matrix.numBlockCols] elements of b into x
// (none when the matrix has no block column) and calls solve<T>(data, x); b is only read.
//
// Tamber::unitSolve<T>(data, x, start) solves for a right-hand side whose non-zeros lie in one block s and
// its elimination-tree ancestors. It factors when needed; returns 0 for a factor without block columns and N
// for one without blocks. The start block s is: for start < 0 the first block column holding an entry with
// |x_k| ≥ the epsilon of T (n−1 when none); for start = 0 block 0; for start > 0 the smallest s with
// blockOffsets[s] + s_s ≥ start (n−1 when start exceeds N). The path s, parent(s), … up to the root is marked
// (scratch-pad uchar slot 0, n marks) and listed (int slot unitSolvePathSlot, n entries). The forward pass
// runs over the path only and skips source tiles of unmarked blocks; the backward pass runs over the columns
// from the root down to 0, solving the marked ones and marking every block they update, so the marks spread
// to every block the result reaches. Returns the smallest blockOffsets value of any block written (at most
// N); entries of x before it are unchanged. Exact only when the non-zeros of x lie in s and its ancestors:
// entries elsewhere are neither read as sources in the forward pass nor cleared. Adds its time to solveTime.
//
// Tamber::iterativeRefinement(data, b, x, maxIterations) (double only): with r and the entry copy x0 of x
// taken from the double slots refinementResidualSlot and refinementEntrySlot, and a previous norm of 1.0e9,
// at most maxIterations times: r ← b − A·x (data.matrix.multiply); if ‖r‖₂ > the previous norm (strictly),
// x ← x0 and stop: one diverging step discards every correction made so far, on purpose; otherwise remember
// ‖r‖₂, solve A·δ = r with solve<double> (which does not factor: factor beforehand) and add x ← x + δ. There
// is no tolerance test: a converged iteration runs to maxIterations, and an initial residual above 1.0e9
// leaves x unchanged. maxIterations ≤ 0 does nothing. ‖r‖₂² is summed in four partial sums (the entries k
// below N rounded down to a multiple of 4 with k mod 4 = 0, 1, 2, 3, each ascending, then the last N mod 4
// entries into the first sum), added as (s0 + s1) + (s2 + s3). The entry copy x0 is taken only when
// maxIterations > 1 (a first step that diverges has not moved x). With a usable solve plan the step takes
// two passes of the solve instead of four passes: r = b − A·x is formed entry by entry just ahead of the
// forward pass (which therefore runs before the norm is known, on r alone), and x + δ block by block in
// the backward pass as δ becomes final; every value is the one of the passes one after the other.
//
// None of these allocates after its first call on a system of a given size: all work arrays come from the
// scratch pad.

}  // namespace kivTamber

#endif  // KIVTAMBER_TAMBERSOLVE_H
