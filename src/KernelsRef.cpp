// Reference forms of the size-specialised kernels (include/Kernels.h, namespace kernels::reference): plain
// scalar loops, one entry at a time, with the operations of the fast forms in src/KernelsFixed.h and
// src/Kernels.cpp in the same order. Written for reading, not for speed; the tests compare the two bit for
// bit.
#include "Kernels.h"

namespace kivTamber {
namespace kernels {
namespace reference {

namespace {

inline unsigned int evenUp(unsigned int s) {
    return (s + 1) & ~1u;
}

// Row by row: row r's entries l_rc (c < r) from the finished rows c, then its pivot.
template <typename T>
void factorDiagonal(T* W, unsigned int p, unsigned int s, T* d, bool zeroPaddingColumn) {
    for (unsigned int r = 0; r < s; ++r) {
        T* const w = W + static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < r; ++c) {
            const T* const l = W + static_cast<unsigned long>(c) * p;  // row c of L, final
            if (c > 0) {
                T sum = T(0);
                for (unsigned int t = 0; t < c; ++t) sum += w[t] * d[t] * l[t];
                w[c] -= sum;  // w_rc -= Σ_{t<c} l_rt·d_t·l_ct
            }
            w[c] = w[c] / d[c];  // l_rc = w_rc / d_c
        }
        d[r] = w[r];
        if (r > 0) {
            T sum = T(0);
            for (unsigned int t = 0; t < r; ++t) sum += d[t] * w[t] * w[t];
            d[r] -= sum;  // d_r -= Σ_{t<r} d_t·l_rt²
        }
        w[r] = T(1);
        for (unsigned int c = r + 1; c < s; ++c) w[c] = T(0);
        if (zeroPaddingColumn) w[s] = T(0);
    }
}

}  // namespace

void factorDiagonalBlock(double* W, unsigned int p, unsigned int s, double* d) {
    factorDiagonal(W, p, s, d, s % 2 == 1 && s <= 12);  // the unrolled sizes store whole pairs of columns
}

void factorDiagonalBlock(float* W, unsigned int p, unsigned int s, float* d) {
    factorDiagonal(W, p, s, d, false);
}

namespace {

// X copied into W (s rows of p), factored, then the reciprocals and the pivot test.
template <typename T>
bool factorDiagonalFrom(const T* X, T* W, unsigned int p, unsigned int s, T* d, T* recip) {
    if (X != W) {
        for (unsigned long q = 0; q < static_cast<unsigned long>(s) * p; ++q) W[q] = X[q];
    }
    factorDiagonalBlock(W, p, s, d);
    bool good = true;
    for (unsigned int c = 0; c < s; ++c) {
        recip[c] = T(1) / d[c];
        if (d[c] == T(0) || !(d[c] - d[c] == T(0))) good = false;
    }
    if (sizeof(T) == sizeof(double) && s % 2 == 1) recip[s] = T(0);
    return good;
}

}  // namespace

bool factorDiagonalBlockFrom(const double* X, double* W, unsigned int p, unsigned int s, double* d,
                             double* recip) {
    return factorDiagonalFrom(X, W, p, s, d, recip);
}

bool factorDiagonalBlockFrom(const float* X, float* W, unsigned int p, unsigned int s, float* d,
                             float* recip) {
    return factorDiagonalFrom(X, W, p, s, d, recip);
}

void solveUnitDiagonal(const double* L, unsigned int p, double* W, unsigned int rows, unsigned int s) {
    for (unsigned int r = 0; r < rows; ++r) {
        double* const w = W + static_cast<unsigned long>(r) * p;
        for (unsigned int c = 1; c < s; ++c) {
            const double* const l = L + static_cast<unsigned long>(c) * p;
            double sum = 0.0;
            for (unsigned int t = 0; t < c; ++t) sum += l[t] * w[t];
            w[c] -= sum;  // w_c -= Σ_{t<c} l_ct·w_t
        }
    }
}

bool finishSmallBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip, const double* d) {
    if (s < 1 || s > 12) return false;
    const unsigned int p = evenUp(s);
    solveUnitDiagonal(L, p, W, rows, s);
    for (unsigned int r = 0; r < rows; ++r) {
        double* const w = W + static_cast<unsigned long>(r) * p;
        double* const ld = LD + static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < p; ++c) {
            w[c] = w[c] * recip[c];               // l_rc = w_rc / d_c
            ld[c] = w[c] * (c < s ? d[c] : 0.0);  // l_rc·d_c
        }
    }
    return true;
}

