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

// Fills `data` from `sys` and lays out the factor, leaving it unfactored (isFactored = 0).
template <typename T>
void prepare(const BlockSystem& sys, TamberData<T>& data, Tamber& tamber) {
    sys.fillData(data);
    unsigned int work = 0;
    tamber.estimateWork(data, &work);
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

template <typename T>
void checkFullSolves() {
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = std::make_unique<TamberData<T>>();
        Tamber tamber;
        prepare(sys, *data, tamber);
        if (std::is_same<T, double>::value) tamber.factorSerial(*data);  // the double solve does not factor

        const std::vector<T> b = randomRhs<T>(sys.N, ++seed);
        const std::vector<T> bCopy = b;
        std::vector<T> x(sys.N, T(0));
        ASSERT_TRUE(tamber.solve(*data, b.data(), x.data()));
        EXPECT_LT(residual(sys.dense, x, b), tolerance<T>());
        for (unsigned int k = 0; k < sys.N; ++k) ASSERT_EQ(b[k], bCopy[k]) << "b changed at " << k;

        // The in-place form gives the same numbers.
        std::vector<T> y = b;
        ASSERT_TRUE(tamber.solve(*data, y.data()));
        for (unsigned int k = 0; k < sys.N; ++k) ASSERT_EQ(y[k], x[k]) << k;

        // A right-hand side that is zero in the leading half of the blocks: the float solve starts its
        // forward pass later, the result is the same solution.
        std::vector<T> z = randomRhs<T>(sys.N, ++seed);
        std::fill(z.begin(), z.begin() + sys.offsets[sys.nb / 2], T(0));
        const std::vector<T> zb = z;
        ASSERT_TRUE(tamber.solve(*data, z.data()));
        EXPECT_LT(residual(sys.dense, z, zb), tolerance<T>());
    }
}

TEST(SolveDriver, SolvesRandomSystemsInDoublePrecision) {
    checkFullSolves<double>();
}
TEST(SolveDriver, SolvesRandomSystemsInSinglePrecision) {
    checkFullSolves<float>();
}

TEST(SolveDriver, FactorsOnDemandOncePerClearedFlagAndKeepsTheTimers) {
    const BlockSystem sys = testing::makeSaddlePointSystem(3, 6, 4);
    SCOPED_TRACE(testing::describe(sys));
    const std::vector<float> b = randomRhs<float>(sys.N, 1);

    auto data = std::make_unique<TamberData<float>>();
    Tamber tamber;
    prepare(sys, *data, tamber);
    EXPECT_EQ(tamber.getFactorTime(), 0.0);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);

    std::vector<float> x = b;
    ASSERT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(data->isFactored, 1);
    const double factorTime = tamber.getFactorTime();
    EXPECT_GT(factorTime, 0.0);
    const double firstSolve = tamber.getSolveTime();
    EXPECT_GT(firstSolve, 0.0);

    // No second factorization; the solve time accumulates.
    x = b;
    ASSERT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(tamber.getFactorTime(), factorTime);
    EXPECT_GT(tamber.getSolveTime(), firstSolve);
    const double accumulated = tamber.getSolveTime();
    x = b;
    tamber.unitSolve(*data, x.data(), -1);
    EXPECT_EQ(tamber.getFactorTime(), factorTime);
    EXPECT_GT(tamber.getSolveTime(), accumulated);

    // New values and a cleared flag: the next solve factors again, which resets the solve time.
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

    // The unit solve factors on demand too.
    data->isFactored = 0;
    tamber.solveTime = 1.0e6;
    x = b;
    tamber.unitSolve(*data, x.data(), 0);
    EXPECT_EQ(data->isFactored, 1);
    EXPECT_LT(tamber.getSolveTime(), 1.0e6);
}

TEST(SolveDriver, DoubleSolveNeitherFactorsNorTimes) {
    const BlockSystem sys = testing::makeSpdSystem(11, 9);
    SCOPED_TRACE(testing::describe(sys));
    const std::vector<double> b = randomRhs<double>(sys.N, 2);
    auto data = std::make_unique<TamberData<double>>();
    Tamber tamber;

    // No factor yet: nothing happens to x, the flag or the timers.
    sys.fillData(*data);
    std::vector<double> x = b;
    EXPECT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(data->isFactored, 0);
    EXPECT_EQ(tamber.getFactorTime(), 0.0);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);
    EXPECT_EQ(x, b);

    // Factored for A, then the values change to 2A and the flag is cleared: the double solve still uses the
    // factor of A and adds no time.
    tamber.factorSerial(*data);
    sys.refillValues(data->matrix, 2.0);
    data->isFactored = 0;
    const double factorTime = tamber.getFactorTime();
    x = b;
    EXPECT_TRUE(tamber.solve(*data, x.data()));
    EXPECT_EQ(data->isFactored, 0);
    EXPECT_EQ(tamber.getFactorTime(), factorTime);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);
    EXPECT_LT(residual(sys.dense, x, b), tolerance<double>());
}

