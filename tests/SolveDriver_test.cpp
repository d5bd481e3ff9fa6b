// The solve driver of Tamber: full solves in both precisions, factoring on demand and the timers, the skip of
// leading negligible blocks, unit solves and iterative refinement, checked against the dense input matrix.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Tamber.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using testing::DenseLdlt;
using testing::DenseSymmetric;

template <typename T>
class SolveDriverTyped : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SolveDriverTyped, Precisions);

// Scaled residual bound of a solve in precision T on the generated systems.
template <typename T>
constexpr double tolerance() {
    return std::is_same<T, double>::value ? 1e-12 : 1e-5;
}

// testing::scaledResidual, but infinite when x holds a non-finite value.
template <typename T>
double residual(const DenseSymmetric& A, const std::vector<T>& x, const std::vector<T>& b) {
    for (T v : x)
        if (!std::isfinite(v)) return std::numeric_limits<double>::infinity();
    return testing::scaledResidual(A, x.data(), b.data());
}

template <typename T>
std::vector<T> randomRhs(unsigned int n, unsigned long seed) {
    const std::vector<double> v = testing::randomVector(n, seed);
    return std::vector<T>(v.begin(), v.end());
}

// Fills `data` from `sys` and lays out the factor, leaving it unfactored (isFactored = 0); optionally
// factors.
template <typename T>
std::unique_ptr<TamberData<T>> prepare(const BlockSystem& sys, Tamber& tamber, bool factor = false) {
    auto data = std::make_unique<TamberData<T>>();
    sys.fillData(*data);
    unsigned int work = 0;
    tamber.estimateWork(*data, &work);
    if (factor) tamber.factorSerial(*data);
    return data;
}

std::vector<BlockSystem> testSystems() {
    std::vector<BlockSystem> all;
    for (unsigned long seed = 1; seed <= 10; ++seed) {
        all.push_back(testing::makeSpdSystem(seed, 2 + static_cast<unsigned int>(seed % 11), 7, 0.3));
        // Sparse enough to make forests, so unit solves meet several trees.
        all.push_back(testing::makeSpdSystem(50 + seed, 8, 5, 0.08));
        all.push_back(testing::makeSaddlePointSystem(100 + seed, 3 + static_cast<unsigned int>(seed % 6),
                                                     2 + static_cast<unsigned int>(seed % 5)));
    }
    return all;
}

// Both forms solve (the double one on an existing factor, the float one factoring first) and leave b alone;
// the in-place form gives the same numbers; a right-hand side zero in the leading half of the blocks (the
// float forward pass starts later) is solved as well.
TYPED_TEST(SolveDriverTyped, SolvesRandomSystems) {
    using T = TypeParam;
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        Tamber tamber;
        auto data = prepare<T>(sys, tamber, std::is_same<T, double>::value);
        const std::vector<T> b = randomRhs<T>(sys.N, ++seed), bCopy = b;
        std::vector<T> x(sys.N, T(0)), y = b, z = randomRhs<T>(sys.N, ++seed);
        ASSERT_TRUE(tamber.solve(*data, b.data(), x.data()));
        EXPECT_LT(residual(sys.dense, x, b), tolerance<T>());
        EXPECT_EQ(b, bCopy);
        ASSERT_TRUE(tamber.solve(*data, y.data()));
        EXPECT_EQ(y, x);
        std::fill(z.begin(), z.begin() + sys.offsets[sys.nb / 2], T(0));
        const std::vector<T> zb = z;
        ASSERT_TRUE(tamber.solve(*data, z.data()));
        EXPECT_LT(residual(sys.dense, z, zb), tolerance<T>());
    }
}

