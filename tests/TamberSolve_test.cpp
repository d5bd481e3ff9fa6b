// Forward, diagonal and backward solves with a real factorization, checked against dense triangular solves
// with the same factor (extracted into dense L and d) and against a dense solve of the input matrix.
#include "TamberSolve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
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

// A random diagonally dominant N×N matrix with about half its entries zero, so that a block layout over it
// has missing blocks (the dense twin of a system of N one-scalar blocks).
DenseSymmetric randomDenseSpd(unsigned int N, unsigned long seed) {
    return testing::makeSpdSystem(seed, N, 1, 0.45).dense;
}

// Random SPD and saddle-point systems with blocks of 1..7, plus fixed layouts that put odd and even blocks
// first and last (one digit per block size).
std::vector<BlockSystem> testSystems() {
    std::vector<BlockSystem> all;
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        all.push_back(testing::makeSpdSystem(seed, 1 + static_cast<unsigned int>(seed % 13), 7, 0.3));
        all.push_back(testing::makeSaddlePointSystem(100 + seed, 3 + static_cast<unsigned int>(seed % 6),
                                                     2 + static_cast<unsigned int>(seed % 5)));
    }
    unsigned long seed = 500;
    for (const std::string layout : {"1", "2", "7", "243", "342", "11111", "35713", "624", "1234567"}) {
        std::vector<unsigned int> sizes;
        unsigned int N = 0;
        for (char c : layout) sizes.push_back(c - '0'), N += c - '0';
        all.push_back(testing::makeFromDense(sizes, randomDenseSpd(N, ++seed)));
    }
    return all;
}

// Fills and factors `sys` (serial factorization).
std::unique_ptr<TamberData<double>> factored(const BlockSystem& sys) {
    auto data = std::make_unique<TamberData<double>>();
    sys.fillData(*data);
    Tamber tamber;
    unsigned int work = 0;
    tamber.estimateWork(*data, &work);
    tamber.factorSerial(*data);
    return data;
}

// Largest |a_k − b_k| over the first n entries, relative to max(1, ‖b‖∞); NaN when any difference is NaN.
double relativeDifference(const double* a, const std::vector<double>& b, unsigned int n) {
    double diff = 0.0, scale = 1.0;
    for (unsigned int k = 0; k < n; ++k) {
        const double e = std::fabs(a[k] - b[k]);
        if (!(e <= diff)) diff = e;  // a NaN sticks
        scale = std::max(scale, std::fabs(b[k]));
    }
    return diff / scale;
}

constexpr double kTol = 1e-12;

// Each step against the dense triangular or diagonal solve with the same factor (on exactly N doubles, so a
// paired access past the end is an AddressSanitizer error); the whole solve (both forms) against the input
// matrix; the backward solve with the scaled factor (D on its diagonal tiles) replaces the diagonal step. On
// a vector of the wrong size the diagonal solve returns false and changes nothing, and the vector solve skips
// the diagonal step silently (forward then backward only).
TEST(TamberSolve, StepsMatchDenseTriangularSolvesWithTheSameFactor) {
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys);
        DenseLdlt f;
        testing::extractFactor(*data, f);
        const unsigned int N = sys.N;
        const std::vector<double> b = testing::randomVector(N, ++seed);
        std::vector<double> x = b, ref = b, full = b;
        ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x.data()));
        for (unsigned int i = 0; i < N; ++i)
            for (unsigned int c = 0; c < i; ++c) ref[i] -= f.L[i * N + c] * ref[c];
        EXPECT_LT(relativeDifference(x.data(), ref, N), kTol) << "forward";
        x = ref;
        ASSERT_TRUE(TamberSolve::diagSolve(data->diagonal, x.data()));
        for (unsigned int k = 0; k < N; ++k) ref[k] /= f.d[k];
        EXPECT_LT(relativeDifference(x.data(), ref, N), kTol) << "diagonal";
        x = ref;
        ASSERT_TRUE(TamberSolve::backwardTSolve(data->factor, x.data()));
        for (unsigned int i = N; i-- > 0;)
            for (unsigned int r = i + 1; r < N; ++r) ref[i] -= f.L[r * N + i] * ref[r];
        EXPECT_LT(relativeDifference(x.data(), ref, N), kTol) << "backward";

        ASSERT_TRUE(TamberSolve::solve(*data, full.data()));
        EXPECT_LT(testing::scaledResidual(sys.dense, full.data(), b.data()), 1e-14);
        DenseVector<double> v;
        v.resize(N);
        std::copy(b.begin(), b.end(), v.data);
        ASSERT_TRUE(TamberSolve::solve(*data, v));
        EXPECT_TRUE(std::equal(full.begin(), full.end(), v.data));
        x = b;
        TamberSolve::forwardSolve(data->factor, x.data());
        TamberSolve::backwardTSolve(data->scaledFactor, x.data());
        EXPECT_LT(relativeDifference(x.data(), full, N), kTol) << "backward with the scaled factor";

        DenseVector<double> w;  // one entry too many: diagSolve refuses, solve skips the diagonal step
        w.resize(N + 1);
        std::copy(b.begin(), b.end(), w.data);
        w.data[N] = 0.5;
        std::vector<double> given(w.data, w.data + N + 1), expected = given;
        EXPECT_FALSE(TamberSolve::diagSolve(data->diagonal, w));
        EXPECT_TRUE(std::equal(given.begin(), given.end(), w.data));
        EXPECT_TRUE(TamberSolve::solve(*data, w));
        TamberSolve::forwardSolve(data->factor, expected.data());
        TamberSolve::backwardTSolve(data->factor, expected.data());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), w.data));
        std::copy(b.begin(), b.end(), w.data);
        w.resize(N);
        EXPECT_TRUE(TamberSolve::diagSolve(data->diagonal, w));
        for (unsigned int k = 0; k < N; ++k) ASSERT_EQ(w.data[k], b[k] / data->diagonal.data[k]);
    }
    TamberData<double> empty;  // an empty system: solve returns true and touches nothing
    double dummy = 5.0;
    EXPECT_TRUE(TamberSolve::solve(empty, &dummy));
    EXPECT_EQ(dummy, 5.0);
}

