// Dense matrix L·D·Lᵀ and solve against an independent dense reference on SPD and saddle-point matrices;
// dense vector growth.
#include "DenseTypes.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace kivTamber {
namespace {

template <typename T>
class DenseTypesTest : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DenseTypesTest, Precisions);

using Dense = std::vector<long double>;  // n × n, row-major, symmetric

// SPD: B·Bᵀ + n·I with B uniform in [-1, 1].
Dense randomSpd(std::mt19937& rng, int n) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Dense B(std::size_t(n) * n), A(std::size_t(n) * n, 0.0L);
    for (auto& v : B) v = u(rng);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            for (int k = 0; k < n; ++k) A[i * n + j] += B[i * n + k] * B[j * n + k];
        }
        A[i * n + i] += n;
    }
    return A;
}

// Saddle point [M Jᵀ; J 0] with M SPD (m × m) and J (c × m, 1 ≤ c ≤ m) of full row rank: every leading minor
// is nonzero, so the factorization without pivoting exists; the last c pivots are negative.
Dense randomSaddle(std::mt19937& rng, int n) {
    const int c = std::max(1, n / 3), m = n - c;
    const Dense M = randomSpd(rng, m);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Dense A(std::size_t(n) * n, 0.0L);
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < m; ++j) A[i * n + j] = M[i * m + j];
    for (int r = m; r < n; ++r) {
        for (int j = 0; j < m; ++j) A[r * n + j] = A[j * n + r] = u(rng) + (j == r - m ? 2.0 : 0.0);
    }
    return A;
}

// Right-looking A = L·D·Lᵀ in long double on a copy: returns L (unit lower, row-major) and D.
void referenceLdlt(Dense A, int n, Dense& L, std::vector<long double>& D) {
    L.assign(std::size_t(n) * n, 0.0L);
    D.assign(n, 0.0L);
    for (int j = 0; j < n; ++j) {
        D[j] = A[j * n + j];
        L[j * n + j] = 1;
        for (int i = j + 1; i < n; ++i) L[i * n + j] = A[i * n + j] / D[j];
        for (int i = j + 1; i < n; ++i) {
            for (int k = j + 1; k <= i; ++k) A[i * n + k] -= L[i * n + j] * D[j] * L[k * n + j];
        }
    }
}

// Loads A into the storage read by DenseMatrix (a_ij at j·n + i): the lower triangle and the diagonal, with
// `upper` in every element with i < j.
template <typename T>
std::vector<T> load(const Dense& A, int n, T upper) {
    std::vector<T> data(std::size_t(n) * n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) data[j * n + i] = i >= j ? T(A[i * n + j]) : upper;
    return data;
}

struct Case {
    bool saddle;
    int n;
    unsigned seed;
};

std::vector<Case> cases() {
    std::vector<Case> all;
    for (int n = 1; n <= 12; ++n) {
        for (unsigned seed = 1; seed <= 5; ++seed) {
            all.push_back({false, n, seed});
            if (n >= 2) all.push_back({true, n, seed});
        }
    }
    return all;
}

