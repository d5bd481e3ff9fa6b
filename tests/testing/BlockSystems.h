// Seeded random block systems for the tests, with their dense twin and the road into a TamberData.
//
// A BlockSystem is a symmetric matrix of nb blocks (block b has s_b scalar rows, 1 ≤ s_b ≤ 7 by default)
// given three ways at once:
//  - its block pattern: lowerRows[i] = the ascending blocks j < i coupled to i (the lower triangle by rows);
//  - its values as a full dense matrix (`dense`, N×N, symmetric);
//  - on demand, as the library's objects: buildSkeleton (the pattern in SkeletonMatrix list form),
//    fillMatrix (a SparseMatrix<T> in the factor's upper form) and fillData (everything a factorization
//    needs).
// The block order is already an elimination order in which every pivot exists, so no permutation is needed:
//  - makeSpdSystem: a diagonally dominant symmetric positive definite matrix on a random pattern;
//  - makeSaddlePointSystem: [M Jᵀ; J 0] with M symmetric positive definite over the body blocks (block
//    diagonal plus random couplings) and J of full row rank; each constraint block couples to one or two
//    bodies and is placed right after the later of them, and constraint blocks never couple to each other.
//    Every leading principal submatrix is then non-singular, so L·D·Lᵀ exists without pivoting.
//
// Typical use (any test of the factorization, the solves or the updates):
//     BlockSystem sys = makeSaddlePointSystem(seed, 12, 6);
//     TamberData<double> data;
//     sys.fillData(data);              // skeleton, etree, filled skeleton, matrix, identity permutation
//     Tamber tamber;
//     tamber.estimateWork(data, &work);
//     tamber.factorSerial(data);       // or set isFactored = 0 and let a solve factor
//     ... compare with sys.dense, e.g. denseLdlt(sys.dense), or extractFactor(data, ...) ...
#ifndef KIVTAMBER_TESTING_BLOCKSYSTEMS_H
#define KIVTAMBER_TESTING_BLOCKSYSTEMS_H

#include <string>
#include <vector>

#include "SkeletonMatrix.h"
#include "SparseTypes.h"
#include "Tamber.h"
#include "testing/DenseReference.h"
#include "testing/Patterns.h"

namespace kivTamber {
namespace testing {

class BlockSystem {
public:
    unsigned int nb = 0;                      // number of blocks
    unsigned int N = 0;                       // scalar dimension
    std::vector<unsigned int> sizes;          // s_b
    std::vector<unsigned int> offsets;        // scalar offset of block b (nb + 1 entries, the last is N)
    std::vector<unsigned char> isConstraint;  // 1 for a constraint block (zero diagonal block)
    std::vector<std::vector<unsigned int>> lowerRows;  // per block row i the coupled blocks j < i, ascending
    DenseSymmetric dense;                              // the matrix, N×N

    // Number of pattern entries of the lower triangle including the diagonal.
    unsigned long numEntries() const;

    // The block pattern as a dense boolean matrix (for symbolicFactor and friends).
    BlockPattern pattern() const;

    // The pattern in SkeletonMatrix list form: per block i the blocks lowerRows[i], then i itself; fillFlags
    // 0, no blockWords. S is resized (kept when large enough).
    void buildSkeleton(SkeletonMatrix& S) const;

    // The matrix in the factor's upper form: A.clear(), setSize(nb, nb, entries, Σ p_i·p_j), then for each
    // block column i ascending the blocks (j, i), j in lowerRows[i], then the diagonal (i, i), each tile
    // written in full (both triangles of a diagonal tile) with zero padding.
    template <typename T>
    void fillMatrix(SparseMatrix<T>& A) const;

    // Everything up to the numeric factorization: the pattern → the elimination tree (TreeUpdate::computeTree
    // with every block active, then child lists and post order) → data.skeleton = the filled pattern
    // (Analysis::computeFilledSkeleton) → data.matrix (fillMatrix) → data.permutation = the identity.
    // isFactored is set to 0; factor, scaledFactor and diagonal are not touched. Reuses every array.
    template <typename T>
    void fillData(TamberData<T>& data) const;

