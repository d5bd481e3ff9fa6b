// The order of work of the double solves over one layout of the factor, made once per layout.
//
// A pass of TamberSolve::solve over the tiles of `factor` spends a third of its instructions on finding its
// way (column and tile indices, sizes, strides, offsets, the choice of kernel per tile, a call per tile),
// and on the small tiles of physics systems it waits on the chain of dependent entries more than it
// computes: x_j goes through memory from each kernel to the next. None of the way depends on the values:
// the tiles of a factor stay where Tamber::estimateWork put them from one factorization to the next while
// the structure stays. SolvePlan lists, per pass, the steps of the solve in the order they run, each with
// its kernel (size-specialised, the leading dimensions fixed at compile time; a diagonal tile shares the
// step of the last off-diagonal tile of its column when both sizes are at most 6, x_j passing between the
// two in registers), its tile and its slices of x, in 40 bytes. The steps call the paired kernels of the
// tile solve with the same operations on every entry in the same order, so a planned solve gives the same
// bits (the backward pass takes the last tile of a column right after the diagonal tile: the tiles of a
// column update different blocks).
//
// The columns need not run in the order 0, 1, 2, …: each block gets its operations from its own column and
// its ancestors in the elimination tree, so two independent parts of the tree (the separate bodies of a
// scene, the halves below a separator) can be taken in turns, and one column's steps run while the other
// waits on its chain of dependent entries (columnOrder; the backward pass runs it in reverse). On 10,000
// ragdoll blocks this took a solve from 0.45 to 0.37 ms; a chain has nothing to take in turns.
//
// The diagonal solve runs inside the forward pass: a block is divided by its pivots right after the last
// forward step that reads it, while the pass waits on the chain of dependent entries anyway. Every entry
// is divided once, after its forward solve and before the backward pass touches it, as in the three passes
// one after the other; the only difference lies in the zero padding products of an odd size, which may
// read a neighbour's entry divided already: the same zero for finite values, but with a zero or non-finite
// pivot the planned solve can meet NaN or infinity in other entries than the three passes.
//
// The plan holds pointers into the factor's value storage, not values: a new factorization, RankMod and the
// other modifications of the values in place leave it valid. It is made by the first double solve after
// the layout changed and is cleared by whatever lays out the factor anew (estimateWork and a factorization
// that meets another structure); a solve also makes it again when the factor's block counts, scalar
// dimension, value storage or last tile differ from the ones it was made for. A caller who lays out
// data.factor by other means calls data.solvePlan.clear() before the next double solve. Making a plan
// costs O(n + tiles), about half a solve on the scene systems.
#ifndef KIVTAMBER_SOLVEPLAN_H
#define KIVTAMBER_SOLVEPLAN_H

#include <kiv/VectorPOD.h>

#include "SparseTypes.h"

namespace kivTamber {

class SolvePlan {
public:
    // One step of a pass: run(step, x) applies it to the right-hand side x (N doubles).
    struct Step {
        void (*run)(const Step& step, double* x);
        // The off-diagonal tile B_ij, or the diagonal tile U_jj of a step of the diagonal tile alone. A step
        // of both has the last off-diagonal tile of column j here, which U_jj follows in storage.
        const double* tile;
        unsigned int source;  // scalar offset of x_i (off-diagonal tile); 0 for a diagonal step
        unsigned int target;  // scalar offset of x_j
        unsigned int si, sj;  // s_i (off-diagonal tile; 0 for a diagonal step), s_j
        // Forward steps: the blocks divided by their pivots right after this step, divisions[firstDivision
        // … endDivision−1] (empty but for the last step of a column). Backward steps: firstDivision is 1 on
        // the first step of a column, after which x_j is final (its diagonal tile is solved), 0 on the
        // others; endDivision is 0.
        unsigned int firstDivision, endDivision;
    };
    // A block x_b ← x_b / d_b of the diagonal solve: its scalar offset and size.
    struct Division {
        unsigned int offset;
        unsigned int size;
    };

    // 1 while the plan describes the layout it was made for.
    unsigned char isMade = 0;
    // 1 when the steps were made: every leading dimension of the layout is the padded block size. 0 (the
    // solves then run over the tiles) otherwise.
    unsigned char usable = 0;
    // The layout they were made for: block columns, blocks, scalar dimension, value storage, last tile.
    unsigned long numBlockCols = 0, numBlocks = 0;
    unsigned int N = 0;
    const double* values = nullptr;
    const double* lastTile = nullptr;
    // Block column solved with scalar loops (the last one when its size is odd), numBlockCols otherwise.
    unsigned int scalarColumn = 0;
    kiv::VectorPOD<Step> forward;  // columns 0 … in order, each: off-diagonal tiles, then its diagonal tile
    kiv::VectorPOD<Step> backward;  // columns … 0, each: its diagonal tile, then its off-diagonal tiles
    // Every block once, grouped by the forward step after which it is divided: the last step of the last
    // column that reads it in the forward pass (its own column when no later one does); the blocks last read
    // by the column solved with scalar loops come last, from tailDivision on.
    kiv::VectorPOD<Division> divisions;
    unsigned int tailDivision = 0;
    // The block columns in the order of the forward pass (the backward pass takes them in reverse), the
    // scalar column left out: two independent parts of the elimination forest taken in turns (see make);
    // `inOrder` is 1 when that order is 0, 1, 2, …
    kiv::VectorPOD<unsigned int> columnOrder;
    unsigned char inOrder = 1;
    kiv::VectorPOD<unsigned int> lastReader;                 // [n] workspace of make
    kiv::VectorPOD<unsigned int> columnStart;                // [n + 1] workspace of make
    kiv::VectorPOD<unsigned int> parentColumn, firstColumn;  // [n] workspaces of make

    // isMade = 0; keeps every allocation.
    void clear() { isMade = 0; }

    // True when the plan is made and U's block counts, scalar dimension, value storage and last tile are
    // those it was made for (O(1)).
    bool matches(const SparseMatrix<double>& U) const;

    // Makes the steps for the layout of U (a factor laid out by Tamber::estimateWork: container column j
    // holds its off-diagonal tiles, then its diagonal tile). Arrays grow only. Cost O(n + tiles).
    void make(const SparseMatrix<double>& U);
};

}  // namespace kivTamber

#endif  // KIVTAMBER_SOLVEPLAN_H