TEST(SolveDriver, FloatSolveOnEmptySystemReturnsFalse) {
    const BlockSystem sys = testing::makeFromDense({}, DenseSymmetric(0));
    TamberData<float> data;
    Tamber tamber;
    sys.fillData(data);
    float x = 1.0f;
    EXPECT_FALSE(tamber.solve(data, &x));
    EXPECT_EQ(data.isFactored, 1);  // it did factor (nothing)
    EXPECT_EQ(tamber.getSolveTime(), 0.0);
    EXPECT_EQ(x, 1.0f);
    EXPECT_EQ(tamber.unitSolve(data, &x, 0), 0u);
}

// The float solve skips the forward pass of the leading columns whose entries are all below the float
// epsilon; those entries enter the backward pass as they stand. With block 0 decoupled from the rest, its
// result is therefore (D_0·U_00)⁻¹·b_0 instead of A_00⁻¹·b_0.
TEST(SolveDriver, FloatSolveSkipsTheForwardPassOfLeadingNegligibleBlocks) {
    const std::vector<unsigned int> sizes = {3, 2, 4, 3};
    DenseSymmetric A(12);
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    // Block 0: strongly coupled inside, so that L_00 is far from the identity; no coupling to the others.
    A.setSymmetric(0, 0, 4.0);
    A.setSymmetric(1, 1, 5.0);
    A.setSymmetric(2, 2, 6.0);
    A.setSymmetric(1, 0, 3.0);
    A.setSymmetric(2, 0, -2.5);
    A.setSymmetric(2, 1, 2.0);
    for (unsigned int i = 3; i < 12; ++i) {
        for (unsigned int j = 3; j < i; ++j) A.setSymmetric(i, j, u(rng));
        A(i, i) = 10.0;
    }
    const BlockSystem sys = testing::makeFromDense(sizes, A);
    auto data = std::make_unique<TamberData<float>>();
    Tamber tamber;
    prepare(sys, *data, tamber);

    std::vector<float> x = randomRhs<float>(sys.N, 9);
    const double tiny[3] = {1e-9, -2e-9, 3e-9};  // below 1.1920929e-07
    for (unsigned int k = 0; k < 3; ++k) x[k] = static_cast<float>(tiny[k]);
    const std::vector<float> b = x;
    ASSERT_TRUE(tamber.solve(*data, x.data()));

    DenseLdlt f;
    testing::extractFactor(*data, f);
    // (D_0·U_00)⁻¹·b_0, U_00 = L_00ᵀ
    std::vector<double> skipped(tiny, tiny + 3);
    for (unsigned int i = 0; i < 3; ++i) skipped[i] /= f.d[i];
    for (unsigned int i = 3; i-- > 0;)
        for (unsigned int r = i + 1; r < 3; ++r) skipped[i] -= f.L[r * f.n + i] * skipped[r];
    // A_00⁻¹·b_0
    DenseSymmetric A00(3);
    for (unsigned int i = 0; i < 3; ++i)
        for (unsigned int j = 0; j < 3; ++j) A00(i, j) = A(i, j);
    const std::vector<double> exact = testing::denseSolve(testing::denseLdlt(A00), {tiny, tiny + 3});

    double scale = 0.0, diffSkipped = 0.0, diffExact = 0.0;
    for (unsigned int i = 0; i < 3; ++i) {
        scale = std::max(scale, std::fabs(skipped[i]));
        diffSkipped = std::max(diffSkipped, std::fabs(x[i] - skipped[i]));
        diffExact = std::max(diffExact, std::fabs(skipped[i] - exact[i]));
    }
    EXPECT_LT(diffSkipped, 1e-5 * scale);
    EXPECT_GT(diffExact, 1e-2 * scale);  // the check above does tell the two apart
    // The other blocks are solved normally (block 0 does not couple to them).
    std::vector<float> rest(x.begin() + 3, x.end()), restB(b.begin() + 3, b.end());
    DenseSymmetric Arest(9);
    for (unsigned int i = 0; i < 9; ++i)
        for (unsigned int j = 0; j < 9; ++j) Arest(i, j) = A(i + 3, j + 3);
    EXPECT_LT(residual(Arest, rest, restB), tolerance<float>());
}

