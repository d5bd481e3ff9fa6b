// Dense vector and small dense matrix.
//
// DenseVector<T>: aligned, reusable array (the scalar pivots D of a factor, right-hand sides of the vector
// solves). It grows only: resize(n) with n above the capacity drops the old storage, allocates zeroed storage
// for n elements and points `data` at its first 16-byte boundary; a smaller n only changes `size`.
//
// DenseMatrix<T>: a view of a small square matrix held by the caller, factored in place as L·D·Lᵀ (no
// pivoting) and solved with that factorization. It does not own `data`.
#ifndef KIVTAMBER_DENSETYPES_H
#define KIVTAMBER_DENSETYPES_H

namespace kivTamber {

template <typename T>
class DenseVector {
public:
    // Number of valid elements.
    unsigned long size;
    // Number of elements allocated.
    unsigned long capacity;
    // First element, on a 16-byte boundary inside `raw`.
    T* data;
    // The allocation: capacity + 1 elements for double, capacity + 3 for float (slack for the 16-byte
    // alignment of `data`), zero-filled when allocated.
    T* raw;

    // Empty vector: size and capacity zero, no storage.
    DenseVector();
    // Releases `raw`; `raw` and `data` become null.
    ~DenseVector();
    DenseVector(const DenseVector&) = delete;
    DenseVector& operator=(const DenseVector&) = delete;

    // Sets size = n. When n exceeds the capacity, the old storage is released (its contents are not kept),
    // n + 1 elements (double) or n + 3 (float) are allocated and zeroed, `data` is aligned to 16 bytes and
    // capacity = n. Otherwise nothing is allocated and the elements are left as they are.
    // Throws std::bad_alloc.
    void resize(unsigned long n);
};

template <typename T>
class DenseMatrix {
public:
    // Number of columns: the length of one stored row. factor() and solve() read its low 32 bits as the
    // signed dimension n.
    unsigned long numCols;
    // Number of rows; factor() and solve() do not read it and treat the matrix as n × n.
    unsigned long numRows;
    // The elements, row after row, each row numCols long. Not owned.
    T* data;
    // The contents are the factorization rather than the matrix.
    bool isFactored;

    // Empty view: no data, zero sizes, not factored.
    DenseMatrix();
    // View of `numRows` rows of `numCols` elements at `data` (not copied, not owned), not factored.
    DenseMatrix(unsigned long numCols, unsigned long numRows, T* data);
    DenseMatrix(const DenseMatrix&) = delete;
    DenseMatrix& operator=(const DenseMatrix&) = delete;

    // In-place A = L·D·Lᵀ without pivoting (left-looking, column by column), with a_ij the element at
    // j·n + i (element i of stored row j). Reads only the elements with i ≥ j; afterwards those with i > j
    // hold the multipliers l_ij of the unit lower triangle, the diagonal holds the pivots d_j, and the
    // elements with i < j are untouched. A zero pivot is not detected: it yields infinities or NaNs below it.
    // Sets isFactored; returns true.
    bool factor();

    // x ← A⁻¹·x (x: in/out, n elements) with the factorization, calling factor() first when isFactored is
    // false. Returns true; n ≤ 0 leaves x unchanged.
    bool solve(T* x);
};

extern template class DenseVector<float>;
extern template class DenseVector<double>;
extern template class DenseMatrix<float>;
extern template class DenseMatrix<double>;

}  // namespace kivTamber

#endif  // KIVTAMBER_DENSETYPES_H