// The float solve and the unit solve factor when the flag is cleared, once; a factorization sets factorTime
// and resets solveTime, solves add to it. The double solve neither factors nor times: without a factor it
// leaves x alone, after new values it still uses the old factor. An empty float system factors (nothing) and
// solves nothing.
TEST(SolveDriver, FactorsOnDemandOncePerClearedFlagAndKeepsTheTimers) {
    const BlockSystem sys = testing::makeSaddlePointSystem(3, 6, 4);
    SCOPED_TRACE(testing::describe(sys));
    const std::vector<float> b = randomRhs<float>(sys.N, 1);
    Tamber tamber;
    auto data = prepare<float>(sys, tamber);
    EXPECT_TRUE(tamber.getFactorTime() == 0.0 && tamber.getSolveTime() == 0.0);
    std::vector<float> x = b;
    ASSERT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(data->isFactored, 1);
    const double factorTime = tamber.getFactorTime(), firstSolve = tamber.getSolveTime();
    EXPECT_TRUE(factorTime > 0.0 && firstSolve > 0.0);
    x = b;
    ASSERT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(tamber.getFactorTime(), factorTime);
    EXPECT_GT(tamber.getSolveTime(), firstSolve);
    const double accumulated = tamber.getSolveTime();
    x = b;
    tamber.unitSolve(*data, x.data(), -1);
    EXPECT_EQ(tamber.getFactorTime(), factorTime);
    EXPECT_GT(tamber.getSolveTime(), accumulated);

    sys.refillValues(data->matrix, 2.0);
    data->isFactored = 0;
    tamber.solveTime = 1.0e6;
    x = b;
    ASSERT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(data->isFactored, 1);
    EXPECT_NE(tamber.getFactorTime(), factorTime);
    EXPECT_LT(tamber.getSolveTime(), 1.0e6);
    for (float& v : x) v *= 2.0f;  // (2A)⁻¹·b = A⁻¹·b / 2
    EXPECT_LT(residual(sys.dense, x, b), tolerance<float>());
    data->isFactored = 0;
    tamber.solveTime = 1.0e6;
    x = b;
    tamber.unitSolve(*data, x.data(), 0);
    EXPECT_EQ(data->isFactored, 1);
    EXPECT_LT(tamber.getSolveTime(), 1.0e6);

    const BlockSystem spd = testing::makeSpdSystem(11, 9);
    const std::vector<double> bD = randomRhs<double>(spd.N, 2);
    Tamber t2;
    auto dataD = std::make_unique<TamberData<double>>();
    spd.fillData(*dataD);  // no factor laid out yet
    std::vector<double> xD = bD;
    EXPECT_TRUE(t2.solve(*dataD, xD.data()));
    EXPECT_TRUE(dataD->isFactored == 0 && t2.getFactorTime() == 0.0 && t2.getSolveTime() == 0.0 && xD == bD);
    t2.factorSerial(*dataD);
    spd.refillValues(dataD->matrix, 2.0);
    dataD->isFactored = 0;
    const double factorTimeD = t2.getFactorTime();
    EXPECT_TRUE(t2.solve(*dataD, xD.data()));
    EXPECT_TRUE(dataD->isFactored == 0 && t2.getFactorTime() == factorTimeD && t2.getSolveTime() == 0.0);
    EXPECT_LT(residual(spd.dense, xD, bD), tolerance<double>());

    const BlockSystem none = testing::makeFromDense({}, DenseSymmetric(0));
    TamberData<float> empty;
    Tamber t3;
    none.fillData(empty);
    float one = 1.0f;
    EXPECT_FALSE(t3.solve(empty, &one));
    EXPECT_TRUE(empty.isFactored == 1 && t3.getSolveTime() == 0.0 && one == 1.0f);
    EXPECT_EQ(t3.unitSolve(empty, &one, 0), 0u);
}

