// Dense block kernels against naive long-double references, on guarded buffers: every element outside the
// logical output must keep its bits, and columns beyond the logical sizes hold NaN so that a stray read
// shows.
#include "Kernels.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using namespace kivTamber;

namespace {

constexpr int kGuard = 8;  // guard elements on each side (even: keeps 16-byte alignment for double)

// A NaN-guarded heap array of `count` elements starting `shift` elements past a 16-byte boundary.
template <typename T>
struct Buffer {
    Buffer(int count, int shift = 0) : size(count + 2 * kGuard + shift) {
        raw = kiv::allocateArray<T>(size);
        for (int i = 0; i < size; ++i) raw[i] = std::numeric_limits<T>::quiet_NaN();
        data = raw + kGuard + shift;
    }
    ~Buffer() { kiv::deallocateArray(raw, size); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    std::vector<T> snapshot() const { return std::vector<T>(raw, raw + size); }
    bool sameBits(const std::vector<T>& v) const { return std::memcmp(raw, v.data(), size * sizeof(T)) == 0; }
    int size;
    T* raw;
    T* data;
};

struct Rng {
    explicit Rng(unsigned seed) : gen(seed) {}
    double operator()() { return std::uniform_real_distribution<double>(-1.0, 1.0)(gen); }
    int between(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); }
    std::mt19937 gen;
};

// Fills rows×cols of a matrix with leading dimension ld; the columns beyond stay as they are (NaN).
template <typename T>
void fill(T* M, int ld, int rows, int cols, Rng& rng) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) M[i * ld + j] = static_cast<T>(rng());
}

// |got - ref| within (terms + 4)·eps·magnitude, magnitude the sum of |operands| of the exact value.
template <typename T>
::testing::AssertionResult near(T got, long double ref, long double magnitude, int terms) {
    const long double tol = (terms + 4) * std::numeric_limits<T>::epsilon() * magnitude;
    if (std::fabs(static_cast<long double>(got) - ref) <= tol) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << got << " vs " << static_cast<double>(ref) << " (tol " << static_cast<double>(tol) << ")";
}

// Runs `run` on the output Y (rows×cols at leading dimension ld, already filled) and checks every entry
// against Y0 + sign·Σ_p term(r, c, p), p < terms, and that no other element of Y's buffer changed.
template <typename T, typename Term, typename Run>
void expectKernel(Buffer<T>& Y, int shift, int ld, int rows, int cols, int terms, int sign, Term term,
                  Run run) {
    std::vector<T> expect = Y.snapshot();
    run();
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            long double ref = expect[kGuard + shift + r * ld + c], mag = std::fabs(ref);
            for (int p = 0; p < terms; ++p) ref += sign * term(r, c, p), mag += std::fabs(term(r, c, p));
            EXPECT_TRUE(near(Y.data[r * ld + c], ref, mag, terms)) << r << "," << c;
            expect[kGuard + shift + r * ld + c] = Y.data[r * ld + c];
        }
    EXPECT_TRUE(Y.sameBits(expect));
}

const int kSizes[] = {1, 2, 3, 4, 5, 8};

// C ∓= op over every size triple (or only those with a size 1); transA picks Aᵀ·B (A k×n, B k×m) or A·Bᵀ
// (A n×k, B m×k); the buffers start `shift` elements past a 16-byte boundary.
template <typename T, typename Kernel>
void checkProduct(Kernel kernel, bool transA, int sign, unsigned seed, int shift = 0,
                  bool degenerate = false) {
    Rng rng(seed);
    for (int n : kSizes)
        for (int m : kSizes)
            for (int k : kSizes) {
                if (degenerate && n > 1 && m > 1 && k > 1) continue;
                SCOPED_TRACE(::testing::Message()
                             << "seed " << seed << " n " << n << " m " << m << " k " << k);
                const int ra = transA ? k : n, ca = transA ? n : k, rb = transA ? k : m, cb = transA ? m : k;
                const int lda = ca + rng.between(0, 3), ldb = cb + rng.between(0, 3),
                          ldc = m + rng.between(0, 3);
                Buffer<T> A(ra * lda, shift), B(rb * ldb, shift), C(n * ldc, shift);
                fill(A.data, lda, ra, ca, rng);
                fill(B.data, ldb, rb, cb, rng);
                fill(C.data, ldc, n, m, rng);
                auto term = [&](int i, int j, int p) {
                    return transA ? (long double)A.data[p * lda + i] * B.data[p * ldb + j]
                                  : (long double)A.data[i * lda + p] * B.data[j * ldb + p];
                };
                expectKernel(C, shift, ldc, n, m, k, sign, term,
                             [&] { kernel(A.data, lda, B.data, ldb, C.data, ldc, n, m, k); });
            }
}

