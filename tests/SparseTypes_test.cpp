// Block-sparse matrix: storage layout and bookkeeping, growth, clear, exhaustion, and the symmetric products
// against a dense reference built from the same blocks.
#include "SparseTypes.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "testing/BlockSystems.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;

template <typename T>
class SparseMatrixTest : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SparseMatrixTest, Precisions);

// Leading dimension of a block row of size s: even for double, s itself for float.
template <typename T>
unsigned int expectedStride(unsigned int s) {
    return sizeof(T) == sizeof(double) ? (s + 1) / 2 * 2 : s;
}

const auto aligned16 = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 16 == 0; };

// The tile (row, col) reserves stride(s_row)·stride(s_col) elements from an aligned start (a 3×3 double tile
// takes 16 elements with stride 4, a float one 9), for every pair of small sizes; then the bookkeeping of an
// upper-form matrix of 3 block columns with sizes {2, 3, 1}: column 0: (0,0); column 1: (0,1), (1,1);
// column 2: (1,2), (2,2).
TYPED_TEST(SparseMatrixTest, AcquireBlockLayoutAndBookkeeping) {
    using T = TypeParam;
    for (unsigned int sr = 1; sr <= 7; ++sr) {
        for (unsigned int sc = 1; sc <= 7; ++sc) {
            SCOPED_TRACE(::testing::Message() << "rows " << sr << " cols " << sc);
            SparseMatrix<T> m;
            m.setSize(2, 2, 3, 200);
            ASSERT_TRUE(aligned16(m.values) && m.blockPointers[0] == m.values);
            T* first = m.acquireBlock(0, 0, sc, sc);
            T* second = m.acquireBlock(1, 0, 5, sr);  // block (0, 1): row 0 is resized to sr
            EXPECT_EQ(first, m.values);
            EXPECT_EQ(second - first, long(expectedStride<T>(sc) * expectedStride<T>(sc)));
            EXPECT_EQ(m.blockPointers[2] - second, long(expectedStride<T>(sr) * expectedStride<T>(5)));
            EXPECT_TRUE(sizeof(T) == 4 || (aligned16(second) && aligned16(m.blockPointers[2])));
            EXPECT_EQ(m.blockStrides[0], expectedStride<T>(sr));
            EXPECT_EQ(m.blockStrides[1], expectedStride<T>(5));
        }
    }

    SparseMatrix<T> m;
    m.setSize(3, 7, 5, 100);
    EXPECT_TRUE(m.numBlockCols == 3 && m.numBlockRows == 7 && m.colCapacity == 4 && m.blockCapacity == 5 &&
                m.valueCapacity == 100);
    m.blockFlags[3] = 1;  // a flag left from earlier use is reset on acquisition
    const struct {
        unsigned long col, row, colSize, rowSize, runningTotal;
    } steps[] = {{0, 0, 2, 2, 2}, {1, 0, 3, 2, 5}, {1, 1, 3, 3, 5}, {2, 1, 1, 3, 6}, {2, 2, 1, 1, 6}};
    T* expectedStart = m.values;
    for (unsigned long k = 0; k < 5; ++k) {
        const auto& s = steps[k];
        T* p = m.acquireBlock(s.col, s.row, s.colSize, s.rowSize);
        EXPECT_EQ(p, expectedStart) << "block " << k;
        EXPECT_TRUE(m.blockPointers[k] == p && m.rowIndices[k] == s.row && m.blockFlags[k] == 0) << k;
        EXPECT_TRUE(m.numBlocks == k + 1 && m.colPointers[0] == 0 && m.colPointers[s.col + 1] == k + 1) << k;
        EXPECT_EQ(m.blockSizes[3], s.runningTotal) << "block " << k;
        expectedStart = p + expectedStride<T>(s.rowSize) * expectedStride<T>(s.colSize);
    }
    const unsigned int colPointers[] = {0, 1, 3, 5}, sizes[] = {2, 3, 1, 6}, offsets[] = {0, 2, 5};
    for (int j = 0; j < 4; ++j)
        EXPECT_TRUE(m.colPointers[j] == colPointers[j] && m.blockSizes[j] == sizes[j]);
    for (int j = 0; j < 3; ++j)
        EXPECT_TRUE(m.blockOffsets[j] == offsets[j] && m.blockStrides[j] == expectedStride<T>(sizes[j]));
}

