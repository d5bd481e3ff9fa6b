// Dense block kernels: small matrix-matrix, matrix-vector and triangular kernels on raw element pointers.
//
// Common conventions of every kernel below:
//  - A matrix argument is a pointer to its first element plus a leading dimension `ld`: the matrix is stored
//    row by row, element (i, j) at offset i*ld + j. Rows may be longer than the logical column count.
//    Columns at or beyond the logical count are never touched, except by the double ABt kernels (see there).
//  - Vectors are contiguous (stride 1).
//  - Sizes are int; a size of 0 or less makes the kernel do nothing.
//  - Read matrices are const; the output matrix or vector is updated in place element by element as the loops
//    run (no temporary result), so the output must not alias an input.
//  - Triangular kernels read only the lower triangle of a row-major square block (row i holds columns 0..i);
//    entries above the diagonal are never read.
//  - No kernel checks its arguments, allocates, locks or reports; all are leaf functions, safe to call
//    from any number of threads on disjoint outputs.
#ifndef KIVTAMBER_KERNELS_H
#define KIVTAMBER_KERNELS_H

namespace kivTamber {

// ---------------------------------------------------------------------------------------------------------
// Matrix-matrix products.
// ---------------------------------------------------------------------------------------------------------

// C -= Aᵀ·B.  C is n×m (ldc), A is k×n (lda), B is k×m (ldb).
// For each output row i (column i of A), for p = 0..k-1: s = A[p][i]; C[i][j] -= s·B[p][j] for j < m.
// A, B: in. C: in/out. No alignment requirement.
void tamber_MM_CM_AtB(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k);
void tamber_MM_CM_AtB(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k);

// C += Aᵀ·B.  Same shapes and order of operations as tamber_MM_CM_AtB.
void tamber_MM_CP_AtB(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k);
void tamber_MM_CP_AtB(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k);

// C -= A·Bᵀ.  C is n×m (ldc), A is n×k (lda), B is m×k (ldb).
//
// float: for i < n, j < m, p < k: C[i][j] -= A[i][p]·B[j][p], the running value stored back into C[i][j]
// after every term (sequential summation). No alignment requirement.
//
// double (register-blocked; the factorization's workhorse): 2×2 blocks of C, two-lane vectors over p holding
// the even-p and odd-p partial sums, a horizontal add (even + odd) at the end, one two-lane subtract per row
// of the block. Contract of the blocked path:
//  - A, B, C and every row start (base + ld·row) are 16-byte aligned, so lda, ldb, ldc are even;
//  - there is no remainder handling: n, m and k are effectively rounded up to the next even number, so an
//    odd size is legal only on padded tiles. Odd k: column k of A and B is read and must be zero. Odd n: row
//    n of A is read and row n of C is written. Odd m: row m of B is read and column m of C is written.
//    Padding rows of A and B need only be finite; when they are zero, as in block storage, the padding of C
//    keeps its value, and the entries inside n×m receive the sums over the logical k. The block storage of
//    double matrices guarantees all this (even leading dimensions and reserved rows, zero padding).
//  - Rounding: each entry is c ∓ (even + odd), where even/odd sum the terms of even/odd p from p = 0 up.
// Before the blocked path, three degenerate shapes are handled with plain scalar loops, checked in this
// order, with no alignment or evenness requirement and nothing outside the n×m result written:
//  - n == 1: for j < m: C[0][j] -= Σp A[0][p]·B[j][p] (sum formed first, from p = 0 up);
//  - m == 1: for i < n: C[i][0] -= Σp A[i][p]·B[0][p];
//  - k == 1: for i < n, j < m: C[i][j] -= A[i][0]·B[j][0].
void tamber_MM_CM_ABt(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k);
void tamber_MM_CM_ABt(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k);

// C += A·Bᵀ.  Same shapes as tamber_MM_CM_ABt.
// float: sequential summation into C[i][j]. double: always the blocked path with the alignment and padding
// contract of tamber_MM_CM_ABt (there are no degenerate shapes here: n, m or k equal to 1 also need padding).
void tamber_MM_CP_ABt(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k);
void tamber_MM_CP_ABt(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k);

// ---------------------------------------------------------------------------------------------------------
// Matrix-vector products with a scale alpha (float and double).
// The product term is formed as (A[i][j]·alpha)·x[j], in exactly that order.
// ---------------------------------------------------------------------------------------------------------

// y -= alpha·A·x.  A is n×m (lda), x has length m (in), y has length n (in/out).
// For i < n, j < m: y[i] -= (A[i][j]·alpha)·x[j], term by term.
void tamber_MV_YM_aAX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m);
void tamber_MV_YM_aAX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m);

