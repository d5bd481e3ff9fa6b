// Scene library: the assembled saddle-point systems and their loading into TamberData, checked against
// dense references (symmetry, zero constraint diagonals, SPD bodies, full row rank of J, kinematics of the
// constraint rows, fill pattern, residuals of the factored solves), for allocation-free reuse and for the
// messages of the problem check.
#include "scenes/Scenes.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "TamberSolve.h"
#include "testing/DenseReference.h"
#include "testing/Patterns.h"

using namespace kivTamber;
using namespace kivTamber::scenes;
namespace kt = kivTamber::testing;

namespace {

struct SceneCase {
    SceneKind kind;
    unsigned int size;
    const char* label;
};

const SceneCase kCases[] = {{SceneKind::chain, 6, "chain"},
                            {SceneKind::ragdolls, 3, "ragdolls"},
                            {SceneKind::cloth, 5, "cloth"},
                            {SceneKind::boxWall, 4, "boxwall"}};

kt::DenseSymmetric denseOf(const BlockProblem& p) {
    kt::DenseSymmetric A(p.scalarSize());
    assembleDense(p, A.a.data());
    return A;
}

// True when the symmetric s × s matrix a is positive definite with no pivot of its L·D·Lᵀ below `ratio`
// times the largest one.
bool positiveDefinite(const double* a, unsigned int s, double ratio) {
    kt::DenseSymmetric A(s);
    std::copy(a, a + s * s, A.a.begin());
    const std::vector<double> d = kt::denseLdlt(A).d;
    return d.empty() || *std::min_element(d.begin(), d.end()) > ratio * *std::max_element(d.begin(), d.end());
}

// J, the constraint rows of A below the body columns, has full row rank: J·Jᵀ is positive definite with
// pivots within 1e-10 of each other (a condition number of J below 1e5).
bool fullRowRank(const BlockProblem& p, const kt::DenseSymmetric& A) {
    const unsigned int cols = p.blockOffsets[p.firstConstraint], rows = A.n - cols;
    std::vector<double> G(static_cast<std::size_t>(rows) * rows);
    for (unsigned int r = 0; r < rows; ++r) {
        const double* Jr = &A.a[(cols + r) * A.n];
        for (unsigned int s = 0; s < rows; ++s)
            G[r * rows + s] = std::inner_product(Jr, Jr + cols, &A.a[(cols + s) * A.n], 0.0);
    }
    return rows <= cols && positiveDefinite(G.data(), rows, 1e-10);
}

// Factors data (serially) and solves A·x = b for b in user numbering; returns x in user numbering.
template <typename T>
std::vector<double> factorAndSolve(const BlockProblem& p, TamberData<T>& data, const std::vector<double>& b) {
    Tamber tamber;
    tamber.estimateWork(data, nullptr);
    tamber.factorSerial(data);
    std::vector<T> user(b.begin(), b.end()), permuted(b.size()), solution(b.size());
    permuteVector(p, data.permutation, user.data(), permuted.data());
    tamber.solve(data, permuted.data());
    unpermuteVector(p, data.permutation, permuted.data(), solution.data());
    return std::vector<double>(solution.begin(), solution.end());
}

class SceneTest : public ::testing::TestWithParam<SceneCase> {};

// Over several steps (the box wall with and without its inactive contacts): a well-formed problem with the
// scene's bodies first, each body alone in its list with an SPD block, each constraint coupled to one or two
// bodies, A symmetric and J of full row rank.
TEST_P(SceneTest, AssembledSystemIsAValidSaddlePointSystem) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    BlockProblem p;
    for (int step = 0; step < 6; ++step) {
        SCOPED_TRACE(step);
        if (c.kind == SceneKind::boxWall) static_cast<BoxWall&>(*scene).includeInactive = step % 2;
        scene->build(p);
        std::string message;
        ASSERT_TRUE(checkProblem(p, message)) << message;  // symmetric diagonals, zero constraint diagonals
        ASSERT_EQ(p.firstConstraint, scene->numBodies());
        ASSERT_GT(p.numBlocks, p.firstConstraint);
        if (step % 2 && c.kind == SceneKind::boxWall) {
            ASSERT_EQ(p.numBlocks - p.firstConstraint, static_cast<BoxWall&>(*scene).numContacts());
        }
        for (unsigned int b = 0; b < p.firstConstraint; ++b) {
            ASSERT_EQ(p.colPointers[b + 1] - p.colPointers[b], 1u)
                << "bodies couple only through constraints";
            ASSERT_EQ(p.blockSizes[b], scene->bodySize(b));
            EXPECT_TRUE(positiveDefinite(p.entryValues(p.colPointers[b]), p.blockSizes[b], 0.0))
                << "body " << b;
        }
        for (unsigned int k = p.firstConstraint; k < p.numBlocks; ++k) {
            const unsigned int couplings = p.colPointers[k + 1] - p.colPointers[k] - 1;
            ASSERT_TRUE(couplings == 1 || couplings == 2) << "constraint " << k;
            ASSERT_LT(p.rowIndices[p.colPointers[k + 1] - 2], p.firstConstraint);
        }
        const kt::DenseSymmetric A = denseOf(p);
        for (unsigned int i = 0; i < A.n; ++i)
            for (unsigned int j = 0; j < i; ++j) ASSERT_EQ(A(i, j), A(j, i));
        EXPECT_TRUE(fullRowRank(p, A)) << "J must have full row rank";
        scene->step(0.05);
    }
}

