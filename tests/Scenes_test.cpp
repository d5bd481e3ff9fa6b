// Scene library: the assembled saddle-point systems and their loading into TamberData, checked against
// dense references (symmetry, zero constraint diagonals, SPD bodies, full row rank of J, kinematics of the
// constraint rows, fill pattern, residuals of the factored solves) and for allocation-free reuse.
#include "scenes/Scenes.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "TamberSolve.h"

using namespace kivTamber;
using namespace kivTamber::scenes;

namespace {

struct SceneCase {
    SceneKind kind;
    unsigned int size;
    const char* label;
};

const SceneCase kCases[] = {
    {SceneKind::chain, 6, "chain"},
    {SceneKind::ragdolls, 3, "ragdolls"},
    {SceneKind::cloth, 5, "cloth"},
    {SceneKind::boxWall, 4, "boxwall"},
};

std::vector<double> denseOf(const BlockProblem& p) {
    std::vector<double> a(static_cast<std::size_t>(p.scalarSize()) * p.scalarSize());
    assembleDense(p, a.data());
    return a;
}

// Numerical rank of a rows × cols row-major matrix: Gaussian elimination with complete pivoting, pivots
// below tol · (largest pivot) count as zero.
unsigned int rankOf(std::vector<double> a, unsigned int rows, unsigned int cols, double tol) {
    unsigned int rank = 0;
    double first = 0.0;
    for (; rank < std::min(rows, cols); ++rank) {
        unsigned int pr = rank, pc = rank;
        double best = 0.0;
        for (unsigned int r = rank; r < rows; ++r)
            for (unsigned int c = rank; c < cols; ++c)
                if (std::fabs(a[r * cols + c]) > best) best = std::fabs(a[r * cols + c]), pr = r, pc = c;
        if (rank == 0) first = best;
        if (best <= tol * first || best == 0.0) break;
        for (unsigned int c = 0; c < cols; ++c) std::swap(a[rank * cols + c], a[pr * cols + c]);
        for (unsigned int r = 0; r < rows; ++r) std::swap(a[r * cols + rank], a[r * cols + pc]);
        for (unsigned int r = rank + 1; r < rows; ++r) {
            const double f = a[r * cols + rank] / a[rank * cols + rank];
            for (unsigned int c = rank; c < cols; ++c) a[r * cols + c] -= f * a[rank * cols + c];
        }
    }
    return rank;
}

// J: the constraint rows × body columns of the dense matrix.
std::vector<double> jacobianOf(const BlockProblem& p, const std::vector<double>& dense, unsigned int& rows,
                               unsigned int& cols) {
    const unsigned int N = p.scalarSize();
    cols = p.blockOffsets[p.firstConstraint];
    rows = N - cols;
    std::vector<double> J(static_cast<std::size_t>(rows) * cols);
    for (unsigned int r = 0; r < rows; ++r)
        for (unsigned int c = 0; c < cols; ++c) J[r * cols + c] = dense[(cols + r) * N + c];
    return J;
}

bool isSpd(const double* block, unsigned int s) {
    std::vector<double> l(block, block + s * s);
    for (unsigned int j = 0; j < s; ++j) {
        for (unsigned int k = 0; k < j; ++k) l[j * s + j] -= l[j * s + k] * l[j * s + k];
        if (!(l[j * s + j] > 0.0)) return false;
        l[j * s + j] = std::sqrt(l[j * s + j]);
        for (unsigned int i = j + 1; i < s; ++i) {
            for (unsigned int k = 0; k < j; ++k) l[i * s + j] -= l[i * s + k] * l[j * s + k];
            l[i * s + j] /= l[j * s + j];
        }
    }
    return true;
}

// Scaled residual ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) in user numbering.
double scaledResidual(const std::vector<double>& A, const std::vector<double>& x,
                      const std::vector<double>& b) {
    const std::size_t N = b.size();
    double r = 0, normA = 0, normX = 0, normB = 0;
    for (std::size_t i = 0; i < N; ++i) {
        double sum = -b[i], row = 0;
        for (std::size_t j = 0; j < N; ++j) sum += A[i * N + j] * x[j], row += std::fabs(A[i * N + j]);
        r = std::max(r, std::fabs(sum));
        normA = std::max(normA, row);
        normX = std::max(normX, std::fabs(x[i]));
        normB = std::max(normB, std::fabs(b[i]));
    }
    return r / (normA * normX + normB);
}

std::vector<double> randomVector(std::size_t n, unsigned int seed) {
    std::vector<double> v(n);
    unsigned long s = 0x9E3779B97F4A7C15ul * (seed + 1);
    for (double& x : v) {
        s = s * 6364136223846793005ul + 1442695040888963407ul;
        x = static_cast<double>(s >> 11) / 9007199254740992.0 * 2.0 - 1.0;
    }
    return v;
}

// Factors data (serially) and solves A·x = b for b in user numbering; returns x in user numbering.
template <typename T>
std::vector<double> factorAndSolve(const BlockProblem& p, TamberData<T>& data, const std::vector<double>& b) {
    Tamber tamber;
    tamber.estimateWork(data, nullptr);
    tamber.factorSerial(data);
    const std::size_t N = b.size();
    std::vector<T> user(b.begin(), b.end()), permuted(N), solution(N);
    permuteVector(p, data.permutation, user.data(), permuted.data());
    tamber.solve(data, permuted.data());
    unpermuteVector(p, data.permutation, permuted.data(), solution.data());
    return std::vector<double>(solution.begin(), solution.end());
}

// Chain order b0 j0 b1 j1 j2 b2 j3 b3 … : joint k ≥ 2 (links k−1, k) right after link k−1, before link k, so
// its block with link k crosses the diagonal. Valid: every leading set of joints has full row rank on the
// links placed before it (stacking joints 0 and 1 on link 0 alone would not be: [I −[r]×] twice has rank 5).
void earlyJointOrder(const BlockProblem& p, Permutation& order) {
    const unsigned int links = p.firstConstraint;
    order.setSize(p.numBlocks);
    unsigned int k = 0;
    for (unsigned int b = 0; b < links; ++b) {
        if (b >= 2) order.forward[k++] = links + b;  // joint b, before its second link b
        order.forward[k++] = b;
        if (b < 2) order.forward[k++] = links + b;  // joints 0 and 1 after their last link
    }
    order.computeInverse();
}

class SceneTest : public ::testing::TestWithParam<SceneCase> {};

// ---------------------------------------------------------------------------------------------------------

TEST_P(SceneTest, AssembledSystemIsAValidSaddlePointSystem) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    BlockProblem p;
    for (int step = 0; step < 6; ++step) {
        SCOPED_TRACE(step);
        scene->build(p);
        std::string message;
        ASSERT_TRUE(checkProblem(p, message)) << message;  // symmetric diagonals, zero constraint diagonals
        ASSERT_EQ(p.firstConstraint, scene->numBodies());
        ASSERT_GT(p.numBlocks, p.firstConstraint);
        for (unsigned int b = 0; b < p.firstConstraint; ++b) {
            ASSERT_EQ(p.colPointers[b + 1] - p.colPointers[b], 1u)
                << "bodies are coupled only through constraints";
            ASSERT_EQ(p.blockSizes[b], scene->bodySize(b));
            EXPECT_TRUE(isSpd(p.entryValues(p.colPointers[b]), p.blockSizes[b])) << "body " << b;
        }
        for (unsigned int k = p.firstConstraint; k < p.numBlocks; ++k) {
            const unsigned int couplings = p.colPointers[k + 1] - p.colPointers[k] - 1;
            ASSERT_TRUE(couplings == 1 || couplings == 2) << "constraint " << k;
            ASSERT_LT(p.rowIndices[p.colPointers[k + 1] - 2], p.firstConstraint);
        }
        const std::vector<double> A = denseOf(p);
        const unsigned int N = p.scalarSize();
        for (unsigned int i = 0; i < N; ++i)
            for (unsigned int j = 0; j < i; ++j) ASSERT_EQ(A[i * N + j], A[j * N + i]);
        unsigned int rows = 0, cols = 0;
        const std::vector<double> J = jacobianOf(p, A, rows, cols);
        ASSERT_LE(rows, cols);
        EXPECT_EQ(rankOf(J, rows, cols, 1e-9), rows) << "J must have full row rank";
        scene->step(0.05);
    }
}