// y += alpha·A·x.  Same shapes and order as tamber_MV_YM_aAX.
void tamber_MV_YP_aAX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m);
void tamber_MV_YP_aAX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m);

// y -= alpha·Aᵀ·x.  A is n×m (lda), x has length n (in), y has length m (in/out).
// For i < n: s = x[i]; for j < m: y[j] -= (A[i][j]·alpha)·s (row-oriented, contiguous in A and y).
void tamber_MV_YM_aAtX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m);
void tamber_MV_YM_aAtX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m);

// y += alpha·Aᵀ·x.  Same shapes and order as tamber_MV_YM_aAtX.
void tamber_MV_YP_aAtX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m);
void tamber_MV_YP_aAtX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m);

// y += alpha·A·x, A symmetric n×n (lda) of which only the lower triangle is read; x, y have length n.
// For i < n: y[i] += (A[i][i]·alpha)·x[i]; then for j < i, with a = A[i][j]:
// y[i] += (a·alpha)·x[j] and y[j] += (a·alpha)·x[i]. Each stored off-diagonal entry is read once.
void tamber_MV_aAX_SYL(const float* A, int lda, const float* x, float* y, float alpha, int n);
void tamber_MV_aAX_SYL(const double* A, int lda, const double* x, double* y, double alpha, int n);

// ---------------------------------------------------------------------------------------------------------
// Matrix-vector products without scale (float only; double callers work inline).
// ---------------------------------------------------------------------------------------------------------

// y -= A·x.  A is n×m (lda), x length m (in), y length n (in/out). y[i] -= A[i][j]·x[j], term by term.
void tamber_MV_YM_AX(const float* A, int lda, const float* x, float* y, int n, int m);

// y += A·x.  Same shapes as tamber_MV_YM_AX.
void tamber_MV_YP_AX(const float* A, int lda, const float* x, float* y, int n, int m);

// y -= Aᵀ·x.  A is n×m (lda), x length n (in), y length m (in/out). For i < n, j < m: y[j] -= A[i][j]·x[i].
void tamber_MV_YM_AtX(const float* A, int lda, const float* x, float* y, int n, int m);

// y += Aᵀ·x.  Same shapes as tamber_MV_YM_AtX.
void tamber_MV_YP_AtX(const float* A, int lda, const float* x, float* y, int n, int m);

// y += A·x, A symmetric n×n (lda), lower triangle read; x, y length n. Note: it adds, although the name has
// no YP (kept: the callers rely on the accumulating form).
// For i < n: y[i] += A[i][i]·x[i]; then for j < i, a = A[i][j]: y[i] += a·x[j] and y[j] += a·x[i].
void tamber_MV_AX_SYL(const float* A, int lda, const float* x, float* y, int n);

// ---------------------------------------------------------------------------------------------------------
// Triangular solves (float only). L is n×n lower triangular, leading dimension ld; only its lower triangle is
// read. A zero diagonal entry is not detected: it yields infinities or NaNs.
// ---------------------------------------------------------------------------------------------------------

// x ← L⁻¹·x in place (x length n, in/out), L with its diagonal.
// For i < n: x[i] = x[i] / L[i][i]; then, if i+1 < n, x[i+1] -= L[i+1][j]·x[j] for j = 0..i, term by term.
// Each step divides (no reciprocal is formed).
void tamber_SV_TRIL(const float* L, int ld, float* x, int n);

// x ← L⁻¹·x in place, L unit lower triangular (diagonal not read).
// For i = 1..n-1: x[i] -= L[i][j]·x[j] for j < i; x[0] is unchanged, nothing happens for n < 2.
void tamber_SV_TRIL_UD(const float* L, int ld, float* x, int n);

