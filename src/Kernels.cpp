// Dense block kernels. See include/Kernels.h for the contract of each routine.
#include "Kernels.h"

#include <emmintrin.h>
#include <xmmintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "FactorCommon.h"

namespace kivTamber {

namespace {

// Element offset of (row, col) in a row-major matrix with leading dimension ld; 64-bit to be safe from
// overflow.
inline long at(int row, int ld, int col) {
    return static_cast<long>(row) * ld + col;
}

// C ∓= Aᵀ·B (Sign = -1 subtracts, +1 adds). Row i of C takes column i of A; inner loop contiguous in B and C.
template <int Sign, typename T>
void mmAtB(const T* __restrict A, int lda, const T* __restrict B, int ldb, T* __restrict C, int ldc, int n,
           int m, int k) {
    if (n <= 0 || m <= 0 || k <= 0) return;
    for (int i = 0; i < n; ++i) {
        T* Ci = C + at(i, ldc, 0);
        for (int p = 0; p < k; ++p) {
            const T s = A[at(p, lda, i)];  // s = A[p][i]
            const T* Bp = B + at(p, ldb, 0);
            if (Sign < 0) {
                for (int j = 0; j < m; ++j) Ci[j] -= s * Bp[j];  // c_ij -= a_pi b_pj
            } else {
                for (int j = 0; j < m; ++j) Ci[j] += s * Bp[j];
            }
        }
    }
}

// C ∓= A·Bᵀ for float: sequential summation of the k terms into each C[i][j]. Lower: only j <= i (n = m).
template <int Sign, bool Lower = false>
void mmABtFloat(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m, int k) {
    if (n <= 0 || m <= 0 || k <= 0) return;
    for (int i = 0; i < n; ++i) {
        const float* Ai = A + at(i, lda, 0);
        float* Ci = C + at(i, ldc, 0);
        const int jEnd = Lower ? i + 1 : m;
        for (int j = 0; j < jEnd; ++j) {
            const float* Bj = B + at(j, ldb, 0);
            float c = Ci[j];
            if (Sign < 0) {
                for (int p = 0; p < k; ++p) c -= Ai[p] * Bj[p];  // c_ij -= a_ip b_jp
            } else {
                for (int p = 0; p < k; ++p) c += Ai[p] * Bj[p];
            }
            Ci[j] = c;
        }
    }
}

// C ∓= A·Bᵀ for double, 2×2 register blocks of C with two-lane vectors over p (lane 0: even p, lane 1: odd
// p). Aligned loads and stores throughout; n, m, k are rounded up to even (the caller provides zero padding).
// Lower (n = m): only the 2×2 blocks that reach the diagonal or lie below it.
template <int Sign, bool Lower = false>
void mmABtDoubleBlocked(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                        int k) {
    for (int i = 0; i < n; i += 2) {
        const double* A0 = A + at(i, lda, 0);
        const double* A1 = A0 + lda;
        double* C0 = C + at(i, ldc, 0);
        double* C1 = C0 + ldc;
        const int jEnd = Lower ? i + 1 : m;
        for (int j = 0; j < jEnd; j += 2) {
            _mm_prefetch(reinterpret_cast<const char*>(C0 + j), _MM_HINT_T0);
            _mm_prefetch(reinterpret_cast<const char*>(C1 + j), _MM_HINT_T0);
            const double* B0 = B + at(j, ldb, 0);
            const double* B1 = B0 + ldb;
            __m128d s00 = _mm_setzero_pd();
            __m128d s01 = _mm_setzero_pd();
            __m128d s10 = _mm_setzero_pd();
            __m128d s11 = _mm_setzero_pd();
            for (int p = 0; p < k; p += 2) {
                const __m128d a0 = _mm_load_pd(A0 + p);
                const __m128d a1 = _mm_load_pd(A1 + p);
                const __m128d b0 = _mm_load_pd(B0 + p);
                const __m128d b1 = _mm_load_pd(B1 + p);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
            }
            // (even + odd) of each sum: row i gets (s00, s01), row i+1 gets (s10, s11).
            const __m128d r0 = _mm_add_pd(_mm_unpacklo_pd(s00, s01), _mm_unpackhi_pd(s00, s01));
            const __m128d r1 = _mm_add_pd(_mm_unpacklo_pd(s10, s11), _mm_unpackhi_pd(s10, s11));
            if (Sign < 0) {
                _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(C0 + j), r0));
                _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(C1 + j), r1));
            } else {
                _mm_store_pd(C0 + j, _mm_add_pd(_mm_load_pd(C0 + j), r0));
                _mm_store_pd(C1 + j, _mm_add_pd(_mm_load_pd(C1 + j), r1));
            }
        }
    }
}

