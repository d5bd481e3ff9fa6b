// Block-sparse symmetric matrix, compressed by block column.
//
// A matrix of n block rows and n block columns; block index i has the size s_i (scalar rows of block row i
// and scalar columns of block column i), and the scalar dimension is N = s_0 + ... + s_{n-1}. Every stored
// block (i, j) is a dense s_i × s_j tile, stored column-major with the leading dimension blockStrides[i]:
// entry (r, c) of the tile is element c·blockStrides[i] + r of the block. A block reserves
// blockStrides[i]·blockStrides[j] elements; for double the strides are even (s rounded up), for float they
// equal s. All tiles lie back to back in one 16-byte-aligned value array whose padding rows and columns are
// zero at all times (the double solves read and write pairs of elements across the padding).
//
// The blocks of block column j occupy the indices colPointers[j] .. colPointers[j+1]-1 of the block arrays,
// in the order they were acquired. A factor keeps in column j the blocks (i, j), i < j, in ascending i and
// its diagonal block last; container column j is then block row j of the lower factor L (so the column view
// of the container shows U = Lᵀ).
//
// Life cycle: setSize (grows only) → one acquireBlock per block, block columns in increasing order, the
// blocks of a column consecutively → values written through the returned pointers → clear (keeps all storage)
// → setSize again. No operation checks its arguments.
#ifndef KIVTAMBER_SPARSETYPES_H
#define KIVTAMBER_SPARSETYPES_H

namespace kivTamber {

template <typename T>
class SparseMatrix {
public:
    // Raw allocation of the value storage: valueCapacity + 3 elements for float, valueCapacity + 1 for
    // double (the slack allows the 16-byte-aligned start `values`).
    T* valuesRaw;
    // valuesRaw rounded up to a multiple of 16 bytes; all tiles live here back to back.
    T* values;
    // Block-row index of each stored block, in storage order [blockCapacity].
    unsigned int* rowIndices;
    // One word per block [blockCapacity]: 0 when acquired; the factorization sets it to 1 in the scaled
    // factor once the block has been written.
    unsigned int* blockFlags;
    // Start of each block inside `values` [blockCapacity]; blockPointers[0] == values.
    T** blockPointers;
    // First block of block column j, one past its last at j+1 [colCapacity + 1].
    unsigned int* colPointers;
    // s_i per block index; blockSizes[n] holds the running total N [colCapacity + 1].
    unsigned int* blockSizes;
    // Scalar offset of block i: s_0 + ... + s_{i-1} [colCapacity + 1].
    unsigned int* blockOffsets;
    // Leading dimension used for block row i [colCapacity + 1].
    unsigned int* blockStrides;
    // Blocks acquired so far.
    unsigned long numBlocks;
    // Block dimension n.
    unsigned long numBlockCols;
    // Second dimension given to setSize; stored and kept, not used by the operations here.
    unsigned long numBlockRows;
    // Elements of value storage allocated.
    unsigned long valueCapacity;
    // Allocated n + 1 (the four per-column arrays have colCapacity + 1 entries).
    unsigned long colCapacity;
    // Number of blocks the block arrays can hold.
    unsigned long blockCapacity;
    // Elements of `values` that tiles handed out since the values were last zeroed can reach: every element
    // at or after it is zero. acquireBlock and the factor layouts raise it, clear lowers it to 0 (so that
    // clear costs the values in use, not the capacity). Writers stay inside their tiles.
    unsigned long valueExtent;

    // Empty matrix: every pointer null, every count and capacity zero.
    SparseMatrix();
    ~SparseMatrix();
    SparseMatrix(const SparseMatrix&) = delete;
    SparseMatrix& operator=(const SparseMatrix&) = delete;

    // Prepares storage for numBlockCols block columns, blockCount blocks and valueCount scalar values.
    // Each group of arrays is reallocated (zeroed, old contents dropped) only when it is too small; arrays
    // that are large enough keep their contents. Finally blockPointers[0] = values when the block arrays
    // exist. Throws std::bad_alloc (the array being replaced has already been released).
    void setSize(unsigned long numBlockCols, unsigned long numBlockRows, unsigned long blockCount,
                 unsigned long valueCount);

    // Zeroes the values (the first valueExtent elements: the others are zero already) and the four
    // per-column arrays, sets numBlocks, numBlockCols, numBlockRows and valueExtent to zero; keeps every
    // allocation. rowIndices, blockFlags and blockPointers are left as they are.
    void clear();