// x ← L⁻ᵀ·x in place, L with its diagonal.
// For i = n-1 down to 0: x[i] = x[i] / L[i][i]; then x[j] -= L[i][j]·x[i] for j < i (row i of L swept once).
void tamber_SV_TRILt(const float* L, int ld, float* x, int n);

// For r < m: tamber_SV_TRIL(L, ldL, X + r·ldL, n), i.e. each of m rows of length n is replaced by L⁻¹·row.
// Two deliberate quirks, kept because the factorization depends on them: the rows of X are stepped by ldL,
// not ldX (ldX is accepted and ignored; callers pass ldX == ldL), and although the name says unit diagonal,
// each row is divided by the diagonal entries of L.
void tamber_SM_UD(const float* L, int ldL, float* X, int ldX, int m, int n);

// ---------------------------------------------------------------------------------------------------------
// Size-specialised kernels of the block factorizations and of the double solves, in two forms that perform
// the same operations in the same order and therefore give the same bits: kernels::fast is the code the
// library runs (straight-line code for the block sizes 1 to 12 of physics systems, pairs of doubles per SSE2
// register), kernels::reference the plain loops it must agree with. Tiles are row-major with the row stride
// p of their block's padded size (double: s rounded up to even, float: s); double tiles are 16-byte aligned
// and their padding rows and columns are zero (the kernels rely on it, as the block storage guarantees).
// Non-finite values spread through both forms alike.
// ---------------------------------------------------------------------------------------------------------
namespace kernels {
namespace fast {

// W = L·D·Lᵀ in place without pivoting for the s × s tile W (stride p; its lower triangle and diagonal are
// read): W becomes the unit lower L (diagonal 1, strict upper triangle 0) and d[0 .. s) the pivots:
// d_r = w_rr − Σ_{t<r} d_t·l_rt², l_rc = (w_rc − Σ_{t<c} l_rt·d_t·l_ct) / d_c, each sum from t = 0 up and
// each product formed left to right. Double tiles of odd s ≤ 12 also get their padding column written 0.
void factorDiagonalBlock(double* W, unsigned int p, unsigned int s, double* d);
void factorDiagonalBlock(float* W, unsigned int p, unsigned int s, float* d);

// The same factorization of the tile X (s × s, stride p; its lower triangle and diagonal read) into W (X may
// be W), with the reciprocal pivots: recip[c] = 1 / d_c for c < s, and 0 in recip[s] for a double tile of odd
// s (the padding column). Returns true when every pivot is non-zero and finite.
bool factorDiagonalBlockFrom(const double* X, double* W, unsigned int p, unsigned int s, double* d,
                             double* recip);
bool factorDiagonalBlockFrom(const float* X, float* W, unsigned int p, unsigned int s, float* d,
                             float* recip);

// W ← W·L⁻ᵀ for the rows × s tile W and the unit lower s × s tile L, both of stride p (L's diagonal is not
// read): per row, w_c −= Σ_{t<c} l_ct·w_t for c = 1 … s−1, the sum from t = 0 up.
void solveUnitDiagonal(const double* L, unsigned int p, double* W, unsigned int rows, unsigned int s);

// For s ≤ 12 (otherwise false, nothing done): W ← W·L⁻ᵀ as solveUnitDiagonal, then over all p columns
// W(r, c) ← W(r, c)·recip[c] and LD(r, c) = W(r, c)·(c < s ? d[c] : 0). recip: p entries, padding 0. LD:
// rows × s tile of stride p. Returns true.
bool finishSmallBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip, const double* d);
// The same with the rows read from X (rows × s, stride p; X may be W) and the results written to W and LD.
bool finishSmallBlockFrom(const double* L, const double* X, double* W, double* LD, unsigned int rows,
                          unsigned int s, const double* recip, const double* d);

// The end of an off-diagonal front block in the multifrontal factorization, for s ≤ 6 (otherwise false,
// nothing done): W ← W·L⁻ᵀ as solveUnitDiagonal, LD(r, c) = W(r, c) over all p columns, then W(r, c) ←
// W(r, c)·recip[c] over all p columns; when rows is odd, LD's padding row (row `rows`) is zeroed. W, LD:
// rows × s tiles of stride p = s rounded up to even; recip: p entries, padding 0. Returns true.
bool finishFrontBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip);