bool finishSmallBlockFrom(const double* L, const double* X, double* W, double* LD, unsigned int rows,
                          unsigned int s, const double* recip, const double* d) {
    if (s < 1 || s > 12) return false;
    const unsigned long count = static_cast<unsigned long>(rows) * evenUp(s);
    if (X != W) {
        for (unsigned long q = 0; q < count; ++q) W[q] = X[q];
    }
    return finishSmallBlock(L, W, LD, rows, s, recip, d);
}

bool finishFrontBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip) {
    if (s < 1 || s > 6) return false;
    const unsigned int p = evenUp(s);
    solveUnitDiagonal(L, p, W, rows, s);
    for (unsigned int r = 0; r < rows; ++r) {
        double* const w = W + static_cast<unsigned long>(r) * p;
        double* const ld = LD + static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < p; ++c) {
            ld[c] = w[c];
            w[c] = w[c] * recip[c];  // l_rc = w_rc / d_c
        }
    }
    if (rows % 2 == 1) {
        double* const ld = LD + static_cast<unsigned long>(rows) * p;
        for (unsigned int c = 0; c < p; ++c) ld[c] = 0.0;
    }
    return true;
}

bool factorDiagonalUpdated(const double* A, const double* B, unsigned int k, const double* X, double* W,
                           unsigned int p, unsigned int s, double* d, double* LD, double* recip, bool& good) {
    if (s < 2 || s > 6 || k < 2 || k > 6) return false;
    const int pk = static_cast<int>(evenUp(k));
    subtractABtLowerFrom(A, pk, B, pk, X, W, static_cast<int>(p), static_cast<int>(s), static_cast<int>(k));
    good = factorDiagonalBlockFrom(W, W, p, s, d, recip);
    if (LD) scaleColumns(W, d, LD, s, s, p);
    return true;
}

void scaleColumns(const double* X, const double* d, double* Y, unsigned int rows, unsigned int s,
                  unsigned int p) {
    for (unsigned int r = 0; r < rows; ++r) {
        const unsigned long row = static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < p; ++c) Y[row + c] = c < s ? X[row + c] * d[c] : 0.0;
    }
}

void scaleColumns(const float* X, const float* d, float* Y, unsigned int rows, unsigned int s,
                  unsigned int p) {
    for (unsigned int r = 0; r < rows; ++r) {
        const unsigned long row = static_cast<unsigned long>(r) * p;
        for (unsigned int c = 0; c < p; ++c) Y[row + c] = c < s ? X[row + c] * d[c] : 0.0f;
    }
}

void subtractABtLower(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int k) {
    if (n <= 0 || k <= 0) return;
    if (n == 1 || k == 1) {  // the product kernel's scalar shapes, on the whole square
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) {
                double sum = 0.0;
                for (int q = 0; q < k; ++q)
                    sum += A[static_cast<long>(i) * lda + q] * B[static_cast<long>(j) * ldb + q];
                if (n == 1) {
                    C[j] -= sum;  // one row: the sum first
                } else {
                    C[static_cast<long>(i) * ldc + j] -=
                        A[static_cast<long>(i) * lda] * B[static_cast<long>(j) * ldb];
                }
            }
        }
        return;
    }
    // 2×2 blocks reaching the diagonal or below it: every entry c − (even-q sum + odd-q sum), sizes rounded
    // up to even over the zero padding.
    const int nr = static_cast<int>(evenUp(static_cast<unsigned int>(n)));
    const int kr = static_cast<int>(evenUp(static_cast<unsigned int>(k)));
    for (int i = 0; i < nr; ++i) {
        const int jEnd = (i & ~1) + 2;
        for (int j = 0; j < jEnd; ++j) {
            double even = 0.0, odd = 0.0;
            for (int q = 0; q < kr; q += 2) {
                even += A[static_cast<long>(i) * lda + q] * B[static_cast<long>(j) * ldb + q];
                odd += A[static_cast<long>(i) * lda + q + 1] * B[static_cast<long>(j) * ldb + q + 1];
            }
            C[static_cast<long>(i) * ldc + j] -= even + odd;
        }
    }
}