// The float solve skips the forward pass of the leading columns whose entries are all below the float
// epsilon; those entries enter the backward pass as they stand. With block 0 decoupled from the rest, its
// result is therefore (D_0·U_00)⁻¹·b_0 instead of A_00⁻¹·b_0; the other blocks are solved normally.
TEST(SolveDriver, FloatSolveSkipsTheForwardPassOfLeadingNegligibleBlocks) {
    DenseSymmetric A(12), A00(3), Arest(9);
    const double block0[9] = {4.0, 3.0, -2.5, 3.0, 5.0, 2.0, -2.5, 2.0, 6.0};  // L_00 far from the identity
    std::copy(block0, block0 + 9, A00.a.begin());
    const std::vector<double> r = testing::randomVector(81, 5);
    for (unsigned int i = 0; i < 12; ++i) {
        for (unsigned int j = 0; j < 12; ++j) {
            if (i < 3 && j < 3) A(i, j) = A00(i, j);
            if (i >= 3 && j >= 3)
                A(i, j) = Arest(i - 3, j - 3) = i == j ? 10.0 : r[std::min(i, j) * 9 + std::max(i, j) - 30];
        }
    }
    const BlockSystem sys = testing::makeFromDense({3, 2, 4, 3}, A);
    Tamber tamber;
    auto data = prepare<float>(sys, tamber);
    std::vector<float> x = randomRhs<float>(sys.N, 9);
    const double tiny[3] = {1e-9, -2e-9, 3e-9};  // below 1.1920929e-07
    std::copy(tiny, tiny + 3, x.begin());
    const std::vector<float> b = x;
    ASSERT_TRUE(tamber.solve(*data, x.data()));

    DenseLdlt f;
    testing::extractFactor(*data, f);
    std::vector<double> skipped(tiny, tiny + 3);  // (D_0·U_00)⁻¹·b_0, U_00 = L_00ᵀ
    for (unsigned int i = 3; i-- > 0;) {
        skipped[i] /= f.d[i];
        for (unsigned int k = i + 1; k < 3; ++k) skipped[i] -= f.L[k * f.n + i] * skipped[k];
    }
    const std::vector<double> exact = testing::denseSolve(testing::denseLdlt(A00), {tiny, tiny + 3});
    double scale = 0.0, diffSkipped = 0.0, diffExact = 0.0;
    for (unsigned int i = 0; i < 3; ++i) {
        scale = std::max(scale, std::fabs(skipped[i]));
        diffSkipped = std::max(diffSkipped, std::fabs(x[i] - skipped[i]));
        diffExact = std::max(diffExact, std::fabs(skipped[i] - exact[i]));
    }
    EXPECT_LT(diffSkipped, 1e-5 * scale);
    EXPECT_GT(diffExact, 1e-2 * scale);  // the check above does tell the two apart
    const std::vector<float> rest(x.begin() + 3, x.end()), restB(b.begin() + 3, b.end());
    EXPECT_LT(residual(Arest, rest, restB), tolerance<float>());
}

// A unit solve with the right-hand side on block k and its ancestors (NaN in the other trees, neither read
// nor written) solves the tree of k for every start that selects k and returns the tree's first scalar;
// started one entry after block 0 a right-hand side in block 0 is not solved; a single block is solved from
// start 0.
TYPED_TEST(SolveDriverTyped, UnitSolves) {
    using T = TypeParam;
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        Tamber tamber;
        auto data = prepare<T>(sys, tamber, true);
        std::vector<unsigned int> rootOf(sys.nb);
        for (unsigned int j = 0; j < sys.nb; ++j)
            for (rootOf[j] = j; data->etree.parent[rootOf[j]] != rootOf[j];)
                rootOf[j] = data->etree.parent[rootOf[j]];
        for (unsigned int k = 0; k < sys.nb; ++k) {
            SCOPED_TRACE("block " + std::to_string(k));
            const unsigned int first = static_cast<unsigned int>(
                std::find(rootOf.begin(), rootOf.end(), rootOf[k]) - rootOf.begin());
            std::vector<unsigned char> onPath(sys.nb, 0);
            for (unsigned int j = k; !onPath[j]; j = data->etree.parent[j]) onPath[j] = 1;
            std::vector<T> b(sys.N, T(0));
            const std::vector<T> values = randomRhs<T>(sys.N, ++seed);
            std::vector<unsigned int> idx;  // the scalars of k's tree
            for (unsigned int j = 0; j < sys.nb; ++j) {
                for (unsigned int t = sys.offsets[j]; t < sys.offsets[j + 1]; ++t) {
                    b[t] = rootOf[j] != rootOf[k] ? std::numeric_limits<T>::quiet_NaN()
                           : onPath[j]            ? values[t]
                                                  : T(0);
                    if (rootOf[j] == rootOf[k]) idx.push_back(t);
                }
            }
            b[sys.offsets[k]] = T(1);  // block k holds an entry above the epsilon
            DenseSymmetric At(static_cast<unsigned int>(idx.size()));
            for (unsigned int r = 0; r < idx.size(); ++r)
                for (unsigned int c = 0; c < idx.size(); ++c) At(r, c) = sys.dense(idx[r], idx[c]);
            std::vector<int> starts = {-1, static_cast<int>(sys.offsets[k] + 1),
                                       static_cast<int>(sys.offsets[k] + sys.sizes[k])};
            if (k == 0) starts.push_back(0);
            if (k == sys.nb - 1)
                starts.push_back(static_cast<int>(sys.N + 5));  // past the end: the last block
            for (int start : starts) {
                std::vector<T> x = b, xt, bt;
                EXPECT_EQ(tamber.unitSolve(*data, x.data(), start), sys.offsets[first]) << "start " << start;
                for (unsigned int t = 0; t < sys.N; ++t)
                    ASSERT_TRUE(!std::isnan(b[t]) || std::isnan(x[t])) << t;
                for (unsigned int t : idx) xt.push_back(x[t]), bt.push_back(b[t]);
                EXPECT_LT(residual(At, xt, bt), tolerance<T>()) << "start " << start;
            }
        }
        if (sys.nb >= 2) {
            std::vector<T> b(sys.N, T(0));
            std::fill(b.begin(), b.begin() + sys.sizes[0], T(1));
            std::vector<T> x = b;
            tamber.unitSolve(*data, x.data(), static_cast<int>(sys.sizes[0]));
            EXPECT_LT(residual(sys.dense, x, b), tolerance<T>());
            x = b;
            tamber.unitSolve(*data, x.data(), static_cast<int>(sys.sizes[0] + 1));
            EXPECT_GT(residual(sys.dense, x, b), 1e-3);
        }
    }
    for (unsigned int s = 1; s <= 7; ++s) {
        const BlockSystem sys = testing::makeSpdSystem(900 + s, 1, s);
        Tamber tamber;
        auto data = prepare<T>(sys, tamber);
        const std::vector<T> b = randomRhs<T>(sys.N, s);
        std::vector<T> x = b;
        EXPECT_EQ(tamber.unitSolve(*data, x.data(), 0), 0u);
        EXPECT_LT(residual(sys.dense, x, b), tolerance<T>()) << "single block of " << s;
    }
}