// mmABtDoubleBlocked for padded sizes NP, MP, KP (even, at most 6) fixed at compile time: the same
// operations for every entry, as straight-line code for the small tiles of physics systems (the general
// loops spend about as many instructions on their control as on the arithmetic there). The entries of C
// are read from Cin (C itself, or a tile of the same shape and stride whose values C starts from).
template <int Sign, bool Lower, int NP, int MP, int KP>
void mmABtDoubleFixed(const double* A, int lda, const double* B, int ldb, const double* Cin, double* C,
                      int ldc) {
    KIVTAMBER_UNROLL
    for (int i = 0; i < NP; i += 2) {
        const double* A0 = A + at(i, lda, 0);
        const double* A1 = A0 + lda;
        double* C0 = C + at(i, ldc, 0);
        double* C1 = C0 + ldc;
        const double* I0 = Cin + at(i, ldc, 0);
        const double* I1 = I0 + ldc;
        KIVTAMBER_UNROLL
        for (int j = 0; j < (Lower ? i + 1 : MP); j += 2) {
            const double* B0 = B + at(j, ldb, 0);
            const double* B1 = B0 + ldb;
            __m128d s00 = _mm_setzero_pd();
            __m128d s01 = _mm_setzero_pd();
            __m128d s10 = _mm_setzero_pd();
            __m128d s11 = _mm_setzero_pd();
            KIVTAMBER_UNROLL
            for (int p = 0; p < KP; p += 2) {
                const __m128d a0 = _mm_load_pd(A0 + p);
                const __m128d a1 = _mm_load_pd(A1 + p);
                const __m128d b0 = _mm_load_pd(B0 + p);
                const __m128d b1 = _mm_load_pd(B1 + p);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
            }
            const __m128d r0 = _mm_add_pd(_mm_unpacklo_pd(s00, s01), _mm_unpackhi_pd(s00, s01));
            const __m128d r1 = _mm_add_pd(_mm_unpacklo_pd(s10, s11), _mm_unpackhi_pd(s10, s11));
            if (Sign < 0) {
                _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(I0 + j), r0));
                _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(I1 + j), r1));
            } else {
                _mm_store_pd(C0 + j, _mm_add_pd(_mm_load_pd(I0 + j), r0));
                _mm_store_pd(C1 + j, _mm_add_pd(_mm_load_pd(I1 + j), r1));
            }
        }
    }
}

// mmABtDoubleBlocked with only the padded inner size KP (even, at most 12) fixed at compile time: the loops
// over the 2×2 blocks of C stay, the sum over p is straight code. The same operations for every entry.
template <int Sign, bool Lower, int KP>
void mmABtDoubleInnerFixed(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n,
                           int m) {
    for (int i = 0; i < n; i += 2) {
        const double* A0 = A + at(i, lda, 0);
        const double* A1 = A0 + lda;
        double* C0 = C + at(i, ldc, 0);
        double* C1 = C0 + ldc;
        __m128d a0[KP / 2], a1[KP / 2];
        KIVTAMBER_UNROLL
        for (int p = 0; p < KP; p += 2) {
            a0[p / 2] = _mm_load_pd(A0 + p);
            a1[p / 2] = _mm_load_pd(A1 + p);
        }
        const int jEnd = Lower ? i + 1 : m;
        for (int j = 0; j < jEnd; j += 2) {
            const double* B0 = B + at(j, ldb, 0);
            const double* B1 = B0 + ldb;
            __m128d s00 = _mm_setzero_pd();
            __m128d s01 = _mm_setzero_pd();
            __m128d s10 = _mm_setzero_pd();
            __m128d s11 = _mm_setzero_pd();
            KIVTAMBER_UNROLL
            for (int p = 0; p < KP; p += 2) {
                const __m128d b0 = _mm_load_pd(B0 + p);
                const __m128d b1 = _mm_load_pd(B1 + p);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0[p / 2], b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0[p / 2], b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1[p / 2], b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1[p / 2], b1));
            }
            const __m128d r0 = _mm_add_pd(_mm_unpacklo_pd(s00, s01), _mm_unpackhi_pd(s00, s01));
            const __m128d r1 = _mm_add_pd(_mm_unpacklo_pd(s10, s11), _mm_unpackhi_pd(s10, s11));
            if (Sign < 0) {
                _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(C0 + j), r0));
                _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(C1 + j), r1));
            } else {
                _mm_store_pd(C0 + j, _mm_add_pd(_mm_load_pd(C0 + j), r0));
                _mm_store_pd(C1 + j, _mm_add_pd(_mm_load_pd(C1 + j), r1));
            }
        }
    }
}

// mmABtDoubleBlocked through mmABtDoubleInnerFixed when k <= 12; false (nothing done) otherwise.
template <int Sign, bool Lower>
inline bool mmABtDoubleInner(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n,
                             int m, int k) {
    using Product = void (*)(const double*, int, const double*, int, double*, int, int, int);
    static constexpr Product table[6] = {
        &mmABtDoubleInnerFixed<Sign, Lower, 2>,  &mmABtDoubleInnerFixed<Sign, Lower, 4>,
        &mmABtDoubleInnerFixed<Sign, Lower, 6>,  &mmABtDoubleInnerFixed<Sign, Lower, 8>,
        &mmABtDoubleInnerFixed<Sign, Lower, 10>, &mmABtDoubleInnerFixed<Sign, Lower, 12>};
    if (k > 12) return false;
    table[(k + 1) / 2 - 1](A, lda, B, ldb, C, ldc, n, m);
    return true;
}

using FixedProduct = void (*)(const double*, int, const double*, int, const double*, double*, int);

