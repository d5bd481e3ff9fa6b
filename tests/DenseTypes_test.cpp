// Dense matrix L·D·Lᵀ and solve against the dense reference on SPD and saddle-point matrices; dense vector
// growth.
#include "DenseTypes.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "testing/BlockSystems.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;

template <typename T>
class DenseTypesTest : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DenseTypesTest, Precisions);

// factor() agrees with the reference entry by entry, reads only the lower triangle (NaN above it changes no
// bit of the result) and leaves the elements above it alone; a saddle point gets one negative pivot per
// constraint row. solve() then has a small backward error, and a second solve (no second factorization)
// reproduces the bits and leaves the factor alone.
TYPED_TEST(DenseTypesTest, FactorAndSolveMatchReference) {
    using T = TypeParam;
    const double eps = std::numeric_limits<T>::epsilon();
    for (unsigned long seed = 1; seed <= 40; ++seed) {
        for (bool saddle : {false, true}) {
            const BlockSystem sys =
                saddle ? testing::makeSaddlePointSystem(seed, 1 + seed % 4, 1 + seed % 3, 3, 0.8)
                       : testing::makeSpdSystem(seed, 1 + seed % 5, 3, 0.8);
            const unsigned int n = sys.N;
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " " << testing::describe(sys));
            testing::DenseSymmetric A(n);  // the matrix as the precision under test holds it
            for (std::size_t e = 0; e < A.a.size(); ++e) A.a[e] = double(T(sys.dense.a[e]));
            const testing::DenseLdlt ref = testing::denseLdlt(A);

            // Column-major storage a_ij at j·n + i, with NaN or the upper triangle above the diagonal.
            auto load = [&A, n](std::vector<T>& v, bool nanAbove) {
                v.resize(n * n);
                for (unsigned int j = 0; j < n; ++j)
                    for (unsigned int i = 0; i < n; ++i)
                        v[j * n + i] = i < j && nanAbove ? std::numeric_limits<T>::quiet_NaN() : T(A(i, j));
            };
            std::vector<T> data, full;
            load(data, true);
            load(full, false);
            DenseMatrix<T> M(n, 0, data.data());  // numRows is not read
            DenseMatrix<T> F(n, n, full.data());
            EXPECT_TRUE(M.factor());
            EXPECT_TRUE(M.isFactored);
            F.factor();
            double maxL = 1, maxD = 0;
            for (unsigned int j = 0; j < n; ++j) {
                maxD = std::max(maxD, std::fabs(ref.d[j]));
                for (unsigned int i = j + 1; i < n; ++i) maxL = std::max(maxL, std::fabs(ref.L[i * n + j]));
            }
            const double tol = 64 * n * eps * maxL * maxL;
            for (unsigned int j = 0; j < n; ++j) {
                for (unsigned int i = 0; i < j; ++i)
                    ASSERT_TRUE(std::isnan(data[j * n + i])) << i << "," << j;
                for (unsigned int i = j; i < n; ++i) {
                    const T got = data[j * n + i];
                    ASSERT_EQ(std::memcmp(&got, &full[j * n + i], sizeof(T)), 0) << "upper triangle was read";
                    const double want = i == j ? ref.d[j] : ref.L[i * n + j];
                    ASSERT_LE(std::fabs(got - want), tol * (i == j ? maxD : 1 + std::fabs(want)))
                        << i << "," << j;
                }
                const unsigned int b = unsigned(std::upper_bound(sys.offsets.begin(), sys.offsets.end(), j) -
                                                sys.offsets.begin() - 1);
                EXPECT_EQ(data[j * n + j] < 0, sys.isConstraint[b] != 0) << "pivot sign " << j;
            }

            std::vector<T> b(n), x(n);
            const std::vector<double> rb = testing::randomVector(n, seed);
            for (unsigned int i = 0; i < n; ++i) x[i] = b[i] = T(rb[i]);
            load(full, false);
            DenseMatrix<T> S(n, n, full.data());
            ASSERT_TRUE(S.solve(x.data()));
            EXPECT_TRUE(S.isFactored);
            EXPECT_LE(testing::scaledResidual(A, x.data(), b.data()), 16 * n * eps);
            const std::vector<T> factored = full;
            std::vector<T> again = b;
            ASSERT_TRUE(S.solve(again.data()));
            EXPECT_EQ(std::memcmp(again.data(), x.data(), n * sizeof(T)), 0);
            EXPECT_EQ(std::memcmp(factored.data(), full.data(), full.size() * sizeof(T)), 0);
        }
    }
}

// A zero first pivot gives non-finite multipliers and solution, and nobody complains; a dimension ≤ 0 (the
// low 32 bits of numCols, read as signed) factors nothing and solves nothing; 2³² + 2 is a 2 × 2 matrix.
TYPED_TEST(DenseTypesTest, DegenerateMatrices) {
    using T = TypeParam;
    T zero[9] = {0, 1, 2, /**/ 1, 3, 1, /**/ 2, 1, 5};
    DenseMatrix<T> singular(3, 3, zero);
    EXPECT_TRUE(singular.factor());
    EXPECT_FALSE(std::isfinite(zero[1]) || std::isfinite(zero[2]));
    T x3[3] = {1, 1, 1};
    EXPECT_TRUE(singular.solve(x3));
    EXPECT_FALSE(std::isfinite(x3[0]) && std::isfinite(x3[1]) && std::isfinite(x3[2]));

    T one[1] = {T(4)};
    for (unsigned long numCols : {0ul, 0xFFFFFFFFul, 0x80000000ul}) {
        DenseMatrix<T> empty(numCols, 1, one);
        T x[1] = {T(7)};
        EXPECT_TRUE(empty.solve(x));
        EXPECT_TRUE(empty.isFactored);
        EXPECT_EQ(x[0] + one[0], T(11));
    }
    EXPECT_TRUE(DenseMatrix<T>().factor());

    T two[4] = {2, 1, 1, 2};  // [[2, 1], [1, 2]]·(1, 1) = (3, 3)
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
    auto fresh = [&v](unsigned long n) {
        EXPECT_EQ(v.size, n);
        EXPECT_EQ(v.capacity, n);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data) % 16, 0u);
        EXPECT_TRUE(v.data >= v.raw && reinterpret_cast<char*>(v.data) - reinterpret_cast<char*>(v.raw) < 16);
        EXPECT_TRUE(std::all_of(v.data, v.data + n, [](T e) { return e == T(0); }));
    };
    v.resize(5);
    fresh(5);
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
    fresh(9);  // old contents not kept
}

}  // namespace
}  // namespace kivTamber