// Smallest block of the elimination-tree component that holds k: the backward pass of a unit solve reaches
// every descendant of the root (each child's block sits in its parent's column).
template <typename T>
unsigned int firstBlockOfTree(const TamberData<T>& data, unsigned int k) {
    auto root = [&](unsigned int j) {
        while (data.etree.parent[j] != j) j = data.etree.parent[j];
        return j;
    };
    const unsigned int r = root(k);
    for (unsigned int j = 0;; ++j)
        if (root(j) == r) return j;
}

template <typename T>
void checkUnitSolves() {
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = std::make_unique<TamberData<T>>();
        Tamber tamber;
        prepare(sys, *data, tamber);
        tamber.factorSerial(*data);

        for (unsigned int k = 0; k < sys.nb; ++k) {
            SCOPED_TRACE("block " + std::to_string(k));
            // Right-hand side on k and its ancestors; NaN in the other trees, which are neither read nor
            // written.
            std::vector<unsigned char> onPath(sys.nb, 0), inTree(sys.nb, 0);
            for (unsigned int j = k;; j = data->etree.parent[j]) {
                onPath[j] = 1;
                if (data->etree.parent[j] == j) break;
            }
            const unsigned int first = firstBlockOfTree(*data, k);
            for (unsigned int j = 0; j < sys.nb; ++j) inTree[j] = firstBlockOfTree(*data, j) == first;
            std::vector<T> b(sys.N, T(0));
            const std::vector<T> values = randomRhs<T>(sys.N, ++seed);
            for (unsigned int j = 0; j < sys.nb; ++j) {
                for (unsigned int t = sys.offsets[j]; t < sys.offsets[j + 1]; ++t) {
                    if (onPath[j]) b[t] = values[t];
                    if (!inTree[j]) b[t] = std::numeric_limits<T>::quiet_NaN();
                }
            }
            b[sys.offsets[k]] = T(1);  // block k holds an entry above the epsilon

            // Every start that selects block k.
            std::vector<int> starts = {-1, static_cast<int>(sys.offsets[k] + 1),
                                       static_cast<int>(sys.offsets[k] + sys.sizes[k])};
            if (k == 0) starts.push_back(0);
            if (k == sys.nb - 1)
                starts.push_back(static_cast<int>(sys.N + 5));  // past the end: the last block
            for (int start : starts) {
                std::vector<T> x = b;
                const unsigned long lowest = tamber.unitSolve(*data, x.data(), start);
                EXPECT_EQ(lowest, sys.offsets[first]) << "start " << start;
                // The solution on this tree, and nothing else touched.
                std::vector<T> xt, bt;
                std::vector<unsigned int> idx;
                for (unsigned int j = 0; j < sys.nb; ++j) {
                    for (unsigned int t = sys.offsets[j]; t < sys.offsets[j + 1]; ++t) {
                        if (inTree[j]) {
                            idx.push_back(t);
                        } else {
                            ASSERT_TRUE(std::isnan(x[t])) << t;
                        }
                    }
                }
                DenseSymmetric At(static_cast<unsigned int>(idx.size()));
                for (unsigned int r = 0; r < idx.size(); ++r) {
                    xt.push_back(x[idx[r]]);
                    bt.push_back(b[idx[r]]);
                    for (unsigned int c = 0; c < idx.size(); ++c) At(r, c) = sys.dense(idx[r], idx[c]);
                }
                EXPECT_LT(residual(At, xt, bt), tolerance<T>()) << "start " << start;
            }
        }

        // The start rule matters: a right-hand side in block 0 only, started one entry after block 0's end
        // (so at block 1), is not solved.
        if (sys.nb >= 2) {
            std::vector<T> b(sys.N, T(0));
            for (unsigned int t = 0; t < sys.sizes[0]; ++t) b[t] = T(1);
            std::vector<T> x = b;
            tamber.unitSolve(*data, x.data(), static_cast<int>(sys.sizes[0]));
            EXPECT_LT(residual(sys.dense, x, b), tolerance<T>());
            x = b;
            tamber.unitSolve(*data, x.data(), static_cast<int>(sys.sizes[0] + 1));
            EXPECT_GT(residual(sys.dense, x, b), 1e-3);
        }
    }

    // A single block: start 0 returns 0 and solves it completely, whatever the right-hand side.
    for (unsigned int s = 1; s <= 7; ++s) {
        SCOPED_TRACE("single block of " + std::to_string(s));
        const BlockSystem sys = testing::makeSpdSystem(900 + s, 1, s);
        auto data = std::make_unique<TamberData<T>>();
        Tamber tamber;
        prepare(sys, *data, tamber);
        const std::vector<T> b = randomRhs<T>(sys.N, s);
        std::vector<T> x = b;
        EXPECT_EQ(tamber.unitSolve(*data, x.data(), 0), 0u);
        EXPECT_LT(residual(sys.dense, x, b), tolerance<T>());
    }
}