// The natural safe order places the bodies in user order, each constraint right after its last body. In it,
// in random orders (blocks cross the diagonal both ways) and, for the chain, in the order b0 j0 b1 j1 j2 b2
// j3 b3 … (joint k ≥ 2, on links k−1 and k, right after link k−1, so its block with link k crosses the
// diagonal) the loaded matrix is in upper form with P·A·Pᵀ·(P·x) = P·(A·x), and the filled pattern and tree
// are those of dense symbolic elimination of the permuted block graph. The valid orders (the natural one, and
// the chain's: every leading set of joints has full row rank on the links placed before it, whereas joints 0
// and 1 stacked on link 0 alone would not, [I −[r]×] twice having rank 5) factor and solve the system, the
// chain's with its crossing blocks transposed by the loader.
TEST_P(SceneTest, LoadedMatrixEqualsThePermutedDenseMatrix) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    BlockProblem p;
    scene->build(p);
    const kt::DenseSymmetric A = denseOf(p);
    const unsigned int N = p.scalarSize(), n = p.numBlocks;
    Permutation order;
    for (unsigned int seed = 0; seed < (c.kind == SceneKind::chain ? 5u : 4u); ++seed) {
        SCOPED_TRACE(seed);
        naturalSafeOrder(p, order);
        ASSERT_EQ(order.size, n);
        for (unsigned int k = 0, lastBody = noBlock, bodies = 0; seed == 0 && k < n; ++k) {
            const unsigned int b = order.forward[k];  // bodies in user order, each constraint after its last
            ASSERT_EQ(order.inverse[b], k);
            if (b < p.firstConstraint) {
                ASSERT_EQ(b, bodies++);
                lastBody = b;
            } else {
                ASSERT_EQ(p.rowIndices[p.colPointers[b + 1] - 2], lastBody) << "constraint " << b;
            }
        }
        if (seed > 0) {
            std::shuffle(order.forward, order.forward + n, std::mt19937_64(seed));
            order.computeInverse();
        }
        if (seed == 4) {  // the chain's order: joint b >= 2 before its second link b, joints 0 and 1 after
            const unsigned int links = p.firstConstraint;
            for (unsigned int b = 0, k = 0; b < links; ++b) {
                if (b >= 2) order.forward[k++] = links + b;
                order.forward[k++] = b;
                if (b < 2) order.forward[k++] = links + b;
            }
            order.computeInverse();
            unsigned int crossing = 0;
            for (unsigned int j = 0; j < n; ++j)
                for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e)
                    crossing += order.inverse[p.rowIndices[e]] > order.inverse[j];
            ASSERT_EQ(crossing, links - 2);  // joints 2 … L−1 precede their second link
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
        const std::vector<double> x = kt::randomVector(N, seed + 10), y = kt::denseMultiply(A, x);
        std::vector<double> px(N), py(N), yu(N);
        permuteVector(p, order, x.data(), px.data());
        data.matrix.multiply(px.data(), py.data());
        unpermuteVector(p, order, py.data(), yu.data());
        for (unsigned int i = 0; i < N; ++i)
            ASSERT_NEAR(yu[i], y[i], 1e-12 * (1 + std::fabs(y[i]))) << "row " << i;

        kt::BlockPattern G(n);
        for (unsigned int j = 0; j < n; ++j)
            for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e)
                G.couple(order.inverse[p.rowIndices[e]], order.inverse[j]);
        const kt::BlockPattern filled = kt::symbolicFactor(G);
        ASSERT_EQ(kt::checkSkeletonForm(data.skeleton), "");
        ASSERT_TRUE(kt::fromSkeleton(data.skeleton) == filled);
        const std::vector<unsigned int> parent = kt::eliminationParent(filled);
        for (unsigned int k = 0; k < n; ++k) {
            ASSERT_EQ(data.etree.parent[k], parent[k]) << "tree node " << k;
            ASSERT_LT(data.etree.postOrder[k], n);
        }
        if (seed == 0 || seed == 4) {  // valid orders: the factorization solves the system
            TamberData<float> dataF;
            ASSERT_TRUE(loadIntoData(p, order, dataF));
            EXPECT_LT(kt::scaledResidual(A, factorAndSolve(p, data, x).data(), x.data()), 1e-13);
            EXPECT_LT(kt::scaledResidual(A, factorAndSolve(p, dataF, x).data(), x.data()), 2e-5);
        }
    }
}