// The fixed kernels of every padded size triple (2, 4 or 6 each), indexed by (n/2 − 1)·9 + (m/2 − 1)·3 +
// (k/2 − 1) with the sizes rounded up to even.
template <int Sign, bool Lower, std::size_t... I>
constexpr std::array<FixedProduct, sizeof...(I)> fixedProducts(std::index_sequence<I...>) {
    return {{&mmABtDoubleFixed<Sign, Lower, 2 * (int(I) / 9 + 1), 2 * (int(I) / 3 % 3 + 1),
                               2 * (int(I) % 3 + 1)>...}};
}

// mmABtDoubleBlocked through a fixed kernel when every size is at most 6; false (nothing done) otherwise.
// Cin: where C's entries are read from (C itself by default).
template <int Sign, bool Lower>
inline bool mmABtDoubleSmall(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n,
                             int m, int k, const double* Cin = nullptr) {
    static constexpr std::array<FixedProduct, 27> table =
        fixedProducts<Sign, Lower>(std::make_index_sequence<27>());
    if (n > 6 || m > 6 || k > 6) return false;
    table[static_cast<std::size_t>(((n + 1) / 2 - 1) * 9 + ((m + 1) / 2 - 1) * 3 + ((k + 1) / 2 - 1))](
        A, lda, B, ldb, Cin ? Cin : C, C, ldc);
    return true;
}

// y ∓= alpha·A·x, term (a_ij·alpha)·x_j.
template <int Sign, typename T>
void mvAX(const T* A, int lda, const T* x, T* y, T alpha, int n, int m) {
    if (n <= 0 || m <= 0) return;
    for (int i = 0; i < n; ++i) {
        const T* Ai = A + at(i, lda, 0);
        T yi = y[i];
        if (Sign < 0) {
            for (int j = 0; j < m; ++j) yi -= (Ai[j] * alpha) * x[j];
        } else {
            for (int j = 0; j < m; ++j) yi += (Ai[j] * alpha) * x[j];
        }
        y[i] = yi;
    }
}

// y ∓= alpha·Aᵀ·x, row-oriented: y_j ∓= (a_ij·alpha)·x_i.
template <int Sign, typename T>
void mvAtX(const T* __restrict A, int lda, const T* __restrict x, T* __restrict y, T alpha, int n, int m) {
    if (n <= 0 || m <= 0) return;
    for (int i = 0; i < n; ++i) {
        const T* Ai = A + at(i, lda, 0);
        const T s = x[i];
        if (Sign < 0) {
            for (int j = 0; j < m; ++j) y[j] -= (Ai[j] * alpha) * s;
        } else {
            for (int j = 0; j < m; ++j) y[j] += (Ai[j] * alpha) * s;
        }
    }
}

// Unscaled variants (float only): y ∓= A·x and y ∓= Aᵀ·x.
template <int Sign>
void mvAXPlain(const float* A, int lda, const float* x, float* y, int n, int m) {
    if (n <= 0 || m <= 0) return;
    for (int i = 0; i < n; ++i) {
        const float* Ai = A + at(i, lda, 0);
        float yi = y[i];
        if (Sign < 0) {
            for (int j = 0; j < m; ++j) yi -= Ai[j] * x[j];
        } else {
            for (int j = 0; j < m; ++j) yi += Ai[j] * x[j];
        }
        y[i] = yi;
    }
}

template <int Sign>
void mvAtXPlain(const float* __restrict A, int lda, const float* __restrict x, float* __restrict y, int n,
                int m) {
    if (n <= 0 || m <= 0) return;
    for (int i = 0; i < n; ++i) {
        const float* Ai = A + at(i, lda, 0);
        const float s = x[i];
        if (Sign < 0) {
            for (int j = 0; j < m; ++j) y[j] -= Ai[j] * s;
        } else {
            for (int j = 0; j < m; ++j) y[j] += Ai[j] * s;
        }
    }
}

// y += alpha·A·x from the lower triangle of a symmetric A; each a_ij (j < i) serves y_i and y_j.
template <typename T>
void mvSYL(const T* A, int lda, const T* x, T* y, T alpha, int n) {
    for (int i = 0; i < n; ++i) {
        const T* Ai = A + at(i, lda, 0);
        const T xi = x[i];
        T yi = y[i] + (Ai[i] * alpha) * xi;
        for (int j = 0; j < i; ++j) {
            const T a = Ai[j] * alpha;
            yi += a * x[j];  // y_i += a_ij x_j
            y[j] += a * xi;  // y_j += a_ij x_i
        }
        y[i] = yi;
    }
}

}  // namespace

// ------------------------------------------------------------------------------------------------ AtB

void tamber_MM_CM_AtB(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k) {
    mmAtB<-1>(A, lda, B, ldb, C, ldc, n, m, k);
}
void tamber_MM_CM_AtB(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k) {
    mmAtB<-1>(A, lda, B, ldb, C, ldc, n, m, k);
}
void tamber_MM_CP_AtB(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k) {
    mmAtB<+1>(A, lda, B, ldb, C, ldc, n, m, k);
}
void tamber_MM_CP_AtB(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k) {
    mmAtB<+1>(A, lda, B, ldb, C, ldc, n, m, k);
}

// ------------------------------------------------------------------------------------------------ ABt

void tamber_MM_CM_ABt(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k) {
    mmABtFloat<-1>(A, lda, B, ldb, C, ldc, n, m, k);
}