TEST(SolveDriver, UnitSolveInDoublePrecision) {
    checkUnitSolves<double>();
}
TEST(SolveDriver, UnitSolveInSinglePrecision) {
    checkUnitSolves<float>();
}

unsigned int blockOf(const BlockSystem& sys, unsigned int scalar) {
    return static_cast<unsigned int>(std::upper_bound(sys.offsets.begin(), sys.offsets.end(), scalar) -
                                     sys.offsets.begin()) -
           1;
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
    auto data = std::make_unique<TamberData<double>>();
    Tamber tamber;
    prepare(sys, *data, tamber);
    tamber.factorSerial(*data);
    const std::vector<double> b = randomRhs<double>(sys.N, seed);
    std::vector<double> x(sys.N);
    tamber.solve(*data, b.data(), x.data());
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-perturbation, perturbation);
    for (double& v : x) v *= 1.0 + u(rng);
    const std::vector<double> entry = x;
    for (int none : {0, -3}) {
        tamber.iterativeRefinement(*data, b.data(), x.data(), none);
        EXPECT_EQ(x, entry);
    }
    const double before = residualNorm(sys.dense, x, b);
    tamber.iterativeRefinement(*data, b.data(), x.data(), 2);
    return {before, residualNorm(sys.dense, x, b)};
}

TEST(SolveDriver, IterativeRefinementReducesTheResidual) {
    // A solution good to single precision only comes back to double precision.
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        const auto [before, after] = refineTwice(sys, ++seed, 1e-6);
        EXPECT_LT(after, 1e-4 * before);
    }
    // A saddle-point system whose body blocks are scaled by 1e-9: the constraint pivots grow to 1e9 and the
    // solve itself keeps a residual near 1e-7; two steps reduce it at least tenfold.
    for (seed = 1; seed <= 5; ++seed) {
        const BlockSystem saddle = testing::makeSaddlePointSystem(seed, 5, 4);
        DenseSymmetric A = saddle.dense;
        for (unsigned int r = 0; r < saddle.N; ++r)
            for (unsigned int t = 0; t < saddle.N; ++t)
                if (!saddle.isConstraint[blockOf(saddle, r)] && !saddle.isConstraint[blockOf(saddle, t)])
                    A(r, t) *= 1e-9;
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
    const std::vector<unsigned int> sizes = {2, 3};
    DenseSymmetric A(5), changed(5);
    const double a[5] = {2.0, 3.0, 4.0, 5.0, 6.0};
    const double c[5] = {0.99, -0.5, 1.0, 1.0, 1.0};
    for (unsigned int k = 0; k < 5; ++k) {
        A(k, k) = a[k];
        changed(k, k) = c[k] * a[k];
    }
    const BlockSystem sys = testing::makeFromDense(sizes, A);
    const BlockSystem sysChanged = testing::makeFromDense(sizes, changed);
    auto data = std::make_unique<TamberData<double>>();
    Tamber tamber;
    prepare(sys, *data, tamber);
    tamber.factorSerial(*data);
    sysChanged.refillValues(data->matrix, 1.0);

    const std::vector<double> entry = {0.5, -0.25, 1.0, 2.0, -1.0};
    const double r0[5] = {1.0, 0.01, 0.0, 0.0, 0.0};
    std::vector<double> b(5);
    for (unsigned int k = 0; k < 5; ++k) b[k] = r0[k] + c[k] * a[k] * entry[k];

    // Two iterations: both accepted, x moves.
    std::vector<double> x = entry;
    tamber.iterativeRefinement(*data, b.data(), x.data(), 2);
    EXPECT_NE(x, entry);
    // Five iterations: the third residual is larger than the second, x returns to its entry value.
    x = entry;
    tamber.iterativeRefinement(*data, b.data(), x.data(), 5);
    EXPECT_EQ(x, entry);
}

TEST(SolveDriver, SteadyStateSolvesAllocateNothing) {
    const BlockSystem sys = testing::makeSaddlePointSystem(21, 8, 5);
    SCOPED_TRACE(testing::describe(sys));
    auto dataF = std::make_unique<TamberData<float>>();
    auto dataD = std::make_unique<TamberData<double>>();
    Tamber tamber;
    prepare(sys, *dataF, tamber);
    prepare(sys, *dataD, tamber);
    tamber.factorSerial(*dataD);
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