// setSize grows each group of arrays independently and only when it is too small (new arrays zeroed, column
// arrays with n + 2 entries); what is large enough keeps its storage and contents and nothing is allocated.
// clear keeps every array and zeroes the values and column arrays; the same layout is acquired again at the
// same places.
TYPED_TEST(SparseMatrixTest, SetSizeGrowsOnlyWhenNeededAndClearKeepsStorage) {
    using T = TypeParam;
    SparseMatrix<T> m;
    m.setSize(4, 4, 10, 200);
    m.acquireBlock(0, 0, 3, 3)[0] = T(7);
    m.acquireBlock(1, 1, 2, 2);
    T* const raw = m.valuesRaw;
    unsigned int* const rows = m.rowIndices;
    unsigned int* const cols = m.colPointers;
    const std::uint64_t allocations = kiv::ByteAllocator::allocationCount();
    m.setSize(4, 4, 10, 200);
    m.setSize(2, 3, 5, 100);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), allocations);
    EXPECT_TRUE(m.valuesRaw == raw && m.rowIndices == rows && m.colPointers == cols);
    EXPECT_TRUE(m.valueCapacity == 200 && m.blockCapacity == 10 && m.colCapacity == 5);
    EXPECT_TRUE(m.numBlockCols == 2 && m.numBlockRows == 3 && m.numBlocks == 2);  // blocks not forgotten
    EXPECT_TRUE(m.values[0] == T(7) && m.blockSizes[0] == 3 && m.blockPointers[0] == m.values);

    m.setSize(2, 3, 5, 1000);  // values only: blockPointers[0] follows them
    EXPECT_TRUE(m.valueCapacity == 1000 && aligned16(m.values) && m.blockPointers[0] == m.values);
    EXPECT_TRUE(m.rowIndices == rows && m.colPointers == cols);
    EXPECT_TRUE(std::all_of(m.values, m.values + 1000, [](T v) { return v == T(0); }));
    m.setSize(2, 3, 40, 1000);  // blocks only
    EXPECT_TRUE(m.blockCapacity == 40 && m.colPointers == cols && m.blockPointers[0] == m.values);
    EXPECT_TRUE(std::all_of(m.rowIndices, m.rowIndices + 40, [](unsigned v) { return v == 0; }));
    EXPECT_TRUE(std::all_of(m.blockPointers + 1, m.blockPointers + 40, [](T* p) { return p == nullptr; }));
    m.setSize(9, 9, 40, 1000);  // columns only
    EXPECT_EQ(m.colCapacity, 10u);
    for (int j = 0; j < 11; ++j)
        EXPECT_EQ(m.colPointers[j] | m.blockSizes[j] | m.blockOffsets[j] | m.blockStrides[j], 0u);

    SparseMatrix<T> c;
    c.setSize(2, 2, 3, 50);
    c.acquireBlock(0, 0, 2, 2);
    c.acquireBlock(1, 0, 3, 2);
    c.acquireBlock(1, 1, 3, 3);
    // The tiles reach element 4 + 8 + 16 (double: padded to 2, 4) or 4 + 6 + 9 (float); the rest is zero.
    const unsigned long extent = sizeof(T) == 8 ? 28 : 19;
    EXPECT_EQ(c.valueExtent, extent);
    std::fill(c.values, c.values + extent, T(3));
    c.blockFlags[1] = 1;
    T* const block2 = c.blockPointers[2];
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    c.clear();
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(c.numBlocks + c.numBlockCols + c.numBlockRows, 0u);
    EXPECT_TRUE(c.valueCapacity == 50 && c.blockCapacity == 3 && c.colCapacity == 3);
    EXPECT_TRUE(std::all_of(c.values, c.values + 50, [](T v) { return v == T(0); }));
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(c.colPointers[j] | c.blockSizes[j] | c.blockOffsets[j] | c.blockStrides[j], 0u);
    EXPECT_TRUE(c.rowIndices[1] == 0 && c.rowIndices[2] == 1 && c.blockFlags[1] == 1 &&
                c.blockPointers[2] == block2);
    c.setSize(2, 2, 3, 50);
    EXPECT_EQ(c.acquireBlock(0, 0, 2, 2), c.values);
    c.acquireBlock(1, 0, 3, 2);
    EXPECT_EQ(c.acquireBlock(1, 1, 3, 3), block2);
    EXPECT_EQ(c.blockFlags[1], 0u);
}

