// Throughput of the double outer-product kernel C -= A·Bᵀ (n = m = k) on aligned, zero-padded tiles that stay
// in cache, beside "ceiling" loops: other two-lane (SSE2, no FMA) 2×2 register-blocked variants of the same
// product, written here only to show how much of the attainable rate the library kernel reaches.
//
// Reported counter GFLOP/s counts 2·n·m·k flops per call (logical sizes; odd sizes do padded work on top).
// Run: KernelsBench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <emmintrin.h>
#include <kiv/ByteAllocator.h>
#include <xmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>

#include "Kernels.h"
#include "kiv/Timer.h"

namespace {

using Kernel = void (*)(const double*, int, const double*, int, double*, int, int, int, int);

// Sum of the two lanes of s0 into lane 0 and of s1 into lane 1.
inline __m128d pairSum(__m128d s0, __m128d s1) {
    return _mm_add_pd(_mm_unpacklo_pd(s0, s1), _mm_unpackhi_pd(s0, s1));
}

// Ceiling 1: the library's loop without the prefetch of C.
void ceilingNoPrefetch(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                       int k) {
    for (int i = 0; i < n; i += 2) {
        const double *A0 = A + i * lda, *A1 = A0 + lda;
        double *C0 = C + i * ldc, *C1 = C0 + ldc;
        for (int j = 0; j < m; j += 2) {
            const double *B0 = B + j * ldb, *B1 = B0 + ldb;
            __m128d s00 = _mm_setzero_pd(), s01 = s00, s10 = s00, s11 = s00;
            for (int p = 0; p < k; p += 2) {
                const __m128d a0 = _mm_load_pd(A0 + p), a1 = _mm_load_pd(A1 + p);
                const __m128d b0 = _mm_load_pd(B0 + p), b1 = _mm_load_pd(B1 + p);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
            }
            _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(C0 + j), pairSum(s00, s01)));
            _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(C1 + j), pairSum(s10, s11)));
        }
    }
}

// Ceiling 2: p unrolled by four doubles into eight accumulators (two per 2×2 entry), which halves the length
// of each add dependency chain; a trailing pair handles k ≡ 2 (mod 4) after padding.
void ceilingAcc8(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                 int k) {
    const int kp = (k + 1) & ~1, k4 = kp & ~3;
    for (int i = 0; i < n; i += 2) {
        const double *A0 = A + i * lda, *A1 = A0 + lda;
        double *C0 = C + i * ldc, *C1 = C0 + ldc;
        for (int j = 0; j < m; j += 2) {
            const double *B0 = B + j * ldb, *B1 = B0 + ldb;
            __m128d s00 = _mm_setzero_pd(), s01 = s00, s10 = s00, s11 = s00;
            __m128d t00 = s00, t01 = s00, t10 = s00, t11 = s00;
            int p = 0;
            for (; p < k4; p += 4) {
                const __m128d a0 = _mm_load_pd(A0 + p), a1 = _mm_load_pd(A1 + p);
                const __m128d b0 = _mm_load_pd(B0 + p), b1 = _mm_load_pd(B1 + p);
                const __m128d c0 = _mm_load_pd(A0 + p + 2), c1 = _mm_load_pd(A1 + p + 2);
                const __m128d d0 = _mm_load_pd(B0 + p + 2), d1 = _mm_load_pd(B1 + p + 2);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
                t00 = _mm_add_pd(t00, _mm_mul_pd(c0, d0));
                t01 = _mm_add_pd(t01, _mm_mul_pd(c0, d1));
                t10 = _mm_add_pd(t10, _mm_mul_pd(c1, d0));
                t11 = _mm_add_pd(t11, _mm_mul_pd(c1, d1));
            }
            if (p < kp) {
                const __m128d a0 = _mm_load_pd(A0 + p), a1 = _mm_load_pd(A1 + p);
                const __m128d b0 = _mm_load_pd(B0 + p), b1 = _mm_load_pd(B1 + p);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
            }
            s00 = _mm_add_pd(s00, t00), s01 = _mm_add_pd(s01, t01);
            s10 = _mm_add_pd(s10, t10), s11 = _mm_add_pd(s11, t11);
            _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(C0 + j), pairSum(s00, s01)));
            _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(C1 + j), pairSum(s10, s11)));
        }
    }
}

