#include "DenseTypes.h"

#include <kiv/ByteAllocator.h>

#include <cstdint>
#include <cstring>
#include <limits>

namespace kivTamber {

namespace {

// Elements allocated beyond the capacity so that a 16-byte boundary lies inside the allocation.
template <typename T>
constexpr unsigned long kSlack = sizeof(T) == 4 ? 3 : 1;

// Element count of the raw allocation for `capacity` elements; an unrepresentable count becomes the largest
// size, so that the allocator fails.
template <typename T>
unsigned long rawCount(unsigned long capacity) {
    const unsigned long largest = std::numeric_limits<unsigned long>::max();
    return capacity > largest - kSlack<T> ? largest : capacity + kSlack<T>;
}

// Dimension n of a dense matrix: the low 32 bits of numCols, read as a signed number.
inline int dimension(unsigned long numCols) {
    return static_cast<int>(static_cast<unsigned int>(numCols));
}

}  // namespace

template <typename T>
DenseVector<T>::DenseVector() : size(0), capacity(0), data(nullptr), raw(nullptr) {}

template <typename T>
DenseVector<T>::~DenseVector() {
    if (raw) kiv::deallocateArray(raw, rawCount<T>(capacity));
    raw = nullptr;
    data = nullptr;
}

template <typename T>
void DenseVector<T>::resize(unsigned long n) {
    if (n > capacity) {
        // The old contents are dropped, not copied: callers overwrite the whole vector.
        if (raw) kiv::deallocateArray(raw, rawCount<T>(capacity));
        raw = nullptr;
        data = nullptr;
        capacity = 0;
        const unsigned long count = rawCount<T>(n);
        raw = kiv::allocateArray<T>(count);
        std::memset(static_cast<void*>(raw), 0, count * sizeof(T));
        const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(raw);
        data = reinterpret_cast<T*>((address + 15u) & ~static_cast<std::uintptr_t>(15u));
        capacity = n;
    }
    size = n;
}

template <typename T>
DenseMatrix<T>::DenseMatrix() : numCols(0), numRows(0), data(nullptr), isFactored(false) {}

template <typename T>
DenseMatrix<T>::DenseMatrix(unsigned long cols, unsigned long rows, T* elements)
    : numCols(cols), numRows(rows), data(elements), isFactored(false) {}

// a_ij lives at j·n + i. Column j of L (the multipliers l_ij, i > j) is therefore stored row j, contiguous.
template <typename T>
bool DenseMatrix<T>::factor() {
    const int n = dimension(numCols);
    if (n < 1) {
        isFactored = true;
        return true;
    }
    T* const a = data;
    const long ln = n;

    // d_0 = a_00, already in place.
    T nextPivot = a[0];
    for (long j = 0; j < ln; ++j) {
        T* const colJ = a + j * ln;  // l_ij at colJ[i]
        colJ[j] = nextPivot;         // d_j
        if (j == ln - 1) break;

        const T dj = colJ[j];
        for (long i = j + 1; i < ln; ++i) {
            // l_ij = (a_ij − Σ_{k<j} l_jk·d_k·l_ik) / d_j
            for (long k = 0; k < j; ++k) {
                const T* colK = a + k * ln;
                colJ[i] -= colK[j] * colK[k] * colK[i];
            }
            colJ[i] /= dj;
        }

        // d_{j+1} = a_{j+1,j+1} − Σ_{k≤j} l_{j+1,k}²·d_k
        const long j1 = j + 1;
        T d = a[j1 * ln + j1];
        for (long k = 0; k <= j; ++k) {
            const T* colK = a + k * ln;
            const T l = colK[j1];
            d -= l * l * colK[k];
        }
        nextPivot = d;
    }
    isFactored = true;
    return true;
}

template <typename T>
bool DenseMatrix<T>::solve(T* x) {
    if (!isFactored && !factor()) return false;
    const int n = dimension(numCols);
    if (n < 1) return true;
    const T* const a = data;
    const long ln = n;

    // Forward: x_i −= Σ_{k<i} x_k·l_ik
    for (long i = 1; i < ln; ++i) {
        for (long k = 0; k < i; ++k) x[i] -= x[k] * a[k * ln + i];
    }
    // Diagonal: x_i /= d_i
    for (long i = 0; i < ln; ++i) x[i] /= a[i * ln + i];
    // Backward: x_i −= Σ_{k>i} l_ki·x_k, k from n−1 down
    for (long i = ln - 2; i >= 0; --i) {
        const T* colI = a + i * ln;
        for (long k = ln - 1; k > i; --k) x[i] -= colI[k] * x[k];
    }
    return true;
}

template class DenseVector<float>;
template class DenseVector<double>;
template class DenseMatrix<float>;
template class DenseMatrix<double>;

}  // namespace kivTamber