TEST_P(SceneTest, RebuildWithTheSameStructureAllocatesNothing) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    if (c.kind == SceneKind::boxWall) static_cast<BoxWall&>(*scene).includeInactive = true;
    BlockProblem p, first;
    scene->build(first);
    scene->build(p);
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    for (int step = 0; step < 4; ++step) {
        scene->step(0.03);
        scene->build(p);
    }
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_TRUE(p.sameStructure(first));
    EXPECT_NE(0, std::memcmp(p.values.data(), first.values.data(), p.values.size() * sizeof(double)))
        << "values must change as the bodies move";
}

TEST_P(SceneTest, LoadedMatrixEqualsThePermutedDenseMatrix) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    BlockProblem p;
    scene->build(p);
    const std::vector<double> A = denseOf(p);
    const unsigned int N = p.scalarSize(), n = p.numBlocks;
    Permutation order;
    for (unsigned int seed = 0; seed < 4; ++seed) {
        SCOPED_TRACE(seed);
        if (seed == 0) {
            naturalSafeOrder(p, order);
        } else {  // any order: blocks cross the diagonal in both directions
            order.setSize(n);
            std::vector<double> keys = randomVector(n, seed);
            std::vector<unsigned int> f(n);
            for (unsigned int k = 0; k < n; ++k) f[k] = k;
            std::sort(f.begin(), f.end(), [&](unsigned int a, unsigned int b) { return keys[a] < keys[b]; });
            std::copy(f.begin(), f.end(), order.forward);
            order.computeInverse();
        }
        TamberData<double> data;
        ASSERT_TRUE(loadIntoData(p, order, data));
        ASSERT_EQ(data.matrix.numBlockCols, n);
        ASSERT_EQ(data.matrix.numBlocks, p.numEntries());
        for (unsigned int k = 0; k < n; ++k) {  // upper form: ascending rows, diagonal last
            for (unsigned int q = data.matrix.colPointers[k]; q + 1 < data.matrix.colPointers[k + 1]; ++q)
                ASSERT_LT(data.matrix.rowIndices[q], data.matrix.rowIndices[q + 1]);
            ASSERT_EQ(data.matrix.rowIndices[data.matrix.colPointers[k + 1] - 1], k);
        }
        // y = P·A·Pᵀ·(P·x) must equal P·(A·x).
        const std::vector<double> x = randomVector(N, seed + 10);
        std::vector<double> px(N), py(N), y(N);
        permuteVector(p, order, x.data(), px.data());
        data.matrix.multiply(px.data(), py.data());
        unpermuteVector(p, order, py.data(), y.data());
        for (unsigned int i = 0; i < N; ++i) {
            double ref = 0;
            for (unsigned int j = 0; j < N; ++j) ref += A[i * N + j] * x[j];
            ASSERT_NEAR(y[i], ref, 1e-12 * (1 + std::fabs(ref))) << "row " << i;
        }
        // The filled pattern is exactly the one of the elimination game on the permuted block graph, and
        // the tree is its elimination tree: parent = first off-diagonal block in the column of L.
        std::vector<char> G(static_cast<std::size_t>(n) * n, 0);
        for (unsigned int j = 0; j < n; ++j)
            for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e) {
                const unsigned int a = order.inverse[p.rowIndices[e]], b = order.inverse[j];
                G[a * n + b] = G[b * n + a] = 1;
            }
        std::vector<unsigned int> parent(n);
        for (unsigned int k = 0; k < n; ++k) {
            parent[k] = k;
            for (unsigned int i = k + 1; i < n; ++i)
                if (G[i * n + k]) {
                    if (parent[k] == k) parent[k] = i;
                    for (unsigned int j = k + 1; j < i; ++j)
                        if (G[j * n + k]) G[i * n + j] = G[j * n + i] = 1;
                }
        }
        const SkeletonMatrix& S = data.skeleton;
        ASSERT_EQ(S.n, n);
        for (unsigned int i = 0; i < n; ++i) {
            std::vector<unsigned int> expected;
            for (unsigned int j = 0; j < i; ++j)
                if (G[i * n + j]) expected.push_back(j);
            expected.push_back(i);
            std::vector<unsigned int> got;
            for (unsigned int q = S.colPointers[i]; q < S.colPointers[i + 1]; ++q)
                got.push_back(S.rowIndices[q]);
            ASSERT_EQ(got, expected) << "row " << i << " of L";
            ASSERT_EQ(data.etree.parent[i], parent[i]) << "tree node " << i;
        }
        for (unsigned int k = 0; k < n; ++k) ASSERT_LT(data.etree.postOrder[k], n);
    }
}

