// Block-sparse matrix: storage layout and bookkeeping, growth, clear, exhaustion, and the symmetric products
// against a dense reference built from the same blocks.
#include "SparseTypes.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kivTamber {
namespace {

template <typename T>
class SparseMatrixTest : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SparseMatrixTest, Precisions);

// Leading dimension of a block row of size s: even for double, s itself for float.
template <typename T>
unsigned int expectedStride(unsigned int s) {
    return sizeof(T) == sizeof(double) ? (s + 1) / 2 * 2 : s;
}

bool aligned16(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p) % 16 == 0;
}

// Strides and reserved elements per block, for every pair of small sizes: the tile (row, col) reserves
// stride(s_row)·stride(s_col) elements, so a 3×3 double tile takes 16 elements with stride 4, a float one 9.
TYPED_TEST(SparseMatrixTest, StridesAndReservation) {
    using T = TypeParam;
    for (unsigned int sr = 1; sr <= 7; ++sr) {
        for (unsigned int sc = 1; sc <= 7; ++sc) {
            SCOPED_TRACE(::testing::Message() << "rows " << sr << " cols " << sc);
            SparseMatrix<T> m;
            m.setSize(2, 2, 3, 200);
            ASSERT_TRUE(aligned16(m.values));
            ASSERT_EQ(m.blockPointers[0], m.values);
            T* first = m.acquireBlock(0, 0, sc, sc);
            T* second = m.acquireBlock(1, 0, 5, sr);  // block (0, 1): row 0 is resized to sr
            EXPECT_EQ(first, m.values);
            EXPECT_EQ(second - first, long(expectedStride<T>(sc) * expectedStride<T>(sc)));
            EXPECT_EQ(m.blockPointers[2] - second, long(expectedStride<T>(sr) * expectedStride<T>(5)));
            EXPECT_EQ(m.blockStrides[0], expectedStride<T>(sr));
            EXPECT_EQ(m.blockStrides[1], expectedStride<T>(5));
        }
    }
    SparseMatrix<T> m;
    m.setSize(1, 1, 2, 64);
    T* tile = m.acquireBlock(0, 0, 3, 3);
    EXPECT_EQ(m.blockStrides[0], sizeof(T) == 8 ? 4u : 3u);
    EXPECT_EQ(m.blockPointers[1] - tile, sizeof(T) == 8 ? 16 : 9);
    // Every double tile starts on a 16-byte boundary.
    if (sizeof(T) == 8) {
        EXPECT_TRUE(aligned16(m.blockPointers[1]));
    }
}

// An upper-form matrix of 3 block columns with sizes {2, 3, 1}:
// column 0: (0,0); column 1: (0,1), (1,1); column 2: (1,2), (2,2).
TYPED_TEST(SparseMatrixTest, AcquireBlockBookkeeping) {
    using T = TypeParam;
    SparseMatrix<T> m;
    m.setSize(3, 7, 5, 100);
    EXPECT_EQ(m.numBlockCols, 3u);
    EXPECT_EQ(m.numBlockRows, 7u);
    EXPECT_EQ(m.colCapacity, 4u);
    EXPECT_EQ(m.blockCapacity, 5u);
    EXPECT_EQ(m.valueCapacity, 100u);
    m.blockFlags[3] = 1;  // a flag left from earlier use is reset on acquisition

    const struct {
        unsigned long col, row, colSize, rowSize, runningTotal;
    } steps[] = {{0, 0, 2, 2, 2}, {1, 0, 3, 2, 5}, {1, 1, 3, 3, 5}, {2, 1, 1, 3, 6}, {2, 2, 1, 1, 6}};
    T* expectedStart = m.values;
    for (unsigned long k = 0; k < 5; ++k) {
        const auto& s = steps[k];
        T* p = m.acquireBlock(s.col, s.row, s.colSize, s.rowSize);
        EXPECT_EQ(p, expectedStart) << "block " << k;
        EXPECT_EQ(m.blockPointers[k], p);
        EXPECT_EQ(m.rowIndices[k], s.row);
        EXPECT_EQ(m.blockFlags[k], 0u);
        EXPECT_EQ(m.numBlocks, k + 1);
        EXPECT_EQ(m.blockSizes[3], s.runningTotal) << "block " << k;
        EXPECT_EQ(m.colPointers[0], 0u);
        EXPECT_EQ(m.colPointers[s.col + 1], k + 1);
        expectedStart = p + expectedStride<T>(s.rowSize) * expectedStride<T>(s.colSize);
    }
    const unsigned int colPointers[] = {0, 1, 3, 5};
    const unsigned int sizes[] = {2, 3, 1, 6};
    const unsigned int offsets[] = {0, 2, 5};
    for (int j = 0; j < 4; ++j) {
        EXPECT_EQ(m.colPointers[j], colPointers[j]);
        EXPECT_EQ(m.blockSizes[j], sizes[j]);
    }
    for (int j = 0; j < 3; ++j) {
        EXPECT_EQ(m.blockOffsets[j], offsets[j]);
        EXPECT_EQ(m.blockStrides[j], expectedStride<T>(sizes[j]));
    }
}

