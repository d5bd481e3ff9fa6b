// Forward, diagonal and backward solves with a real factorization, checked against dense triangular solves
// with the same factor (extracted into dense L and d) and against a dense solve of the input matrix.
#include "TamberSolve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Tamber.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using testing::DenseLdlt;
using testing::DenseSymmetric;

// A random symmetric, diagonally dominant N×N matrix whose entries are zero with probability `sparsity`, so
// that a block layout over it has missing blocks.
DenseSymmetric randomDenseSpd(unsigned int N, unsigned long seed, double sparsity) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::bernoulli_distribution zero(sparsity);
    DenseSymmetric A(N);
    for (unsigned int i = 0; i < N; ++i)
        for (unsigned int j = 0; j < i; ++j)
            if (!zero(rng)) A.setSymmetric(i, j, value(rng));
    for (unsigned int i = 0; i < N; ++i) {
        double sum = 1.0;
        for (unsigned int j = 0; j < N; ++j) sum += std::fabs(A(i, j));
        A(i, i) = sum;
    }
    return A;
}

// The systems every test runs on: random SPD and saddle-point systems with blocks of 1..7, plus fixed layouts
// that put odd and even blocks first and last.
std::vector<BlockSystem> testSystems() {
    std::vector<BlockSystem> all;
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        all.push_back(testing::makeSpdSystem(seed, 1 + static_cast<unsigned int>(seed % 13), 7, 0.3));
        all.push_back(testing::makeSaddlePointSystem(100 + seed, 3 + static_cast<unsigned int>(seed % 6),
                                                     2 + static_cast<unsigned int>(seed % 5)));
    }
    const std::vector<std::vector<unsigned int>> layouts = {{1},
                                                            {2},
                                                            {7},
                                                            {2, 4, 3},
                                                            {3, 4, 2},
                                                            {1, 1, 1, 1, 1},
                                                            {3, 5, 7, 1, 3},
                                                            {6, 2, 4},
                                                            {1, 2, 3, 4, 5, 6, 7}};
    unsigned long seed = 500;
    for (const auto& sizes : layouts) {
        unsigned int N = 0;
        for (unsigned int s : sizes) N += s;
        all.push_back(testing::makeFromDense(sizes, randomDenseSpd(N, ++seed, 0.5)));
    }
    return all;
}

// Fills and factors `sys` into `data` (serial factorization).
template <typename T>
void factorInto(const BlockSystem& sys, TamberData<T>& data) {
    sys.fillData(data);
    Tamber tamber;
    unsigned int work = 0;
    tamber.estimateWork(data, &work);
    tamber.factorSerial(data);
}

// x ← L⁻¹·x with the dense unit lower L.
void denseLowerSolve(const DenseLdlt& f, std::vector<double>& x) {
    for (unsigned int i = 0; i < f.n; ++i)
        for (unsigned int c = 0; c < i; ++c) x[i] -= f.L[static_cast<std::size_t>(i) * f.n + c] * x[c];
}

// x ← L⁻ᵀ·x with the dense unit lower L.
void denseUpperSolve(const DenseLdlt& f, std::vector<double>& x) {
    for (unsigned int i = f.n; i-- > 0;)
        for (unsigned int r = i + 1; r < f.n; ++r) x[i] -= f.L[static_cast<std::size_t>(r) * f.n + i] * x[r];
}

// Largest |a_k − b_k| over the first n entries, relative to max(1, ‖b‖∞); NaN when any difference is NaN.
double relativeDifference(const std::vector<double>& a, const std::vector<double>& b, unsigned int n) {
    double diff = 0.0, scale = 1.0;
    for (unsigned int k = 0; k < n; ++k) {
        const double e = std::fabs(a[k] - b[k]);
        if (!(e <= diff)) diff = e;  // a NaN sticks
        scale = std::max(scale, std::fabs(b[k]));
    }
    return diff / scale;
}

constexpr double kTol = 1e-12;