// factor() agrees with the reference factorization entry by entry, reads only the lower triangle (NaN above
// it changes no bit of the result) and leaves the elements above it as they were.
TYPED_TEST(DenseTypesTest, FactorMatchesReference) {
    using T = TypeParam;
    const long double eps = std::numeric_limits<T>::epsilon();
    for (const Case& c : cases()) {
        SCOPED_TRACE(::testing::Message()
                     << (c.saddle ? "saddle" : "spd") << " n " << c.n << " seed " << c.seed);
        std::mt19937 rng(c.seed * 100 + c.n);
        const int n = c.n;
        const Dense A = c.saddle ? randomSaddle(rng, n) : randomSpd(rng, n);
        // The reference factors the matrix as the precision under test holds it.
        Dense Ar(A.size());
        for (std::size_t e = 0; e < A.size(); ++e) Ar[e] = T(A[e]);
        Dense L;
        std::vector<long double> D;
        referenceLdlt(Ar, n, L, D);

        const T garbage = std::numeric_limits<T>::quiet_NaN();
        std::vector<T> data = load<T>(A, n, garbage);
        std::vector<T> full = load<T>(A, n, T(0));
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < j; ++i) full[j * n + i] = T(A[i * n + j]);

        DenseMatrix<T> M(n, 0, data.data());  // numRows is not read
        DenseMatrix<T> F(n, n, full.data());
        EXPECT_TRUE(M.factor());
        EXPECT_TRUE(M.isFactored);
        F.factor();

        long double maxL = 1, maxD = 0;
        for (int j = 0; j < n; ++j) {
            maxD = std::max(maxD, std::fabs(D[j]));
            for (int i = j + 1; i < n; ++i) maxL = std::max(maxL, std::fabs(L[i * n + j]));
        }
        const long double tol = 64 * n * eps * maxL * maxL;
        for (int j = 0; j < n; ++j) {
            for (int i = 0; i < n; ++i) {
                const T got = data[j * n + i];
                if (i < j) {
                    EXPECT_TRUE(std::isnan(got)) << "element above the diagonal changed at " << i << "," << j;
                    continue;
                }
                EXPECT_EQ(std::memcmp(&got, &full[j * n + i], sizeof(T)), 0) << "upper triangle was read";
                if (i == j) {
                    ASSERT_LE(std::fabs(got - D[j]), tol * maxD) << "d_" << j;
                } else {
                    ASSERT_LE(std::fabs(got - L[i * n + j]), tol * (1 + std::fabs(L[i * n + j])))
                        << "l_" << i << j;
                }
            }
        }
        if (c.saddle) {  // the last n/3 pivots are negative, the others positive
            for (int j = 0; j < n; ++j) EXPECT_EQ(data[j * n + j] < 0, j >= n - std::max(1, n / 3)) << j;
        }
    }
}

// solve() returns x with a small backward error ‖b − A·x‖∞ / (‖A‖∞‖x‖∞ + ‖b‖∞); it factors on the first call
// only, so a second solve with the same right-hand side reproduces the bits and leaves the factor alone.
TYPED_TEST(DenseTypesTest, SolveHasSmallResidualAndFactorsOnce) {
    using T = TypeParam;
    const long double eps = std::numeric_limits<T>::epsilon();
    for (const Case& c : cases()) {
        SCOPED_TRACE(::testing::Message()
                     << (c.saddle ? "saddle" : "spd") << " n " << c.n << " seed " << c.seed);
        std::mt19937 rng(c.seed * 977 + c.n);
        const int n = c.n;
        const Dense A = c.saddle ? randomSaddle(rng, n) : randomSpd(rng, n);
        std::vector<T> data = load<T>(A, n, T(0));
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        std::vector<T> b(n);
        for (auto& v : b) v = T(u(rng));

        DenseMatrix<T> M(n, n, data.data());
        std::vector<T> x = b;
        ASSERT_TRUE(M.solve(x.data()));
        EXPECT_TRUE(M.isFactored);

        long double normA = 0, normX = 0, normB = 0, normR = 0;
        for (int i = 0; i < n; ++i) {
            long double row = 0, r = b[i];
            for (int j = 0; j < n; ++j) {
                const long double a = T(A[i * n + j]);
                row += std::fabs(a);
                r -= a * x[j];
            }
            normA = std::max(normA, row);
            normX = std::max(normX, std::fabs((long double)x[i]));
            normB = std::max(normB, std::fabs((long double)b[i]));
            normR = std::max(normR, std::fabs(r));
        }
        EXPECT_LE(normR / (normA * normX + normB), 16 * n * eps);

        const std::vector<T> factored = data;
        std::vector<T> again = b;
        ASSERT_TRUE(M.solve(again.data()));
        EXPECT_EQ(std::memcmp(again.data(), x.data(), n * sizeof(T)), 0);
        EXPECT_EQ(std::memcmp(factored.data(), data.data(), data.size() * sizeof(T)), 0);
    }
}