// Every matrix product against the naive sum; the degenerate shapes of the double CM ABt kernel (n, m or k
// equal to 1) need neither alignment nor padding: one element past a 16-byte boundary, unpadded leading
// dimensions, NaN after every row.
TEST(Kernels, MatrixProductsMatchNaive) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
        checkProduct<float>([](auto... a) { tamber_MM_CM_AtB(a...); }, true, -1, seed);
        checkProduct<float>([](auto... a) { tamber_MM_CP_AtB(a...); }, true, +1, seed);
        checkProduct<double>([](auto... a) { tamber_MM_CM_AtB(a...); }, true, -1, seed);
        checkProduct<double>([](auto... a) { tamber_MM_CP_AtB(a...); }, true, +1, seed);
        checkProduct<float>([](auto... a) { tamber_MM_CM_ABt(a...); }, false, -1, seed);
        checkProduct<float>([](auto... a) { tamber_MM_CP_ABt(a...); }, false, +1, seed);
        checkProduct<double>([](auto... a) { tamber_MM_CM_ABt(a...); }, false, -1, seed, 1, true);
    }
}

// Double ABt on padded tiles (even leading dimensions, zero padding row/column, 16-byte aligned), compared
// bit for bit with a reference that sums even and odd p separately over the padded sizes. Columns past the
// padded tile hold NaN in A and B (never read) and in C (never written). CP is always blocked, CM only
// without a size 1.
TEST(Kernels, DoubleABtBlockedIsExactOnPaddedTiles) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
        Rng rng(seed);
        for (int n : kSizes)
            for (int m : kSizes)
                for (int k : kSizes)
                    for (bool subtract : {false, true}) {
                        if (subtract && (n == 1 || m == 1 || k == 1)) continue;
                        SCOPED_TRACE(::testing::Message()
                                     << "seed " << seed << " n " << n << " m " << m << " k " << k);
                        const int np = (n + 1) & ~1, mp = (m + 1) & ~1, kp = (k + 1) & ~1;
                        const int lda = kp + 2 * rng.between(0, 1), ldb = kp + 2 * rng.between(0, 1),
                                  ldc = mp + 2 * rng.between(0, 1);
                        Buffer<double> A(np * lda), B(mp * ldb), C(np * ldc);
                        for (int i = 0; i < np; ++i)
                            for (int p = 0; p < kp; ++p) A.data[i * lda + p] = (i < n && p < k) ? rng() : 0.0;
                        for (int j = 0; j < mp; ++j)
                            for (int p = 0; p < kp; ++p) B.data[j * ldb + p] = (j < m && p < k) ? rng() : 0.0;
                        fill(C.data, ldc, np, mp, rng);  // padding of C too: the padded arithmetic keeps it
                        std::vector<double> expect = C.snapshot();
                        for (int i = 0; i < np; ++i)
                            for (int j = 0; j < mp; ++j) {
                                double even = 0.0, odd = 0.0;
                                for (int p = 0; p < kp; p += 2) {
                                    even += A.data[i * lda + p] * B.data[j * ldb + p];
                                    odd += A.data[i * lda + p + 1] * B.data[j * ldb + p + 1];
                                }
                                double& c = expect[kGuard + i * ldc + j];
                                c = subtract ? c - (even + odd) : c + (even + odd);
                            }
                        using MM =
                            void (*)(const double*, int, const double*, int, double*, int, int, int, int);
                        (subtract ? static_cast<MM>(tamber_MM_CM_ABt) : static_cast<MM>(tamber_MM_CP_ABt))(
                            A.data, lda, B.data, ldb, C.data, ldc, n, m, k);
                        EXPECT_TRUE(C.sameBits(expect));
                    }
    }
}