// Y = X·diag(d[0 .. s)) for rows × s tiles of stride p; Y's padding columns 0.
void scaleColumns(const double* X, const double* d, double* Y, unsigned int rows, unsigned int s,
                  unsigned int p);
void scaleColumns(const float* X, const float* d, float* Y, unsigned int rows, unsigned int s,
                  unsigned int p);

// For 2 ≤ s ≤ 6 and 2 ≤ k ≤ 6 (otherwise false, nothing done): the diagonal block of a block row with one
// off-diagonal block, C = X − A·Bᵀ as subtractABtLowerFrom(A, pk, B, pk, X, W, p, s, k) (pk: k rounded up
// to even, the stride of A and B), then factorDiagonalBlockFrom(W, W, p, s, d, recip) and LD (optional,
// s × s of stride p) = L·D as scaleColumns forms it; W receives the factor's rows (the padding row of an odd
// s is not written). good: whether every pivot is non-zero and finite. Returns true.
bool factorDiagonalUpdated(const double* A, const double* B, unsigned int k, const double* X, double* W,
                           unsigned int p, unsigned int s, double* d, double* LD, double* recip, bool& good);

// C −= A·Bᵀ on the lower triangle of the n × n tile C (the factorization's diagonal updates): the entries on
// and below the diagonal get the values tamber_MM_CM_ABt(A, lda, B, ldb, C, ldc, n, n, k) gives them. float
// writes only those; double writes whole 2×2 blocks that reach the diagonal (n ≥ 2 and k ≥ 2), or the whole
// square (n = 1 or k = 1).
void subtractABtLower(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int k);
void subtractABtLower(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int k);
// C = X − A·Bᵀ: on and below the diagonal of C the values of copying X (n rows of ldc) into C and then
// subtractABtLower; double 2×2 blocks above the diagonal may be left unwritten.
void subtractABtLowerFrom(const double* A, int lda, const double* B, int ldb, const double* X, double* C,
                          int ldc, int n, int k);
void subtractABtLowerFrom(const float* A, int lda, const float* B, int ldb, const float* X, float* C, int ldc,
                          int n, int k);

// The paired steps of the double solves, on a container tile B (s_i × s_j, column-major, leading dimension
// ld) or a diagonal tile U (s_j × s_j). Rows and columns go in pairs: an odd size reads the entry after its
// slice of x, times a zero padding entry (and writes it back unchanged).
// forwardOffDiagonal: x_j ← x_j − Bᵀ·x_i, each entry minus (sum over even q + sum over odd q).
// forwardDiagonal: x_j ← U⁻ᵀ·x_j, U unit upper (diagonal not read).
// backwardDiagonal: x_j ← U⁻¹·x_j, dividing by U's stored diagonal (not where it is exactly 1).
// backwardOffDiagonal: x_i ← x_i − B·x_j, each entry minus one sum over the columns in order.
void forwardOffDiagonal(const double* B, unsigned int ld, const double* xi, unsigned int si, double* xj,
                        unsigned int sj);
void forwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj);
void backwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj);
void backwardOffDiagonal(const double* B, unsigned int ld, const double* xj, unsigned int sj, double* xi,
                         unsigned int si);

// The rows × cols block V, row-major (row stride cols), into the column-major tile W of leading dimension
// ld: copyBlock puts V(a, b) at W[b·ld + a] (W holds V), copyBlockTransposed at W[a·ld + b] (W holds Vᵀ).
// Nothing else of W is written; values are copied bit for bit. The assembly of the input matrix runs these
// per block; sizes up to 6 are straight-line code.
void copyBlock(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld);
void copyBlockTransposed(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld);
// The routine copyBlock (transposed = false) or copyBlockTransposed runs for one pair of sizes, for a caller
// that copies blocks of the same sizes again and again: BlockCopy(V, W, ld) does what the call with those
// sizes does. Null for sizes it has no routine for (then call copyBlock / copyBlockTransposed).
using BlockCopy = void (*)(const double* V, double* W, unsigned long ld);
BlockCopy blockCopy(unsigned int rows, unsigned int cols, bool transposed);