// The same matrix in two block layouts, one ending in an odd block (scalar last column) and one ending in an
// even block (paired everywhere): the two solutions agree up to rounding.
TEST(TamberSolve, OddLastBlockAgreesWithEvenLayout) {
    for (unsigned long seed = 1; seed <= 30; ++seed) {
        std::mt19937_64 rng(seed);
        std::vector<unsigned int> oddLast(1 + rng() % 6);
        for (unsigned int& s : oddLast) s = 1 + rng() % 7;
        oddLast.back() |= 1u;
        oddLast.insert(oddLast.begin(), 2 * (1 + rng() % 3));                  // an even first block ...
        std::vector<unsigned int> evenLast(oddLast.rbegin(), oddLast.rend());  // ... becomes the last
        unsigned int N = 0;
        for (unsigned int s : oddLast) N += s;
        const DenseSymmetric A = randomDenseSpd(N, 1000 + seed);
        const BlockSystem odd = testing::makeFromDense(oddLast, A),
                          even = testing::makeFromDense(evenLast, A);
        SCOPED_TRACE(testing::describe(odd) + " / " + testing::describe(even));
        const std::vector<double> b = testing::randomVector(N, seed);
        std::vector<double> x1 = b, x2 = b;
        TamberSolve::solve(*factored(odd), x1.data());
        TamberSolve::solve(*factored(even), x2.data());
        EXPECT_LT(relativeDifference(x1.data(), x2, N), kTol);
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

// Up to a limit, only the entries below it are computed; entries at and after it are neither written (a
// finite sentinel stays) nor read (NaN there leaves the entries below finite). Resumed at a start block, the
// columns before it count as solved; a start past the last block does nothing.
// With a set of starting blocks, the forward solve reaches exactly their ancestors (the set ends as that
// reach; entries outside stay zero); with a limit inside the system, the entries below it are the forward
// solution of the right-hand side cut at the limit, those at and after it untouched, and the set holds every
// ancestor that starts at or before the limit. Two starting blocks reach the union; an empty set does
// nothing.
TEST(TamberSolve, PartialAndReachRestrictedForwardSolves) {
    const double sentinel = 777.0;
    unsigned long seed = 0;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys);
        DenseVector<double> x;
        x.resize(sys.N);
        const std::vector<double> b = testing::randomVector(sys.N, ++seed);
        std::vector<double> full = b;
        TamberSolve::forwardSolve(data->factor, full.data());
        for (unsigned int limit : limitsOf(sys)) {
            for (double fill : {sentinel, std::numeric_limits<double>::quiet_NaN()}) {
                for (unsigned int k = 0; k < sys.N; ++k) x.data[k] = k < limit ? b[k] : fill;
                ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, limit, 0u));
                EXPECT_LT(relativeDifference(x.data, full, limit), kTol) << "limit " << limit;
                for (unsigned int k = limit; k < sys.N && fill == sentinel; ++k)
                    ASSERT_EQ(x.data[k], sentinel) << k;
            }
        }
        for (unsigned int start = 0; start <= sys.nb + 1; ++start) {
            const unsigned int from = start < sys.nb ? sys.offsets[start] : sys.N;
            std::vector<double> given(sys.N);
            for (unsigned int k = 0; k < sys.N; ++k) x.data[k] = given[k] = k < from ? full[k] : b[k];
            ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, sys.N, start));
            EXPECT_LT(relativeDifference(x.data, start < sys.nb ? full : given, sys.N),
                      start < sys.nb ? kTol : 1e-300)
                << "start " << start;
        }
        auto reachOf = [&](std::set<unsigned int> starts) {
            for (unsigned int k : std::set<unsigned int>(starts))
                for (; data->etree.parent[k] != k; k = data->etree.parent[k])
                    starts.insert(data->etree.parent[k]);
            return starts;
        };
        for (unsigned int k = 0; k < sys.nb + 1; ++k) {
            const std::set<unsigned int> starts =
                k < sys.nb ? std::set<unsigned int>{k} : std::set<unsigned int>{0, sys.nb / 2};
            const std::set<unsigned int> reach = reachOf(starts);
            std::vector<double> rhs(sys.N, 0.0);
            for (unsigned int s : starts) {
                const std::vector<double> values = testing::randomVector(sys.sizes[s], ++seed);
                std::copy(values.begin(), values.end(), rhs.begin() + sys.offsets[s]);
            }
            for (unsigned int limit : limitsOf(sys)) {
                SCOPED_TRACE("start " + std::to_string(k) + " limit " + std::to_string(limit));
                std::vector<double> cut = rhs;
                std::fill(cut.begin() + limit, cut.end(), 0.0);
                TamberSolve::forwardSolve(data->factor, cut.data());
                for (unsigned int t = 0; t < sys.N; ++t) x.data[t] = t < limit ? rhs[t] : 777.0;
                std::set<unsigned int> blocks = starts;
                ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, limit, blocks, &data->etree));
                EXPECT_LT(relativeDifference(x.data, cut, limit), kTol);
                for (unsigned int t = limit; t < sys.N; ++t) ASSERT_EQ(x.data[t], 777.0) << t;
                for (unsigned int a : reach) EXPECT_TRUE(sys.offsets[a] > limit || blocks.count(a)) << a;
                for (unsigned int a : blocks) EXPECT_TRUE(reach.count(a)) << a;
                if (limit < sys.N) continue;
                EXPECT_EQ(blocks, reach);
                for (unsigned int j = 0; j < sys.nb; ++j)
                    for (unsigned int t = sys.offsets[j]; t < sys.offsets[j + 1] && !reach.count(j); ++t)
                        ASSERT_EQ(x.data[t], 0.0) << t;
            }
        }
        std::set<unsigned int> none;
        std::fill(x.data, x.data + sys.N, 3.0);
        ASSERT_TRUE(TamberSolve::forwardSolve(data->factor, x, sys.N, none, &data->etree));
        EXPECT_TRUE(none.empty() && std::all_of(x.data, x.data + sys.N, [](double v) { return v == 3.0; }));
    }
}

