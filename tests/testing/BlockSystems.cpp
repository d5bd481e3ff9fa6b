#include "testing/BlockSystems.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "Analysis.h"
#include "TreeUpdate.h"

namespace kivTamber {
namespace testing {

namespace {

template <typename T>
unsigned int padded(unsigned int s) {
    return sizeof(T) == sizeof(double) ? (s + 1) & ~1u : s;
}

// Offsets, N and a zero dense twin from `sizes`; blocks not yet marked become bodies; no couplings yet.
void setSizes(BlockSystem& sys) {
    sys.nb = static_cast<unsigned int>(sys.sizes.size());
    sys.isConstraint.resize(sys.nb, 0);
    sys.lowerRows.assign(sys.nb, {});
    sys.offsets.assign(sys.nb + 1, 0);
    for (unsigned int b = 0; b < sys.nb; ++b) sys.offsets[b + 1] = sys.offsets[b] + sys.sizes[b];
    sys.N = sys.offsets[sys.nb];
    sys.dense = DenseSymmetric(sys.N);
}

// Random values uniform in [−scale, scale] in the off-diagonal block (i, j) and its mirror.
void randomBlock(BlockSystem& sys, unsigned int i, unsigned int j, std::mt19937_64& rng, double scale = 1.0) {
    std::uniform_real_distribution<double> u(-scale, scale);
    for (unsigned int r = 0; r < sys.sizes[i]; ++r)
        for (unsigned int c = 0; c < sys.sizes[j]; ++c)
            sys.dense.setSymmetric(sys.offsets[i] + r, sys.offsets[j] + c, u(rng));
}

// A symmetric diagonal block with random entries and a diagonal that dominates the scalar row over the body
// columns (constraint columns do not count toward the definiteness of M).
void dominantDiagonalBlock(BlockSystem& sys, unsigned int b, std::mt19937_64& rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const unsigned int o = sys.offsets[b], s = sys.sizes[b];
    for (unsigned int r = 0; r < s; ++r)
        for (unsigned int c = 0; c < r; ++c) sys.dense.setSymmetric(o + r, o + c, u(rng));
    for (unsigned int r = 0; r < s; ++r) {
        double rowSum = 0.0;
        for (unsigned int k = 0; k < sys.nb; ++k)
            for (unsigned int c = sys.offsets[k]; c < sys.offsets[k + 1] && !sys.isConstraint[k]; ++c)
                if (c != o + r) rowSum += std::fabs(sys.dense(o + r, c));
        sys.dense(o + r, o + r) = rowSum + 1.0 + std::fabs(u(rng));
    }
}

}  // namespace

unsigned long BlockSystem::numEntries() const {
    unsigned long e = nb;
    for (const auto& row : lowerRows) e += row.size();
    return e;
}

BlockPattern BlockSystem::pattern() const {
    BlockPattern p(nb);
    for (unsigned int i = 0; i < nb; ++i)
        for (unsigned int j : lowerRows[i]) p.couple(i, j);
    return p;
}

void BlockSystem::buildSkeleton(SkeletonMatrix& S) const {
    S.resize(nb, numEntries(), false);
    unsigned int k = 0;
    for (unsigned int i = 0; i < nb; ++i) {
        S.colPointers[i] = k;
        for (unsigned int j : lowerRows[i]) S.rowIndices[k++] = j;
        S.rowIndices[k++] = i;
    }
    std::fill(S.fillFlags, S.fillFlags + k, static_cast<unsigned char>(0));
    if (S.colPointers) S.colPointers[nb] = k;
}

template <typename T>
void BlockSystem::fillMatrix(SparseMatrix<T>& A) const {
    unsigned long values = 0;
    for (unsigned int i = 0; i < nb; ++i) {
        values += static_cast<unsigned long>(padded<T>(sizes[i])) * padded<T>(sizes[i]);
        for (unsigned int j : lowerRows[i])
            values += static_cast<unsigned long>(padded<T>(sizes[i])) * padded<T>(sizes[j]);
    }
    A.clear();
    A.setSize(nb, nb, numEntries(), values);
    for (unsigned int i = 0; i < nb; ++i) {
        for (unsigned int j : lowerRows[i]) A.acquireBlock(i, j, sizes[i], sizes[j]);
        A.acquireBlock(i, i, sizes[i], sizes[i]);
    }
    refillValues(A, 1.0);
}

template <typename T>
void BlockSystem::refillValues(SparseMatrix<T>& A, double scale) const {
    // Container block (j, i) of column i: s_j rows × s_i columns, column-major with leading dimension p_j;
    // element (r, c) is A(off_j + r, off_i + c).
    for (unsigned int i = 0; i < nb; ++i)
        for (unsigned int k = A.colPointers[i]; k < A.colPointers[i + 1]; ++k) {
            const unsigned int j = A.rowIndices[k], p_j = padded<T>(sizes[j]);
            for (unsigned int c = 0; c < sizes[i]; ++c)
                for (unsigned int r = 0; r < sizes[j]; ++r)
                    A.blockPointers[k][c * p_j + r] =
                        static_cast<T>(scale * dense(offsets[j] + r, offsets[i] + c));
        }
}

template <typename T>
void BlockSystem::fillData(TamberData<T>& data) const {
    SkeletonMatrix pattern;
    buildSkeleton(pattern);

    EliminationTree& tree = data.etree;
    if (tree.capacity < nb || tree.parent == nullptr) {
        if (tree.parent) tree.releaseMemory();
        tree.allocateMemory(std::max(nb, 1u));
    }
    tree.numNodes = nb;
    std::vector<unsigned int> active(nb, 1);
    TreeUpdate::computeTree(&tree, pattern, active.data());
    tree.computeTreeStructure();
    tree.computePostOrder();

    Analysis::computeFilledSkeleton(pattern, tree, data.skeleton);
    fillMatrix(data.matrix);
    data.permutation.setSize(nb);
    for (unsigned int b = 0; b < nb; ++b) data.permutation.forward[b] = data.permutation.inverse[b] = b;
    data.isFactored = 0;
}

BlockSystem makeFromDense(const std::vector<unsigned int>& sizes, const DenseSymmetric& A) {
    BlockSystem sys;
    sys.sizes = sizes;
    setSizes(sys);
    sys.dense = A;
    for (unsigned int i = 0; i < sys.nb; ++i)
        for (unsigned int j = 0; j < i; ++j) {
            bool any = false;
            for (unsigned int r = sys.offsets[i]; r < sys.offsets[i + 1] && !any; ++r)
                for (unsigned int c = sys.offsets[j]; c < sys.offsets[j + 1]; ++c)
                    any = any || A(r, c) != 0.0;
            if (any) sys.lowerRows[i].push_back(j);
        }
    return sys;
}

BlockSystem makeIslands(unsigned long seed, unsigned int islands, unsigned int maxBlockSize) {
    std::vector<BlockSystem> parts;
    BlockSystem sys;
    for (unsigned int k = 0; k < islands; ++k) {
        const unsigned long s = seed * 101 + k;
        parts.push_back(k % 2 == 0
                            ? makeSpdSystem(s, 2 + static_cast<unsigned int>(s % 6), maxBlockSize, 0.5)
                            : makeSaddlePointSystem(s, 2 + static_cast<unsigned int>(s % 3),
                                                    1 + static_cast<unsigned int>(s % 3), maxBlockSize));
        sys.sizes.insert(sys.sizes.end(), parts.back().sizes.begin(), parts.back().sizes.end());
    }
    setSizes(sys);
    sys.dense = DenseSymmetric(sys.N);
    unsigned int block = 0, offset = 0;
    for (const BlockSystem& part : parts) {
        for (unsigned int r = 0; r < part.N; ++r)
            for (unsigned int c = 0; c < part.N; ++c) sys.dense(offset + r, offset + c) = part.dense(r, c);
        for (unsigned int i = 0; i < part.nb; ++i) {
            sys.isConstraint[block + i] = part.isConstraint[i];
            for (unsigned int j : part.lowerRows[i]) sys.lowerRows[block + i].push_back(block + j);
        }
        block += part.nb;
        offset += part.N;
    }
    return sys;
}

std::string describe(const BlockSystem& sys) {
    std::string s = "nb=" + std::to_string(sys.nb) + " N=" + std::to_string(sys.N) +
                    " entries=" + std::to_string(sys.numEntries()) + " sizes=";
    for (unsigned int b = 0; b < sys.nb; ++b) s += (b ? "," : "") + std::to_string(sys.sizes[b]);
    return s;
}

BlockSystem makeSpdSystem(unsigned long seed, unsigned int nb, unsigned int maxBlockSize, double density) {
    std::mt19937_64 rng(seed);
    std::uniform_int_distribution<unsigned int> size(1, maxBlockSize);
    std::bernoulli_distribution couple(density);
    BlockSystem sys;
    for (unsigned int b = 0; b < nb; ++b) sys.sizes.push_back(size(rng));
    setSizes(sys);
    for (unsigned int i = 0; i < nb; ++i)
        for (unsigned int j = 0; j < i; ++j)
            if (couple(rng)) sys.lowerRows[i].push_back(j), randomBlock(sys, i, j, rng);
    for (unsigned int b = 0; b < nb; ++b) dominantDiagonalBlock(sys, b, rng);
    return sys;
}

BlockSystem makeSaddlePointSystem(unsigned long seed, unsigned int numBodies, unsigned int numConstraints,
                                  unsigned int maxBlockSize, double bodyDensity) {
    std::mt19937_64 rng(seed);
    std::uniform_int_distribution<unsigned int> size(1, maxBlockSize);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::bernoulli_distribution couple(bodyDensity), twoBodies(0.7);

    // Bodies, and constraints that each own distinct columns of one primary body.
    std::vector<unsigned int> bodySize(numBodies), room(numBodies);
    for (unsigned int b = 0; b < numBodies; ++b) room[b] = bodySize[b] = size(rng);
    struct Constraint {
        unsigned int size, primary, second, firstColumn;  // second = primary for a one-body constraint
    };
    std::vector<Constraint> constraints;
    for (unsigned int c = 0; c < numConstraints && numBodies > 0; ++c) {
        std::vector<unsigned int> candidates;
        for (unsigned int b = 0; b < numBodies; ++b)
            if (room[b] > 0) candidates.push_back(b);
        if (candidates.empty()) break;
        const unsigned int primary =
            candidates[std::uniform_int_distribution<std::size_t>(0, candidates.size() - 1)(rng)];
        const unsigned int m = std::min(size(rng), room[primary]);
        unsigned int second = primary;
        if (numBodies > 1 && twoBodies(rng)) {
            second = std::uniform_int_distribution<unsigned int>(0, numBodies - 2)(rng);
            if (second >= primary) ++second;
        }
        constraints.push_back({m, primary, second, bodySize[primary] - room[primary]});
        room[primary] -= m;
    }

    // Order: each body followed by the constraints whose later body it is.
    std::vector<unsigned int> bodyBlock(numBodies), constraintBlock(constraints.size());
    BlockSystem sys;
    for (unsigned int b = 0; b < numBodies; ++b) {
        bodyBlock[b] = static_cast<unsigned int>(sys.sizes.size());
        sys.sizes.push_back(bodySize[b]);
        sys.isConstraint.push_back(0);
        for (std::size_t c = 0; c < constraints.size(); ++c)
            if (std::max(constraints[c].primary, constraints[c].second) == b) {
                constraintBlock[c] = static_cast<unsigned int>(sys.sizes.size());
                sys.sizes.push_back(constraints[c].size);
                sys.isConstraint.push_back(1);
            }
    }
    setSizes(sys);

    // M: random body couplings, then the constraint blocks J, then dominant body diagonals (they see the
    // couplings only through M's rows, which the dominance below accounts for).
    for (unsigned int a = 0; a < numBodies; ++a)
        for (unsigned int b = 0; b < a; ++b)
            if (couple(rng))
                sys.lowerRows[bodyBlock[a]].push_back(bodyBlock[b]),
                    randomBlock(sys, bodyBlock[a], bodyBlock[b], rng);
    for (std::size_t c = 0; c < constraints.size(); ++c) {
        const Constraint& con = constraints[c];
        const unsigned int cb = constraintBlock[c];
        for (unsigned int body : {con.primary, con.second}) {
            if (!sys.lowerRows[cb].empty() && con.second == con.primary) continue;  // one body only
            sys.lowerRows[cb].push_back(bodyBlock[body]);
            randomBlock(sys, cb, bodyBlock[body], rng, 0.2);
        }
        // Dominant entries on the primary columns owned by this constraint: the square part of J on the owned
        // columns is strictly diagonally dominant by rows (3 against at most 13·0.2), so J has full row rank.
        const unsigned int pb = bodyBlock[con.primary];
        for (unsigned int r = 0; r < con.size; ++r) {
            const unsigned int row = sys.offsets[cb] + r, col = sys.offsets[pb] + con.firstColumn + r;
            sys.dense.setSymmetric(row, col, (u(rng) < 0 ? -1.0 : 1.0) * (3.0 + std::fabs(u(rng))));
        }
    }
    for (auto& row : sys.lowerRows) std::sort(row.begin(), row.end());
    for (unsigned int b = 0; b < numBodies; ++b) dominantDiagonalBlock(sys, bodyBlock[b], rng);
    return sys;
}

bool loadMatrixMarket(const char* path, unsigned int groupSize, unsigned int firstConstraintRow,
                      BlockSystem& sys) {
    std::FILE* file = groupSize == 0 ? nullptr : std::fopen(path, "r");
    if (!file) return false;
    char line[512];
    bool ok = std::fgets(line, sizeof line, file) != nullptr &&
              std::strncmp(line, "%%MatrixMarket matrix coordinate real symmetric", 47) == 0;
    while (ok && std::fgets(line, sizeof line, file) && line[0] == '%') continue;
    unsigned long rows = 0, cols = 0, nnz = 0;
    ok = ok && std::sscanf(line, "%lu %lu %lu", &rows, &cols, &nnz) == 3 && rows == cols && rows < 20000;
    BlockSystem out;
    if (ok) {
        const unsigned int n = static_cast<unsigned int>(rows), split = std::min(firstConstraintRow, n);
        for (unsigned int start = 0; start < n;) {
            const unsigned int end = std::min(start + groupSize, start < split ? split : n);
            out.sizes.push_back(end - start);
            out.isConstraint.push_back(start >= split ? 1 : 0);
            start = end;
        }
        setSizes(out);
        std::vector<unsigned int> blockOf(n);
        for (unsigned int b = 0; b < out.nb; ++b)
            for (unsigned int r = out.offsets[b]; r < out.offsets[b + 1]; ++r) blockOf[r] = b;
        for (unsigned long k = 0; ok && k < nnz; ++k) {
            unsigned long i = 0, j = 0;
            double v = 0.0;
            ok = std::fscanf(file, "%lu %lu %lg", &i, &j, &v) == 3 && i >= 1 && j >= 1 && i <= n && j <= n;
            if (!ok) break;
            out.dense.setSymmetric(static_cast<unsigned int>(i - 1), static_cast<unsigned int>(j - 1), v);
            unsigned int bi = blockOf[i - 1], bj = blockOf[j - 1];
            if (bi < bj) std::swap(bi, bj);
            if (bi != bj) out.lowerRows[bi].push_back(bj);
        }
        for (auto& row : out.lowerRows) {
            std::sort(row.begin(), row.end());
            row.erase(std::unique(row.begin(), row.end()), row.end());
        }
    }
    std::fclose(file);
    if (ok) sys = std::move(out);
    return ok;
}

const char* realDataDir() {
    return std::getenv("KIVTAMBER_DATA_DIR");
}

template <typename T>
void extractFactor(const TamberData<T>& data, DenseLdlt& out) {
    const SparseMatrix<T>& L = data.factor;
    const unsigned int nb = static_cast<unsigned int>(L.numBlockCols), N = nb > 0 ? L.blockSizes[nb] : 0;
    out.n = N;
    out.L.assign(static_cast<std::size_t>(N) * N, 0.0);
    out.d.assign(data.diagonal.data, data.diagonal.data + N);
    // Container column i holds block row i of L: tile (j, i) read row-major with row stride p_j is L(i, j).
    for (unsigned int i = 0; i < nb; ++i)
        for (unsigned int k = L.colPointers[i]; k < L.colPointers[i + 1]; ++k) {
            const unsigned int j = L.rowIndices[k], p_j = L.blockStrides[j];
            for (unsigned int r = 0; r < L.blockSizes[i]; ++r)
                for (unsigned int c = 0; c < L.blockSizes[j]; ++c)
                    out.L[static_cast<std::size_t>(L.blockOffsets[i] + r) * N + L.blockOffsets[j] + c] =
                        static_cast<double>(L.blockPointers[k][r * p_j + c]);
        }
}

template <typename T>
double reconstructionError(const TamberData<T>& data, const DenseSymmetric& dense) {
    DenseLdlt f;
    extractFactor(data, f);
    const DenseSymmetric LDLt = denseReconstruct(f);
    const SkeletonMatrix& S = data.skeleton;
    const SparseMatrix<T>& L = data.factor;
    double err = 0.0;
    for (unsigned int i = 0; i < S.n; ++i)
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e];
            for (unsigned int r = 0; r < L.blockSizes[i]; ++r)
                for (unsigned int c = 0; c < L.blockSizes[j]; ++c) {
                    const unsigned int row = L.blockOffsets[i] + r, col = L.blockOffsets[j] + c;
                    err = std::max(err, std::fabs(LDLt(row, col) - dense(row, col)));
                }
        }
    return err;
}

template void BlockSystem::fillMatrix<float>(SparseMatrix<float>&) const;
template void BlockSystem::fillMatrix<double>(SparseMatrix<double>&) const;
template void BlockSystem::fillData<float>(TamberData<float>&) const;
template void BlockSystem::fillData<double>(TamberData<double>&) const;
template void BlockSystem::refillValues<float>(SparseMatrix<float>&, double) const;
template void BlockSystem::refillValues<double>(SparseMatrix<double>&, double) const;
template void extractFactor<float>(const TamberData<float>&, DenseLdlt&);
template void extractFactor<double>(const TamberData<double>&, DenseLdlt&);
template double reconstructionError<float>(const TamberData<float>&, const DenseSymmetric&);
template double reconstructionError<double>(const TamberData<double>&, const DenseSymmetric&);

}  // namespace testing
}  // namespace kivTamber