// y ∓= alpha·op(A)·x for every n×m; SYL reads only the lower triangle (upper filled with NaN).
enum class Shape { AX, AtX, SYL };

template <typename T, typename Kernel>
void checkMatVec(Kernel kernel, Shape shape, int sign, T alpha, unsigned seed) {
    Rng rng(seed);
    for (int n : kSizes)
        for (int m : kSizes) {
            if (shape == Shape::SYL && m != n) continue;
            SCOPED_TRACE(::testing::Message()
                         << "seed " << seed << " n " << n << " m " << m << " alpha " << alpha);
            const int lda = m + rng.between(0, 3), nx = shape == Shape::AtX ? n : m,
                      ny = shape == Shape::AtX ? m : n;
            Buffer<T> A(n * lda), x(nx), y(ny);
            fill(A.data, lda, n, m, rng);
            for (int i = 0; i < n && shape == Shape::SYL; ++i)
                for (int j = i + 1; j < n; ++j) A.data[i * lda + j] = std::numeric_limits<T>::quiet_NaN();
            fill(x.data, 1, 1, nx, rng);
            fill(y.data, 1, 1, ny, rng);
            auto term = [&](int, int r, int c) {
                const T a = shape == Shape::AX    ? A.data[r * lda + c]
                            : shape == Shape::AtX ? A.data[c * lda + r]
                                                  : A.data[c <= r ? r * lda + c : c * lda + r];
                return (long double)a * alpha * x.data[c];
            };
            expectKernel(y, 0, 1, 1, ny, nx, sign, term,
                         [&] { kernel(A.data, lda, x.data, y.data, alpha, n, m); });
        }
}

// Adapts an unscaled float kernel to the scaled signature (the reference then uses alpha = 1).
template <void (*Kernel)(const float*, int, const float*, float*, int, int)>
void unscaled(const float* A, int lda, const float* x, float* y, float, int n, int m) {
    Kernel(A, lda, x, y, n, m);
}

template <typename T>
void syl(const T* A, int lda, const T* x, T* y, T alpha, int n, int) {
    tamber_MV_aAX_SYL(A, lda, x, y, alpha, n);
}

// Every matrix-vector product against the naive sum (the unscaled SYL adds, like the scaled one). The scaled
// term is (a·alpha)·x, not a·(alpha·x): on values where the two round differently, a single term into y = 0
// shows which one was formed.
template <typename T>
void checkMatVecs(unsigned seed) {
    for (T alpha : {T(1), T(-0.75), T(3.1)}) {
        checkMatVec<T>([](auto... a) { tamber_MV_YM_aAX(a...); }, Shape::AX, -1, alpha, seed);
        checkMatVec<T>([](auto... a) { tamber_MV_YP_aAX(a...); }, Shape::AX, +1, alpha, seed);
        checkMatVec<T>([](auto... a) { tamber_MV_YM_aAtX(a...); }, Shape::AtX, -1, alpha, seed);
        checkMatVec<T>([](auto... a) { tamber_MV_YP_aAtX(a...); }, Shape::AtX, +1, alpha, seed);
        checkMatVec<T>(syl<T>, Shape::SYL, +1, alpha, seed);
    }
    Rng rng(7);
    T a, alpha, x;
    do {
        a = static_cast<T>(rng()), alpha = static_cast<T>(3 * rng()), x = static_cast<T>(rng());
    } while ((a * alpha) * x == a * (alpha * x));
    using Scaled = void (*)(const T*, int, const T*, T*, T, int, int);
    const Scaled kernels[] = {tamber_MV_YP_aAX, tamber_MV_YM_aAX, tamber_MV_YP_aAtX, tamber_MV_YM_aAtX,
                              syl<T>};
    for (int k = 0; k < 5; ++k) {
        T y = 0;
        kernels[k](&a, 1, &x, &y, alpha, 1, 1);
        EXPECT_EQ(y, (k == 1 || k == 3 ? -1 : 1) * ((a * alpha) * x)) << "kernel " << k;
    }
}