TEST_P(SceneTest, FactoredSolveMatchesTheDenseSystemInBothPrecisions) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    BlockProblem p;
    Permutation order;
    TamberData<double> dataD;
    TamberData<float> dataF;
    for (int step = 0; step < 5; ++step) {
        SCOPED_TRACE(step);
        scene->build(p);
        const std::vector<double> A = denseOf(p);
        const std::vector<double> b = randomVector(p.scalarSize(), step);
        naturalSafeOrder(p, order);
        if (step == 0 || !refreshValues(p, dataD)) {
            ASSERT_TRUE(loadIntoData(p, order, dataD));
        }
        if (step == 0 || !refreshValues(p, dataF)) {
            ASSERT_TRUE(loadIntoData(p, order, dataF));
        }
        EXPECT_LT(scaledResidual(A, factorAndSolve(p, dataD, b), b), 1e-13);
        EXPECT_LT(scaledResidual(A, factorAndSolve(p, dataF, b), b), 2e-5);
        scene->step(0.05);
    }
}

TEST_P(SceneTest, RefreshedValuesEqualAFreshLoadAndAllocateNothing) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    if (c.kind == SceneKind::boxWall) static_cast<BoxWall&>(*scene).includeInactive = true;
    BlockProblem p;
    Permutation order;
    TamberData<float> data;
    Tamber tamber;
    scene->build(p);
    naturalSafeOrder(p, order);
    ASSERT_TRUE(loadIntoData(p, order, data));
    tamber.estimateWork(data, nullptr);
    std::vector<float> x(p.scalarSize() + 1, 1.0f), y(p.scalarSize() + 1);
    tamber.solve(data, x.data());  // factors
    // The loader must call the tree's post order, which may keep a work stack of its own: count that apart.
    std::uint64_t before = kiv::ByteAllocator::allocationCount();
    data.etree.computePostOrder();
    const std::uint64_t postOrderAllocations = kiv::ByteAllocator::allocationCount() - before;

    for (int step = 0; step < 3; ++step) {
        SCOPED_TRACE(step);
        scene->step(0.05);
        before = kiv::ByteAllocator::allocationCount();
        scene->build(p);
        ASSERT_TRUE(refreshValues(p, data));
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before) << "build and refresh";
        EXPECT_EQ(data.isFactored, 0);

        before = kiv::ByteAllocator::allocationCount();
        tamber.factorSerial(data);
        permuteVector(p, data.permutation, x.data(), y.data());
        tamber.solve(data, y.data());
        unpermuteVector(p, data.permutation, y.data(), x.data());
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before) << "steady-state factor and solve";

        before = kiv::ByteAllocator::allocationCount();
        naturalSafeOrder(p, order);
        ASSERT_TRUE(loadIntoData(p, order, data));
        EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, postOrderAllocations)
            << "order and load again";

        TamberData<float> fresh;
        ASSERT_TRUE(loadIntoData(p, order, fresh));
        ASSERT_TRUE(refreshValues(p, data));
        const SparseMatrix<float>& a = data.matrix;
        const SparseMatrix<float>& f = fresh.matrix;
        ASSERT_EQ(a.numBlocks, f.numBlocks);
        for (unsigned long col = 0; col < a.numBlockCols; ++col)
            for (unsigned int k = a.colPointers[col]; k < a.colPointers[col + 1]; ++k) {
                ASSERT_EQ(a.rowIndices[k], f.rowIndices[k]);
                const std::size_t count = std::size_t{a.blockStrides[a.rowIndices[k]]} * a.blockStrides[col];
                ASSERT_EQ(0, std::memcmp(a.blockPointers[k], f.blockPointers[k], count * sizeof(float)))
                    << "block " << k;
            }
        ASSERT_EQ(data.skeleton.numEntries(), fresh.skeleton.numEntries());
    }
    if (postOrderAllocations != 0) {
        std::printf("note: Tree::computePostOrder allocates %llu time(s) per call\n",
                    static_cast<unsigned long long>(postOrderAllocations));
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, SceneTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<SceneCase>& param) {
                             return std::string(param.param.label);
                         });