// setSize grows each group of arrays independently and only when it is too small; what is large enough keeps
// its storage and contents and nothing is allocated.
TYPED_TEST(SparseMatrixTest, SetSizeGrowsOnlyWhenNeeded) {
    using T = TypeParam;
    SparseMatrix<T> m;
    m.setSize(4, 4, 10, 200);
    m.acquireBlock(0, 0, 3, 3)[0] = T(7);
    m.acquireBlock(1, 1, 2, 2);
    T* const raw = m.valuesRaw;
    unsigned int* const rows = m.rowIndices;
    unsigned int* const cols = m.colPointers;
    const std::uint64_t allocations = kiv::ByteAllocator::allocationCount();

    m.setSize(4, 4, 10, 200);  // the same sizes again
    m.setSize(2, 3, 5, 100);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), allocations);
    EXPECT_EQ(m.valuesRaw, raw);
    EXPECT_EQ(m.rowIndices, rows);
    EXPECT_EQ(m.colPointers, cols);
    EXPECT_EQ(m.valueCapacity, 200u);
    EXPECT_EQ(m.blockCapacity, 10u);
    EXPECT_EQ(m.colCapacity, 5u);
    EXPECT_EQ(m.numBlockCols, 2u);
    EXPECT_EQ(m.numBlockRows, 3u);
    EXPECT_EQ(m.values[0], T(7));    // values kept
    EXPECT_EQ(m.blockSizes[0], 3u);  // column arrays kept
    EXPECT_EQ(m.numBlocks, 2u);      // setSize does not forget blocks
    EXPECT_EQ(m.blockPointers[0], m.values);

    // More values only: a new zeroed, aligned value array; blockPointers[0] follows it.
    m.setSize(2, 3, 5, 1000);
    EXPECT_EQ(m.valueCapacity, 1000u);
    EXPECT_TRUE(aligned16(m.values));
    EXPECT_EQ(m.blockPointers[0], m.values);
    EXPECT_EQ(m.rowIndices, rows);
    EXPECT_EQ(m.colPointers, cols);
    EXPECT_TRUE(std::all_of(m.values, m.values + 1000, [](T v) { return v == T(0); }));

    // More blocks only: new zeroed block arrays (blockPointers[0] set again).
    m.setSize(2, 3, 40, 1000);
    EXPECT_EQ(m.blockCapacity, 40u);
    EXPECT_EQ(m.colPointers, cols);
    EXPECT_EQ(m.blockPointers[0], m.values);
    EXPECT_TRUE(std::all_of(m.rowIndices, m.rowIndices + 40, [](unsigned v) { return v == 0; }));
    EXPECT_TRUE(std::all_of(m.blockPointers + 1, m.blockPointers + 40, [](T* p) { return p == nullptr; }));

    // More columns only: new zeroed column arrays with n + 2 entries.
    m.setSize(9, 9, 40, 1000);
    EXPECT_EQ(m.colCapacity, 10u);
    for (int j = 0; j < 11; ++j) {
        EXPECT_EQ(m.colPointers[j] | m.blockSizes[j] | m.blockOffsets[j] | m.blockStrides[j], 0u);
    }
}