void tamber_MM_CM_ABt(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k) {
    if (n <= 0 || m <= 0 || k <= 0) return;
    if (n == 1) {  // one row: c_0j -= Σp a_0p b_jp
        for (int j = 0; j < m; ++j) {
            const double* Bj = B + at(j, ldb, 0);
            double s = 0.0;
            for (int p = 0; p < k; ++p) s += A[p] * Bj[p];
            C[j] -= s;
        }
        return;
    }
    if (m == 1) {  // one column: c_i0 -= Σp a_ip b_0p
        for (int i = 0; i < n; ++i) {
            const double* Ai = A + at(i, lda, 0);
            double s = 0.0;
            for (int p = 0; p < k; ++p) s += Ai[p] * B[p];
            C[at(i, ldc, 0)] -= s;
        }
        return;
    }
    if (k == 1) {  // rank one: c_ij -= a_i0 b_j0
        for (int i = 0; i < n; ++i) {
            const double a = A[at(i, lda, 0)];
            double* Ci = C + at(i, ldc, 0);
            for (int j = 0; j < m; ++j) Ci[j] -= a * B[at(j, ldb, 0)];
        }
        return;
    }
    if (mmABtDoubleSmall<-1, false>(A, lda, B, ldb, C, ldc, n, m, k)) return;
    if (mmABtDoubleInner<-1, false>(A, lda, B, ldb, C, ldc, n, m, k)) return;
    mmABtDoubleBlocked<-1>(A, lda, B, ldb, C, ldc, n, m, k);
}

void tamber_MM_CP_ABt(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int m,
                      int k) {
    mmABtFloat<+1>(A, lda, B, ldb, C, ldc, n, m, k);
}

void tamber_MM_CP_ABt(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                      int k) {
    if (n <= 0 || m <= 0 || k <= 0) return;
    mmABtDoubleBlocked<+1>(A, lda, B, ldb, C, ldc, n, m, k);
}

namespace factorCommon {

void subtractABtLower(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int k) {
    mmABtFloat<-1, true>(A, lda, B, ldb, C, ldc, n, n, k);
}

void subtractABtLower(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int k) {
    if (n <= 0 || k <= 0) return;
    if (n == 1 || k == 1) {  // the kernel's scalar shapes: whole square, nothing to save
        tamber_MM_CM_ABt(A, lda, B, ldb, C, ldc, n, n, k);
        return;
    }
    if (mmABtDoubleSmall<-1, true>(A, lda, B, ldb, C, ldc, n, n, k)) return;
    if (mmABtDoubleInner<-1, true>(A, lda, B, ldb, C, ldc, n, n, k)) return;
    mmABtDoubleBlocked<-1, true>(A, lda, B, ldb, C, ldc, n, n, k);
}

void subtractABtLowerFrom(const double* A, int lda, const double* B, int ldb, const double* X, double* C,
                          int ldc, int n, int k) {
    if (n >= 2 && k >= 2 && mmABtDoubleSmall<-1, true>(A, lda, B, ldb, C, ldc, n, n, k, X)) return;
    // Other shapes: the copy (whole 16-byte pairs: ldc is even) and the update in place (the same values).
    kernels::copyTile(C, X, static_cast<unsigned long>(n) * static_cast<unsigned long>(ldc));
    subtractABtLower(A, lda, B, ldb, C, ldc, n, k);
}

void subtractABtLowerFrom(const float* A, int lda, const float* B, int ldb, const float* X, float* C, int ldc,
                          int n, int k) {
    const long count = static_cast<long>(n) * ldc;
    for (long q = 0; q < count; ++q) C[q] = X[q];
    subtractABtLower(A, lda, B, ldb, C, ldc, n, k);
}

}  // namespace factorCommon

// ------------------------------------------------------------------------------------------ MV with alpha