// ---------------------------------------------------------------------------------------------------------

// The joint rows are the time derivative of the joint conditions: along the scripted motion (which keeps
// every joint closed) J·u = 0 for the finite-difference body velocities u, and for the cloth J·u is the
// rate of change of each constrained distance.
TEST(SceneKinematics, ConstraintRowsAreTheDerivativesOfTheConstraints) {
    const double t = 0.7, h = 1e-5;
    for (const SceneCase& c : kCases) {
        if (c.kind == SceneKind::boxWall) continue;
        SCOPED_TRACE(c.label);
        auto now = makeScene(c.kind, c.size), before = makeScene(c.kind, c.size),
             after = makeScene(c.kind, c.size);
        now->setTime(t);
        before->setTime(t - h);
        after->setTime(t + h);
        BlockProblem p;
        now->build(p);
        const std::vector<double> A = denseOf(p);
        unsigned int rows = 0, cols = 0;
        const std::vector<double> J = jacobianOf(p, A, rows, cols);
        std::vector<double> u(cols);
        double x0[3], x1[3], x2[3], R0[9], R1[9], R2[9];
        for (unsigned int b = 0; b < now->numBodies(); ++b) {
            now->bodyPose(b, x0, R0);
            before->bodyPose(b, x1, R1);
            after->bodyPose(b, x2, R2);
            double* ub = &u[p.blockOffsets[b]];
            for (int k = 0; k < 3; ++k) ub[k] = (x2[k] - x1[k]) / (2 * h);
            if (now->bodySize(b) == 6) {  // [ω]× = Ṙ·Rᵀ
                double W[9];
                for (int r = 0; r < 3; ++r)
                    for (int q = 0; q < 3; ++q) {
                        W[3 * r + q] = 0;
                        for (int k = 0; k < 3; ++k)
                            W[3 * r + q] += (R2[3 * r + k] - R1[3 * r + k]) / (2 * h) * R0[3 * q + k];
                    }
                ub[3] = 0.5 * (W[7] - W[5]);
                ub[4] = 0.5 * (W[2] - W[6]);
                ub[5] = 0.5 * (W[3] - W[1]);
            }
        }
        double scale = 0;
        for (double v : u) scale = std::max(scale, std::fabs(v));
        ASSERT_GT(scale, 1e-3) << "the bodies must move";
        for (unsigned int r = 0; r < rows; ++r) {
            double Ju = 0;
            for (unsigned int q = 0; q < cols; ++q) Ju += J[r * cols + q] * u[q];
            double expected = 0;
            if (c.kind == SceneKind::cloth) {
                const Cloth& cloth = static_cast<const Cloth&>(*now);
                auto distance = [&](const Scene& s) {
                    double xa[3], xb[3], R[9];
                    s.bodyPose(cloth.constraintA(r), xa, R);
                    s.bodyPose(cloth.constraintB(r), xb, R);
                    return std::sqrt((xa[0] - xb[0]) * (xa[0] - xb[0]) + (xa[1] - xb[1]) * (xa[1] - xb[1]) +
                                     (xa[2] - xb[2]) * (xa[2] - xb[2]));
                };
                expected = (distance(*after) - distance(*before)) / (2 * h);
            }
            ASSERT_NEAR(Ju, expected, 1e-6 * scale) << "constraint row " << r;
        }
    }
}