TYPED_TEST(SparseMatrixTest, ClearKeepsStorageAndBlockArrays) {
    using T = TypeParam;
    SparseMatrix<T> m;
    m.setSize(2, 2, 3, 50);
    std::fill(m.values, m.values + 50, T(3));
    m.acquireBlock(0, 0, 2, 2);
    m.acquireBlock(1, 0, 3, 2);
    m.acquireBlock(1, 1, 3, 3);
    m.blockFlags[1] = 1;
    T* const block2 = m.blockPointers[2];
    const std::uint64_t allocations = kiv::ByteAllocator::allocationCount();

    m.clear();
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), allocations);
    EXPECT_EQ(m.numBlocks + m.numBlockCols + m.numBlockRows, 0u);
    EXPECT_EQ(m.valueCapacity, 50u);
    EXPECT_EQ(m.blockCapacity, 3u);
    EXPECT_EQ(m.colCapacity, 3u);
    EXPECT_TRUE(std::all_of(m.values, m.values + 50, [](T v) { return v == T(0); }));
    for (int j = 0; j < 4; ++j) {
        EXPECT_EQ(m.colPointers[j] | m.blockSizes[j] | m.blockOffsets[j] | m.blockStrides[j], 0u);
    }
    EXPECT_EQ(m.rowIndices[1], 0u);
    EXPECT_EQ(m.rowIndices[2], 1u);
    EXPECT_EQ(m.blockFlags[1], 1u);
    EXPECT_EQ(m.blockPointers[2], block2);

    // Reuse: the same layout is acquired again at the same places.
    m.setSize(2, 2, 3, 50);
    EXPECT_EQ(m.acquireBlock(0, 0, 2, 2), m.values);
    m.acquireBlock(1, 0, 3, 2);
    EXPECT_EQ(m.acquireBlock(1, 1, 3, 3), block2);
    EXPECT_EQ(m.blockFlags[1], 0u);
}

TEST(SparseMatrixDeathTest, AcquiringBeyondCapacityAborts) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            SparseMatrix<double> m;
            m.setSize(1, 1, 2, 16);
            m.acquireBlock(0, 0, 1, 1);
            m.acquireBlock(0, 0, 1, 1);
            m.acquireBlock(0, 0, 1, 1);
        },
        "^Not enough memory, 2 2\n$");
    EXPECT_DEATH(
        {
            SparseMatrix<float> m;
            m.acquireBlock(0, 0, 1, 1);
        },
        "^Not enough memory, 0 0\n$");
}

// ---------------------------------------------------------------------------------------------------------
// Products against a dense reference.
// ---------------------------------------------------------------------------------------------------------

// A random symmetric block matrix kept densely (long double) and the list of its off-diagonal block pairs.
struct BlockSystem {
    std::vector<unsigned int> sizes, offsets;
    std::vector<std::pair<unsigned int, unsigned int>> pairs;  // (i, j), i < j, ascending by j then i
    unsigned int N = 0;
    std::vector<long double> A;  // N × N, row-major, symmetric

    long double& at(unsigned int r, unsigned int c) { return A[std::size_t(r) * N + c]; }
};

BlockSystem randomSystem(std::mt19937& rng, unsigned int n, const std::vector<unsigned int>& sizeChoices,
                         bool columnZeroCoupled) {
    BlockSystem s;
    std::uniform_int_distribution<std::size_t> pick(0, sizeChoices.size() - 1);
    for (unsigned int i = 0; i < n; ++i) {
        s.offsets.push_back(s.N);
        s.sizes.push_back(sizeChoices[pick(rng)]);
        s.N += s.sizes.back();
    }
    std::bernoulli_distribution coupled(0.4);
    for (unsigned int j = 1; j < n; ++j) {
        for (unsigned int i = 0; i < j; ++i) {
            if (coupled(rng) || (columnZeroCoupled && i == 0 && j == n - 1)) s.pairs.emplace_back(i, j);
        }
    }
    s.A.assign(std::size_t(s.N) * s.N, 0.0L);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    auto fill = [&](unsigned int i, unsigned int j) {
        for (unsigned int r = 0; r < s.sizes[i]; ++r) {
            for (unsigned int c = 0; c < s.sizes[j]; ++c) {
                if (i == j && c < r) continue;
                s.at(s.offsets[i] + r, s.offsets[j] + c) = s.at(s.offsets[j] + c, s.offsets[i] + r) =
                    value(rng);
            }
        }
    };
    for (unsigned int j = 0; j < n; ++j) fill(j, j);
    for (const auto& p : s.pairs) fill(p.first, p.second);
    return s;
}

enum class Layout {
    Upper,     // column j: blocks (i, j), i < j ascending, diagonal last
    Lower,     // column j: diagonal first, then blocks (i, j), i > j
    Shuffled,  // each pair stored on a random side, blocks of a column in random order
};

