// Packed solve steps of the double solves (internal to the library; part of the Kernels unit, declared for
// the tests in include/SolveStorage.h, namespace kernels::packed). They run the paired steps of
// src/KernelsFixed.h on the packed tiles of SolveStorage: a tile without padding (leading dimension s_i) and
// of each diagonal tile only its strict upper triangle. Every entry receives the same operations in the same
// order as there; where the padded tile holds a zero (the second lane of an odd size's last pair, a padding
// column) the packed form multiplies by a zero of its own, so that a non-finite value of x spreads exactly
// as it does through the tiles. Kernels_test and SolveStorage_test compare the bits with the paired steps.
//
// Only SSE2, as in src/KernelsFixed.h.
#ifndef KIVTAMBER_SRC_KERNELSSOLVE_H
#define KIVTAMBER_SRC_KERNELSSOLVE_H

#include <emmintrin.h>

#include "KernelsFixed.h"

namespace kivTamber {
namespace kernels {
namespace packedSteps {

// (c[q], c[q+1]) of a packed column of length s, with 0 in place of c[q+1] when q + 1 = s.
inline __m128d loadPair(const double* c, unsigned int q, unsigned int s) {
    return q + 1 < s ? _mm_loadu_pd(c + q) : _mm_load_sd(c + q);
}

// x_j ← x_j − Bᵀ·x_i, B s_i × s_j with leading dimension s_i. Per pair of r: a0 (column r) and a1 (column
// r+1, zero for the padding column of an odd s_j) summed over the pairs of q, then x_j(r) −= laneSum(a0),
// x_j(r+1) −= laneSum(a1). SI, SJ > 0 fix the sizes at compile time; 0 takes them from si, sj.
template <int SI, int SJ>
inline void forwardOffDiagonal(const double* B, const double* xi, unsigned int si, double* xj,
                               unsigned int sj) {
    if (SI > 0) si = SI;
    if (SJ > 0) sj = SJ;
    const __m128d zero = _mm_setzero_pd();
    KIVTAMBER_UNROLL
    for (unsigned int r = 0; r < sj; r += 2) {
        const double* b0 = B + static_cast<unsigned long>(r) * si;
        const double* b1 = b0 + si;
        const bool pad = r + 1 == sj;
        __m128d a0 = _mm_setzero_pd(), a1 = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (unsigned int q = 0; q < si; q += 2) {
            const __m128d v = _mm_loadu_pd(xi + q);
            a0 = _mm_add_pd(a0, _mm_mul_pd(loadPair(b0, q, si), v));               // B(q, r)·x_i(q)
            a1 = _mm_add_pd(a1, _mm_mul_pd(pad ? zero : loadPair(b1, q, si), v));  // B(q, r+1)·x_i(q)
        }
        _mm_storeu_pd(xj + r, _mm_set_pd(xj[r + 1] - laneSum(a1), xj[r] - laneSum(a0)));
    }
}

// x_j ← U⁻ᵀ·x_j with the packed strict upper triangle T of the unit upper U_jj: per pair (r, r+1) the sums
// over the pairs q < r, then x_j(r+1) also takes U(r, r+1)·x_j(r); the padding row of an odd s_j as zeros.
template <int SJ>
inline void forwardDiagonal(const double* T, double* xj, unsigned int sj) {
    if (SJ > 0) sj = SJ;
    const __m128d zero = _mm_setzero_pd();
    KIVTAMBER_UNROLL
    for (unsigned int r = 0; r < sj; r += 2) {
        const double* u0 = T + static_cast<unsigned long>(r) * (r - (r > 0)) / 2;  // column r: r entries
        const double* u1 = T + static_cast<unsigned long>(r + 1) * r / 2;          // column r+1: r+1 entries
        const bool pad = r + 1 == sj;
        __m128d a0 = _mm_setzero_pd(), a1 = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (unsigned int q = 0; q < r; q += 2) {
            const __m128d v = _mm_loadu_pd(xj + q);
            a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(u0 + q), v));
            a1 = _mm_add_pd(a1, _mm_mul_pd(pad ? zero : _mm_loadu_pd(u1 + q), v));
        }
        const double x0 = xj[r] - laneSum(a0);
        const double x1 = xj[r + 1] - (laneSum(a1) + (pad ? 0.0 : u1[r]) * x0);
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));
    }
}

