#include "SparseTypes.h"

#include <kiv/Abort.h>
#include <kiv/ByteAllocator.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include "Kernels.h"
#include "KernelsFixed.h"

namespace kivTamber {

namespace {

// Per-precision details of the block layout.
template <typename T>
struct Precision;

template <>
struct Precision<float> {
    // Elements allocated beyond the capacity so that a 16-byte boundary lies inside the allocation.
    static constexpr unsigned long kSlack = 3;
    // Leading dimension of a block row of size s: s itself.
    static unsigned int stride(unsigned int s) { return s; }
    static constexpr float kEpsilon = 1.1920929e-07f;
};

template <>
struct Precision<double> {
    static constexpr unsigned long kSlack = 1;
    // s rounded up to an even number, so that every tile row pair is 16-byte aligned.
    static unsigned int stride(unsigned int s) { return (s + 1u) & ~1u; }
    static constexpr double kEpsilon = 2.220446049250313e-16;
};

// Element count of the raw value allocation for `capacity` values. A count that cannot be represented is
// passed on as the largest size, so that the allocator fails instead of returning a short array.
template <typename T>
unsigned long rawValueCount(unsigned long capacity) {
    const unsigned long largest = std::numeric_limits<unsigned long>::max();
    return capacity > largest - Precision<T>::kSlack ? largest : capacity + Precision<T>::kSlack;
}

template <typename T>
T* alignTo16(T* p) {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(p);
    return reinterpret_cast<T*>((address + 15u) & ~static_cast<std::uintptr_t>(15u));
}

// Allocates `count` zeroed elements.
template <typename U>
U* allocateZeroed(unsigned long count) {
    U* p = kiv::allocateArray<U>(count);
    std::memset(static_cast<void*>(p), 0, count * sizeof(U));
    return p;
}

}  // namespace

template <typename T>
SparseMatrix<T>::SparseMatrix()
    : valuesRaw(nullptr),
      values(nullptr),
      rowIndices(nullptr),
      blockFlags(nullptr),
      blockPointers(nullptr),
      colPointers(nullptr),
      blockSizes(nullptr),
      blockOffsets(nullptr),
      blockStrides(nullptr),
      numBlocks(0),
      numBlockCols(0),
      numBlockRows(0),
      valueCapacity(0),
      colCapacity(0),
      blockCapacity(0),
      valueExtent(0) {}

template <typename T>
SparseMatrix<T>::~SparseMatrix() {
    kiv::deallocateArray(valuesRaw, rawValueCount<T>(valueCapacity));
    kiv::deallocateArray(rowIndices, blockCapacity);
    kiv::deallocateArray(blockFlags, blockCapacity);
    kiv::deallocateArray(blockPointers, blockCapacity);
    kiv::deallocateArray(colPointers, colCapacity + 1);
    kiv::deallocateArray(blockSizes, colCapacity + 1);
    kiv::deallocateArray(blockOffsets, colCapacity + 1);
    kiv::deallocateArray(blockStrides, colCapacity + 1);
}

template <typename T>
void SparseMatrix<T>::setSize(unsigned long numCols, unsigned long numRows, unsigned long blockCount,
                              unsigned long valueCount) {
    numBlockCols = numCols;
    numBlockRows = numRows;

    // Each group is released before its replacement is allocated, and its capacity is recorded only once the
    // allocation succeeded, so that a throwing allocation leaves an empty but consistent group behind.
    if (valueCount > valueCapacity) {
        kiv::deallocateArray(valuesRaw, rawValueCount<T>(valueCapacity));
        valuesRaw = nullptr;
        values = nullptr;
        valueCapacity = 0;
        valuesRaw = kiv::allocateArray<T>(rawValueCount<T>(valueCount));
        valueCapacity = valueCount;
        values = alignTo16(valuesRaw);
        std::memset(static_cast<void*>(values), 0, valueCount * sizeof(T));
        valueExtent = 0;
    }

    if (blockCount > blockCapacity) {
        kiv::deallocateArray(rowIndices, blockCapacity);
        kiv::deallocateArray(blockFlags, blockCapacity);
        kiv::deallocateArray(blockPointers, blockCapacity);
        rowIndices = nullptr;
        blockFlags = nullptr;
        blockPointers = nullptr;
        blockCapacity = 0;
        rowIndices = allocateZeroed<unsigned int>(blockCount);
        blockFlags = allocateZeroed<unsigned int>(blockCount);
        blockPointers = allocateZeroed<T*>(blockCount);
        blockCapacity = blockCount;
    }

    if (numCols + 1 > colCapacity) {
        kiv::deallocateArray(colPointers, colCapacity + 1);
        kiv::deallocateArray(blockSizes, colCapacity + 1);
        kiv::deallocateArray(blockStrides, colCapacity + 1);
        kiv::deallocateArray(blockOffsets, colCapacity + 1);
        colPointers = nullptr;
        blockSizes = nullptr;
        blockStrides = nullptr;
        blockOffsets = nullptr;
        colCapacity = 0;
        colPointers = allocateZeroed<unsigned int>(numCols + 2);
        blockSizes = allocateZeroed<unsigned int>(numCols + 2);
        blockStrides = allocateZeroed<unsigned int>(numCols + 2);
        blockOffsets = allocateZeroed<unsigned int>(numCols + 2);
        colCapacity = numCols + 1;
    }

    if (blockPointers) blockPointers[0] = values;
}

template <typename T>
void SparseMatrix<T>::clear() {
    if (values && valueExtent > 0) std::memset(static_cast<void*>(values), 0, valueExtent * sizeof(T));
    valueExtent = 0;
    if (colPointers) {
        const unsigned long bytes = (colCapacity + 1) * sizeof(unsigned int);
        std::memset(colPointers, 0, bytes);
        std::memset(blockSizes, 0, bytes);
        std::memset(blockStrides, 0, bytes);
        std::memset(blockOffsets, 0, bytes);
    }
    numBlocks = 0;
    numBlockCols = 0;
    numBlockRows = 0;
}

template <typename T>
T* SparseMatrix<T>::acquireBlock(unsigned long col, unsigned long row, unsigned long colSize,
                                 unsigned long rowSize, int) {
    const unsigned long k = numBlocks;
    if (k >= blockCapacity) {
        char message[96];
        std::snprintf(message, sizeof message, "Not enough memory, %lu %lu", k, blockCapacity);
        kiv::abort(message);  // writes the message and an end of line to standard error
    }

    T* const block = blockPointers[k];
    rowIndices[k] = static_cast<unsigned int>(row);
    blockFlags[k] = 0;

    if (col > 0) blockOffsets[col] = blockOffsets[col - 1] + blockSizes[col - 1];
    blockSizes[col] = static_cast<unsigned int>(colSize);
    blockSizes[row] = static_cast<unsigned int>(rowSize);
    blockSizes[numBlockCols] = blockSizes[col] + blockOffsets[col];  // running total: N after the last column

    blockStrides[col] = Precision<T>::stride(blockSizes[col]);
    blockStrides[row] = Precision<T>::stride(blockSizes[row]);

    // No check against valueCapacity: the caller sized the value storage.
    T* const end = block + static_cast<unsigned long>(blockStrides[row]) * blockStrides[col];
    if (k + 1 < blockCapacity) blockPointers[k + 1] = end;
    const unsigned long reach = static_cast<unsigned long>(end - values);
    if (reach > valueExtent) valueExtent = reach;

    // colPointers[0] is never written: it stays 0 from setSize/clear.
    if (col > 0 && colPointers[col] == 0) colPointers[col] = static_cast<unsigned int>(k);
    numBlocks = k + 1;
    colPointers[col + 1] = static_cast<unsigned int>(k + 1);
    return block;
}

template <typename T>
void SparseMatrix<T>::multiply(const T* x, T* y) const {
    if (numBlockCols == 0) return;
    addProducts<false>(x, y, nullptr, 0u);
}

// The tile of block (i, j) is s_i × s_j column-major with leading dimension blockStrides[i]; read row-major
// it is K = Bᵀ, an s_j × s_i matrix with the same leading dimension. Hence B·x_j = Kᵀ·x_j (the AtX kernel
// with n = s_j, m = s_i) and Bᵀ·x_i = K·x_i (the AX kernel), and the symmetric kernels read the row-major
// lower triangle of K, which is the triangle r ≤ c of the column-major tile.
template <typename T>
void SparseMatrix<T>::multiplyAdd(const T* x, T* y) const {
    addProducts<false>(x, y, nullptr, ~0u);
}

template <typename T>
void SparseMatrix<T>::multiplyWithRowSums(const T* x, T* y, double* rowSums) const {
    if (numBlockCols == 0) return;
    const unsigned long N = blockSizes[numBlockCols];
    std::memset(static_cast<void*>(y), 0, N * sizeof(T));
    std::memset(static_cast<void*>(rowSums), 0, N * sizeof(double));
    addProducts<true>(x, y, rowSums, ~0u);
}

namespace {

// sums[r] += |column[r]| for r < count, and the total of those absolute values, summed in two interleaved
// partial sums (even and odd r) added at the end: a fixed order that the compiler can keep in one SSE
// register pair.
template <typename T>
inline double addAbsolute(const T* __restrict column, double* __restrict sums, unsigned int count) {
    double even = 0.0, odd = 0.0;
    unsigned int r = 0;
    for (; r + 1 < count; r += 2) {
        const double v0 = std::fabs(static_cast<double>(column[r]));
        const double v1 = std::fabs(static_cast<double>(column[r + 1]));
        sums[r] += v0;
        sums[r + 1] += v1;
        even += v0;
        odd += v1;
    }
    if (r < count) {
        const double v = std::fabs(static_cast<double>(column[r]));
        sums[r] += v;
        even += v;
    }
    return even + odd;
}

// sums += |A| restricted to the tiles begin … end−1 of column j (see multiplyWithRowSums): the off-diagonal
// tiles in storage order, then the diagonal tile `diagonal` (end when the column has none).
template <typename T>
void addColumnRowSums(const SparseMatrix<T>& A, unsigned long j, unsigned int begin, unsigned int end,
                      unsigned int diagonal, double* sums) {
    const unsigned int oj = A.blockOffsets[j], sj = A.blockSizes[j];
    double* const columnSums = sums + oj;
    for (unsigned int e = begin; e < end; ++e) {
        if (e == diagonal) continue;
        const unsigned int i = A.rowIndices[e], si = A.blockSizes[i];
        const unsigned long ld = A.blockStrides[i];
        double* const rowSums = sums + A.blockOffsets[i];
        const T* const tile = A.blockPointers[e];
        for (unsigned int c = 0; c < sj; ++c) columnSums[c] += addAbsolute(tile + c * ld, rowSums, si);
    }
    if (diagonal == end) return;
    const unsigned long ld = A.blockStrides[j];
    const T* const tile = A.blockPointers[diagonal];
    for (unsigned int c = 0; c < sj; ++c) {
        // The triangle r < c gives each entry to both its rows; the diagonal entry once.
        const T* const column = tile + c * ld;
        const double total = addAbsolute(column, columnSums, c);
        columnSums[c] += total + std::fabs(static_cast<double>(column[c]));
    }
}

}  // namespace

template <typename T>
void SparseMatrix<T>::addGeneralColumn(const T* x, T* y, unsigned long j) const {
    for (unsigned int b = colPointers[j]; b < colPointers[j + 1]; ++b) {
        const unsigned int i = rowIndices[b];
        if (i == j) {
            // The symmetric product of the diagonal block.
            const unsigned int o = blockOffsets[j];
            kernels::addSymmetricProductAnySize(blockPointers[b], blockStrides[j], x + o, y + o,
                                                blockSizes[j]);
        } else {
            // Both products of an off-diagonal block in one pass (the same operations per entry as the
            // unscaled A·x and Aᵀ·x products, without the factor 1 of the scaled kernels, which is exact).
            kernels::addBothProductsAnySize(blockPointers[b], blockStrides[i], x + blockOffsets[i],
                                            x + blockOffsets[j], y + blockOffsets[i], y + blockOffsets[j],
                                            blockSizes[i], blockSizes[j]);
        }
    }
}

template <typename T>
void SparseMatrix<T>::addGeneralColumns(const T* x, T* y, unsigned long firstColumn) const {
    for (unsigned long j = firstColumn; j < numBlockCols; ++j) addGeneralColumn(x, y, j);
}

template <typename T>
template <bool kSums>
void SparseMatrix<T>::addProducts(const T* x, T* y, double* sums, unsigned int ready) const {
    const unsigned long n = numBlockCols;
    if (n == 0) return;
    const unsigned int N = blockSizes[n];
    auto upperColumns = [&](unsigned long first, unsigned long end) {
        return kernels::fast::addUpperProducts(blockPointers, rowIndices, colPointers, blockSizes,
                                               blockOffsets, blockStrides, static_cast<unsigned int>(first),
                                               static_cast<unsigned int>(end), x, y, ready,
                                               prefetchDistance());
    };

    // Upper form: column 0 holds at most one block, so every column ends with its diagonal block. A final
    // column of odd size takes the general loop even in the upper form: a harmless historical quirk of this
    // path, kept so that the order of operations stays the established one.
    const bool upperForm = colPointers[1] < 2;
    const unsigned long upperEnd = !upperForm ? 0 : (blockSizes[n - 1] & 1u) != 0 ? n - 1 : n;
    if constexpr (!kSums) {
        // The upper columns in one pass that zeroes y as it goes; the rest of y is zeroed before the others.
        if (upperEnd > 0) ready = upperColumns(0, upperEnd);
        if (upperEnd == n) return;
        if (ready < N) std::memset(static_cast<void*>(y + ready), 0, (N - ready) * sizeof(T));
        addGeneralColumns(x, y, upperEnd);
        return;
    }
    // With the row sums, column by column: each column's sums right after its products.
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned int begin = colPointers[j];
        const unsigned int end = colPointers[j + 1];
        unsigned int diagonalTile = end;
        if (j < upperEnd) {
            if (end == begin) continue;
            upperColumns(j, j + 1);
            diagonalTile = end - 1;
        } else {
            for (unsigned int b = begin; b < end; ++b)
                if (rowIndices[b] == j) diagonalTile = b;
            addGeneralColumn(x, y, j);
        }
        addColumnRowSums(*this, j, begin, end, diagonalTile, sums);
    }
}