// Ceiling 3: as ceiling 1 with the p loop unrolled by four doubles but the same four accumulators (fewer loop
// branches, same dependency chains).
void ceilingUnroll(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                   int k) {
    const int kp = (k + 1) & ~1, k4 = kp & ~3;
    for (int i = 0; i < n; i += 2) {
        const double *A0 = A + i * lda, *A1 = A0 + lda;
        double *C0 = C + i * ldc, *C1 = C0 + ldc;
        for (int j = 0; j < m; j += 2) {
            const double *B0 = B + j * ldb, *B1 = B0 + ldb;
            __m128d s00 = _mm_setzero_pd(), s01 = s00, s10 = s00, s11 = s00;
            int p = 0;
            for (; p < k4; p += 4) {
                for (int q = p; q < p + 4; q += 2) {
                    const __m128d a0 = _mm_load_pd(A0 + q), a1 = _mm_load_pd(A1 + q);
                    const __m128d b0 = _mm_load_pd(B0 + q), b1 = _mm_load_pd(B1 + q);
                    s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                    s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                    s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                    s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
                }
            }
            if (p < kp) {
                const __m128d a0 = _mm_load_pd(A0 + p), a1 = _mm_load_pd(A1 + p);
                const __m128d b0 = _mm_load_pd(B0 + p), b1 = _mm_load_pd(B1 + p);
                s00 = _mm_add_pd(s00, _mm_mul_pd(a0, b0));
                s01 = _mm_add_pd(s01, _mm_mul_pd(a0, b1));
                s10 = _mm_add_pd(s10, _mm_mul_pd(a1, b0));
                s11 = _mm_add_pd(s11, _mm_mul_pd(a1, b1));
            }
            _mm_store_pd(C0 + j, _mm_sub_pd(_mm_load_pd(C0 + j), pairSum(s00, s01)));
            _mm_store_pd(C1 + j, _mm_sub_pd(_mm_load_pd(C1 + j), pairSum(s10, s11)));
        }
    }
}

// Three aligned n×n tiles padded to an even stride, padding zero, A and B random in [-1, 1], C zero.
struct Tiles {
    explicit Tiles(int n) : ld((n + 1) & ~1), count(static_cast<std::size_t>(ld) * ld) {
        A = kiv::allocateArray<double>(count);
        B = kiv::allocateArray<double>(count);
        C = kiv::allocateArray<double>(count);
        std::mt19937 gen(12345);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (int i = 0; i < ld; ++i)
            for (int j = 0; j < ld; ++j) {
                A[i * ld + j] = i < n && j < n ? u(gen) : 0.0;
                B[i * ld + j] = i < n && j < n ? u(gen) : 0.0;
            }
        std::memset(C, 0, count * sizeof(double));
    }
    ~Tiles() {
        kiv::deallocateArray(A, count);
        kiv::deallocateArray(B, count);
        kiv::deallocateArray(C, count);
    }
    int ld;
    std::size_t count;
    double *A, *B, *C;
};

// A variant must agree with the library kernel (up to summation order) before it is timed.
bool agreesWithLibrary(Kernel kernel, int n) {
    Tiles ours(n), theirs(n);
    kivTamber::tamber_MM_CM_ABt(ours.A, ours.ld, ours.B, ours.ld, ours.C, ours.ld, n, n, n);
    kernel(theirs.A, theirs.ld, theirs.B, theirs.ld, theirs.C, theirs.ld, n, n, n);
    for (std::size_t i = 0; i < ours.count; ++i)
        if (std::fabs(ours.C[i] - theirs.C[i]) > 1e-12 * n) return false;
    return true;
}