TEST(SparseMatrixDeathTest, AcquiringBeyondCapacityAborts) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            SparseMatrix<double> m;
            m.setSize(1, 1, 2, 16);
            for (int k = 0; k < 3; ++k) m.acquireBlock(0, 0, 1, 1);
        },
        "^Not enough memory, 2 2\n$");
    EXPECT_DEATH(SparseMatrix<float>().acquireBlock(0, 0, 1, 1), "^Not enough memory, 0 0\n$");
}

enum class Layout {
    Upper,     // column j: blocks (i, j), i < j ascending, diagonal last
    Lower,     // column j: diagonal first, then blocks (i, j), i > j
    Shuffled,  // each pair stored on a random side, blocks of a column in random order
};

// Stores `sys` in `m` in the given layout. Diagonal tiles get their triangle r ≤ c (the one the products
// read); the other triangle is filled with NaN to prove it is never read. Padding stays zero.
template <typename T>
void store(const BlockSystem& sys, Layout layout, std::mt19937& rng, SparseMatrix<T>& m) {
    const unsigned int n = sys.nb;
    std::vector<std::vector<unsigned int>> columns(n);  // block rows per column
    for (unsigned int j = 0; j < n && layout == Layout::Lower; ++j) columns[j].push_back(j);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int j : sys.lowerRows[i]) {  // the pair (j, i), j < i
            bool upperSide = layout == Layout::Upper || (layout == Layout::Shuffled && rng() % 2);
            upperSide = upperSide && !(j == 0 && i + 1 == n);  // a general layout needs 2 blocks in column 0
            columns[upperSide ? i : j].push_back(upperSide ? j : i);
        }
    }
    unsigned long blocks = 0, values = 0;
    for (unsigned int j = 0; j < n; ++j) {
        if (layout != Layout::Lower) columns[j].push_back(j);
        if (layout == Layout::Shuffled) std::shuffle(columns[j].begin(), columns[j].end(), rng);
        for (unsigned int i : columns[j])
            ++blocks, values += expectedStride<T>(sys.sizes[i]) * expectedStride<T>(sys.sizes[j]);
    }
    m.clear();
    m.setSize(n, n, blocks, values);
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int i : columns[j]) {
            T* tile = m.acquireBlock(j, i, sys.sizes[j], sys.sizes[i]);
            const unsigned int ld = expectedStride<T>(sys.sizes[i]);
            for (unsigned int c = 0; c < sys.sizes[j]; ++c)
                for (unsigned int r = 0; r < sys.sizes[i]; ++r)
                    tile[c * ld + r] = (i == j && r > c)
                                           ? std::numeric_limits<T>::quiet_NaN()
                                           : T(sys.dense(sys.offsets[i] + r, sys.offsets[j] + c));
        }
    }
}

// y = beta·y0 + alpha·A·x against the long double sum, each entry within a few ulps of its magnitude
// |beta·y0| + |alpha|·Σ|a||x|.
template <typename T>
void expectProduct(const testing::DenseSymmetric& A, T alpha, const std::vector<T>& x, T beta,
                   const std::vector<T>& y0, const std::vector<T>& y) {
    const long double tol = 4.0L * (A.n + 2) * std::numeric_limits<T>::epsilon();
    for (unsigned int r = 0; r < A.n; ++r) {
        long double sum = 0, mag = 0;
        for (unsigned int c = 0; c < A.n; ++c)
            sum += (long double)T(A(r, c)) * x[c], mag += std::fabs((long double)T(A(r, c)) * x[c]);
        const long double want = (long double)beta * y0[r] + (long double)alpha * sum;
        const long double scale =
            std::fabs((long double)beta * y0[r]) + std::fabs((long double)alpha) * mag + 1e-30L;
        ASSERT_LE(std::fabs((long double)y[r] - want), tol * scale) << "entry " << r;
    }
}