TEST(Kernels, MatrixVectorProductsMatchNaive) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
        checkMatVecs<float>(seed);
        checkMatVecs<double>(seed);
        checkMatVec<float>(unscaled<tamber_MV_YM_AX>, Shape::AX, -1, 1.0f, seed);
        checkMatVec<float>(unscaled<tamber_MV_YP_AX>, Shape::AX, +1, 1.0f, seed);
        checkMatVec<float>(unscaled<tamber_MV_YM_AtX>, Shape::AtX, -1, 1.0f, seed);
        checkMatVec<float>(unscaled<tamber_MV_YP_AtX>, Shape::AtX, +1, 1.0f, seed);
        checkMatVec<float>([](const float* A, int l, const float* x, float* y, float, int n,
                              int) { tamber_MV_AX_SYL(A, l, x, y, n); },
                           Shape::SYL, +1, 1.0f, seed);
    }
}

// A well-conditioned lower triangle (|diagonal| in [1, 2], random signs) with NaN above the diagonal.
void fillLower(float* L, int ld, int n, Rng& rng, bool nanDiagonal) {
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < ld; ++j) {
            float v = j < i ? static_cast<float>(0.5 * rng()) : std::numeric_limits<float>::quiet_NaN();
            if (j == i && !nanDiagonal) v = static_cast<float>((1.5 + 0.5 * rng()) * (rng() < 0 ? -1 : 1));
            L[i * ld + j] = v;
        }
}

// Checks L·z = b (lower) or Lᵀ·z = b (transposed) for the solution z, with a unit diagonal if unit.
void checkSolution(const float* L, int ld, const float* z, const std::vector<float>& b, int n,
                   bool transposed, bool unit) {
    for (int r = 0; r < n; ++r) {
        long double s = 0, mag = 0;
        for (int c = transposed ? r : 0; c <= (transposed ? n - 1 : r); ++c) {
            const long double l = c == r && unit ? 1.0L : (transposed ? L[c * ld + r] : L[r * ld + c]);
            s += l * z[c], mag += std::fabs(l * z[c]);
        }
        EXPECT_TRUE(near(static_cast<float>(s), b[r], mag + std::fabs(b[r]), 4 * n)) << "row " << r;
    }
}

// TRIL, TRIL_UD (unit diagonal, never read) and TRILt invert their triangle (n = 1: one division, exactly,
// or nothing). tamber_SM_UD solves each row with the full (non-unit) diagonal and steps rows by ldL whatever
// ldX says; the elements between rows (columns n..ldL-1) stay untouched.
TEST(Kernels, TriangularSolvesInvertTheTriangle) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Rng rng(seed);
        for (int n = 1; n <= 9; ++n) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " n " << n);
            const int ld = n + rng.between(0, 2);
            for (int kind = 0; kind < 3; ++kind) {
                Buffer<float> L(n * ld), x(n);
                fillLower(L.data, ld, n, rng, kind == 1);
                fill(x.data, 1, 1, n, rng);
                const std::vector<float> b(x.data, x.data + n);
                (kind == 0   ? tamber_SV_TRIL
                 : kind == 1 ? tamber_SV_TRIL_UD
                             : tamber_SV_TRILt)(L.data, ld, x.data, n);
                checkSolution(L.data, ld, x.data, b, n, kind == 2, kind == 1);
                EXPECT_TRUE(n > 1 || x.data[0] == (kind == 1 ? b[0] : b[0] / L.data[0]));
            }
            for (int m : {1, 2, 5}) {
                const int ldL = n + 1 + rng.between(0, 2);
                Buffer<float> L(n * ldL), X(m * ldL);
                fillLower(L.data, ldL, n, rng, false);
                fill(X.data, ldL, m, n, rng);
                std::vector<float> expect = X.snapshot();
                tamber_SM_UD(L.data, ldL, X.data, /*ldX=*/n, m, n);
                for (int r = 0; r < m; ++r) {
                    const std::vector<float> b(&expect[kGuard + r * ldL], &expect[kGuard + r * ldL + n]);
                    checkSolution(L.data, ldL, X.data + r * ldL, b, n, false, false);
                    for (int c = 0; c < n; ++c) expect[kGuard + r * ldL + c] = X.data[r * ldL + c];
                }
                EXPECT_TRUE(X.sameBits(expect)) << "m " << m;
            }
        }
    }
    const float L[] = {2.0f, 0.0f, 1.0f, 0.0f};  // a zero diagonal gives non-finite solutions: 2×2, l_11 = 0
    float x[] = {1.0f, 3.0f}, y[] = {1.0f, 3.0f}, X[] = {0.0f, 0.0f, 1.0f, 1.0f};
    tamber_SV_TRIL(L, 2, x, 2);
    EXPECT_TRUE(x[0] == 0.5f && std::isinf(x[1]));
    tamber_SV_TRILt(L, 2, y, 2);
    EXPECT_TRUE(std::isinf(y[1]) && !std::isfinite(y[0]));
    tamber_SM_UD(L, 2, X, 2, 2, 2);
    EXPECT_TRUE(std::isnan(X[1]) && std::isinf(X[3]));  // 0/0, 1/0
}