// Stores `s` in `m` in the given layout. Diagonal tiles get their triangle r ≤ c (the one the products read);
// the other triangle is filled with NaN to prove it is never read. Padding stays zero.
template <typename T>
void store(const BlockSystem& s, Layout layout, std::mt19937& rng, SparseMatrix<T>& m) {
    const unsigned int n = static_cast<unsigned int>(s.sizes.size());
    std::vector<std::vector<unsigned int>> columns(n);  // block rows per column
    for (unsigned int j = 0; j < n; ++j) {
        if (layout == Layout::Lower) columns[j].push_back(j);
    }
    for (const auto& p : s.pairs) {
        bool upperSide = layout == Layout::Upper;
        if (layout == Layout::Shuffled) upperSide = std::bernoulli_distribution(0.5)(rng);
        // A shuffled matrix keeps two blocks in column 0 so that the general loop is taken.
        if (layout == Layout::Shuffled && p.first == 0 && p.second + 1 == n) upperSide = false;
        if (upperSide) {
            columns[p.second].push_back(p.first);
        } else {
            columns[p.first].push_back(p.second);
        }
    }
    for (unsigned int j = 0; j < n; ++j) {
        if (layout != Layout::Lower) columns[j].push_back(j);
        if (layout == Layout::Shuffled) std::shuffle(columns[j].begin(), columns[j].end(), rng);
    }
    unsigned long blocks = 0, values = 0;
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int i : columns[j]) {
            ++blocks;
            values += expectedStride<T>(s.sizes[i]) * expectedStride<T>(s.sizes[j]);
        }
    }
    m.clear();
    m.setSize(n, n, blocks, values);
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int i : columns[j]) {
            T* tile = m.acquireBlock(j, i, s.sizes[j], s.sizes[i]);
            const unsigned int ld = expectedStride<T>(s.sizes[i]);
            for (unsigned int c = 0; c < s.sizes[j]; ++c) {
                for (unsigned int r = 0; r < s.sizes[i]; ++r) {
                    const long double v = s.A[std::size_t(s.offsets[i] + r) * s.N + s.offsets[j] + c];
                    tile[c * ld + r] = (i == j && r > c) ? std::numeric_limits<T>::quiet_NaN() : T(v);
                }
            }
        }
    }
}

// y_ref = beta·y0 + alpha·A·x in long double, and per entry the magnitude |beta·y0| + |alpha|·Σ|a||x| that
// bounds the rounding error.
template <typename T>
void reference(const BlockSystem& s, T alpha, const std::vector<T>& x, T beta, const std::vector<T>& y0,
               std::vector<long double>& yRef, std::vector<long double>& scale) {
    yRef.assign(s.N, 0.0L);
    scale.assign(s.N, 0.0L);
    for (unsigned int r = 0; r < s.N; ++r) {
        long double sum = 0, mag = 0;
        for (unsigned int c = 0; c < s.N; ++c) {
            sum += s.A[std::size_t(r) * s.N + c] * x[c];
            mag += std::fabs(s.A[std::size_t(r) * s.N + c] * x[c]);
        }
        yRef[r] = (long double)beta * y0[r] + (long double)alpha * sum;
        scale[r] = std::fabs((long double)beta * y0[r]) + std::fabs((long double)alpha) * mag + 1e-30L;
    }
}

template <typename T>
void expectClose(const std::vector<T>& y, const std::vector<long double>& yRef,
                 const std::vector<long double>& scale) {
    const long double tol = 4.0L * (yRef.size() + 2) * std::numeric_limits<T>::epsilon();
    for (std::size_t r = 0; r < y.size(); ++r) {
        ASSERT_LE(std::fabs((long double)y[r] - yRef[r]), tol * scale[r]) << "entry " << r;
    }
}