// Several right-hand sides per pass equal as many single solves bit for bit, with a leading dimension of N
// and of more (the gap left alone), including non-finite entries (which spread the same way in both).
TEST(TamberSolve, ManyRightHandSidesEqualSingleSolvesBitForBit) {
    unsigned long seed = 900;
    for (const BlockSystem& sys : testSystems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys);
        const unsigned int N = sys.N;
        for (unsigned int numRhs : {0u, 1u, 2u, 3u, 5u}) {
            for (unsigned long ld : {static_cast<unsigned long>(N), static_cast<unsigned long>(N) + 3}) {
                std::vector<double> many(ld * numRhs + 1, -7.0), single(many.size(), -7.0);
                for (unsigned int r = 0; r < numRhs; ++r) {
                    const std::vector<double> b = testing::randomVector(N, ++seed);
                    std::copy(b.begin(), b.end(), many.begin() + r * ld);
                }
                if (numRhs == 3) many[ld + N / 2] = std::numeric_limits<double>::infinity();
                if (numRhs == 5) many[4 * ld] = std::numeric_limits<double>::quiet_NaN();
                single = many;
                for (unsigned int r = 0; r < numRhs; ++r) TamberSolve::solve(*data, single.data() + r * ld);
                ASSERT_TRUE(TamberSolve::solveMany(*data, many.data(), numRhs, ld));
                ASSERT_EQ(std::memcmp(many.data(), single.data(), many.size() * sizeof(double)), 0)
                    << numRhs << " right-hand sides, ld " << ld;
            }
        }
    }
}