void subtractABtLower(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int k) {
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j <= i; ++j) {
            float c = C[static_cast<long>(i) * ldc + j];
            for (int q = 0; q < k; ++q)
                c -= A[static_cast<long>(i) * lda + q] * B[static_cast<long>(j) * ldb + q];
            C[static_cast<long>(i) * ldc + j] = c;
        }
    }
}

void subtractABtLowerFrom(const double* A, int lda, const double* B, int ldb, const double* X, double* C,
                          int ldc, int n, int k) {
    for (long q = 0; q < static_cast<long>(n) * ldc; ++q) C[q] = X[q];
    subtractABtLower(A, lda, B, ldb, C, ldc, n, k);
}

void subtractABtLowerFrom(const float* A, int lda, const float* B, int ldb, const float* X, float* C, int ldc,
                          int n, int k) {
    for (long q = 0; q < static_cast<long>(n) * ldc; ++q) C[q] = X[q];
    subtractABtLower(A, lda, B, ldb, C, ldc, n, k);
}

void forwardOffDiagonal(const double* B, unsigned int ld, const double* xi, unsigned int si, double* xj,
                        unsigned int sj) {
    for (unsigned int r = 0; r < evenUp(sj); ++r) {
        const double* const b = B + static_cast<unsigned long>(r) * ld;
        double even = 0.0, odd = 0.0;
        for (unsigned int q = 0; q < si; q += 2) {
            even += b[q] * xi[q];  // B(q, r)·x_i(q)
            odd += b[q + 1] * xi[q + 1];
        }
        xj[r] = xj[r] - (even + odd);
    }
}

void forwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    for (unsigned int r = 0; r < sj; r += 2) {
        const double* const u0 = U + static_cast<unsigned long>(r) * ld;
        const double* const u1 = u0 + ld;
        double even0 = 0.0, odd0 = 0.0, even1 = 0.0, odd1 = 0.0;
        for (unsigned int q = 0; q < r; q += 2) {
            even0 += u0[q] * xj[q];
            odd0 += u0[q + 1] * xj[q + 1];
            even1 += u1[q] * xj[q];
            odd1 += u1[q + 1] * xj[q + 1];
        }
        const double x0 = xj[r] - (even0 + odd0);
        const double x1 = xj[r + 1] - ((even1 + odd1) + u1[r] * x0);
        xj[r] = x0;
        xj[r + 1] = x1;
    }
}

void backwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    auto divide = [](double x, double u) { return u == 1.0 ? x : x / u; };
    unsigned int r = sj;
    if (sj % 2 == 1) {  // the top row of an odd tile alone
        r = sj - 1;
        const double* const u0 = U + static_cast<unsigned long>(r) * ld;
        xj[r] = divide(xj[r], u0[r]);
        for (unsigned int q = 0; q < r; ++q) xj[q] = xj[q] - u0[q] * xj[r];
    }
    while (r >= 2) {
        r -= 2;
        const double* const u0 = U + static_cast<unsigned long>(r) * ld;
        const double* const u1 = u0 + ld;
        const double x1 = divide(xj[r + 1], u1[r + 1]);
        const double x0 = divide(xj[r] - u1[r] * x1, u0[r]);
        xj[r] = x0;
        xj[r + 1] = x1;
        for (unsigned int q = 0; q < r; ++q) xj[q] = xj[q] - (u0[q] * x0 + u1[q] * x1);
    }
}