TEST(SceneOrder, NaturalSafeOrderPlacesEachConstraintRightAfterItsLastBody) {
    for (const SceneCase& c : kCases) {
        SCOPED_TRACE(c.label);
        auto scene = makeScene(c.kind, c.size);
        BlockProblem p;
        scene->build(p);
        Permutation order;
        naturalSafeOrder(p, order);
        ASSERT_EQ(order.size, p.numBlocks);
        unsigned int lastBodyPlaced = noBlock, bodiesSeen = 0;
        std::vector<char> seen(p.numBlocks, 0);
        for (unsigned int k = 0; k < p.numBlocks; ++k) {
            const unsigned int b = order.forward[k];
            ASSERT_LT(b, p.numBlocks);
            ASSERT_FALSE(seen[b]);
            seen[b] = 1;
            ASSERT_EQ(order.inverse[b], k);
            if (b < p.firstConstraint) {
                ASSERT_EQ(b, bodiesSeen++) << "bodies keep their user order";
                lastBodyPlaced = b;
            } else {
                ASSERT_EQ(p.rowIndices[p.colPointers[b + 1] - 2], lastBodyPlaced) << "constraint " << b;
            }
        }
    }
}

// Solves with an order that puts constraints before some of their bodies: the loader transposes those
// blocks, and the factorization must still reproduce the dense solution.
TEST(SceneLoader, TransposedBlocksSolveCorrectly) {
    HangingChain chain(7);
    BlockProblem p;
    chain.build(p);
    Permutation order;
    earlyJointOrder(p, order);
    unsigned int crossing = 0;
    for (unsigned int j = 0; j < p.numBlocks; ++j)
        for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e)
            crossing += order.inverse[p.rowIndices[e]] > order.inverse[j];
    ASSERT_EQ(crossing, 5u);  // joints 2 … 6 precede their second link
    const std::vector<double> A = denseOf(p);
    const std::vector<double> b = randomVector(p.scalarSize(), 3);
    TamberData<double> dataD;
    TamberData<float> dataF;
    ASSERT_TRUE(loadIntoData(p, order, dataD));
    ASSERT_TRUE(loadIntoData(p, order, dataF));
    EXPECT_LT(scaledResidual(A, factorAndSolve(p, dataD, b), b), 1e-13);
    EXPECT_LT(scaledResidual(A, factorAndSolve(p, dataF, b), b), 2e-5);
}