TEST(TamberSolve, StepsMatchDenseTriangularSolvesWithTheSameFactor) {
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = std::make_unique<TamberData<double>>();
        factorInto(sys, *data);
        DenseLdlt f;
        testing::extractFactor(*data, f);
        const std::vector<double> b = testing::randomVector(sys.N, ++seed);

        // Exactly N doubles on the heap, so a paired access past the end is an AddressSanitizer error.
        std::vector<double> x = b, ref = b;
        ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x.data()));
        denseLowerSolve(f, ref);
        EXPECT_LT(relativeDifference(x, ref, sys.N), kTol) << "forward";

        x = ref;
        ASSERT_TRUE(TamberSolve::diagSolve(data->diagonal, x.data()));
        for (unsigned int k = 0; k < sys.N; ++k) ref[k] /= f.d[k];
        EXPECT_LT(relativeDifference(x, ref, sys.N), kTol) << "diagonal";

        x = ref;
        ASSERT_TRUE(TamberSolve::backwardTSolve(data->factor, x.data()));
        denseUpperSolve(f, ref);
        EXPECT_LT(relativeDifference(x, ref, sys.N), kTol) << "backward";

        // The whole solve against the input matrix.
        std::vector<double> full = b;
        ASSERT_TRUE(TamberSolve::solve(*data, full.data()));
        EXPECT_LT(testing::scaledResidual(sys.dense, full.data(), b.data()), 1e-14);

        // The vector form gives the same numbers.
        DenseVector<double> v;
        v.resize(sys.N);
        std::copy(b.begin(), b.end(), v.data);
        ASSERT_TRUE(TamberSolve::solve(*data, v));
        for (unsigned int k = 0; k < sys.N; ++k) ASSERT_EQ(v.data[k], full[k]) << k;

        // The backward solve divides by the stored diagonal: with the scaled factor (D on its diagonal tiles)
        // it replaces the diagonal step.
        x = b;
        TamberSolve::forwardSolve(data->factor, x.data());
        TamberSolve::backwardTSolve(data->scaledFactor, x.data());
        EXPECT_LT(relativeDifference(x, full, sys.N), kTol) << "backward with the scaled factor";
    }
}

// The same matrix in two block layouts, one ending in an odd block (scalar last column) and one ending in an
// even block (paired everywhere): the two solutions agree up to rounding.
TEST(TamberSolve, OddLastBlockAgreesWithEvenLayout) {
    for (unsigned long seed = 1; seed <= 30; ++seed) {
        std::mt19937_64 rng(seed);
        std::uniform_int_distribution<unsigned int> size(1, 7), count(1, 6);
        std::vector<unsigned int> oddLast;
        const unsigned int nb = count(rng);
        for (unsigned int b = 0; b < nb; ++b) oddLast.push_back(size(rng));
        oddLast.back() |= 1u;
        oddLast.insert(oddLast.begin(), 2 * (1 + size(rng) % 3));              // an even first block ...
        std::vector<unsigned int> evenLast(oddLast.rbegin(), oddLast.rend());  // ... becomes the last
        unsigned int N = 0;
        for (unsigned int s : oddLast) N += s;
        const DenseSymmetric A = randomDenseSpd(N, 1000 + seed, 0.6);
        const BlockSystem odd = testing::makeFromDense(oddLast, A);
        const BlockSystem even = testing::makeFromDense(evenLast, A);
        SCOPED_TRACE(testing::describe(odd) + " / " + testing::describe(even));

        auto oddData = std::make_unique<TamberData<double>>();
        auto evenData = std::make_unique<TamberData<double>>();
        factorInto(odd, *oddData);
        factorInto(even, *evenData);
        const std::vector<double> b = testing::randomVector(N, seed);
        std::vector<double> x1 = b, x2 = b;
        TamberSolve::solve(*oddData, x1.data());
        TamberSolve::solve(*evenData, x2.data());
        EXPECT_LT(relativeDifference(x1, x2, N), kTol);
        EXPECT_LT(testing::scaledResidual(A, x1.data(), b.data()), 1e-14);
    }
}

// The limits worth trying for a system: 0, every block boundary, one past it, and N.
std::vector<unsigned int> limitsOf(const BlockSystem& sys) {
    std::vector<unsigned int> limits;
    for (unsigned int j = 0; j <= sys.nb; ++j) {
        limits.push_back(sys.offsets[j]);
        if (sys.offsets[j] + 1 < sys.N) limits.push_back(sys.offsets[j] + 1);
    }
    return limits;
}