    // Appends block (row, col), rowSize × colSize, to block column `col` and returns the start of its tile
    // (column-major, leading dimension stride(rowSize), stride(rowSize)·stride(colSize) elements reserved).
    // With k = numBlocks: rowIndices[k] = row, blockFlags[k] = 0; blockOffsets[col] = blockOffsets[col−1] +
    // blockSizes[col−1] (col > 0), the sizes and strides of `col` and `row` recorded, blockSizes[n] =
    // blockOffsets[col] + s_col (the running total, N after the last column); blockPointers[k+1] points past
    // the tile when k + 1 < blockCapacity; colPointers[col] = k for the first block of a column col > 0
    // (colPointers[0] is never written and stays 0) and colPointers[col+1] = k + 1. Aborts the process with
    // "Not enough memory, <numBlocks> <blockCapacity>" on standard error when the block arrays are full; the
    // value storage is not checked (the caller sizes it). The fifth argument is part of the interface, always
    // left at its default and never read.
    T* acquireBlock(unsigned long col, unsigned long row, unsigned long colSize, unsigned long rowSize,
                    int = 0);

    // y = A·x, reading the stored blocks as one triangle of a symmetric matrix.
    // x: in, N elements. y: out, N elements (untouched when n = 0). x and y must not overlap.
    void multiply(const T* x, T* y) const;

    // y = y + A·x with the symmetric expansion: an off-diagonal block B = (i, j) adds B·x_j to y_i and
    // Bᵀ·x_i to y_j; a diagonal tile adds its symmetric product, reading the triangle r ≤ c of the
    // column-major tile. Columns j = 0 … n−1, blocks in storage order.
    // The arrangement is recognised from column 0 alone: when it holds at most one block (colPointers[1] < 2)
    // the matrix is taken to be in the upper form, and in every column but a final one of odd size the last
    // block is used as the diagonal and all others as off-diagonal blocks, without comparing indices.
    // Otherwise every block is classified by comparing its row with its column, so any arrangement within
    // the columns (diagonal first, blocks below it, ...) is accepted; such a matrix must then hold at least
    // two blocks in column 0. x: in, N elements. y: in/out, N elements. x and y must not overlap.
    void multiplyAdd(const T* x, T* y) const;

    // y = A·x exactly as multiply computes it, and rowSums[p] = Σ_q |A_pq| for every row p of the symmetric
    // matrix (‖A‖∞ is their maximum), in one pass over the tiles: each column's sums are added right after
    // its products, while its tiles are in cache. For the upper form (diagonal tile last in each column):
    // per column, the off-diagonal tiles in storage order, each column c of a tile adding |B_rc| to row r
    // and the column's total to row c of block j, then the triangle r ≤ c of the diagonal tile, each entry
    // counted once for each of its rows. Sums in double for either T. x: in, y: out, rowSums: out, N
    // elements each; none may overlap.
    void multiplyWithRowSums(const T* x, T* y, double* rowSums) const;

    // y = beta·y + alpha·A·x. y is scaled first (beta = 0 multiplies too, so NaN stays NaN) unless
    // |beta − 1| < the machine epsilon of T or N = 0. Every block is classified by comparing indices, in
    // either arrangement. x: in, N elements. y: in/out, N elements. x and y must not overlap.
    void multiplyAdd(const T& alpha, const T* x, const T& beta, T* y) const;

private:
    // The pass of multiplyAdd(x, y); with sums, also the row sums of multiplyWithRowSums. The entries of y
    // at and after the scalar offset `ready` hold nothing yet: they get their zero as the pass reaches them
    // (0: the product of multiply; ~0u: y is added to). With sums, `ready` must be ~0u.
    template <bool kSums>
    void addProducts(const T* x, T* y, double* sums, unsigned int ready) const;
    // The products of column j (or of the columns from firstColumn on) with every block classified by its
    // indices, in storage order.
    void addGeneralColumn(const T* x, T* y, unsigned long j) const;
    void addGeneralColumns(const T* x, T* y, unsigned long firstColumn) const;
    // Bytes ahead of its tiles that the product prefetches: 0 unless the values outgrow the caches.
    unsigned long prefetchDistance() const;
};

extern template class SparseMatrix<float>;
extern template class SparseMatrix<double>;

}  // namespace kivTamber

#endif  // KIVTAMBER_SPARSETYPES_H