// Step after step (the box wall with all its contacts, so that the structure stays): the build keeps its
// structure while the values move; building, refreshing, factoring and solving in float allocate nothing,
// and the refreshed values solve the dense system of the step in float and in double; ordering and loading
// again allocate only what the tree's post order does.
TEST_P(SceneTest, RefreshedStepsSolveAndAllocateNothing) {
    const SceneCase c = GetParam();
    auto scene = makeScene(c.kind, c.size);
    if (c.kind == SceneKind::boxWall) static_cast<BoxWall&>(*scene).includeInactive = true;
    BlockProblem p, first;
    Permutation order;
    TamberData<float> data;
    TamberData<double> dataD;
    Tamber tamber;
    scene->build(first);
    scene->build(p);
    naturalSafeOrder(p, order);
    ASSERT_TRUE(loadIntoData(p, order, data) && loadIntoData(p, order, dataD));
    tamber.estimateWork(data, nullptr);
    const unsigned int N = p.scalarSize();
    std::vector<float> x(N, 1.0f), y(N);
    tamber.solve(data, x.data());  // factors
    // The loader must call the tree's post order, which may keep a work stack of its own: count that apart.
    std::uint64_t before = kiv::ByteAllocator::allocationCount();
    data.etree.computePostOrder();
    const std::uint64_t postOrderAllocations = kiv::ByteAllocator::allocationCount() - before;
    for (int step = 0; step < 4; ++step) {
        SCOPED_TRACE(step);
        scene->step(0.05);
        const std::vector<double> b = kt::randomVector(N, step);
        const std::vector<float> bf(b.begin(), b.end());
        before = kiv::ByteAllocator::allocationCount();
        scene->build(p);
        ASSERT_TRUE(refreshValues(p, data));
        EXPECT_EQ(data.isFactored, 0);
        tamber.factorSerial(data);
        permuteVector(p, data.permutation, bf.data(), y.data());
        tamber.solve(data, y.data());
        unpermuteVector(p, data.permutation, y.data(), x.data());
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before) << "build, refresh, factor and solve";
        EXPECT_TRUE(p.sameStructure(first));
        EXPECT_NE(0, std::memcmp(p.values.data(), first.values.data(), p.values.size() * sizeof(double)))
            << "values must change as the bodies move";
        const kt::DenseSymmetric A = denseOf(p);
        EXPECT_LT(kt::scaledResidual(A, x.data(), bf.data()), 2e-5);
        ASSERT_TRUE(refreshValues(p, dataD));
        EXPECT_LT(kt::scaledResidual(A, factorAndSolve(p, dataD, b).data(), b.data()), 1e-13);

        before = kiv::ByteAllocator::allocationCount();
        naturalSafeOrder(p, order);
        ASSERT_TRUE(loadIntoData(p, order, data));
        EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, postOrderAllocations) << "order and load";
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, SceneTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<SceneCase>& param) {
                             return std::string(param.param.label);
                         });

// The joint rows are the time derivative of the joint conditions: along the scripted motion (which keeps
// every joint closed) J·u = 0 for the finite-difference body velocities u, and for the cloth J·u is the
// rate of change of each constrained distance.
TEST(SceneKinematics, ConstraintRowsAreTheDerivativesOfTheConstraints) {
    const double t = 0.7, h = 1e-5;
    for (const SceneCase& c : kCases) {
        if (c.kind == SceneKind::boxWall) continue;
        SCOPED_TRACE(c.label);
        std::unique_ptr<Scene> at[3];  // at t − h, t, t + h
        for (int k = 0; k < 3; ++k) (at[k] = makeScene(c.kind, c.size))->setTime(t + (k - 1) * h);
        BlockProblem p;
        at[1]->build(p);
        const kt::DenseSymmetric A = denseOf(p);
        const unsigned int cols = p.blockOffsets[p.firstConstraint];
        std::vector<double> u(cols);
        for (unsigned int b = 0; b < at[1]->numBodies(); ++b) {
            double x[3][3], R[3][9], W[9] = {};
            for (int k = 0; k < 3; ++k) at[k]->bodyPose(b, x[k], R[k]);
            double* ub = &u[p.blockOffsets[b]];
            for (int k = 0; k < 3; ++k) ub[k] = (x[2][k] - x[0][k]) / (2 * h);
            if (at[1]->bodySize(b) == 3) continue;
            for (int r = 0; r < 3; ++r)  // [ω]× = Ṙ·Rᵀ
                for (int q = 0; q < 3; ++q)
                    for (int k = 0; k < 3; ++k)
                        W[3 * r + q] += (R[2][3 * r + k] - R[0][3 * r + k]) / (2 * h) * R[1][3 * q + k];
            ub[3] = 0.5 * (W[7] - W[5]);
            ub[4] = 0.5 * (W[2] - W[6]);
            ub[5] = 0.5 * (W[3] - W[1]);
        }
        const double scale = kt::normInf(u.data(), cols);
        ASSERT_GT(scale, 1e-3) << "the bodies must move";
        for (unsigned int r = 0; cols + r < A.n; ++r) {
            double expected = 0;
            if (c.kind == SceneKind::cloth) {
                const Cloth& cloth = static_cast<const Cloth&>(*at[1]);
                auto distance = [&](const Scene& s) {
                    double xa[3], xb[3], R[9];
                    s.bodyPose(cloth.constraintA(r), xa, R);
                    s.bodyPose(cloth.constraintB(r), xb, R);
                    return std::hypot(xa[0] - xb[0], xa[1] - xb[1], xa[2] - xb[2]);
                };
                expected = (distance(*at[2]) - distance(*at[0])) / (2 * h);
            }
            ASSERT_NEAR(std::inner_product(u.begin(), u.end(), &A.a[(cols + r) * A.n], 0.0), expected,
                        1e-6 * scale)
                << "constraint row " << r;
        }
    }
}