// Small fixed cases: n = 1, a zero first pivot, empty and negative dimensions, and a dimension taken from the
// low 32 bits of numCols.
TYPED_TEST(DenseTypesTest, SmallAndDegenerateMatrices) {
    using T = TypeParam;
    T one[1] = {T(4)};
    DenseMatrix<T> single(1, 1, one);
    T x1[1] = {T(3)};
    EXPECT_TRUE(single.solve(x1));
    EXPECT_EQ(one[0], T(4));
    EXPECT_EQ(x1[0], T(3) / T(4));

    // a_00 = 0: the multipliers below it and the solution are not finite, and nobody complains.
    T zero[9] = {0, 1, 2, /**/ 1, 3, 1, /**/ 2, 1, 5};
    DenseMatrix<T> singular(3, 3, zero);
    EXPECT_TRUE(singular.factor());
    EXPECT_FALSE(std::isfinite(zero[1]));
    EXPECT_FALSE(std::isfinite(zero[2]));
    T x3[3] = {1, 1, 1};
    EXPECT_TRUE(singular.solve(x3));
    EXPECT_FALSE(std::isfinite(x3[0]) && std::isfinite(x3[1]) && std::isfinite(x3[2]));

    // n ≤ 0: factor sets the flag, solve leaves x as it is.
    for (unsigned long numCols : {0ul, 0xFFFFFFFFul, 0x80000000ul}) {
        DenseMatrix<T> empty(numCols, 1, one);
        T x[1] = {T(7)};
        EXPECT_TRUE(empty.solve(x));
        EXPECT_TRUE(empty.isFactored);
        EXPECT_EQ(x[0], T(7));
        EXPECT_EQ(one[0], T(4));
    }
    DenseMatrix<T> none;
    EXPECT_EQ(none.data, nullptr);
    EXPECT_TRUE(none.factor());

    // Only the low 32 bits of numCols count: (2³² + 2) is a 2 × 2 matrix. [[2, 1], [1, 2]]·(1, 1) = (3, 3).
    T two[4] = {2, 1, 1, 2};
    DenseMatrix<T> wide((1ul << 32) + 2, 2, two);
    T x2[2] = {3, 3};
    EXPECT_TRUE(wide.solve(x2));
    EXPECT_NEAR(x2[0], 1.0, 4 * std::numeric_limits<T>::epsilon());
    EXPECT_NEAR(x2[1], 1.0, 4 * std::numeric_limits<T>::epsilon());
    EXPECT_EQ(two[2], T(1));  // above the diagonal: untouched
}

// resize grows only: a larger size drops the old contents for zeroed, 16-byte-aligned storage; a smaller or
// equal size allocates nothing and keeps the elements.
TYPED_TEST(DenseTypesTest, VectorGrowthRule) {
    using T = TypeParam;
    DenseVector<T> v;
    EXPECT_EQ(v.size + v.capacity, 0u);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.raw, nullptr);

    v.resize(5);
    EXPECT_EQ(v.size, 5u);
    EXPECT_EQ(v.capacity, 5u);
    ASSERT_NE(v.data, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data) % 16, 0u);
    EXPECT_GE(v.data, v.raw);
    EXPECT_LT(reinterpret_cast<char*>(v.data) - reinterpret_cast<char*>(v.raw), 16);
    EXPECT_TRUE(std::all_of(v.data, v.data + 5, [](T e) { return e == T(0); }));
    for (int i = 0; i < 5; ++i) v.data[i] = T(i + 1);

    T* const data = v.data;
    const std::uint64_t allocations = kiv::ByteAllocator::allocationCount();
    v.resize(2);
    v.resize(5);
    v.resize(0);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), allocations);
    EXPECT_EQ(v.size, 0u);
    EXPECT_EQ(v.capacity, 5u);
    EXPECT_EQ(v.data, data);
    EXPECT_EQ(v.data[4], T(5));

    v.resize(9);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), allocations + 1);
    EXPECT_EQ(v.size, 9u);
    EXPECT_EQ(v.capacity, 9u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data) % 16, 0u);
    EXPECT_TRUE(std::all_of(v.data, v.data + 9, [](T e) { return e == T(0); }));  // old contents not kept
}

}  // namespace
}  // namespace kivTamber