TEST(SceneLoader, MismatchesAreRejectedWithoutChangingTheData) {
    HangingChain chain(4);
    BlockProblem p, other;
    chain.build(p);
    HangingChain(5).build(other);
    Permutation order;
    naturalSafeOrder(other, order);
    TamberData<double> data;
    EXPECT_FALSE(loadIntoData(p, order, data));  // 10 blocks ordered, 8 given
    EXPECT_EQ(data.permutation.size, 0u);
    naturalSafeOrder(p, order);
    ASSERT_TRUE(loadIntoData(p, order, data));
    std::vector<double> values(data.matrix.values, data.matrix.values + data.matrix.valueCapacity);
    EXPECT_FALSE(refreshValues(other, data));
    // Same block and entry counts, different pattern: joint 3 moved from links (2, 3) to (1, 3).
    BlockProblem moved;
    moved.reset(p.numBlocks, p.firstConstraint);
    for (unsigned int j = 0; j < p.numBlocks; ++j) moved.blockSizes[j] = p.blockSizes[j];
    for (unsigned int j = 0; j < p.numBlocks; ++j)
        for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e) {
            const unsigned int i = (j == 7 && p.rowIndices[e] == 2) ? 1 : p.rowIndices[e];
            std::memcpy(moved.addEntry(i, j), p.entryValues(e),
                        p.blockSizes[i] * p.blockSizes[j] * sizeof(double));
        }
    moved.finish();
    EXPECT_FALSE(moved.sameStructure(p));
    EXPECT_FALSE(refreshValues(moved, data));
    EXPECT_EQ(0, std::memcmp(values.data(), data.matrix.values, values.size() * sizeof(double)));
}