// x_j ← U⁻¹·x_j with the packed strict upper triangle T (unit diagonal, not divided by): an odd top row
// alone, then the pairs (r, r+1) from the bottom, each updating the rows above it two at a time.
template <int SJ>
inline void backwardDiagonal(const double* T, double* xj, unsigned int sj) {
    if (SJ > 0) sj = SJ;
    unsigned int r = sj;
    if (sj & 1u) {
        r = sj - 1;
        const double* u0 = T + static_cast<unsigned long>(r) * (r - (r > 0)) / 2;
        const __m128d s0 = _mm_set1_pd(xj[r]);
        KIVTAMBER_UNROLL
        for (unsigned int q = 0; q < r; q += 2)
            _mm_storeu_pd(xj + q, _mm_sub_pd(_mm_loadu_pd(xj + q), _mm_mul_pd(_mm_loadu_pd(u0 + q), s0)));
    }
    KIVTAMBER_UNROLL
    while (r >= 2) {
        r -= 2;
        const double* u0 = T + static_cast<unsigned long>(r) * (r - (r > 0)) / 2;
        const double* u1 = T + static_cast<unsigned long>(r + 1) * r / 2;
        const double x1 = xj[r + 1];
        const double x0 = xj[r] - u1[r] * x1;
        _mm_storeu_pd(xj + r, _mm_set_pd(x1, x0));
        const __m128d s0 = _mm_set1_pd(x0);
        const __m128d s1 = _mm_set1_pd(x1);
        KIVTAMBER_UNROLL
        for (unsigned int q = 0; q < r; q += 2) {
            const __m128d t =
                _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(u0 + q), s0), _mm_mul_pd(_mm_loadu_pd(u1 + q), s1));
            _mm_storeu_pd(xj + q, _mm_sub_pd(_mm_loadu_pd(xj + q), t));
        }
    }
}

// x_i ← x_i − B·x_j, B s_i × s_j with leading dimension s_i: per pair of q one sum over the pairs of r
// (column r, then column r+1, zero for the padding column of an odd s_j), subtracted once.
template <int SI, int SJ>
inline void backwardOffDiagonal(const double* B, const double* xj, unsigned int sj, double* xi,
                                unsigned int si) {
    if (SI > 0) si = SI;
    if (SJ > 0) sj = SJ;
    const __m128d zero = _mm_setzero_pd();
    KIVTAMBER_UNROLL
    for (unsigned int q = 0; q < si; q += 2) {
        __m128d acc = _mm_setzero_pd();
        KIVTAMBER_UNROLL
        for (unsigned int r = 0; r < sj; r += 2) {
            const double* b0 = B + static_cast<unsigned long>(r) * si;
            const bool pad = r + 1 == sj;
            acc = _mm_add_pd(acc, _mm_mul_pd(loadPair(b0, q, si), _mm_set1_pd(xj[r])));
            acc = _mm_add_pd(acc, _mm_mul_pd(pad ? zero : loadPair(b0 + si, q, si), _mm_set1_pd(xj[r + 1])));
        }
        _mm_storeu_pd(xi + q, _mm_sub_pd(_mm_loadu_pd(xi + q), acc));
    }
}

}  // namespace packedSteps

// The packed steps: both sizes fixed up to 6, the inner size (diagonal: the size) fixed up to 12, the loops
// above otherwise.
using PackedOffDiagonal = void (*)(const double*, const double*, unsigned int, double*, unsigned int);
using PackedDiagonal = void (*)(const double*, double*, unsigned int);