template <typename T>
unsigned long SparseMatrix<T>::prefetchDistance() const {
    // Beyond the second-level cache the product waits for its tiles (measured: 5–30 % of the product on the
    // scene systems of 10,000 and 50,000 blocks, except a chain of 10,000, which loses 5 %); within it the
    // requests only cost.
    constexpr unsigned long largeBytes = 2ul << 20;
    return valueExtent * sizeof(T) > largeBytes ? 4096 : 0;
}

template <typename T>
void SparseMatrix<T>::multiplyAdd(const T& alpha, const T* x, const T& beta, T* y) const {
    const unsigned long n = numBlockCols;
    const unsigned long N = n == 0 ? 0 : blockSizes[n];

    // beta = 0 multiplies as well (NaN·0 stays NaN): y is never overwritten.
    if (!(std::fabs(beta - T(1)) < Precision<T>::kEpsilon) && N != 0) {
        const T b = beta;
        for (unsigned long e = 0; e < N; ++e) y[e] *= b;
    }
    if (n == 0) return;

    const T a = alpha;
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned int begin = colPointers[j];
        const unsigned int end = colPointers[j + 1];
        const unsigned int oj = blockOffsets[j];
        const int sj = static_cast<int>(blockSizes[j]);

        __builtin_prefetch(x + oj);
        __builtin_prefetch(y + oj, 1);
        for (unsigned int b = begin; b < end; ++b) {
            __builtin_prefetch(x + blockOffsets[rowIndices[b]]);
            __builtin_prefetch(y + blockOffsets[rowIndices[b]], 1);
        }

        for (unsigned int b = begin; b < end; ++b) {
            const unsigned int i = rowIndices[b];
            const T* K = blockPointers[b];
            const int ld = static_cast<int>(blockStrides[i]);
            if (i == j) {
                tamber_MV_aAX_SYL(K, ld, x + oj, y + oj, a, sj);  // y_j += alpha·B·x_j
            } else {
                const unsigned int oi = blockOffsets[i];
                const int si = static_cast<int>(blockSizes[i]);
                tamber_MV_YP_aAtX(K, ld, x + oj, y + oi, a, sj, si);  // y_i += alpha·B·x_j
                tamber_MV_YP_aAX(K, ld, x + oi, y + oj, a, sj, si);   // y_j += alpha·Bᵀ·x_i
            }
        }
    }
}

template class SparseMatrix<float>;
template class SparseMatrix<double>;

}  // namespace kivTamber