// Tamber::iterativeRefinement as separate passes: r = A·x (multiply), r = b − r with ‖r‖² in four partial
// sums (groups of four, the last N mod 4 entries into the first sum), the divergence rule,
// TamberSolve::solve, then x += r.
void refineInPasses(TamberData<double>& data, const double* b, double* x, int maxIterations) {
    const unsigned int N =
        data.matrix.numBlockCols == 0 ? 0 : data.matrix.blockSizes[data.matrix.numBlockCols];
    const std::vector<double> entry(x, x + N);
    std::vector<double> r(N);
    double previous = 1.0e9;
    for (int iteration = 0; iteration < maxIterations; ++iteration) {
        data.matrix.multiply(x, r.data());
        double s[4] = {0.0, 0.0, 0.0, 0.0};
        for (unsigned int k = 0; k < N; ++k) {
            r[k] = b[k] - r[k];
            s[k < (N & ~3u) ? k % 4 : 0] += r[k] * r[k];
        }
        const double norm = std::sqrt((s[0] + s[1]) + (s[2] + s[3]));
        if (norm > previous) {
            std::copy(entry.begin(), entry.end(), x);
            return;
        }
        previous = norm;
        TamberSolve::solve(data, r.data());
        for (unsigned int k = 0; k < N; ++k) x[k] += r[k];
    }
}

// The refinement step (residual formed ahead of the forward pass, x + δ in the backward pass) gives the bits
// of the separate passes: 1 to 3 iterations, systems with every block size 1 … 12 (odd and even last blocks)
// and islands whose trees the passes take in turns,
// from a rough start, from the solution, with a NaN in b, with a residual above the starting norm, from
// zeros of either sign with b = 0, and from an infinite entry.
TEST(TamberSolve, RefinementEqualsSeparatePassesBitForBit) {
    std::vector<BlockSystem> systems = testSystems();
    for (unsigned long seed = 1; seed <= 10; ++seed) {
        systems.push_back(
            testing::makeSpdSystem(700 + seed, 3 + static_cast<unsigned int>(seed % 9), 12, 0.35));
        systems.push_back(testing::makeSaddlePointSystem(800 + seed, 3 + static_cast<unsigned int>(seed % 5),
                                                         2 + static_cast<unsigned int>(seed % 4), 12, 0.3));
        systems.push_back(testing::makeIslands(900 + seed, 2 + static_cast<unsigned int>(seed % 4)));
    }
    unsigned long seed = 1000;
    Tamber tamber;
    for (const BlockSystem& sys : systems) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys);
        const unsigned int N = sys.N;
        for (int start = 0; start < 6; ++start) {
            std::vector<double> b = testing::randomVector(N, ++seed), x = testing::randomVector(N, ++seed);
            if (start == 1) {  // from the solution of a solve
                x = b;
                TamberSolve::solve(*data, x.data());
            }
            if (start == 2) b[seed % N] = std::numeric_limits<double>::quiet_NaN();
            if (start == 3) b[seed % N] = 1.0e12;  // diverges at once: x stays
            if (start == 4) {                      // zero products everywhere: the signs of zeros show
                std::fill(b.begin(), b.end(), 0.0);
                std::fill(x.begin(), x.end(), -0.0);
                x[seed % N] = 1.0;
            }
            if (start == 5) x[seed % N] = std::numeric_limits<double>::infinity();
            for (int iterations = 1; iterations <= 3; ++iterations) {
                std::vector<double> got = x, want = x;
                tamber.iterativeRefinement(*data, b.data(), got.data(), iterations);
                refineInPasses(*data, b.data(), want.data(), iterations);
                for (unsigned int k = 0; k < N; ++k)
                    ASSERT_TRUE((std::isnan(got[k]) && std::isnan(want[k])) ||
                                std::memcmp(&got[k], &want[k], sizeof(double)) == 0)
                        << "entry " << k << ", start " << start << ", " << iterations << " iterations";
            }
        }
    }
}

}  // namespace
}  // namespace kivTamber