TEST(TamberSolve, PartialForwardSolveComputesOnlyEntriesBelowTheLimit) {
    const double sentinel = 777.0;
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = std::make_unique<TamberData<double>>();
        factorInto(sys, *data);
        const std::vector<double> b = testing::randomVector(sys.N, ++seed);
        std::vector<double> full = b;
        TamberSolve::forwardSolve(data->factor, full.data());

        DenseVector<double> x;
        x.resize(sys.N);
        for (unsigned int limit : limitsOf(sys)) {
            SCOPED_TRACE("limit " + std::to_string(limit));
            // Entries at and after the limit are neither written nor read: a finite sentinel stays exactly as
            // it was, and NaN there leaves the entries below the limit finite.
            for (double fill : {sentinel, std::numeric_limits<double>::quiet_NaN()}) {
                for (unsigned int k = 0; k < sys.N; ++k) x.data[k] = k < limit ? b[k] : fill;
                ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, limit, 0u));
                std::vector<double> got(x.data, x.data + sys.N);
                EXPECT_LT(relativeDifference(got, full, limit), kTol);
                if (fill == sentinel) {
                    for (unsigned int k = limit; k < sys.N; ++k) ASSERT_EQ(x.data[k], sentinel) << k;
                }
            }
        }

        // Resuming at a start block: columns before it already solved, the rest still the right-hand side.
        for (unsigned int start = 0; start <= sys.nb + 1; ++start) {
            const unsigned int from = start < sys.nb ? sys.offsets[start] : sys.N;
            for (unsigned int k = 0; k < sys.N; ++k) x.data[k] = k < from ? full[k] : b[k];
            ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, sys.N, start));
            std::vector<double> got(x.data, x.data + sys.N);
            if (start < sys.nb) {
                EXPECT_LT(relativeDifference(got, full, sys.N), kTol) << "start " << start;
            } else {  // nothing happens
                for (unsigned int k = 0; k < sys.N; ++k) ASSERT_EQ(got[k], k < from ? full[k] : b[k]);
            }
        }
    }
}

// k followed by its elimination-tree ancestors.
std::vector<unsigned int> ancestorsOf(const TamberData<double>& data, unsigned int k) {
    std::vector<unsigned int> chain{k};
    while (data.etree.parent[chain.back()] != chain.back()) chain.push_back(data.etree.parent[chain.back()]);
    return chain;
}