// y += A·x over the block columns firstColumn … endColumn−1 of a symmetric block-sparse matrix in the upper
// form, read from the arrays of a SparseMatrix (see SparseTypes.h): column j holds the tiles colPointers[j]
// … colPointers[j+1]−1; the last one is used as its diagonal tile, every other one as an off-diagonal tile
// B = (i, j), i = rowIndices[b], whatever the indices say. Per column, the off-diagonal tiles in storage
// order add B·x_j to y_i and Bᵀ·x_i to y_j (with K = Bᵀ the row-major view of the tile, leading dimension
// strides[i]: y_i(q) += k_rq·x_j(r) over r ascending, y_j(r) += k_rq·x_i(q) over q ascending), then the
// diagonal tile adds its symmetric product from the triangle r ≤ c of the column-major tile (row r: y_j(r)
// += k_rr·x_j(r), then for q < r, y_j(r) += k_rq·x_j(q) and y_j(q) += k_rq·x_j(r)); an empty column adds
// nothing. The entries of y at and after the scalar offset `ready` are taken to hold nothing yet: each is
// set to 0 right before its first term is added (the bits of zeroing y first). Returns the offset where
// such entries begin afterwards: at least the end of the last column. ready = ~0u: y is read as it stands
// (plain accumulation). The x_j and y_j of a column of size at most 6 stay in registers from its first
// tile to its diagonal tile. prefetchAhead > 0: the memory from the tiles being read up to that many bytes
// past them is prefetched (a hint for large matrices whose tiles lie in the order of the pass; the
// reference ignores it, no result depends on it). x and y must not overlap.
unsigned int addUpperProducts(const double* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const double* x, double* y,
                              unsigned int ready, unsigned long prefetchAhead);
unsigned int addUpperProducts(const float* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const float* x, float* y,
                              unsigned int ready, unsigned long prefetchAhead);

}  // namespace fast

// Plain loops with the contracts of kernels::fast above and the same operations in the same order.
namespace reference {

void factorDiagonalBlock(double* W, unsigned int p, unsigned int s, double* d);
void factorDiagonalBlock(float* W, unsigned int p, unsigned int s, float* d);
bool factorDiagonalBlockFrom(const double* X, double* W, unsigned int p, unsigned int s, double* d,
                             double* recip);
bool factorDiagonalBlockFrom(const float* X, float* W, unsigned int p, unsigned int s, float* d,
                             float* recip);
void solveUnitDiagonal(const double* L, unsigned int p, double* W, unsigned int rows, unsigned int s);
bool finishSmallBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip, const double* d);
bool finishSmallBlockFrom(const double* L, const double* X, double* W, double* LD, unsigned int rows,
                          unsigned int s, const double* recip, const double* d);
bool factorDiagonalUpdated(const double* A, const double* B, unsigned int k, const double* X, double* W,
                           unsigned int p, unsigned int s, double* d, double* LD, double* recip, bool& good);
bool finishFrontBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip);
void scaleColumns(const double* X, const double* d, double* Y, unsigned int rows, unsigned int s,
                  unsigned int p);
void scaleColumns(const float* X, const float* d, float* Y, unsigned int rows, unsigned int s,
                  unsigned int p);
void subtractABtLower(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int k);
void subtractABtLower(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int k);
void subtractABtLowerFrom(const double* A, int lda, const double* B, int ldb, const double* X, double* C,
                          int ldc, int n, int k);
void subtractABtLowerFrom(const float* A, int lda, const float* B, int ldb, const float* X, float* C, int ldc,
                          int n, int k);
void forwardOffDiagonal(const double* B, unsigned int ld, const double* xi, unsigned int si, double* xj,
                        unsigned int sj);
void forwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj);
void backwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj);
void backwardOffDiagonal(const double* B, unsigned int ld, const double* xj, unsigned int sj, double* xi,
                         unsigned int si);

unsigned int addUpperProducts(const double* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const double* x, double* y,
                              unsigned int ready, unsigned long prefetchAhead);
unsigned int addUpperProducts(const float* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const float* x, float* y,
                              unsigned int ready, unsigned long prefetchAhead);
void copyBlock(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld);
void copyBlockTransposed(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld);

}  // namespace reference
}  // namespace kernels

}  // namespace kivTamber

#endif  // KIVTAMBER_KERNELS_H