double residualNorm(const DenseSymmetric& A, const std::vector<double>& x, const std::vector<double>& b) {
    const std::vector<double> Ax = testing::denseMultiply(A, x);
    double sum = 0.0;
    for (unsigned int k = 0; k < A.n; ++k) sum += (b[k] - Ax[k]) * (b[k] - Ax[k]);
    return std::sqrt(sum);
}

// Residual norms ‖b − A·x‖₂ of the double solve of `sys` with x perturbed by a relative `perturbation`,
// before and after iterativeRefinement with 2 iterations. Two, because the second check compares the residual
// after one correction with the first; a third would compare two residuals at rounding level, and a rise by
// rounding alone restores the entry value. maxIterations 0 and −3 are checked to leave x as it is.
std::pair<double, double> refineTwice(const BlockSystem& sys, unsigned long seed, double perturbation) {
    Tamber tamber;
    auto data = prepare<double>(sys, tamber, true);
    const std::vector<double> b = randomRhs<double>(sys.N, seed), u = testing::randomVector(sys.N, seed + 1);
    std::vector<double> x(sys.N);
    tamber.solve(*data, b.data(), x.data());
    for (unsigned int k = 0; k < sys.N; ++k) x[k] *= 1.0 + perturbation * u[k];
    const std::vector<double> entry = x;
    for (int none : {0, -3}) {
        tamber.iterativeRefinement(*data, b.data(), x.data(), none);
        EXPECT_EQ(x, entry);
    }
    const double before = residualNorm(sys.dense, x, b);
    tamber.iterativeRefinement(*data, b.data(), x.data(), 2);
    return {before, residualNorm(sys.dense, x, b)};
}

// A solution good to single precision only comes back to double precision. A saddle-point system whose body
// blocks are scaled by 1e-9: the constraint pivots grow to 1e9 and the solve itself keeps a residual near
// 1e-7; two steps reduce it at least tenfold.
TEST(SolveDriver, IterativeRefinementReducesTheResidual) {
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        const auto [before, after] = refineTwice(sys, ++seed, 1e-6);
        EXPECT_LT(after, 1e-4 * before);
    }
    for (seed = 1; seed <= 5; ++seed) {
        const BlockSystem saddle = testing::makeSaddlePointSystem(seed, 5, 4);
        std::vector<unsigned char> body(saddle.N);
        for (unsigned int b = 0; b < saddle.nb; ++b)
            std::fill(body.begin() + saddle.offsets[b], body.begin() + saddle.offsets[b + 1],
                      !saddle.isConstraint[b]);
        DenseSymmetric A = saddle.dense;
        for (unsigned int k = 0; k < saddle.N * saddle.N; ++k)
            if (body[k / saddle.N] && body[k % saddle.N]) A.a[k] *= 1e-9;
        const BlockSystem sys = testing::makeFromDense(saddle.sizes, A);
        SCOPED_TRACE(testing::describe(sys));
        const auto [before, after] = refineTwice(sys, seed, 0.0);
        EXPECT_LT(after, 0.1 * before);
    }
}