TEST(TamberSolve, ReachRestrictedForwardSolveFollowsTheAncestors) {
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = std::make_unique<TamberData<double>>();
        factorInto(sys, *data);
        DenseVector<double> x;
        x.resize(sys.N);

        for (unsigned int k = 0; k < sys.nb; ++k) {
            SCOPED_TRACE("start block " + std::to_string(k));
            const std::vector<unsigned int> chain = ancestorsOf(*data, k);
            const std::set<unsigned int> reach(chain.begin(), chain.end());
            std::vector<double> rhs(sys.N, 0.0);
            const std::vector<double> values = testing::randomVector(sys.sizes[k], ++seed);
            std::copy(values.begin(), values.end(), rhs.begin() + sys.offsets[k]);
            std::vector<double> full = rhs;
            TamberSolve::forwardSolve(data->factor, full.data());

            // Whole range: `blocks` ends as k and its ancestors; entries outside stay zero.
            std::copy(rhs.begin(), rhs.end(), x.data);
            std::set<unsigned int> blocks{k};
            ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, sys.N, blocks, &data->etree));
            EXPECT_EQ(blocks, reach);
            std::vector<double> got(x.data, x.data + sys.N);
            EXPECT_LT(relativeDifference(got, full, sys.N), kTol);
            for (unsigned int j = 0; j < sys.nb; ++j) {
                if (reach.count(j)) continue;
                for (unsigned int t = sys.offsets[j]; t < sys.offsets[j + 1]; ++t)
                    ASSERT_EQ(got[t], 0.0) << t;
            }

            // A limit inside the system: entries below it are the forward solution of the right-hand side
            // cut at the limit, entries at and after it untouched, and `blocks` holds every ancestor that
            // starts at or before the limit.
            for (unsigned int limit : limitsOf(sys)) {
                std::vector<double> cut = rhs;
                std::fill(cut.begin() + limit, cut.end(), 0.0);
                TamberSolve::forwardSolve(data->factor, cut.data());
                for (unsigned int t = 0; t < sys.N; ++t) x.data[t] = t < limit ? rhs[t] : 777.0;
                blocks = {k};
                TamberSolve::forwardSolve(data->factor, x, limit, blocks, &data->etree);
                got.assign(x.data, x.data + sys.N);
                EXPECT_LT(relativeDifference(got, cut, limit), kTol) << "limit " << limit;
                for (unsigned int t = limit; t < sys.N; ++t) ASSERT_EQ(got[t], 777.0) << t;
                for (unsigned int a : chain) {
                    if (sys.offsets[a] <= limit) {
                        EXPECT_TRUE(blocks.count(a)) << a << " limit " << limit;
                    }
                }
                for (unsigned int a : blocks) EXPECT_TRUE(reach.count(a)) << a << " limit " << limit;
            }
        }

        // Two starting blocks: the union of both reaches.
        if (sys.nb >= 2) {
            const unsigned int k1 = 0, k2 = sys.nb / 2;
            std::vector<double> rhs(sys.N, 0.0);
            rhs[sys.offsets[k1]] = 1.0;
            rhs[sys.offsets[k2]] = -2.0;
            std::vector<double> full = rhs;
            TamberSolve::forwardSolve(data->factor, full.data());
            std::copy(rhs.begin(), rhs.end(), x.data);
            std::set<unsigned int> blocks{k2, k1};
            TamberSolve::forwardSolve(data->factor, x, sys.N, blocks, &data->etree);
            std::set<unsigned int> reach;
            for (unsigned int k : {k1, k2})
                for (unsigned int a : ancestorsOf(*data, k)) reach.insert(a);
            EXPECT_EQ(blocks, reach);
            std::vector<double> got(x.data, x.data + sys.N);
            EXPECT_LT(relativeDifference(got, full, sys.N), kTol);
        }

        // An empty set changes nothing.
        std::set<unsigned int> none;
        std::fill(x.data, x.data + sys.N, 3.0);
        ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, sys.N, none, &data->etree));
        EXPECT_TRUE(none.empty());
        for (unsigned int t = 0; t < sys.N; ++t) ASSERT_EQ(x.data[t], 3.0);
    }
}

TEST(TamberSolve, DiagonalSolveAndVectorFormsCheckTheSize) {
    const BlockSystem sys = testing::makeSaddlePointSystem(7, 5, 3);
    SCOPED_TRACE(testing::describe(sys));
    auto data = std::make_unique<TamberData<double>>();
    factorInto(sys, *data);
    const std::vector<double> b = testing::randomVector(sys.N + 1, 3);

    // Mismatched sizes: false, nothing changed.
    DenseVector<double> x;
    x.resize(sys.N + 1);
    std::copy(b.begin(), b.end(), x.data);
    EXPECT_FALSE(TamberSolve::diagSolve(data->diagonal, x));
    for (unsigned int k = 0; k <= sys.N; ++k) ASSERT_EQ(x.data[k], b[k]);

    // Matching sizes: x_k / d_k.
    x.resize(sys.N);
    EXPECT_TRUE(TamberSolve::diagSolve(data->diagonal, x));
    for (unsigned int k = 0; k < sys.N; ++k) ASSERT_EQ(x.data[k], b[k] / data->diagonal.data[k]);

    // The vector solve skips the diagonal step silently on a mismatch: forward then backward only.
    x.resize(sys.N + 1);
    std::copy(b.begin(), b.end(), x.data);
    EXPECT_TRUE(TamberSolve::solve(*data, x));
    std::vector<double> expected(b.begin(), b.end());
    TamberSolve::forwardSolve(data->factor, expected.data());
    TamberSolve::backwardTSolve(data->factor, expected.data());
    for (unsigned int k = 0; k <= sys.N; ++k) ASSERT_EQ(x.data[k], expected[k]) << k;

    // An empty system: every solve returns true and touches nothing.
    TamberData<double> empty;
    double dummy = 5.0;
    EXPECT_TRUE(TamberSolve::solve(empty, &dummy));
    EXPECT_EQ(dummy, 5.0);
}

}  // namespace
}  // namespace kivTamber