void backwardOffDiagonal(const double* B, unsigned int ld, const double* xj, unsigned int sj, double* xi,
                         unsigned int si) {
    for (unsigned int q = 0; q < evenUp(si); ++q) {
        double sum = 0.0;
        for (unsigned int r = 0; r < sj; r += 2) {
            sum += B[static_cast<unsigned long>(r) * ld + q] * xj[r];  // B(q, r)·x_j(r)
            sum += B[static_cast<unsigned long>(r + 1) * ld + q] * xj[r + 1];
        }
        xi[q] = xi[q] - sum;
    }
}

namespace {

// Entries of y at and after `ready` get their 0 before their first term (see addUpperProducts).
template <typename T>
void zeroBefore(T* y, unsigned int& ready, unsigned int end) {
    for (; ready < end; ++ready) y[ready] = T(0);
}

template <typename T>
unsigned int upperProducts(const T* const* tiles, const unsigned int* rowIndices,
                           const unsigned int* colPointers, const unsigned int* sizes,
                           const unsigned int* offsets, const unsigned int* strides, unsigned int firstColumn,
                           unsigned int endColumn, const T* x, T* y, unsigned int ready) {
    for (unsigned int j = firstColumn; j < endColumn; ++j) {
        const unsigned int oj = offsets[j], sj = sizes[j];
        zeroBefore(y, ready, oj + sj);
        const unsigned int begin = colPointers[j], end = colPointers[j + 1];
        if (begin == end) continue;
        for (unsigned int b = begin; b + 1 < end; ++b) {
            const unsigned int i = rowIndices[b], oi = offsets[i], si = sizes[i];
            zeroBefore(y, ready, oi + si);
            const T* const B = tiles[b];  // B(q, r) at r·strides[i] + q
            for (unsigned int r = 0; r < sj; ++r) {
                for (unsigned int q = 0; q < si; ++q) {
                    const T k = B[static_cast<unsigned long>(r) * strides[i] + q];
                    y[oi + q] = y[oi + q] + k * x[oj + r];  // y_i += B·x_j
                    y[oj + r] = y[oj + r] + k * x[oi + q];  // y_j += Bᵀ·x_i
                }
            }
        }
        const T* const D = tiles[end - 1];  // the triangle r ≤ c: D(q, r) at r·strides[j] + q, q ≤ r
        for (unsigned int r = 0; r < sj; ++r) {
            const T* const column = D + static_cast<unsigned long>(r) * strides[j];
            y[oj + r] = y[oj + r] + column[r] * x[oj + r];
            for (unsigned int q = 0; q < r; ++q) {
                y[oj + r] = y[oj + r] + column[q] * x[oj + q];
                y[oj + q] = y[oj + q] + column[q] * x[oj + r];
            }
        }
    }
    return ready;
}

}  // namespace

unsigned int addUpperProducts(const double* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const double* x, double* y,
                              unsigned int ready, unsigned long /*prefetchAhead*/) {
    return upperProducts(tiles, rowIndices, colPointers, sizes, offsets, strides, firstColumn, endColumn, x,
                         y, ready);
}
unsigned int addUpperProducts(const float* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const float* x, float* y,
                              unsigned int ready, unsigned long /*prefetchAhead*/) {
    return upperProducts(tiles, rowIndices, colPointers, sizes, offsets, strides, firstColumn, endColumn, x,
                         y, ready);
}

void copyBlock(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld) {
    for (unsigned int a = 0; a < rows; ++a)
        for (unsigned int b = 0; b < cols; ++b) W[static_cast<unsigned long>(b) * ld + a] = V[a * cols + b];
}

void copyBlockTransposed(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld) {
    for (unsigned int a = 0; a < rows; ++a)
        for (unsigned int b = 0; b < cols; ++b) W[static_cast<unsigned long>(a) * ld + b] = V[a * cols + b];
}

}  // namespace reference
}  // namespace kernels
}  // namespace kivTamber