    // Overwrites the values of data.matrix (same structure) with this system's values times `scale`.
    template <typename T>
    void refillValues(SparseMatrix<T>& A, double scale) const;
};

// The system of the given block sizes and dense matrix: blocks (i, j) couple where any entry of the block is
// non-zero; every block is a body.
BlockSystem makeFromDense(const std::vector<unsigned int>& sizes, const DenseSymmetric& A);

// One line for failure messages: nb, N, the block sizes and the number of pattern entries.
std::string describe(const BlockSystem& sys);

// A random SPD system: nb blocks of sizes 1..maxBlockSize, each pair i > j coupled with probability
// `density`, off-diagonal values uniform in [−1, 1], diagonal blocks dominant.
BlockSystem makeSpdSystem(unsigned long seed, unsigned int nb, unsigned int maxBlockSize = 7,
                          double density = 0.3);

// A random saddle-point system with `numBodies` bodies and up to `numConstraints` constraints (fewer when the
// bodies have no room left for more independent constraint rows): sizes 1..maxBlockSize, bodies coupled to
// each other with probability `bodyDensity`. The order is bodies ascending, each followed by the constraints
// whose later body it is.
BlockSystem makeSaddlePointSystem(unsigned long seed, unsigned int numBodies, unsigned int numConstraints,
                                  unsigned int maxBlockSize = 7, double bodyDensity = 0.15);

// Independent systems side by side (a block-diagonal matrix, as the separate bodies of a physics scene
// give): `islands` random SPD and saddle-point systems taken in turns, sizes 1..maxBlockSize, the pattern
// and values of each kept, no coupling between them.
BlockSystem makeIslands(unsigned long seed, unsigned int islands, unsigned int maxBlockSize = 12);

// A real matrix from a Matrix Market file (`coordinate real symmetric`, lower triangle, uncompressed) as a
// block system: consecutive scalars grouped into blocks of `groupSize` (the last group of the primal part and
// of the constraint part may be smaller); scalars at or beyond `firstConstraintRow` (0-based) form the
// constraint blocks. The dense twin is N×N, so keep N to a few thousand. Returns false (sys untouched) when
// the file cannot be read or is not of that form.
bool loadMatrixMarket(const char* path, unsigned int groupSize, unsigned int firstConstraintRow,
                      BlockSystem& sys);

// The folder of the real test matrices: $KIVTAMBER_DATA_DIR, or null when it is not set.
const char* realDataDir();

// The computed factor as dense matrices: Lout = L (N×N, row-major, unit lower, from data.factor's blocks;
// zero outside the pattern) and dOut = the N pivots. Works on a factored data object.
template <typename T>
void extractFactor(const TamberData<T>& data, DenseLdlt& out);

// L·D·Lᵀ of a factored data object minus its input matrix, restricted to the filled block pattern: the
// largest absolute difference over the scalar entries of the blocks (i, j) of data.skeleton. `dense` is the
// input.
template <typename T>
double reconstructionError(const TamberData<T>& data, const DenseSymmetric& dense);

extern template void BlockSystem::fillMatrix<float>(SparseMatrix<float>&) const;
extern template void BlockSystem::fillMatrix<double>(SparseMatrix<double>&) const;
extern template void BlockSystem::fillData<float>(TamberData<float>&) const;
extern template void BlockSystem::fillData<double>(TamberData<double>&) const;
extern template void BlockSystem::refillValues<float>(SparseMatrix<float>&, double) const;
extern template void BlockSystem::refillValues<double>(SparseMatrix<double>&, double) const;
extern template void extractFactor<float>(const TamberData<float>&, DenseLdlt&);
extern template void extractFactor<double>(const TamberData<double>&, DenseLdlt&);
extern template double reconstructionError<float>(const TamberData<float>&, const DenseSymmetric&);
extern template double reconstructionError<double>(const TamberData<double>&, const DenseSymmetric&);

}  // namespace testing
}  // namespace kivTamber

#endif  // KIVTAMBER_TESTING_BLOCKSYSTEMS_H
