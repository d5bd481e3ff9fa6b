// The order of work of the serial double factorization over one structure, made once per structure.
//
// Tamber::factorSerial spends about a third of its instructions on a small-block system finding its way
// rather than computing: the check of each block row against the pattern, finding the input tile of each
// entry, the walk that finds the columns k < j common to rows i and j, the choice of kernel by block sizes,
// and the loads of indices, sizes and strides per tile. None of it depends on the values. FactorPlan lists,
// per block row, what the row loop does: each off-diagonal entry (i, j) with its input tile (an index into
// the input matrix's tiles, or none for a fill block), the places of L(i, j) and L(j, j), its pivots, and
// the updates L(i, j) −= LD(i, k)·L(j, k)ᵀ in the order the loop applies them; then the diagonal block. Each
// row gets a routine chosen once for its shape: the common shapes of physics systems (one off-diagonal entry
// of sizes up to 6 with nothing to update; a diagonal block alone) have routines with every size fixed at
// compile time, every other row runs the general one. The routines call the kernels of the row loop with
// the same arguments in the same order, so a planned factorization gives the same bits as the loop.
//
// The plan holds offsets into the value storage of the factor, not pointers, and indices into the input
// matrix's tile pointers: new values, a reallocation of the factor's values or of the input's tiles leave it
// valid. It keeps copies of the structure it was made from (the filled pattern, the block sizes, the input
// pattern); factorSerial compares them with the pattern, the input and the layout of the factor before it
// runs each group of rows (a comparison of a few bytes per row), and runs the row loop itself from the
// first group that differs, after making the plan again for the current structure (so that the next
// factorization of that structure runs planned and allocates nothing). It is made by the first double
// factorSerial after the library laid out the factor anew.
#ifndef KIVTAMBER_FACTORPLAN_H
#define KIVTAMBER_FACTORPLAN_H

#include <kiv/VectorPOD.h>

#include "SkeletonMatrix.h"
#include "SparseTypes.h"

namespace kivTamber {

class FactorPlan {
public:
    // Where a planned row reads and writes: the value storages of L and L·D (LD null when L·D is not kept,
    // its row blocks then go to ldRow at the offsets their tiles have from the row's first tile), the input
    // matrix's tile pointers, the pivots and the reciprocal pivots (those of block j at recips + offset_j +
    // j, as factorSerial keeps them).
    struct Target {
        double* L;
        double* LD;
        double* ldRow;
        double* const* input;
        double* d;
        double* recips;
    };

    struct Row;
    // Factors one block row; returns false when a pivot of its diagonal block is zero or not finite.
    using RowRun = bool (*)(const FactorPlan& plan, const Row& row, const Target& target);

    // Block row i.
    struct Row {
        RowRun run;
        unsigned int size;       // s_i
        unsigned int offset;     // scalar offset of block i
        unsigned int recip;      // offset_i + i: where its reciprocal pivots start
        unsigned int firstStep;  // its off-diagonal entries: steps[firstStep … endStep − 1]
        unsigned int endStep;
        unsigned int tile;       // value offset of the row's first tile
        unsigned int diagTile;   // value offset of L(i, i)
        unsigned int diagInput;  // index of A(i, i) among the input's tiles; noInput for a fill block
    };
    // Off-diagonal entry (i, j) of a row.
    struct Step {
        unsigned int tile;      // value offset of L(i, j)
        unsigned int diagTile;  // value offset of L(j, j)
        unsigned int input;     // index of A(i, j) among the input's tiles; noInput for a fill block
        unsigned int size;      // s_j
        unsigned int offset;    // scalar offset of block j
        unsigned int recip;     // offset_j + j
        unsigned int firstPair, endPair;  // its updates: pairs[firstPair … endPair − 1], k ascending
    };
    // One update L(i, j) −= LD(i, k)·L(j, k)ᵀ.
    struct Pair {
        unsigned int ldTile;  // value offset of the tile of (i, k), an earlier entry of row i
        unsigned int lTile;   // value offset of L(j, k)
        unsigned int size;    // s_k
    };

    static constexpr unsigned int noInput = ~0u;
    // Rows per group of the comparison with the structure.
    static constexpr unsigned int groupRows = 128;

    // 1 (default): double factorSerial uses the plan; 0: it runs its row loop (the reference the plan is
    // checked against).
    unsigned char use = 1;
    // 1 while made.
    unsigned char isMade = 0;
    // 1 when the rows were planned: every value offset of the layout fits in 32 bits.
    unsigned char usable = 0;
    // The structure it was made for.
    unsigned long numBlockCols = 0, numEntries = 0, inputEntries = 0;
    unsigned long N = 0;
    kiv::VectorPOD<unsigned int> rowStart;    // [n + 1] the pattern's row starts
    kiv::VectorPOD<unsigned int> cols;        // [entries] its columns
    kiv::VectorPOD<unsigned int> sizes;       // [n] block sizes
    kiv::VectorPOD<unsigned int> offsets;     // [n] scalar offsets of the blocks
    kiv::VectorPOD<unsigned int> inputStart;  // [n + 1] the input's column pointers
    kiv::VectorPOD<unsigned int> inputCols;   // [input entries] its row indices
    // The value offset of the last tile, and the most values of one row's off-diagonal tiles (the L·D row
    // kept in scratch when L·D is not written).
    unsigned long lastTile = 0, rowExtent = 0;
    kiv::VectorPOD<Row> rows;
    kiv::VectorPOD<Step> steps;
    kiv::VectorPOD<Pair> pairs;
    kiv::VectorPOD<unsigned int> rowOf, entryOf, tileAt;  // [n], [n], [entries] workspaces of make

    // isMade = 0; keeps every allocation.
    void clear() { isMade = 0; }

    // Makes the plan of the filled pattern S (rows ascending, diagonal last), the block sizes and the input
    // matrix A (its container column i holding blocks (j, i), j <= i ascending, a subset of row i of S),
    // for the layout factorSerial gives the double factor (tiles back to back in pattern order at their
    // padded sizes). Arrays grow only. Cost O(n + entries + updates).
    void make(const SkeletonMatrix& S, const unsigned int* blockSizes, const SparseMatrix<double>& A);

    // True when rows [first, end) of S, the block sizes, the input A and the factor's layout L (row
    // structure, sizes and scalar offsets) are those the plan was made for. O(entries of those rows).
    bool rowsMatch(const SkeletonMatrix& S, const unsigned int* blockSizes, const SparseMatrix<double>& A,
                   const SparseMatrix<double>& L, unsigned int first, unsigned int end) const;
};

}  // namespace kivTamber

#endif  // KIVTAMBER_FACTORPLAN_H