template <typename T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// multiply, multiplyAdd(x, y) and multiplyAdd(alpha, x, beta, y) in the three layouts against the dense
// symmetric product, for block sizes with odd and even members (so the final column is sometimes odd).
TYPED_TEST(SparseMatrixTest, ProductsMatchDenseReference) {
    using T = TypeParam;
    const std::vector<std::vector<unsigned int>> sizeSets = {{1}, {3}, {6, 3}, {1, 2, 3, 4, 5, 6, 7}};
    for (unsigned int seed = 1; seed <= 60; ++seed) {
        std::mt19937 rng(seed);
        const unsigned int n = 1 + seed % 9;
        const auto& sizes = sizeSets[seed % sizeSets.size()];
        const BlockSystem s = randomSystem(rng, n, sizes, true);
        std::uniform_real_distribution<double> value(-1.0, 1.0);
        std::vector<T> x(s.N), y0(s.N);
        for (auto& v : x) v = T(value(rng));
        for (auto& v : y0) v = T(value(rng));
        std::vector<long double> yRef, scale;

        for (Layout layout : {Layout::Upper, Layout::Lower, Layout::Shuffled}) {
            SCOPED_TRACE(::testing::Message()
                         << "seed " << seed << " n " << n << " N " << s.N << " layout " << int(layout));
            SparseMatrix<T> m;
            store(s, layout, rng, m);
            ASSERT_EQ(m.blockSizes[n], s.N);
            if (layout != Layout::Upper && n > 1) {
                ASSERT_GE(m.colPointers[1], 2u);  // the general loop is taken
            }

            std::vector<T> y(s.N, std::numeric_limits<T>::quiet_NaN());
            m.multiply(x.data(), y.data());
            reference<T>(s, T(1), x, T(0), std::vector<T>(s.N, T(0)), yRef, scale);
            expectClose(y, yRef, scale);

            std::vector<T> yAdd = y0;
            m.multiplyAdd(x.data(), yAdd.data());
            reference<T>(s, T(1), x, T(1), y0, yRef, scale);
            expectClose(yAdd, yRef, scale);

            // Unscaled and scaled paths run the same kernels in the same order: alpha = beta = 1 is
            // bit-exact.
            std::vector<T> yOne = y0;
            m.multiplyAdd(T(1), x.data(), T(1), yOne.data());
            EXPECT_TRUE(sameBits(yAdd, yOne));

            for (const auto& ab : {std::pair<double, double>{-0.75, 2.5}, {3.0, 0.0}, {0.5, -1.0}}) {
                std::vector<T> yScaled = y0;
                const T alpha = T(ab.first), beta = T(ab.second);
                m.multiplyAdd(alpha, x.data(), beta, yScaled.data());
                reference<T>(s, alpha, x, beta, y0, yRef, scale);
                expectClose(yScaled, yRef, scale);
            }
        }
    }
}

// The beta rule: |beta − 1| below epsilon leaves y unscaled, anything else multiplies (0 included, so a NaN
// survives), and an empty matrix leaves y untouched in every product.
TYPED_TEST(SparseMatrixTest, BetaRuleAndEmptyMatrix) {
    using T = TypeParam;
    const T eps = std::numeric_limits<T>::epsilon();
    const T nan = std::numeric_limits<T>::quiet_NaN();
    SparseMatrix<T> m;
    m.setSize(1, 1, 1, 4);
    m.acquireBlock(0, 0, 1, 1)[0] = T(2);
    const T x[1] = {T(0)};  // A·x = 0: only the scaling of y shows

    const T y0 = T(1) + T(64) * eps;
    T y[1] = {y0};
    m.multiplyAdd(T(1), x, T(1) + eps / T(2), y);
    EXPECT_EQ(y[0], y0);  // not rescaled
    m.multiplyAdd(T(1), x, T(1) - eps / T(2), y);
    EXPECT_EQ(y[0], y0);
    m.multiplyAdd(T(1), x, T(1) + T(2) * eps, y);
    EXPECT_EQ(y[0], y0 * (T(1) + T(2) * eps));  // rescaled

    y[0] = nan;
    m.multiplyAdd(T(1), x, T(0), y);
    EXPECT_TRUE(std::isnan(y[0]));  // beta = 0 multiplies, it does not overwrite
    y[0] = T(5);
    const T x1[1] = {T(3)};
    m.multiplyAdd(T(0.5), x1, T(0), y);
    EXPECT_EQ(y[0], T(3));

    SparseMatrix<T> empty;
    T sentinel[2] = {nan, T(4)};
    empty.multiply(x, sentinel);
    empty.multiplyAdd(x, sentinel);
    empty.multiplyAdd(T(1), x, T(0), sentinel);
    EXPECT_TRUE(std::isnan(sentinel[0]));
    EXPECT_EQ(sentinel[1], T(4));

    m.clear();  // a cleared matrix has n = 0 as well
    m.multiply(x, sentinel);
    m.multiplyAdd(T(2), x, T(3), sentinel);
    EXPECT_TRUE(std::isnan(sentinel[0]));
    EXPECT_EQ(sentinel[1], T(4));
}