// multiply, multiplyAdd(x, y) and multiplyAdd(alpha, x, beta, y) in the three layouts against the dense
// symmetric product, for block sizes with odd and even members (so the final column is sometimes odd); alpha
// = beta = 1 runs the unscaled kernels in the same order, bit for bit.
TYPED_TEST(SparseMatrixTest, ProductsMatchDenseReference) {
    using T = TypeParam;
    for (unsigned int seed = 1; seed <= 60; ++seed) {
        std::mt19937 rng(seed);
        const unsigned int n = 1 + seed % 9;
        BlockSystem sys = testing::makeSpdSystem(seed, n, seed % 4 == 0 ? 1 : 3 + seed % 5, 0.4);
        if (n > 1 && (sys.lowerRows[n - 1].empty() ||
                      sys.lowerRows[n - 1][0] != 0)) {  // couple 0 and n − 1: see store
            sys.lowerRows[n - 1].insert(sys.lowerRows[n - 1].begin(), 0);
            for (unsigned int c = sys.offsets[n - 1]; c < sys.N; ++c)
                sys.dense.setSymmetric(0, c, 0.25 - c % 3);
        }
        const std::vector<double> xd = testing::randomVector(sys.N, seed),
                                  yd = testing::randomVector(sys.N, seed + 99);
        const std::vector<T> x(xd.begin(), xd.end()), y0(yd.begin(), yd.end()), zero(sys.N, T(0));
        for (Layout layout : {Layout::Upper, Layout::Lower, Layout::Shuffled}) {
            SCOPED_TRACE(::testing::Message()
                         << "seed " << seed << " " << testing::describe(sys) << " layout " << int(layout));
            SparseMatrix<T> m;
            store(sys, layout, rng, m);
            ASSERT_EQ(m.blockSizes[n], sys.N);
            ASSERT_TRUE(layout == Layout::Upper || n == 1 || m.colPointers[1] >= 2);
            std::vector<T> y(sys.N, std::numeric_limits<T>::quiet_NaN()), yAdd = y0, yOne = y0;
            m.multiply(x.data(), y.data());
            expectProduct<T>(sys.dense, T(1), x, T(0), zero, y);
            m.multiplyAdd(x.data(), yAdd.data());
            expectProduct<T>(sys.dense, T(1), x, T(1), y0, yAdd);
            m.multiplyAdd(T(1), x.data(), T(1), yOne.data());
            EXPECT_EQ(0, std::memcmp(yAdd.data(), yOne.data(), sys.N * sizeof(T)));
            // The product with row sums: the product's bits, and Σ_c |a_rc| of the symmetric matrix (the
            // NaN triangle of the diagonal tiles never read).
            std::vector<T> ySums(sys.N, std::numeric_limits<T>::quiet_NaN());
            std::vector<double> sums(sys.N, std::numeric_limits<double>::quiet_NaN());
            m.multiplyWithRowSums(x.data(), ySums.data(), sums.data());
            EXPECT_EQ(0, std::memcmp(y.data(), ySums.data(), sys.N * sizeof(T)));
            for (unsigned int r = 0; r < sys.N; ++r) {
                long double want = 0;
                for (unsigned int c = 0; c < sys.N; ++c) want += std::fabs((long double)T(sys.dense(r, c)));
                ASSERT_NEAR(sums[r], (double)want, 1e-14 * (double)want) << "row " << r;
            }
            for (const auto& ab : {std::pair<double, double>{-0.75, 2.5}, {3.0, 0.0}, {0.5, -1.0}}) {
                std::vector<T> yScaled = y0;
                m.multiplyAdd(T(ab.first), x.data(), T(ab.second), yScaled.data());
                expectProduct<T>(sys.dense, T(ab.first), x, T(ab.second), y0, yScaled);
            }
        }
    }
}

