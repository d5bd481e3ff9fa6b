// Packing of a finished double factor for the solves, and the exported packed solve steps.
#include "SolveStorage.h"

#include "KernelsSolve.h"

namespace kivTamber {

bool SolveStorage::pack(const SparseMatrix<double>& U) {
    isCurrent = 0;
    const unsigned int n = static_cast<unsigned int>(U.numBlockCols);
    numBlockCols = 0;
    if (n == 0) return false;
    sizes.resize(n);
    offsets.resize(n + 1);
    columnTiles.resize(n + 1);
    columnValues.resize(n + 1);

    // Sizes of the packed arrays.
    unsigned long total = 0;
    unsigned int count = 0;
    unsigned int offset = 0;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int sj = U.blockSizes[j];
        sizes[j] = sj;
        offsets[j] = offset;
        offset += sj;
        columnTiles[j] = count;
        columnValues[j] = total;
        const unsigned int diag = U.colPointers[j + 1] - 1;
        for (unsigned int k = U.colPointers[j]; k < diag; ++k)
            total += static_cast<unsigned long>(U.blockSizes[U.rowIndices[k]]) * sj;
        count += diag - U.colPointers[j];
        total += static_cast<unsigned long>(sj) * (sj - 1) / 2;
    }
    offsets[n] = offset;
    columnTiles[n] = count;
    columnValues[n] = total;
    tiles.resize(count);
    values.resize(total + 2);  // + 2: a pair loaded at the last value stays inside the array

    double* out = values.data;
    Tile* tile = tiles.data();
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int sj = U.blockSizes[j];
        const unsigned int diag = U.colPointers[j + 1] - 1;
        for (unsigned int k = U.colPointers[j]; k < diag; ++k) {
            const unsigned int i = U.rowIndices[k], si = U.blockSizes[i], ld = U.blockStrides[i];
            *tile++ = Tile{U.blockOffsets[i], si};
            const double* B = U.blockPointers[k];
            for (unsigned int r = 0; r < sj; ++r) {
                const double* b = B + static_cast<unsigned long>(r) * ld;
                for (unsigned int q = 0; q < si; ++q) *out++ = b[q];  // B(q, r)
            }
        }
        const double* D = U.blockPointers[diag];
        const unsigned int ld = U.blockStrides[j];
        for (unsigned int r = 0; r < sj; ++r) {
            const double* u = D + static_cast<unsigned long>(r) * ld;
            if (u[r] != 1.0) return false;  // not a unit triangle: the packed solve would not divide by it
            for (unsigned int q = 0; q < r; ++q) *out++ = u[q];  // U(q, r), q < r
        }
    }
    numBlockCols = n;
    isCurrent = 1;
    return true;
}

namespace kernels {
namespace packed {

void forwardOffDiagonal(const double* B, const double* xi, unsigned int si, double* xj, unsigned int sj) {
    packedForwardOffDiagonal(B, xi, si, xj, sj);
}
void forwardDiagonal(const double* T, double* xj, unsigned int sj) {
    packedForwardDiagonal(T, xj, sj);
}
void backwardDiagonal(const double* T, double* xj, unsigned int sj) {
    packedBackwardDiagonal(T, xj, sj);
}
void backwardOffDiagonal(const double* B, const double* xj, unsigned int sj, double* xi, unsigned int si) {
    packedBackwardOffDiagonal(B, xj, sj, xi, si);
}

}  // namespace packed
}  // namespace kernels

}  // namespace kivTamber