TEST(SceneLoader, EmptyProblemLoads) {
    BlockProblem p;
    p.reset(0, 0);
    p.finish();
    Permutation order;
    naturalSafeOrder(p, order);
    TamberData<double> data;
    ASSERT_TRUE(loadIntoData(p, order, data));
    EXPECT_EQ(data.matrix.numBlocks, 0u);
    EXPECT_EQ(data.skeleton.numEntries(), 0u);
}

// ---------------------------------------------------------------------------------------------------------

TEST(BoxWallContacts, ContactsSwitchAndTheChangesAreReported) {
    BoxWall wall(5, 4, 7);
    wall.toggleProbability = 0.2;
    BlockProblem p;
    Permutation order;
    TamberData<double> data;
    kiv::VectorPOD<unsigned int> changed, contactOf;
    unsigned int switches = 0;
    for (int step = 0; step < 12; ++step) {
        SCOPED_TRACE(step);
        std::vector<char> was(wall.numContacts());
        for (unsigned int c = 0; c < wall.numContacts(); ++c) was[c] = wall.isActive(c);
        wall.step(0.02);
        wall.changedContacts(changed);
        std::vector<unsigned int> expected;
        for (unsigned int c = 0; c < wall.numContacts(); ++c)
            if (was[c] != wall.isActive(c)) expected.push_back(c);
        ASSERT_EQ(std::vector<unsigned int>(changed.begin(), changed.end()), expected);
        switches += static_cast<unsigned int>(expected.size());

        wall.build(p);
        wall.constraintContacts(contactOf);
        ASSERT_EQ(contactOf.size(), p.numBlocks - p.firstConstraint);
        for (unsigned int k = 0; k < contactOf.size(); ++k) {  // each constraint couples its contact's boxes
            const BoxWall::Contact& contact = wall.contact(contactOf[k]);
            ASSERT_TRUE(wall.isActive(contactOf[k]));
            const unsigned int col = p.firstConstraint + k;
            ASSERT_EQ(p.rowIndices[p.colPointers[col]], contact.bodyA);
            if (contact.bodyB != noBlock) {
                ASSERT_EQ(p.rowIndices[p.colPointers[col] + 1], contact.bodyB);
            }
        }
        const std::vector<double> A = denseOf(p);
        const std::vector<double> b = randomVector(p.scalarSize(), step);
        naturalSafeOrder(p, order);
        ASSERT_TRUE(loadIntoData(p, order, data));  // the structure changes: load again
        EXPECT_LT(scaledResidual(A, factorAndSolve(p, data, b), b), 1e-13);
    }
    EXPECT_GT(switches, 10u);
}

TEST(BoxWallContacts, AllContactsTogetherKeepFullRank) {
    BoxWall wall(6, 5, 3);
    wall.includeInactive = true;
    BlockProblem p;
    for (int step = 0; step < 3; ++step) {
        wall.build(p);
        ASSERT_EQ(p.numBlocks - p.firstConstraint, wall.numContacts());
        unsigned int rows = 0, cols = 0;
        const std::vector<double> J = jacobianOf(p, denseOf(p), rows, cols);
        EXPECT_EQ(rankOf(J, rows, cols, 1e-9), rows);
        wall.step(0.1);
    }
}

TEST(BlockProblemCheck, MalformedProblemsAreNamed) {
    HangingChain chain(2);
    BlockProblem p;
    std::string message;
    chain.build(p);
    ASSERT_TRUE(checkProblem(p, message)) << message;

    p.entryValues(p.colPointers[4] - 1)[4] = 1.0;  // diagonal of joint block 3 (its list: 0, 1, 3)
    EXPECT_FALSE(checkProblem(p, message));
    EXPECT_NE(message.find("constraint block 3"), std::string::npos) << message;

    chain.build(p);
    p.entryValues(0)[1] += 1e-3;  // mass block of link 0 loses its symmetry
    EXPECT_FALSE(checkProblem(p, message));
    EXPECT_NE(message.find("diagonal block 0 is not symmetric"), std::string::npos) << message;

    chain.build(p);
    std::swap(p.rowIndices[p.colPointers[3]], p.rowIndices[p.colPointers[3] + 1]);
    EXPECT_FALSE(checkProblem(p, message));
    EXPECT_NE(message.find("block 3"), std::string::npos) << message;
}

}  // namespace