// A real matrix (494_bus, lower triangle in Matrix Market form) cut into blocks of sizes 3, 2, 1, ... and
// stored in the upper form: multiply equals the scalar sparse product.
TYPED_TEST(SparseMatrixTest, RealMatrixProduct) {
    using T = TypeParam;
    const char* dir = std::getenv("KIVTAMBER_DATA_DIR");
    if (!dir) {
        GTEST_SKIP() << "KIVTAMBER_DATA_DIR is not set";
    }
    std::ifstream in(std::string(dir) + "/494_bus.mtx");
    ASSERT_TRUE(in) << "cannot open 494_bus.mtx in " << dir;
    std::string line;
    while (std::getline(in, line) && line[0] == '%') {
    }
    unsigned int N = 0, cols = 0;
    std::size_t entries = 0;
    std::istringstream(line) >> N >> cols >> entries;
    ASSERT_EQ(N, 494u);
    struct Entry {
        unsigned int r, c;
        double v;
    };
    std::vector<Entry> lower(entries);
    for (auto& e : lower) {
        ASSERT_TRUE(in >> e.r >> e.c >> e.v);
        --e.r;
        --e.c;
    }

    // Scalar k lies in block blockOf[k]; block sizes cycle through 3, 2, 1.
    std::vector<unsigned int> sizes, offsets, blockOf(N);
    for (unsigned int k = 0; k < N;) {
        const unsigned int s = std::min(3u - unsigned(sizes.size() % 3), N - k);
        offsets.push_back(k);
        sizes.push_back(s);
        for (unsigned int q = 0; q < s; ++q) blockOf[k + q] = unsigned(sizes.size() - 1);
        k += s;
    }
    const unsigned int n = unsigned(sizes.size());
    // Upper pattern: column j holds the blocks i ≤ j that an entry touches, ascending (diagonal last).
    std::vector<std::vector<unsigned int>> columns(n);
    for (unsigned int j = 0; j < n; ++j) columns[j].push_back(j);
    for (const auto& e : lower) columns[blockOf[e.r]].push_back(blockOf[e.c]);  // (c-block, r-block), c ≤ r
    unsigned long blocks = 0, values = 0;
    for (unsigned int j = 0; j < n; ++j) {
        std::sort(columns[j].begin(), columns[j].end());
        columns[j].erase(std::unique(columns[j].begin(), columns[j].end()), columns[j].end());
        blocks += columns[j].size();
        for (unsigned int i : columns[j]) values += expectedStride<T>(sizes[i]) * expectedStride<T>(sizes[j]);
    }
    SparseMatrix<T> m;
    m.setSize(n, n, blocks, values);
    std::vector<std::vector<T*>> tiles(n);
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int i : columns[j]) tiles[j].push_back(m.acquireBlock(j, i, sizes[j], sizes[i]));
    }
    ASSERT_EQ(m.blockSizes[n], N);
    // Entry (r, c), r ≥ c, goes to the upper tile (blockOf[c], blockOf[r]) at (c, r).
    for (const auto& e : lower) {
        const unsigned int i = blockOf[e.c], j = blockOf[e.r];
        const auto pos = std::lower_bound(columns[j].begin(), columns[j].end(), i) - columns[j].begin();
        tiles[j][pos][(e.r - offsets[j]) * expectedStride<T>(sizes[i]) + (e.c - offsets[i])] = T(e.v);
    }

    std::mt19937 rng(7);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::vector<T> x(N), y(N);
    for (auto& v : x) v = T(value(rng));
    m.multiply(x.data(), y.data());
    std::vector<long double> yRef(N, 0.0L), scale(N, 1e-30L);
    for (const auto& e : lower) {
        yRef[e.r] += (long double)T(e.v) * x[e.c];
        scale[e.r] += std::fabs((long double)T(e.v) * x[e.c]);
        if (e.r != e.c) {
            yRef[e.c] += (long double)T(e.v) * x[e.r];
            scale[e.c] += std::fabs((long double)T(e.v) * x[e.r]);
        }
    }
    expectClose(y, yRef, scale);
}

}  // namespace
}  // namespace kivTamber