// A diagonal system factored for A = diag(a) and then changed to diag(c·a) without refactoring, so that
// refinement runs with a wrong factor: r_{k+1} = (1 − c)·r_k per entry. With c = 0.99 on the first entry
// and c = −0.5 on the second, r_0 = (1, 0.01) shrinks once (to about (0.01, 0.015)) and then grows
// (to about (1e-4, 0.0225)): the refinement makes two corrections, meets the larger residual at the third
// check and returns the entry value of x, not the iterate before it.
TEST(SolveDriver, IterativeRefinementRestoresTheEntryValueWhenTheResidualGrows) {
    DenseSymmetric A(5), changed(5);
    const double a[5] = {2.0, 3.0, 4.0, 5.0, 6.0}, c[5] = {0.99, -0.5, 1.0, 1.0, 1.0},
                 r0[5] = {1.0, 0.01, 0, 0, 0};
    const std::vector<double> entry = {0.5, -0.25, 1.0, 2.0, -1.0};
    std::vector<double> b(5);
    for (unsigned int k = 0; k < 5; ++k) {
        A(k, k) = a[k];
        changed(k, k) = c[k] * a[k];
        b[k] = r0[k] + c[k] * a[k] * entry[k];
    }
    Tamber tamber;
    auto data = prepare<double>(testing::makeFromDense({2, 3}, A), tamber, true);
    testing::makeFromDense({2, 3}, changed).refillValues(data->matrix, 1.0);
    std::vector<double> x = entry;
    tamber.iterativeRefinement(*data, b.data(), x.data(), 2);  // both corrections accepted: x moves
    EXPECT_NE(x, entry);
    x = entry;
    tamber.iterativeRefinement(*data, b.data(), x.data(), 5);  // the third residual is larger: back to entry
    EXPECT_EQ(x, entry);
}

// A first residual above 1.0e9 stops before any correction, whatever maxIterations (with one iteration no
// entry copy is taken, with more one is): x keeps its entry value.
TEST(SolveDriver, IterativeRefinementLeavesXWhenTheFirstResidualExceedsTheStartNorm) {
    const BlockSystem sys = testing::makeSaddlePointSystem(9, 5, 3);
    Tamber tamber;
    auto data = prepare<double>(sys, tamber, true);
    std::vector<double> b = randomRhs<double>(sys.N, 4);
    for (double& e : b) e *= 1e12;
    const std::vector<double> entry = testing::randomVector(sys.N, 5);
    for (int iterations : {1, 3}) {
        std::vector<double> x = entry;
        tamber.iterativeRefinement(*data, b.data(), x.data(), iterations);
        EXPECT_EQ(x, entry) << iterations;
    }
}

TEST(SolveDriver, SteadyStateSolvesAllocateNothing) {
    const BlockSystem sys = testing::makeSaddlePointSystem(21, 8, 5);
    Tamber tamber;
    auto dataF = prepare<float>(sys, tamber);
    auto dataD = prepare<double>(sys, tamber, true);
    const std::vector<float> bF = randomRhs<float>(sys.N, 1);
    const std::vector<double> bD = randomRhs<double>(sys.N, 1);
    std::vector<float> xF(sys.N);
    std::vector<double> xD(sys.N);
    auto round = [&] {
        tamber.solve(*dataF, bF.data(), xF.data());
        xF = bF;
        tamber.unitSolve(*dataF, xF.data(), -1);
        xF = bF;
        tamber.unitSolve(*dataF, xF.data(), 3);
        tamber.solve(*dataD, bD.data(), xD.data());
        xD = bD;
        tamber.unitSolve(*dataD, xD.data(), 0);
        tamber.solve(*dataD, bD.data(), xD.data());
        tamber.iterativeRefinement(*dataD, bD.data(), xD.data(), 3);
    };
    round();  // factors the float system and takes the scratch arrays
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    round();
    round();
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
}

}  // namespace
}  // namespace kivTamber