// The beta rule: |beta − 1| below epsilon leaves y unscaled, anything else multiplies (0 included, so a NaN
// survives), and an empty or cleared matrix leaves y untouched in every product.
TYPED_TEST(SparseMatrixTest, BetaRuleAndEmptyMatrix) {
    using T = TypeParam;
    const T eps = std::numeric_limits<T>::epsilon(), nan = std::numeric_limits<T>::quiet_NaN();
    SparseMatrix<T> m;
    m.setSize(1, 1, 1, 4);
    m.acquireBlock(0, 0, 1, 1)[0] = T(2);
    const T x[1] = {T(0)}, x1[1] = {T(3)};  // A·x = 0: only the scaling of y shows
    const T y0 = T(1) + T(64) * eps;
    T y[1] = {y0};
    m.multiplyAdd(T(1), x, T(1) + eps / T(2), y);
    m.multiplyAdd(T(1), x, T(1) - eps / T(2), y);
    EXPECT_EQ(y[0], y0);  // not rescaled
    m.multiplyAdd(T(1), x, T(1) + T(2) * eps, y);
    EXPECT_EQ(y[0], y0 * (T(1) + T(2) * eps));  // rescaled
    y[0] = nan;
    m.multiplyAdd(T(1), x, T(0), y);
    EXPECT_TRUE(std::isnan(y[0]));  // beta = 0 multiplies, it does not overwrite
    y[0] = T(5);
    m.multiplyAdd(T(0.5), x1, T(0), y);
    EXPECT_EQ(y[0], T(3));

    SparseMatrix<T> empty;
    T sentinel[2] = {nan, T(4)};
    for (SparseMatrix<T>* e : {&empty, &m}) {
        if (e == &m) m.clear();  // a cleared matrix has n = 0 as well
        e->multiply(x, sentinel);
        e->multiplyAdd(x, sentinel);
        e->multiplyAdd(T(2), x, T(3), sentinel);
        EXPECT_TRUE(std::isnan(sentinel[0]) && sentinel[1] == T(4));
    }
}

// y += A·x as a plain loop in the documented order of multiplyAdd: columns ascending, blocks in storage
// order; in the upper form every column but a final one of odd size takes its last block as the diagonal,
// otherwise blocks are classified by their indices. An off-diagonal tile adds to y_i(q) over its columns r
// ascending and to y_j(r) over its rows q ascending; a diagonal tile adds, row r of its view in turn, the
// diagonal term and the terms q < r to y_j(r), and each term q < r to y_j(q).
template <typename T>
void addInDocumentedOrder(const SparseMatrix<T>& m, const T* x, T* y) {
    const unsigned long n = m.numBlockCols;
    if (n == 0) return;
    const bool upper = m.colPointers[1] < 2;
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned int oj = m.blockOffsets[j], sj = m.blockSizes[j];
        auto offDiagonal = [&](unsigned int b) {
            const unsigned int i = m.rowIndices[b], oi = m.blockOffsets[i], si = m.blockSizes[i];
            const T* B = m.blockPointers[b];
            for (unsigned int r = 0; r < sj; ++r)
                for (unsigned int q = 0; q < si; ++q) {
                    const T k = B[r * m.blockStrides[i] + q];
                    y[oi + q] = y[oi + q] + k * x[oj + r];
                    y[oj + r] = y[oj + r] + k * x[oi + q];
                }
        };
        auto diagonal = [&](unsigned int b) {
            const T* D = m.blockPointers[b];
            for (unsigned int r = 0; r < sj; ++r) {
                const T* column = D + r * m.blockStrides[j];
                y[oj + r] = y[oj + r] + column[r] * x[oj + r];
                for (unsigned int q = 0; q < r; ++q) {
                    y[oj + r] = y[oj + r] + column[q] * x[oj + q];
                    y[oj + q] = y[oj + q] + column[q] * x[oj + r];
                }
            }
        };
        const unsigned int begin = m.colPointers[j], end = m.colPointers[j + 1];
        if (upper && !(j + 1 == n && (sj & 1u))) {
            if (begin == end) continue;
            for (unsigned int b = begin; b + 1 < end; ++b) offDiagonal(b);
            diagonal(end - 1);
        } else {
            for (unsigned int b = begin; b < end; ++b) m.rowIndices[b] == j ? diagonal(b) : offDiagonal(b);
        }
    }
}

template <typename T>
bool sameValues(const std::vector<T>& a, const std::vector<T>& b) {
    for (std::size_t k = 0; k < a.size(); ++k)
        if (!(std::isnan(a[k]) && std::isnan(b[k])) && std::memcmp(&a[k], &b[k], sizeof(T)) != 0)
            return false;
    return true;
}