// Any size <= 0 makes a kernel a no-op that reads nothing: inputs are null, the output keeps its bits.
TEST(Kernels, NonPositiveSizesLeaveOutputUntouched) {
    Buffer<float> cf(16);
    Buffer<double> cd(16);
    for (int i = 0; i < 16; ++i) cf.data[i] = static_cast<float>(i), cd.data[i] = i;
    const std::vector<float> f0 = cf.snapshot();
    const std::vector<double> d0 = cd.snapshot();
    const float* nf = nullptr;
    const double* nd = nullptr;
    float* yf = cf.data;
    double* yd = cd.data;
    auto products = [](auto* none, auto* y, const int* s) {  // s holds one size <= 0
        tamber_MM_CM_AtB(none, 2, none, 2, y, 2, s[0], s[1], s[2]);
        tamber_MM_CP_AtB(none, 2, none, 2, y, 2, s[0], s[1], s[2]);
        tamber_MM_CM_ABt(none, 2, none, 2, y, 2, s[0], s[1], s[2]);
        tamber_MM_CP_ABt(none, 2, none, 2, y, 2, s[0], s[1], s[2]);
        tamber_MV_aAX_SYL(none, 2, none, y, 2, s[0] + s[1] + s[2] - 4);
        if (s[2] != 2) return;  // the matrix-vector kernels take (s[0], s[1])
        tamber_MV_YM_aAX(none, 2, none, y, 2, s[0], s[1]);
        tamber_MV_YP_aAX(none, 2, none, y, 2, s[0], s[1]);
        tamber_MV_YM_aAtX(none, 2, none, y, 2, s[0], s[1]);
        tamber_MV_YP_aAtX(none, 2, none, y, 2, s[0], s[1]);
    };
    for (int bad : {0, -1, -7}) {
        const int sizes[][3] = {{bad, 2, 2}, {2, bad, 2}, {2, 2, bad}};
        for (const auto& s : sizes) {
            products(nf, yf, s);
            products(nd, yd, s);
            if (s[2] != 2) continue;
            tamber_MV_YM_AX(nf, 2, nf, yf, s[0], s[1]);
            tamber_MV_YP_AX(nf, 2, nf, yf, s[0], s[1]);
            tamber_MV_YM_AtX(nf, 2, nf, yf, s[0], s[1]);
            tamber_MV_YP_AtX(nf, 2, nf, yf, s[0], s[1]);
            tamber_SM_UD(nf, 2, yf, 2, s[0], s[1]);
        }
        tamber_MV_AX_SYL(nf, 2, nf, yf, bad);
        tamber_SV_TRIL(nf, 2, yf, bad);
        tamber_SV_TRIL_UD(nf, 2, yf, bad);
        tamber_SV_TRILt(nf, 2, yf, bad);
    }
    tamber_SV_TRIL_UD(nf, 2, yf, 1);  // n = 1: nothing to eliminate, L not read
    EXPECT_TRUE(cf.sameBits(f0));
    EXPECT_TRUE(cd.sameBits(d0));
}

}  // namespace