void run(benchmark::State& state, Kernel kernel) {
    const int n = static_cast<int>(state.range(0));
    if (!agreesWithLibrary(kernel, n)) {
        state.SkipWithError("variant disagrees with tamber_MM_CM_ABt");
        return;
    }
    Tiles t(n);
    for (auto _ : state) {
        kernel(t.A, t.ld, t.B, t.ld, t.C, t.ld, n, n, n);
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(t.C[0]);
    state.counters["GFLOP/s"] = benchmark::Counter(
        2.0 * n * n * n * static_cast<double>(state.iterations()) * 1e-9, benchmark::Counter::kIsRate);
}

void libraryKernel(const double* A, int lda, const double* B, int ldb, double* C, int ldc, int n, int m,
                   int k) {
    kivTamber::tamber_MM_CM_ABt(A, lda, B, ldb, C, ldc, n, m, k);
}

void BM_MM_CM_ABt(benchmark::State& state) {
    run(state, libraryKernel);
}
void BM_Ceiling_NoPrefetch(benchmark::State& state) {
    run(state, ceilingNoPrefetch);
}
void BM_Ceiling_Unroll4(benchmark::State& state) {
    run(state, ceilingUnroll);
}
void BM_Ceiling_Acc8(benchmark::State& state) {
    run(state, ceilingAcc8);
}

#define KIVT_SIZES ->Arg(2)->Arg(3)->Arg(4)->Arg(6)->Arg(8)->Arg(12)->Arg(64)
BENCHMARK(BM_MM_CM_ABt) KIVT_SIZES;
BENCHMARK(BM_Ceiling_NoPrefetch) KIVT_SIZES;
BENCHMARK(BM_Ceiling_Unroll4) KIVT_SIZES;
BENCHMARK(BM_Ceiling_Acc8) KIVT_SIZES;

// ---------------------------------------------------------------------------------------------------------
// The size-specialised kernels of the block factorization at every block size 1 … 12, fast form (the
// library's) beside the plain reference form: the dense L·D·Lᵀ of a diagonal block (s³/3 flops counted;
// each call first restores the input tile, a copy of p² doubles that is part of the time) and the finish of
// an s × s off-diagonal block (triangular solve with the unit diagonal block, scaling by the reciprocal
// pivots, L·D: s²(s − 1) + 2s² flops).
// ---------------------------------------------------------------------------------------------------------

struct SizedTiles {
    explicit SizedTiles(int size) : s(size), p((size + 1) & ~1) {
        const std::size_t tile = static_cast<std::size_t>(p) * p;
        raw = kiv::allocateArray<double>(7 * tile + 4 * p + 2);
        std::memset(raw, 0, (7 * tile + 4 * p + 2) * sizeof(double));
        double* base = raw + (reinterpret_cast<std::uintptr_t>(raw) % 16 ? 1 : 0);
        W0 = base, W = W0 + tile, L = W + tile, X0 = L + tile, X = X0 + tile, LD = X + tile, d = LD + tile,
        recip = d + p, dOut = recip + p, recipOut = dOut + p;
        std::mt19937 gen(s);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (int r = 0; r < s; ++r)
            for (int c = 0; c <= r; ++c) W0[r * p + c] = c == r ? 4.0 + s : u(gen);  // diagonally dominant
        for (int r = 0; r < s; ++r)
            for (int c = 0; c < s; ++c) {
                if (c < r) L[r * p + c] = u(gen);
                X0[r * p + c] = u(gen);
            }
        for (int c = 0; c < s; ++c) d[c] = 1.0 + 0.5 * u(gen), recip[c] = 1.0 / d[c];
    }
    ~SizedTiles() { kiv::deallocateArray(raw, 7 * static_cast<std::size_t>(p) * p + 4 * p + 2); }
    SizedTiles(const SizedTiles&) = delete;
    SizedTiles& operator=(const SizedTiles&) = delete;
    int s, p;
    double* raw;
    double *W0, *W, *L, *X0, *X, *LD, *d, *recip, *dOut, *recipOut;
};

template <bool Fast>
void BM_FactorDiagonal(benchmark::State& state) {
    const int s = static_cast<int>(state.range(0));
    SizedTiles t(s);
    const std::size_t bytes = static_cast<std::size_t>(t.p) * t.p * sizeof(double);
    for (auto _ : state) {
        std::memcpy(t.W, t.W0, bytes);
        if (Fast) {
            kivTamber::kernels::fast::factorDiagonalBlock(t.W, t.p, s, t.d);
        } else {
            kivTamber::kernels::reference::factorDiagonalBlock(t.W, t.p, s, t.d);
        }
        benchmark::ClobberMemory();
    }
    state.counters["GFLOP/s"] = benchmark::Counter(
        s * s * s / 3.0 * static_cast<double>(state.iterations()) * 1e-9, benchmark::Counter::kIsRate);
}

template <bool Fast>
void BM_FinishOffDiagonal(benchmark::State& state) {
    const int s = static_cast<int>(state.range(0));
    SizedTiles t(s);
    const std::size_t bytes = static_cast<std::size_t>(t.p) * t.p * sizeof(double);
    for (auto _ : state) {
        std::memcpy(t.X, t.X0, bytes);
        bool done = Fast
                        ? kivTamber::kernels::fast::finishSmallBlock(t.L, t.X, t.LD, s, s, t.recip, t.d)
                        : kivTamber::kernels::reference::finishSmallBlock(t.L, t.X, t.LD, s, s, t.recip, t.d);
        if (!done) {
            kivTamber::kernels::fast::solveUnitDiagonal(t.L, t.p, t.X, s, s);
            kivTamber::kernels::reference::scaleColumns(t.X, t.recip, t.X, s, s, t.p);
            kivTamber::kernels::reference::scaleColumns(t.X, t.d, t.LD, s, s, t.p);
        }
        benchmark::ClobberMemory();
    }
    state.counters["GFLOP/s"] =
        benchmark::Counter((s * s * (s - 1.0) + 2.0 * s * s) * static_cast<double>(state.iterations()) * 1e-9,
                           benchmark::Counter::kIsRate);
}

// One block row of a path-shaped factor (a chain) at every size 1 … 12, with the library's kernels as the
// serial factorization calls them: the finish of the s × s block L(i, j) read from its input tile, then the
// update of the diagonal block by L(i, j)·LD(i, j)ᵀ and its factorization with the reciprocal pivots (fused
// for s = 2 … 6, in two steps otherwise). Flops: s²(s − 1) + 2s² (finish) + s²(s + 1) (lower update) + s³/3.
// Dependent: each row's input takes the last pivot of the row before (a(0, 0) + 0·d), so rows cannot
// overlap and the time is the row's latency, as in a factorization whose elimination tree is a path;
// otherwise consecutive rows overlap as far as the core allows (the row's cost in throughput). The time per
// iteration is the time per block row.
template <bool Dependent>
void BM_ChainRow(benchmark::State& state) {
    namespace fast = kivTamber::kernels::fast;
    const int s = static_cast<int>(state.range(0));
    SizedTiles t(s);
    const double a00 = t.X0[0];
    for (auto _ : state) {
        if (Dependent) t.X0[0] = a00 + 0.0 * t.dOut[s - 1];
        if (!fast::finishSmallBlockFrom(t.L, t.X0, t.X, t.LD, s, s, t.recip, t.d)) {
            std::memcpy(t.X, t.X0, static_cast<std::size_t>(s) * t.p * sizeof(double));
            fast::solveUnitDiagonal(t.L, t.p, t.X, s, s);
            kivTamber::kernels::reference::scaleColumns(t.X, t.recip, t.X, s, s, t.p);
            kivTamber::kernels::reference::scaleColumns(t.X, t.d, t.LD, s, s, t.p);
        }
        bool good = false;
        if (!fast::factorDiagonalUpdated(t.X, t.LD, s, t.W0, t.W, t.p, s, t.dOut, nullptr, t.recipOut,
                                         good)) {
            fast::subtractABtLowerFrom(t.X, t.p, t.LD, t.p, t.W0, t.W, t.p, s, s);
            good = fast::factorDiagonalBlockFrom(t.W, t.W, t.p, s, t.dOut, t.recipOut);
        }
        benchmark::DoNotOptimize(good);
        benchmark::ClobberMemory();
    }
    const double flops = s * s * (s - 1.0) + 2.0 * s * s + s * s * (s + 1.0) + s * s * s / 3.0;
    state.counters["GFLOP/s"] = benchmark::Counter(flops * static_cast<double>(state.iterations()) * 1e-9,
                                                   benchmark::Counter::kIsRate);
}

#define KIVT_BLOCK_SIZES ->DenseRange(1, 12)
BENCHMARK(BM_ChainRow<false>) KIVT_BLOCK_SIZES;
BENCHMARK(BM_ChainRow<true>) KIVT_BLOCK_SIZES;
BENCHMARK(BM_FactorDiagonal<true>) KIVT_BLOCK_SIZES;
BENCHMARK(BM_FactorDiagonal<false>) KIVT_BLOCK_SIZES;
BENCHMARK(BM_FinishOffDiagonal<true>) KIVT_BLOCK_SIZES;
BENCHMARK(BM_FinishOffDiagonal<false>) KIVT_BLOCK_SIZES;

}  // namespace

int main(int argc, char** argv) {
    // The peak this code can reach: SSE2 pairs of doubles, one multiply and one add issued per cycle, no FMA.
    char peak[64];
    std::snprintf(peak, sizeof peak, "%.1f GFLOP/s at %.2f GHz (4 flops per cycle)",
                  4.0 / kiv::Timer::clockSpeed() * 1e-9, 1.0 / kiv::Timer::clockSpeed() * 1e-9);
    benchmark::AddCustomContext("peak, two-lane SSE2 without FMA", peak);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