// multiply, multiplyAdd and multiplyWithRowSums give the bits of the plain loop in the documented order, on
// systems with every block size 1 … 12 (mixed in one system, and each size alone), in the three layouts,
// with an odd or even final block, some NaN and infinite entries in x and in the tiles; multiply writes
// every entry of y (it starts as NaN) and nothing past N.
TYPED_TEST(SparseMatrixTest, ProductsKeepTheDocumentedOrderBitForBit) {
    using T = TypeParam;
    for (unsigned int seed = 1; seed <= 72; ++seed) {
        std::mt19937 rng(seed);
        const unsigned int n = 2 + seed % 11;
        BlockSystem sys = seed % 6 == 0 ? testing::makeSpdSystem(seed, n, 12, 0.45)
                                        : testing::makeSaddlePointSystem(seed, 2 + n / 2, n / 2, 12, 0.3);
        if (seed % 12 == 1) {  // one size for every block
            std::vector<unsigned int> sizes(4, 1 + seed / 12 % 12);
            const unsigned int N = 4 * sizes[0];
            sys = testing::makeFromDense(sizes, testing::makeSpdSystem(seed, N, 1, 0.5).dense);
        }
        if (sys.lowerRows[sys.nb - 1].empty() || sys.lowerRows[sys.nb - 1][0] != 0) {  // see store
            sys.lowerRows[sys.nb - 1].insert(sys.lowerRows[sys.nb - 1].begin(), 0);
            for (unsigned int c = sys.offsets[sys.nb - 1]; c < sys.N; ++c) sys.dense.setSymmetric(0, c, 0.5);
        }
        std::vector<double> xd = testing::randomVector(sys.N, seed),
                            yd = testing::randomVector(sys.N, seed + 7);
        if (seed % 4 == 3) xd[seed % sys.N] = seed % 8 == 3 ? std::numeric_limits<double>::infinity() : NAN;
        const std::vector<T> x(xd.begin(), xd.end()), y0(yd.begin(), yd.end());
        for (Layout layout : {Layout::Upper, Layout::Lower, Layout::Shuffled}) {
            SCOPED_TRACE(::testing::Message()
                         << "seed " << seed << " " << testing::describe(sys) << " layout " << int(layout));
            SparseMatrix<T> m;
            store(sys, layout, rng, m);
            if (seed % 5 == 0) m.blockPointers[seed % m.numBlocks][0] = std::numeric_limits<T>::infinity();
            std::vector<T> want(sys.N + 1, T(0)), y(sys.N + 1, std::numeric_limits<T>::quiet_NaN());
            want[sys.N] = y[sys.N];
            addInDocumentedOrder(m, x.data(), want.data());
            m.multiply(x.data(), y.data());
            ASSERT_TRUE(sameValues(want, y)) << "multiply";
            std::vector<T> yAdd = y0, wantAdd = y0;
            addInDocumentedOrder(m, x.data(), wantAdd.data());
            m.multiplyAdd(x.data(), yAdd.data());
            ASSERT_TRUE(sameValues(wantAdd, yAdd)) << "multiplyAdd";
            std::vector<T> ySums(sys.N + 1, std::numeric_limits<T>::quiet_NaN());
            std::vector<double> sums(sys.N);
            m.multiplyWithRowSums(x.data(), ySums.data(), sums.data());
            ASSERT_TRUE(sameValues(want, ySums)) << "multiplyWithRowSums";
        }
    }
}

// A real matrix (494_bus) cut into blocks of 3 and stored in the upper form: multiply equals the dense
// product.
TYPED_TEST(SparseMatrixTest, RealMatrixProduct) {
    using T = TypeParam;
    const char* dir = testing::realDataDir();
    if (!dir) GTEST_SKIP() << "KIVTAMBER_DATA_DIR is not set";
    BlockSystem sys;
    ASSERT_TRUE(testing::loadMatrixMarket((std::string(dir) + "/494_bus.mtx").c_str(), 3, 494, sys));
    ASSERT_EQ(sys.N, 494u);
    SparseMatrix<T> m;
    sys.fillMatrix(m);
    const std::vector<double> xd = testing::randomVector(sys.N, 7);
    const std::vector<T> x(xd.begin(), xd.end()), zero(sys.N, T(0));
    std::vector<T> y(sys.N);
    m.multiply(x.data(), y.data());
    expectProduct<T>(sys.dense, T(1), x, T(0), zero, y);
}

}  // namespace
}  // namespace kivTamber