// An order of the wrong size and a problem of another structure are refused with the data unchanged; the
// empty problem loads.
TEST(SceneLoader, MismatchesAreRejectedWithoutChangingTheData) {
    BlockProblem p, other, empty;
    HangingChain(4).build(p);
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
    // Same block and entry counts, different pattern: joint 3 (block 7) moved from links (2, 3) to (1, 3).
    BlockProblem moved;
    HangingChain(4).build(moved);
    moved.rowIndices[moved.colPointers[7]] = 1;
    EXPECT_FALSE(moved.sameStructure(p));
    EXPECT_FALSE(refreshValues(moved, data));
    EXPECT_EQ(0, std::memcmp(values.data(), data.matrix.values, values.size() * sizeof(double)));

    empty.reset(0, 0);
    empty.finish();
    naturalSafeOrder(empty, order);
    ASSERT_TRUE(loadIntoData(empty, order, data));
    EXPECT_EQ(data.matrix.numBlocks + data.skeleton.numEntries(), 0u);
}

// Contacts switch on and off: the reported changes are exactly the switched contacts, each constraint couples
// its contact's boxes, and every step (a new structure, loaded again) solves against the dense system.
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
        for (unsigned int k = 0; k < contactOf.size(); ++k) {
            const BoxWall::Contact& contact = wall.contact(contactOf[k]);
            ASSERT_TRUE(wall.isActive(contactOf[k]));
            const unsigned int* list = &p.rowIndices[p.colPointers[p.firstConstraint + k]];
            ASSERT_EQ(list[0], contact.bodyA);
            ASSERT_TRUE(contact.bodyB == noBlock || list[1] == contact.bodyB);
        }
        const std::vector<double> b = kt::randomVector(p.scalarSize(), step);
        naturalSafeOrder(p, order);
        ASSERT_TRUE(loadIntoData(p, order, data));
        EXPECT_LT(kt::scaledResidual(denseOf(p), factorAndSolve(p, data, b).data(), b.data()), 1e-13);
    }
    EXPECT_GT(switches, 10u);
}

TEST(BlockProblemCheck, MalformedProblemsAreNamed) {
    // Chain of 2 links: blocks 0, 1 (links), 2 (joint 0: list 0, 2) and 3 (joint 1: list 0, 1, 3).
    const struct {
        void (*spoil)(BlockProblem&);
        const char* expected;
    } cases[] = {
        {[](BlockProblem& p) { p.entryValues(6)[4] = 1.0; },
         "constraint block 3 has a non-zero diagonal value 1 at (1, 1)"},
        {[](BlockProblem& p) { p.entryValues(0)[1] = 0.5; },  // the mass block of link 0
         "diagonal block 0 is not symmetric at (0, 1): 0.5 vs 0"},
        {[](BlockProblem& p) { std::swap(p.rowIndices[4], p.rowIndices[5]); },
         "list of block 3 is not ascending at entry 4 (1 then 0)"},
    };
    HangingChain chain(2);
    BlockProblem p;
    std::string message;
    chain.build(p);
    ASSERT_TRUE(checkProblem(p, message)) << message;
    for (const auto& c : cases) {
        chain.build(p);
        c.spoil(p);
        EXPECT_FALSE(checkProblem(p, message));
        EXPECT_EQ(message, c.expected);
    }
}

}  // namespace