template <std::size_t... I>
constexpr std::array<PackedOffDiagonal, sizeof...(I)> packedForwardTable(std::index_sequence<I...>) {
    return {{&packedSteps::forwardOffDiagonal<int(I) / 6 + 1, int(I) % 6 + 1>...}};
}
template <std::size_t... I>
constexpr std::array<PackedOffDiagonal, sizeof...(I)> packedBackwardTable(std::index_sequence<I...>) {
    return {{&packedSteps::backwardOffDiagonal<int(I) / 6 + 1, int(I) % 6 + 1>...}};
}

// The steps with only the inner size fixed (the q of the forward step, the r of the backward step), 1 … 12.
template <std::size_t... I>
constexpr std::array<PackedOffDiagonal, sizeof...(I)> packedForwardInner(std::index_sequence<I...>) {
    return {{&packedSteps::forwardOffDiagonal<int(I) + 1, 0>...}};
}
template <std::size_t... I>
constexpr std::array<PackedOffDiagonal, sizeof...(I)> packedBackwardInner(std::index_sequence<I...>) {
    return {{&packedSteps::backwardOffDiagonal<0, int(I) + 1>...}};
}
template <std::size_t... I>
constexpr std::array<PackedDiagonal, sizeof...(I)> packedForwardDiagonalTable(std::index_sequence<I...>) {
    return {{&packedSteps::forwardDiagonal<int(I) + 1>...}};
}
template <std::size_t... I>
constexpr std::array<PackedDiagonal, sizeof...(I)> packedBackwardDiagonalTable(std::index_sequence<I...>) {
    return {{&packedSteps::backwardDiagonal<int(I) + 1>...}};
}

// x_j ← x_j − Bᵀ·x_i (packed B, s_i × s_j).
inline void packedForwardOffDiagonal(const double* B, const double* xi, unsigned int si, double* xj,
                                     unsigned int sj) {
    static constexpr std::array<PackedOffDiagonal, 36> table =
        packedForwardTable(std::make_index_sequence<36>());
    static constexpr std::array<PackedOffDiagonal, 12> inner =
        packedForwardInner(std::make_index_sequence<12>());
    if (si - 1 < 6 && sj - 1 < 6) return table[(si - 1) * 6 + (sj - 1)](B, xi, si, xj, sj);
    if (si - 1 < 12) return inner[si - 1](B, xi, si, xj, sj);
    packedSteps::forwardOffDiagonal<0, 0>(B, xi, si, xj, sj);
}
// x_i ← x_i − B·x_j (packed B, s_i × s_j).
inline void packedBackwardOffDiagonal(const double* B, const double* xj, unsigned int sj, double* xi,
                                      unsigned int si) {
    static constexpr std::array<PackedOffDiagonal, 36> table =
        packedBackwardTable(std::make_index_sequence<36>());
    static constexpr std::array<PackedOffDiagonal, 12> inner =
        packedBackwardInner(std::make_index_sequence<12>());
    if (si - 1 < 6 && sj - 1 < 6) return table[(si - 1) * 6 + (sj - 1)](B, xj, sj, xi, si);
    if (sj - 1 < 12) return inner[sj - 1](B, xj, sj, xi, si);
    packedSteps::backwardOffDiagonal<0, 0>(B, xj, sj, xi, si);
}
// x_j ← U⁻ᵀ·x_j (packed strict upper triangle T).
inline void packedForwardDiagonal(const double* T, double* xj, unsigned int sj) {
    static constexpr std::array<PackedDiagonal, 12> table =
        packedForwardDiagonalTable(std::make_index_sequence<12>());
    if (sj - 1 < 12) return table[sj - 1](T, xj, sj);
    packedSteps::forwardDiagonal<0>(T, xj, sj);
}
// x_j ← U⁻¹·x_j (packed strict upper triangle T).
inline void packedBackwardDiagonal(const double* T, double* xj, unsigned int sj) {
    static constexpr std::array<PackedDiagonal, 12> table =
        packedBackwardDiagonalTable(std::make_index_sequence<12>());
    if (sj - 1 < 12) return table[sj - 1](T, xj, sj);
    packedSteps::backwardDiagonal<0>(T, xj, sj);
}

}  // namespace kernels
}  // namespace kivTamber

#endif  // KIVTAMBER_SRC_KERNELSSOLVE_H
