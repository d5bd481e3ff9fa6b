// The factor's values packed in the order the double solves read them.
//
// The tiles of `factor` carry zero padding (even leading dimensions) and whole square diagonal tiles, of
// which the solves read only the strict upper triangle: on the scene systems 1.4 to 1.9 times the values the
// solves need. SolveStorage holds the same values without padding, and of each diagonal tile only its strict
// upper triangle, one block column after the other, so that a pass over the factor streams one contiguous
// array. TamberSolve::solve and TamberSolve::solveMany read it instead of the tiles while it is current
// (TamberData::solveStorage, see Tamber.h); the results are the same bits (see the packed kernels below).
//
// Layout, block column j = 0 … n−1 of the factor's container view (U = Lᵀ, see TamberSolve.h):
//   values[columnValues[j] …]: the off-diagonal tiles B_ij of column j in storage order, each s_i × s_j
//   column-major with leading dimension s_i (B_ij(q, r) at r·s_i + q), then the strict upper triangle of
//   U_jj by columns (U_jj(q, r), q < r, at r·(r−1)/2 + q); columnValues[n] is the total.
//   tiles[columnTiles[j] … columnTiles[j+1]−1]: per off-diagonal tile, the scalar offset and the size of its
//   row block i.
//   sizes[j], offsets[j]: s_j and the scalar offset of block j; offsets[n] = N.
#ifndef KIVTAMBER_SOLVESTORAGE_H
#define KIVTAMBER_SOLVESTORAGE_H

#include <kiv/VectorPOD.h>

#include "DenseTypes.h"
#include "SparseTypes.h"

namespace kivTamber {

class SolveStorage {
public:
    // Row block of one off-diagonal tile: the scalar offset of x_i and s_i.
    struct Tile {
        unsigned int offset;
        unsigned int size;
    };

    // 1 while the values are those of the factor they were packed from, with that factor's structure;
    // TamberSolve reads the packed values only then. Cleared by clear(), set by pack().
    unsigned char isCurrent = 0;
    // Number of block columns n.
    unsigned int numBlockCols = 0;
    kiv::VectorPOD<unsigned int> sizes;          // [n] s_j
    kiv::VectorPOD<unsigned int> offsets;        // [n + 1] scalar offsets
    kiv::VectorPOD<unsigned int> columnTiles;    // [n + 1] first tile of column j
    kiv::VectorPOD<unsigned long> columnValues;  // [n + 1] first value of column j
    kiv::VectorPOD<Tile> tiles;                  // [off-diagonal tiles]
    DenseVector<double> values;                  // [columnValues[n]], 16-byte aligned

    // Marks the packed values out of date (isCurrent = 0); keeps every allocation.
    void clear() { isCurrent = 0; }

    // Packs `factor` (a finished double factor in the layout of Tamber::estimateWork: container column j
    // holds its off-diagonal tiles, then its diagonal tile last, whose diagonal is exactly 1) and sets
    // isCurrent = 1. Leaves isCurrent = 0 and packs nothing when a diagonal tile has an entry other than
    // exactly 1 on its diagonal (the packed solve does not divide by it) or the factor has no block column.
    // Arrays grow only: packing a factor of a structure seen before allocates nothing. Cost: one read of the
    // tiles' used values and one write of the packed ones.
    // Returns isCurrent.
    bool pack(const SparseMatrix<double>& factor);
};

// ---------------------------------------------------------------------------------------------------------
// Packed solve steps: the paired steps of the double solves (kernels::fast in Kernels.h: forwardOffDiagonal,
// forwardDiagonal, backwardDiagonal, backwardOffDiagonal) on packed tiles, with the same operations per entry
// in the same order, including the products with the zero padding entries the tiles hold (an odd size still
// reads the entry after its slice of x and writes it back, as there): the results are the same bits for every
// input, non-finite values included. B is s_i × s_j with leading dimension s_i; T is a packed strict upper
// triangle of s_j × s_j (T(q, r) at r·(r−1)/2 + q). The diagonal of the unit triangle is not stored and not
// divided by (the tile form's division by an exact 1 is skipped there too). Exported for the tests.
// ---------------------------------------------------------------------------------------------------------
namespace kernels {
namespace packed {

// x_j ← x_j − Bᵀ·x_i.
void forwardOffDiagonal(const double* B, const double* xi, unsigned int si, double* xj, unsigned int sj);
// x_j ← U⁻ᵀ·x_j, U unit upper with strict upper triangle T.
void forwardDiagonal(const double* T, double* xj, unsigned int sj);
// x_j ← U⁻¹·x_j, U unit upper with strict upper triangle T.
void backwardDiagonal(const double* T, double* xj, unsigned int sj);
// x_i ← x_i − B·x_j.
void backwardOffDiagonal(const double* B, const double* xj, unsigned int sj, double* xi, unsigned int si);

}  // namespace packed
}  // namespace kernels

}  // namespace kivTamber

#endif  // KIVTAMBER_SOLVESTORAGE_H