void tamber_MV_YM_aAX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m) {
    mvAX<-1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YM_aAX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m) {
    mvAX<-1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YP_aAX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m) {
    mvAX<+1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YP_aAX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m) {
    mvAX<+1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YM_aAtX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m) {
    mvAtX<-1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YM_aAtX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m) {
    mvAtX<-1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YP_aAtX(const float* A, int lda, const float* x, float* y, float alpha, int n, int m) {
    mvAtX<+1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_YP_aAtX(const double* A, int lda, const double* x, double* y, double alpha, int n, int m) {
    mvAtX<+1>(A, lda, x, y, alpha, n, m);
}
void tamber_MV_aAX_SYL(const float* A, int lda, const float* x, float* y, float alpha, int n) {
    mvSYL(A, lda, x, y, alpha, n);
}
void tamber_MV_aAX_SYL(const double* A, int lda, const double* x, double* y, double alpha, int n) {
    mvSYL(A, lda, x, y, alpha, n);
}

// ------------------------------------------------------------------------------------------ MV, float only

void tamber_MV_YM_AX(const float* A, int lda, const float* x, float* y, int n, int m) {
    mvAXPlain<-1>(A, lda, x, y, n, m);
}
void tamber_MV_YP_AX(const float* A, int lda, const float* x, float* y, int n, int m) {
    mvAXPlain<+1>(A, lda, x, y, n, m);
}
void tamber_MV_YM_AtX(const float* A, int lda, const float* x, float* y, int n, int m) {
    mvAtXPlain<-1>(A, lda, x, y, n, m);
}
void tamber_MV_YP_AtX(const float* A, int lda, const float* x, float* y, int n, int m) {
    mvAtXPlain<+1>(A, lda, x, y, n, m);
}

void tamber_MV_AX_SYL(const float* A, int lda, const float* x, float* y, int n) {
    for (int i = 0; i < n; ++i) {
        const float* Ai = A + at(i, lda, 0);
        const float xi = x[i];
        float yi = y[i] + Ai[i] * xi;
        for (int j = 0; j < i; ++j) {
            const float a = Ai[j];
            yi += a * x[j];  // y_i += a_ij x_j
            y[j] += a * xi;  // y_j += a_ij x_i
        }
        y[i] = yi;
    }
}

// ------------------------------------------------------------------------------------------------ triangular

void tamber_SV_TRIL(const float* L, int ld, float* x, int n) {
    for (int i = 0; i < n; ++i) {
        x[i] = x[i] / L[at(i, ld, i)];  // z_i = x_i / l_ii
        if (i + 1 < n) {
            const float* Lnext = L + at(i + 1, ld, 0);
            float xn = x[i + 1];
            for (int j = 0; j <= i; ++j) xn -= Lnext[j] * x[j];  // x_{i+1} -= l_{i+1,j} z_j
            x[i + 1] = xn;
        }
    }
}

void tamber_SV_TRIL_UD(const float* L, int ld, float* x, int n) {
    for (int i = 1; i < n; ++i) {
        const float* Li = L + at(i, ld, 0);
        float xi = x[i];
        for (int j = 0; j < i; ++j) xi -= Li[j] * x[j];  // x_i -= l_ij z_j
        x[i] = xi;
    }
}

void tamber_SV_TRILt(const float* L, int ld, float* x, int n) {
    for (int i = n - 1; i >= 0; --i) {
        const float* Li = L + at(i, ld, 0);
        const float xi = x[i] / Li[i];  // z_i = x_i / l_ii
        x[i] = xi;
        for (int j = 0; j < i; ++j) x[j] -= Li[j] * xi;  // x_j -= l_ij z_i
    }
}

void tamber_SM_UD(const float* L, int ldL, float* X, int /*ldX*/, int m, int n) {
    // Rows of X stepped by ldL (not ldX) and divided by diag(L): both kept, the factorization relies on them.
    for (int r = 0; r < m; ++r) tamber_SV_TRIL(L, ldL, X + at(r, ldL, 0), n);
}

// ------------------------------------------------------------------------------ sized kernels, fast form

namespace {

// copyBlock / copyBlockTransposed with both sizes fixed: unrolled moves.
template <unsigned int R, unsigned int C, bool kTransposed>
void copyBlockFixed(const double* __restrict V, double* __restrict W, unsigned long ld) {
    for (unsigned int a = 0; a < R; ++a) {
        for (unsigned int b = 0; b < C; ++b) {
            if (kTransposed) {
                W[a * ld + b] = V[a * C + b];
            } else {
                W[b * ld + a] = V[a * C + b];
            }
        }
    }
}

using CopyFixed = kernels::fast::BlockCopy;
constexpr unsigned int kCopyFixedMax = 6;

template <bool kTransposed, unsigned int... I>
constexpr std::array<CopyFixed, sizeof...(I)> copyBlockTable(std::integer_sequence<unsigned int, I...>) {
    return {{&copyBlockFixed<I / kCopyFixedMax + 1, I % kCopyFixedMax + 1, kTransposed>...}};
}

// [(rows − 1)·6 + cols − 1]
constexpr std::array<CopyFixed, kCopyFixedMax * kCopyFixedMax> copyBlocks[2] = {
    copyBlockTable<false>(std::make_integer_sequence<unsigned int, kCopyFixedMax * kCopyFixedMax>()),
    copyBlockTable<true>(std::make_integer_sequence<unsigned int, kCopyFixedMax * kCopyFixedMax>())};

}  // namespace

namespace kernels {
namespace fast {

void factorDiagonalBlock(double* W, unsigned int p, unsigned int s, double* d) {
    kernels::factorDiagonalBlock(W, p, s, d);
}
void factorDiagonalBlock(float* W, unsigned int p, unsigned int s, float* d) {
    kernels::factorDiagonalBlock(W, p, s, d);
}
bool factorDiagonalBlockFrom(const double* X, double* W, unsigned int p, unsigned int s, double* d,
                             double* recip) {
    return kernels::factorDiagonalBlock(W, p, s, d, static_cast<double*>(nullptr), X, recip);
}
bool factorDiagonalBlockFrom(const float* X, float* W, unsigned int p, unsigned int s, float* d,
                             float* recip) {
    return kernels::factorDiagonalBlock(W, p, s, d, static_cast<float*>(nullptr), X, recip);
}
void solveUnitDiagonal(const double* L, unsigned int p, double* W, unsigned int rows, unsigned int s) {
    kernels::solveUnitDiagonal(L, p, W, rows, s);
}
bool finishSmallBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip, const double* d) {
    return kernels::finishSmallBlock(L, W, LD, rows, s, recip, d);
}
bool finishSmallBlockFrom(const double* L, const double* X, double* W, double* LD, unsigned int rows,
                          unsigned int s, const double* recip, const double* d) {
    return kernels::finishSmallBlockFrom(L, X, W, LD, rows, s, recip, d);
}
bool factorDiagonalUpdated(const double* A, const double* B, unsigned int k, const double* X, double* W,
                           unsigned int p, unsigned int s, double* d, double* LD, double* recip, bool& good) {
    return kernels::factorDiagonalUpdated(A, B, k, X, W, p, s, d, LD, recip, good);
}
bool finishFrontBlock(const double* L, double* W, double* LD, unsigned int rows, unsigned int s,
                      const double* recip) {
    return kernels::finishFrontBlock(L, W, LD, rows, s, recip);
}
void scaleColumns(const double* X, const double* d, double* Y, unsigned int rows, unsigned int s,
                  unsigned int p) {
    kernels::scaleColumnsAnySize(X, d, Y, rows, s, p);
}
void scaleColumns(const float* X, const float* d, float* Y, unsigned int rows, unsigned int s,
                  unsigned int p) {
    kernels::scaleColumnsAnySize(X, d, Y, rows, s, p);
}
void subtractABtLower(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int k) {
    factorCommon::subtractABtLower(A, lda, B, ldb, C, ldc, n, k);
}
void subtractABtLower(const float* A, int lda, const float* B, int ldb, float* C, int ldc, int n, int k) {
    factorCommon::subtractABtLower(A, lda, B, ldb, C, ldc, n, k);
}
void subtractABtLowerFrom(const double* A, int lda, const double* B, int ldb, const double* X, double* C,
                          int ldc, int n, int k) {
    factorCommon::subtractABtLowerFrom(A, lda, B, ldb, X, C, ldc, n, k);
}
void subtractABtLowerFrom(const float* A, int lda, const float* B, int ldb, const float* X, float* C, int ldc,
                          int n, int k) {
    factorCommon::subtractABtLowerFrom(A, lda, B, ldb, X, C, ldc, n, k);
}
void forwardOffDiagonal(const double* B, unsigned int ld, const double* xi, unsigned int si, double* xj,
                        unsigned int sj) {
    kernels::forwardOffDiagonalStep(B, ld, xi, si, xj, sj);
}
void forwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    kernels::forwardDiagonalStep(U, ld, xj, sj);
}
void backwardDiagonal(const double* U, unsigned int ld, double* xj, unsigned int sj) {
    kernels::backwardDiagonalStep(U, ld, xj, sj);
}
void backwardOffDiagonal(const double* B, unsigned int ld, const double* xj, unsigned int sj, double* xi,
                         unsigned int si) {
    kernels::backwardOffDiagonalStep(B, ld, xj, sj, xi, si);
}

// ---------------------------------------------------------------------------------------------------------
// Products of a symmetric block-sparse matrix in the upper form with a vector, column by column.
// ---------------------------------------------------------------------------------------------------------

namespace {

// Where the entries of y stand in an upper-form pass: those at and after `ready` hold nothing yet and get
// their exact 0 just before their first term, as if y had been zeroed first; ready = ~0u reads all of y.
template <typename T>
inline void makeReady(T* y, unsigned int& ready, unsigned int end) {
    if (end <= ready) return;
    for (unsigned int p = ready; p < end; ++p) y[p] = T(0);
    ready = end;
}

// Off-diagonal tile K (the row-major view Bᵀ, SJ × SI, leading dimension ld) of a column whose x_j and y_j
// are in registers: y_i += B·x_j in memory, y_j += Bᵀ·x_i in `acc`, per entry in the order of
// addBothProducts. SI = 0: s_i at run time.
template <typename T, int SI, int SJ>
[[gnu::always_inline]] inline void bothProductsInRegisters(const T* __restrict K, unsigned int ld,
                                                           const T* __restrict xi, T* __restrict yi,
                                                           unsigned int siDynamic, const T (&xj)[SJ],
                                                           T (&acc)[SJ]) {
    if (SI > 0) {
        T v[SI > 0 ? SI : 1];
        _Pragma("GCC unroll 16") for (int q = 0; q < SI; ++q) v[q] = yi[q];
        _Pragma("GCC unroll 16") for (int r = 0; r < SJ; ++r) {
            const T* const k = K + static_cast<unsigned long>(r) * ld;
            const T s = xj[r];
            T a = acc[r];
            _Pragma("GCC unroll 16") for (int q = 0; q < SI; ++q) {
                v[q] += k[q] * s;   // y_i += B·x_j
                a += k[q] * xi[q];  // y_j += Bᵀ·x_i
            }
            acc[r] = a;
        }
        _Pragma("GCC unroll 16") for (int q = 0; q < SI; ++q) yi[q] = v[q];
        return;
    }
    _Pragma("GCC unroll 16") for (int r = 0; r < SJ; ++r) {
        const T* const k = K + static_cast<unsigned long>(r) * ld;
        const T s = xj[r];
        T a = acc[r];
        for (unsigned int q = 0; q < siDynamic; ++q) {
            yi[q] += k[q] * s;
            a += k[q] * xi[q];
        }
        acc[r] = a;
    }
}

// The same for a column of run-time size s_j (y_j in memory); SI = 0: s_i at run time as well.
template <typename T, int SI>
[[gnu::always_inline]] inline void bothProductsInMemory(const T* __restrict K, unsigned int ld,
                                                        const T* __restrict xi, const T* __restrict xj,
                                                        T* __restrict yi, T* __restrict yj,
                                                        unsigned int siDynamic, unsigned int sj) {
    if (SI > 0) {
        T v[SI > 0 ? SI : 1];
        _Pragma("GCC unroll 16") for (int q = 0; q < SI; ++q) v[q] = yi[q];
        for (unsigned int r = 0; r < sj; ++r) {
            const T* const k = K + static_cast<unsigned long>(r) * ld;
            const T s = xj[r];
            T a = yj[r];
            _Pragma("GCC unroll 16") for (int q = 0; q < SI; ++q) {
                v[q] += k[q] * s;
                a += k[q] * xi[q];
            }
            yj[r] = a;
        }
        _Pragma("GCC unroll 16") for (int q = 0; q < SI; ++q) yi[q] = v[q];
        return;
    }
    for (unsigned int r = 0; r < sj; ++r) {
        const T* const k = K + static_cast<unsigned long>(r) * ld;
        const T s = xj[r];
        T a = yj[r];
        for (unsigned int q = 0; q < siDynamic; ++q) {
            yi[q] += k[q] * s;
            a += k[q] * xi[q];
        }
        yj[r] = a;
    }
}

// The arrays of the matrix a pass reads.
template <typename T>
struct UpperMatrix {
    const T* const* tiles;
    const unsigned int* rowIndices;
    const unsigned int* colPointers;
    const unsigned int* sizes;
    const unsigned int* offsets;
    const unsigned int* strides;
};

// Column j of fixed size SJ ≤ 6 with tiles begin … diag (the diagonal tile): x_j and y_j stay in registers
// from the first tile to the diagonal one.
template <typename T, int SJ>
void upperColumnFixed(const UpperMatrix<T>& A, unsigned int j, const T* __restrict x, T* __restrict y,
                      unsigned int& ready) {
    const unsigned int begin = A.colPointers[j], diag = A.colPointers[j + 1] - 1;
    const unsigned int oj = A.offsets[j];
    T xj[SJ], acc[SJ];
    _Pragma("GCC unroll 16") for (int r = 0; r < SJ; ++r) xj[r] = x[oj + r];
    if (ready <= oj) {
        makeReady(y, ready, oj);
        _Pragma("GCC unroll 16") for (int r = 0; r < SJ; ++r) acc[r] = T(0);
        ready = oj + SJ;
    } else {
        makeReady(y, ready, oj + SJ);
        _Pragma("GCC unroll 16") for (int r = 0; r < SJ; ++r) acc[r] = y[oj + r];
    }
    for (unsigned int b = begin; b < diag; ++b) {
        const unsigned int i = A.rowIndices[b];
        const unsigned int oi = A.offsets[i], si = A.sizes[i];
        makeReady(y, ready, oi + si);
        const T* const K = A.tiles[b];
        const unsigned int ld = A.strides[i];
        const T* const xi = x + oi;
        T* const yi = y + oi;
        switch (si) {
            case 1:
                bothProductsInRegisters<T, 1, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
            case 2:
                bothProductsInRegisters<T, 2, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
            case 3:
                bothProductsInRegisters<T, 3, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
            case 4:
                bothProductsInRegisters<T, 4, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
            case 5:
                bothProductsInRegisters<T, 5, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
            case 6:
                bothProductsInRegisters<T, 6, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
            default:
                bothProductsInRegisters<T, 0, SJ>(K, ld, xi, yi, si, xj, acc);
                break;
        }
    }
    // The diagonal tile in the order of addSymmetricProduct: row i takes its diagonal term and the terms
    // j < i, and gives k_ij·x_i to each y_j.
    const T* const K = A.tiles[diag];
    const unsigned int ld = A.strides[j];
    _Pragma("GCC unroll 16") for (int i = 0; i < SJ; ++i) {
        const T* const k = K + static_cast<unsigned long>(i) * ld;
        const T s = xj[i];
        T a = acc[i] + k[i] * s;
        _Pragma("GCC unroll 16") for (int q = 0; q < i; ++q) {
            a += k[q] * xj[q];
            acc[q] += k[q] * s;
        }
        acc[i] = a;
    }
    _Pragma("GCC unroll 16") for (int r = 0; r < SJ; ++r) y[oj + r] = acc[r];
}

// Column j of any size, y_j in memory.
template <typename T>
void upperColumnAnySize(const UpperMatrix<T>& A, unsigned int j, const T* __restrict x, T* __restrict y,
                        unsigned int& ready) {
    const unsigned int begin = A.colPointers[j], diag = A.colPointers[j + 1] - 1;
    const unsigned int oj = A.offsets[j], sj = A.sizes[j];
    makeReady(y, ready, oj + sj);
    const T* const xj = x + oj;
    T* const yj = y + oj;
    for (unsigned int b = begin; b < diag; ++b) {
        const unsigned int i = A.rowIndices[b];
        const unsigned int oi = A.offsets[i], si = A.sizes[i];
        makeReady(y, ready, oi + si);
        const T* const K = A.tiles[b];
        const unsigned int ld = A.strides[i];
        const T* const xi = x + oi;
        T* const yi = y + oi;
        switch (si) {
            case 1:
                bothProductsInMemory<T, 1>(K, ld, xi, xj, yi, yj, si, sj);
                break;
            case 2:
                bothProductsInMemory<T, 2>(K, ld, xi, xj, yi, yj, si, sj);
                break;
            case 3:
                bothProductsInMemory<T, 3>(K, ld, xi, xj, yi, yj, si, sj);
                break;
            case 4:
                bothProductsInMemory<T, 4>(K, ld, xi, xj, yi, yj, si, sj);
                break;
            case 5:
                bothProductsInMemory<T, 5>(K, ld, xi, xj, yi, yj, si, sj);
                break;
            case 6:
                bothProductsInMemory<T, 6>(K, ld, xi, xj, yi, yj, si, sj);
                break;
            default:
                bothProductsInMemory<T, 0>(K, ld, xi, xj, yi, yj, si, sj);
                break;
        }
    }
    const T* const K = A.tiles[diag];
    const unsigned long ld = A.strides[j];
    for (unsigned int i = 0; i < sj; ++i) {
        const T* const k = K + i * ld;
        const T s = xj[i];
        T a = yj[i] + k[i] * s;
        for (unsigned int q = 0; q < i; ++q) {
            a += k[q] * xj[q];
            yj[q] += k[q] * s;
        }
        yj[i] = a;
    }
}

template <typename T>
unsigned int upperProducts(const UpperMatrix<T>& A, unsigned int firstColumn, unsigned int endColumn,
                           const T* x, T* y, unsigned int ready, unsigned long prefetchAhead) {
    // The lines from `prefetched` up to prefetchAhead bytes past the column's diagonal tile are requested
    // before the column runs: the tiles of a matrix filled column by column lie in the order the pass reads
    // them, and on a large matrix the hardware prefetcher alone leaves the pass waiting for them.
    // Addresses as integers: the lines ahead may lie past the end of the value array (a prefetch of them is
    // harmless, a pointer to them is not).
    std::uintptr_t prefetched = 0;
    for (unsigned int j = firstColumn; j < endColumn; ++j) {
        if (prefetchAhead > 0 && A.colPointers[j + 1] > A.colPointers[j]) {
            const std::uintptr_t ahead =
                reinterpret_cast<std::uintptr_t>(A.tiles[A.colPointers[j + 1] - 1]) + prefetchAhead;
            if (prefetched == 0 || ahead < prefetched || ahead - prefetched > 4096) prefetched = ahead - 64;
            for (; prefetched < ahead; prefetched += 64)
                __builtin_prefetch(reinterpret_cast<const void*>(prefetched), 0, 3);
        }
        if (A.colPointers[j + 1] == A.colPointers[j]) {  // an empty column adds nothing
            makeReady(y, ready, A.offsets[j] + A.sizes[j]);
            continue;
        }
        switch (A.sizes[j]) {
            case 1:
                upperColumnFixed<T, 1>(A, j, x, y, ready);
                break;
            case 2:
                upperColumnFixed<T, 2>(A, j, x, y, ready);
                break;
            case 3:
                upperColumnFixed<T, 3>(A, j, x, y, ready);
                break;
            case 4:
                upperColumnFixed<T, 4>(A, j, x, y, ready);
                break;
            case 5:
                upperColumnFixed<T, 5>(A, j, x, y, ready);
                break;
            case 6:
                upperColumnFixed<T, 6>(A, j, x, y, ready);
                break;
            default:
                upperColumnAnySize<T>(A, j, x, y, ready);
                break;
        }
    }
    return ready;
}

}  // namespace

unsigned int addUpperProducts(const double* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const double* x, double* y,
                              unsigned int ready, unsigned long prefetchAhead) {
    const UpperMatrix<double> A{tiles, rowIndices, colPointers, sizes, offsets, strides};
    return upperProducts(A, firstColumn, endColumn, x, y, ready, prefetchAhead);
}
unsigned int addUpperProducts(const float* const* tiles, const unsigned int* rowIndices,
                              const unsigned int* colPointers, const unsigned int* sizes,
                              const unsigned int* offsets, const unsigned int* strides,
                              unsigned int firstColumn, unsigned int endColumn, const float* x, float* y,
                              unsigned int ready, unsigned long prefetchAhead) {
    const UpperMatrix<float> A{tiles, rowIndices, colPointers, sizes, offsets, strides};
    return upperProducts(A, firstColumn, endColumn, x, y, ready, prefetchAhead);
}

BlockCopy blockCopy(unsigned int rows, unsigned int cols, bool transposed) {
    if (rows - 1 < kCopyFixedMax && cols - 1 < kCopyFixedMax)
        return copyBlocks[transposed ? 1 : 0][(rows - 1) * kCopyFixedMax + cols - 1];
    return nullptr;
}

void copyBlock(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld) {
    if (rows - 1 < kCopyFixedMax && cols - 1 < kCopyFixedMax) {
        copyBlocks[0][(rows - 1) * kCopyFixedMax + cols - 1](V, W, ld);
        return;
    }
    reference::copyBlock(V, rows, cols, W, ld);
}

void copyBlockTransposed(const double* V, unsigned int rows, unsigned int cols, double* W, unsigned int ld) {
    if (rows - 1 < kCopyFixedMax && cols - 1 < kCopyFixedMax) {
        copyBlocks[1][(rows - 1) * kCopyFixedMax + cols - 1](V, W, ld);
        return;
    }
    reference::copyBlockTransposed(V, rows, cols, W, ld);
}

}  // namespace fast
}  // namespace kernels

}  // namespace kivTamber
