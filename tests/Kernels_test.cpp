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
    // The same bits everywhere, except that any NaN matches any NaN: the sign and payload of a NaN depend
    // on which operand of a commutative operation the compiler puts first, which no source order fixes.
    bool sameValues(const std::vector<T>& v) const {
        for (int i = 0; i < size; ++i) {
            if (std::isnan(raw[i]) && std::isnan(v[i])) continue;
            if (std::memcmp(raw + i, v.data() + i, sizeof(T)) != 0) return false;
        }
        return true;
    }
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

// ---------------------------------------------------------------------------------------------------------
// Size-specialised kernels: the fast form against the reference form, bit for bit, at every block size
// 1 … 12 (the unrolled sizes and the general loops), on random values with some NaN and infinities planted,
// over whole guarded buffers (padding and guards included); a NaN matches any NaN.
// ---------------------------------------------------------------------------------------------------------

namespace {

// Padded size of a block of s rows.
template <typename T>
int paddedOf(int s) {
    return sizeof(T) == sizeof(double) ? (s + 1) & ~1 : s;
}

// Random entries in rows × cols of a tile of stride p (padding left as it is), with a few non-finite values
// when `special`: about one entry in twelve becomes NaN, +inf or −inf.
template <typename T>
void fillTile(T* M, int p, int rows, int cols, Rng& rng, bool special) {
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            T v = static_cast<T>(rng());
            if (special && rng.between(0, 11) == 0) {
                const int kind = rng.between(0, 2);
                v = kind == 0 ? std::numeric_limits<T>::quiet_NaN()
                              : (kind == 1 ? 1 : -1) * std::numeric_limits<T>::infinity();
            }
            M[r * p + c] = v;
        }
}

// The same bits, or both NaN (as the buffer comparisons count it).
template <typename T>
bool sameEntry(T a, T b) {
    return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof(T)) == 0;
}

// A zeroed, NaN-guarded tile buffer of rows × p elements.
template <typename T>
void zero(Buffer<T>& b, int count) {
    for (int i = 0; i < count; ++i) b.data[i] = T(0);
}

// Runs `setUp` into two identical sets of buffers, then fast on one and reference on the other, and
// compares every buffer bit for bit.
template <typename T, typename Body>
void sameBitsAtEverySize(const char* name, Body body) {
    for (int s = 1; s <= 12; ++s)
        for (unsigned seed = 0; seed < 24; ++seed) {
            SCOPED_TRACE(::testing::Message() << name << " s " << s << " seed " << seed);
            body(s, seed, seed % 3 == 2);
            if (::testing::Test::HasFatalFailure()) return;
        }
}

}  // namespace

TEST(KernelsSized, DiagonalFactorizationFastEqualsReference) {
    auto run = [](auto zeroT) {
        using T = decltype(zeroT);
        sameBitsAtEverySize<T>("factorDiagonalBlock", [](int s, unsigned seed, bool special) {
            Rng rng(seed * 31 + s);
            const int p = paddedOf<T>(s);
            Buffer<T> W1(p * p), W2(p * p), d1(p), d2(p);
            zero(W1, p * p);
            fillTile(W1.data, p, s, s, rng, special);
            for (int r = 0; r < s; ++r) {
                W1.data[r * p + r] += T(4);  // mostly well-conditioned
                for (int c = r + 1; c < s; ++c) W1.data[r * p + c] = std::numeric_limits<T>::quiet_NaN();
            }
            std::memcpy(W2.raw, W1.raw, W1.size * sizeof(T));
            Buffer<T> X(p * p), V1(p * p), V2(p * p), e1(p), e2(p), q1(p), q2(p);
            std::memcpy(X.raw, W1.raw, W1.size * sizeof(T));
            kernels::fast::factorDiagonalBlock(W1.data, p, s, d1.data);
            kernels::reference::factorDiagonalBlock(W2.data, p, s, d2.data);
            ASSERT_TRUE(W1.sameValues(W2.snapshot()) && d1.sameValues(d2.snapshot()));

            // From a separate input tile into a zeroed one, with the reciprocal pivots and the pivot test:
            // the same factor as in place.
            zero(V1, p * p);
            zero(V2, p * p);
            const bool good1 =
                kernels::fast::factorDiagonalBlockFrom(X.data, V1.data, p, s, e1.data, q1.data);
            const bool good2 =
                kernels::reference::factorDiagonalBlockFrom(X.data, V2.data, p, s, e2.data, q2.data);
            ASSERT_EQ(good1, good2);
            ASSERT_TRUE(V1.sameValues(V2.snapshot()) && e1.sameValues(e2.snapshot()) &&
                        q1.sameValues(q2.snapshot()));
            ASSERT_TRUE(e1.sameValues(d1.snapshot()));
            bool good = true;
            for (int c = 0; c < s; ++c) good = good && e1.data[c] != T(0) && std::isfinite(e1.data[c]);
            ASSERT_EQ(good1, good);
            for (int r = 0; r < s; ++r)  // W1's rows (the reference zeroes padding columns W1 did not have)
                for (int c = 0; c < s; ++c) ASSERT_TRUE(sameEntry(V1.data[r * p + c], W1.data[r * p + c]));
        });
    };
    run(0.0);
    run(0.0f);
}

// The inputs of an off-diagonal finish of a rows × s block: the unit lower tile L (its diagonal NaN, since it
// is not read), W1 = W2 random, LD1, LD2 zero, d random and recip = 1/d (padding 0).
struct FinishInputs {
    FinishInputs(int s_, unsigned seed, bool special, unsigned salt)
        : s(s_),
          p(paddedOf<double>(s_)),
          rows(1 + static_cast<int>(seed % 7)),
          rowsPadded(paddedOf<double>(rows)),
          L(p * p),
          W1(rowsPadded * p),
          W2(rowsPadded * p),
          LD1(rowsPadded * p),
          LD2(rowsPadded * p),
          recip(p),
          d(p) {
        Rng rng(seed * salt + s);
        zero(L, p * p);
        zero(W1, rowsPadded * p);
        zero(LD1, rowsPadded * p);
        zero(LD2, rowsPadded * p);
        fillTile(L.data, p, s, s, rng, special);
        for (int r = 0; r < s; ++r) {
            L.data[r * p + r] = std::numeric_limits<double>::quiet_NaN();
            for (int c = r + 1; c < p; ++c) L.data[r * p + c] = 0.0;
        }
        fillTile(W1.data, p, rows, s, rng, special);
        zero(recip, p);
        zero(d, p);
        fillTile(d.data, p, 1, s, rng, special);
        for (int c = 0; c < s; ++c) recip.data[c] = 1.0 / d.data[c];
        std::memcpy(W2.raw, W1.raw, W1.size * sizeof(double));
    }
    const int s, p, rows, rowsPadded;
    Buffer<double> L, W1, W2, LD1, LD2, recip, d;
};

TEST(KernelsSized, OffDiagonalFinishFastEqualsReference) {
    sameBitsAtEverySize<double>("solveUnitDiagonal/finishSmallBlock", [](int s, unsigned seed, bool special) {
        FinishInputs in(s, seed, special, 17);
        Rng rng(seed * 19 + s);
        const int p = in.p, rows = in.rows, rowsPadded = in.rowsPadded;
        Buffer<double>&L = in.L, &W1 = in.W1, &W2 = in.W2, &LD1 = in.LD1, &LD2 = in.LD2, &recip = in.recip,
        &d = in.d;
        kernels::fast::solveUnitDiagonal(L.data, p, W1.data, rows, s);
        kernels::reference::solveUnitDiagonal(L.data, p, W2.data, rows, s);
        ASSERT_TRUE(W1.sameValues(W2.snapshot()));
        const bool fastDone =
            kernels::fast::finishSmallBlock(L.data, W1.data, LD1.data, rows, s, recip.data, d.data);
        const bool refDone =
            kernels::reference::finishSmallBlock(L.data, W2.data, LD2.data, rows, s, recip.data, d.data);
        ASSERT_TRUE(fastDone && refDone);
        ASSERT_TRUE(W1.sameValues(W2.snapshot()) && LD1.sameValues(LD2.snapshot()));

        // The same from a separate input tile X (what the factorization reads when nothing updated the
        // block): the results equal the in-place ones.
        Buffer<double> X(rowsPadded * p), V1(rowsPadded * p), V2(rowsPadded * p), M1(rowsPadded * p),
            M2(rowsPadded * p);
        zero(X, rowsPadded * p);
        fillTile(X.data, p, rows, s, rng, special);
        for (Buffer<double>* b : {&V1, &V2, &M1, &M2}) zero(*b, rowsPadded * p);
        std::memcpy(W1.raw, X.raw, X.size * sizeof(double));
        kernels::fast::solveUnitDiagonal(L.data, p, W1.data, rows, s);
        kernels::fast::finishSmallBlock(L.data, W1.data, LD1.data, rows, s, recip.data, d.data);
        ASSERT_TRUE(kernels::fast::finishSmallBlockFrom(L.data, X.data, V1.data, M1.data, rows, s, recip.data,
                                                        d.data));
        ASSERT_TRUE(kernels::reference::finishSmallBlockFrom(L.data, X.data, V2.data, M2.data, rows, s,
                                                             recip.data, d.data));
        ASSERT_TRUE(V1.sameValues(V2.snapshot()) && M1.sameValues(M2.snapshot()));
    });
}

// The multifrontal finish of a front block: fixed code up to size 6, false beyond (both), the padding row of
// LD zeroed for an odd row count; LD's extra row is filled with a sentinel beforehand so that the zeroing
// shows.
TEST(KernelsSized, FrontFinishFastEqualsReference) {
    sameBitsAtEverySize<double>("finishFrontBlock", [](int s, unsigned seed, bool special) {
        FinishInputs in(s, seed, special, 29);
        for (Buffer<double>* b : {&in.LD1, &in.LD2})
            for (int q = 0; q < in.rowsPadded * in.p; ++q) b->data[q] = -7.25;
        const bool fastDone =
            kernels::fast::finishFrontBlock(in.L.data, in.W1.data, in.LD1.data, in.rows, s, in.recip.data);
        const bool refDone = kernels::reference::finishFrontBlock(in.L.data, in.W2.data, in.LD2.data, in.rows,
                                                                  s, in.recip.data);
        ASSERT_EQ(fastDone, s <= 6);
        ASSERT_EQ(refDone, s <= 6);
        ASSERT_TRUE(in.W1.sameValues(in.W2.snapshot()) && in.LD1.sameValues(in.LD2.snapshot()));
        if (fastDone && in.rows % 2 == 1) {
            EXPECT_EQ(in.LD1.data[in.rows * in.p], 0.0);
        }
    });
}

TEST(KernelsSized, ScalingAndLowerUpdateFastEqualReference) {
    auto run = [](auto zeroT) {
        using T = decltype(zeroT);
        sameBitsAtEverySize<T>("scaleColumns/subtractABtLower", [](int s, unsigned seed, bool special) {
            Rng rng(seed * 13 + s);
            const int p = paddedOf<T>(s), k = 1 + static_cast<int>(seed % 12), pk = paddedOf<T>(k);
            Buffer<T> X(p * pk), Y1(p * pk), Y2(p * pk), d(pk), B(p * pk), C1(p * p), C2(p * p);
            zero(X, p * pk);
            zero(B, p * pk);
            zero(d, pk);
            zero(C1, p * p);
            fillTile(X.data, pk, s, k, rng, special);
            fillTile(B.data, pk, s, k, rng, special);
            fillTile(d.data, pk, 1, k, rng, special);
            fillTile(C1.data, p, s, s, rng, special);
            std::memcpy(C2.raw, C1.raw, C1.size * sizeof(T));
            kernels::fast::scaleColumns(X.data, d.data, Y1.data, s, k, pk);
            kernels::reference::scaleColumns(X.data, d.data, Y2.data, s, k, pk);
            ASSERT_TRUE(Y1.sameValues(Y2.snapshot()));
            Buffer<T> C0(p * p), F1(p * p), F2(p * p);
            std::memcpy(C0.raw, C1.raw, C1.size * sizeof(T));
            kernels::fast::subtractABtLower(X.data, pk, B.data, pk, C1.data, p, s, k);
            kernels::reference::subtractABtLower(X.data, pk, B.data, pk, C2.data, p, s, k);
            ASSERT_TRUE(C1.sameValues(C2.snapshot()));

            // From the input tile C0 into F (NaN-filled): on and below the diagonal the in-place values.
            for (int q = 0; q < p * p; ++q) F1.data[q] = F2.data[q] = std::numeric_limits<T>::quiet_NaN();
            kernels::fast::subtractABtLowerFrom(X.data, pk, B.data, pk, C0.data, F1.data, p, s, k);
            kernels::reference::subtractABtLowerFrom(X.data, pk, B.data, pk, C0.data, F2.data, p, s, k);
            for (int r = 0; r < s; ++r)
                for (int c = 0; c <= r; ++c) {
                    ASSERT_TRUE(sameEntry(F1.data[r * p + c], C1.data[r * p + c])) << r << "," << c;
                    ASSERT_TRUE(sameEntry(F2.data[r * p + c], C2.data[r * p + c])) << r << "," << c;
                }
        });
    };
    run(0.0);
    run(0.0f);
}

// The fused update and factorization of a diagonal block against the two steps of the reference form, and
// against the fast two steps, at every s and k (only 2 … 6 each are fused; the others say no).
TEST(KernelsSized, FusedDiagonalUpdateEqualsTwoSteps) {
    sameBitsAtEverySize<double>("factorDiagonalUpdated", [](int s, unsigned seed, bool special) {
        Rng rng(seed * 29 + s);
        const int p = paddedOf<double>(s), k = 1 + static_cast<int>(seed % 12), pk = paddedOf<double>(k);
        Buffer<double> A(p * pk), B(p * pk), X(p * p), W1(p * p), W2(p * p), W3(p * p), d1(p), d2(p), d3(p),
            q1(p), q2(p), q3(p), LD1(p * p), LD3(p * p);
        for (Buffer<double>* b : {&A, &B, &X, &W1, &W2, &W3, &LD1, &LD3})
            zero(*b, b == &A || b == &B ? p * pk : p * p);
        fillTile(A.data, pk, s, k, rng, special);
        fillTile(B.data, pk, s, k, rng, special);
        fillTile(X.data, p, s, s, rng, special);
        for (int r = 0; r < s; ++r) X.data[r * p + r] += 8.0;
        bool good1 = false, good2 = false;
        const bool fused = kernels::fast::factorDiagonalUpdated(A.data, B.data, k, X.data, W1.data, p, s,
                                                                d1.data, LD1.data, q1.data, good1);
        const bool reference = kernels::reference::factorDiagonalUpdated(
            A.data, B.data, k, X.data, W2.data, p, s, d2.data, nullptr, q2.data, good2);
        const bool shape = s >= 2 && s <= 6 && k >= 2 && k <= 6;
        ASSERT_EQ(fused, shape);
        ASSERT_EQ(reference, shape);
        if (!shape) return;
        // The fast two steps: update from X, then factor in place with LD.
        kernels::fast::subtractABtLowerFrom(A.data, pk, B.data, pk, X.data, W3.data, p, s, k);
        const bool good3 = kernels::fast::factorDiagonalBlockFrom(W3.data, W3.data, p, s, d3.data, q3.data);
        kernels::fast::scaleColumns(W3.data, d3.data, LD3.data, s, s, p);
        ASSERT_TRUE(good1 == good2 && good1 == good3);
        ASSERT_TRUE(d1.sameValues(d2.snapshot()) && d1.sameValues(d3.snapshot()));
        ASSERT_TRUE(q1.sameValues(q2.snapshot()) && q1.sameValues(q3.snapshot()));
        for (int r = 0; r < s; ++r)  // the factor's rows (the padding row of an odd s is not written)
            for (int c = 0; c < p; ++c) {
                ASSERT_TRUE(sameEntry(W1.data[r * p + c], W2.data[r * p + c])) << r << "," << c;
                ASSERT_TRUE(sameEntry(W1.data[r * p + c], W3.data[r * p + c])) << r << "," << c;
                ASSERT_TRUE(sameEntry(LD1.data[r * p + c], LD3.data[r * p + c])) << r << "," << c;
            }
    });
}

// The paired solve steps on a tile between two slices of x, each followed by one more entry (the next
// block's first one, which the pairs read across an odd size).
TEST(KernelsSized, SolveStepsFastEqualReference) {
    sameBitsAtEverySize<double>("solve steps", [](int s, unsigned seed, bool special) {
        Rng rng(seed * 7 + s);
        const int sj = s, si = 1 + static_cast<int>(seed % 12);
        const int pj = paddedOf<double>(sj), pi = paddedOf<double>(si);
        Buffer<double> B(pj * pi), U(pj * pj), x1(pi + pj), x2(pi + pj);
        zero(B, pj * pi);
        zero(U, pj * pj);
        fillTile(B.data, pi, sj, si, rng, special);  // column-major s_i × s_j: row r of the view is column r
        fillTile(U.data, pj, sj, sj, rng, special);
        for (int r = 0; r < sj; ++r) {
            for (int q = r + 1; q < pj; ++q) U.data[r * pj + q] = 0.0;  // row r of the view: U(q ≤ r, r)
            if (rng.between(0, 2) == 0) U.data[r * pj + r] = 1.0;  // the unit diagonal skips its division
        }
        fillTile(x1.data, pi + pj, 1, pi + pj, rng, special);
        double* xi1 = x1.data;
        double* xj1 = x1.data + pi;
        double* xi2 = x2.data;
        double* xj2 = x2.data + pi;
        auto same = [&] { return x1.sameValues(x2.snapshot()); };
        std::memcpy(x2.raw, x1.raw, x1.size * sizeof(double));
        kernels::fast::forwardOffDiagonal(B.data, pi, xi1, si, xj1, sj);
        kernels::reference::forwardOffDiagonal(B.data, pi, xi2, si, xj2, sj);
        ASSERT_TRUE(same()) << "forwardOffDiagonal";
        kernels::fast::forwardDiagonal(U.data, pj, xj1, sj);
        kernels::reference::forwardDiagonal(U.data, pj, xj2, sj);
        ASSERT_TRUE(same()) << "forwardDiagonal";
        kernels::fast::backwardDiagonal(U.data, pj, xj1, sj);
        kernels::reference::backwardDiagonal(U.data, pj, xj2, sj);
        ASSERT_TRUE(same()) << "backwardDiagonal";
        kernels::fast::backwardOffDiagonal(B.data, pi, xj1, sj, xi1, si);
        kernels::reference::backwardOffDiagonal(B.data, pi, xj2, sj, xi2, si);
        ASSERT_TRUE(same()) << "backwardOffDiagonal";
    });
}

// ---------------------------------------------------------------------------------------------------------
// The column pass of the symmetric block-sparse product (upper form), fast against reference, bit for bit.
// ---------------------------------------------------------------------------------------------------------

namespace {

// An upper-form matrix in raw arrays: every size 1 … 12 among its blocks, random couplings, some empty
// columns and a few tiles with a row after their column (taken as off-diagonal all the same), tiles of
// stride paddedOf<T>, random values with non-finite ones when `special`.
template <typename T>
struct UpperArrays {
    std::vector<unsigned int> sizes, offsets, strides, colPointers, rowIndices;
    std::vector<std::vector<T>> storage;
    std::vector<const T*> tiles;
    unsigned int n = 0, N = 0;

    UpperArrays(unsigned int blocks, Rng& rng, bool special) : n(blocks) {
        for (unsigned int b = 0; b < n; ++b) {
            sizes.push_back(1 + (b * 5 + static_cast<unsigned int>(rng.between(0, 11))) % 12);
            offsets.push_back(N);
            N += sizes.back();
            strides.push_back(static_cast<unsigned int>(paddedOf<T>(static_cast<int>(sizes.back()))));
        }
        sizes.push_back(N);
        offsets.push_back(N);
        colPointers.push_back(0);
        for (unsigned int j = 0; j < n; ++j) {
            if (j > 0 && rng.between(0, 9) == 0) {  // empty column
                colPointers.push_back(colPointers.back());
                continue;
            }
            std::vector<unsigned int> rows;
            for (unsigned int i = 0; i < n; ++i) {
                const bool above = i < j && (i + 1 == j || rng.between(0, 3) == 0);
                if (above || (i > j && rng.between(0, 29) == 0)) rows.push_back(i);
            }
            rows.push_back(j);
            for (unsigned int i : rows) {
                rowIndices.push_back(i);
                storage.emplace_back(strides[i] * strides[j], T(0));
                std::vector<T>& tile = storage.back();
                fillTile(tile.data(), static_cast<int>(strides[i]), static_cast<int>(sizes[j]),
                         static_cast<int>(sizes[i]), rng, special);  // column c of the tile is row c here
            }
            colPointers.push_back(static_cast<unsigned int>(rowIndices.size()));
        }
        for (const std::vector<T>& tile : storage) tiles.push_back(tile.data());
    }
};

template <typename T>
void upperProductsSameBits(unsigned seed) {
    Rng rng(seed);
    const bool special = seed % 3 == 2;
    const UpperArrays<T> A(1 + seed % 23, rng, special);
    std::vector<T> x(A.N);
    fillTile(x.data(), static_cast<int>(A.N), 1, static_cast<int>(A.N), rng, special);
    for (unsigned int ready : {0u, ~0u}) {
        // Zeroing pass: y starts as NaN garbage; accumulation: from random values.
        std::vector<T> y1(A.N + 1, std::numeric_limits<T>::quiet_NaN());
        if (ready != 0u) fillTile(y1.data(), static_cast<int>(A.N), 1, static_cast<int>(A.N), rng, false);
        std::vector<T> y2 = y1;
        // In two pieces, to carry `ready` from one call to the next.
        const unsigned int middle = A.n / 2;
        unsigned int r1 = kernels::fast::addUpperProducts(
            A.tiles.data(), A.rowIndices.data(), A.colPointers.data(), A.sizes.data(), A.offsets.data(),
            A.strides.data(), 0, middle, x.data(), y1.data(), ready, 256);
        unsigned int r2 = kernels::reference::addUpperProducts(
            A.tiles.data(), A.rowIndices.data(), A.colPointers.data(), A.sizes.data(), A.offsets.data(),
            A.strides.data(), 0, middle, x.data(), y2.data(), ready, 0);
        ASSERT_EQ(r1, r2);
        r1 = kernels::fast::addUpperProducts(A.tiles.data(), A.rowIndices.data(), A.colPointers.data(),
                                             A.sizes.data(), A.offsets.data(), A.strides.data(), middle, A.n,
                                             x.data(), y1.data(), r1, 256);
        r2 = kernels::reference::addUpperProducts(A.tiles.data(), A.rowIndices.data(), A.colPointers.data(),
                                                  A.sizes.data(), A.offsets.data(), A.strides.data(), middle,
                                                  A.n, x.data(), y2.data(), r2, 0);
        ASSERT_EQ(r1, r2);
        EXPECT_EQ(r1, ready == 0u ? A.N : ~0u);
        EXPECT_TRUE(std::isnan(y1[A.N]));  // nothing written past N
        for (unsigned int p = 0; p <= A.N; ++p) ASSERT_TRUE(sameEntry(y1[p], y2[p])) << "entry " << p;
    }
}

}  // namespace

// Every block size 1 … 12 as row and as column (the register columns 1 … 6 with the fixed and general tile
// loops, and the columns in memory), float and double, zeroing and accumulating.
TEST(KernelsSized, UpperProductsFastEqualReference) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        upperProductsSameBits<double>(seed);
        upperProductsSameBits<float>(seed);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

// The block copies of the assembly, fast against reference, at every pair of sizes 1 … 12 with leading
// dimensions from the size up: the same bits in the tile (NaN payloads, infinities and signed zeros
// included), and nothing written outside it (the buffers start as a recognisable pattern).
TEST(KernelsSized, BlockCopiesFastEqualReference) {
    Rng rng(7);
    const double special[] = {std::numeric_limits<double>::quiet_NaN(),
                              -std::numeric_limits<double>::infinity(),
                              std::numeric_limits<double>::infinity(),
                              -0.0,
                              0.0,
                              std::numeric_limits<double>::denorm_min()};
    for (unsigned int rows = 1; rows <= 12; ++rows) {
        for (unsigned int cols = 1; cols <= 12; ++cols) {
            for (bool transposed : {false, true}) {
                SCOPED_TRACE(::testing::Message()
                             << rows << " × " << cols << (transposed ? " transposed" : ""));
                const unsigned int tileRows = transposed ? cols : rows, tileCols = transposed ? rows : cols;
                const unsigned int ld = tileRows + static_cast<unsigned int>(rng.between(0, 3));
                std::vector<double> V(rows * cols);
                for (double& v : V) v = rng.between(0, 5) == 0 ? special[rng.between(0, 5)] : rng();
                Buffer<double> fast(static_cast<int>(ld * tileCols)), plain(static_cast<int>(ld * tileCols));
                for (int i = 0; i < fast.size; ++i) fast.raw[i] = plain.raw[i] = 1000.0 + i;
                if (transposed) {
                    kernels::fast::copyBlockTransposed(V.data(), rows, cols, fast.data, ld);
                    kernels::reference::copyBlockTransposed(V.data(), rows, cols, plain.data, ld);
                } else {
                    kernels::fast::copyBlock(V.data(), rows, cols, fast.data, ld);
                    kernels::reference::copyBlock(V.data(), rows, cols, plain.data, ld);
                }
                ASSERT_TRUE(fast.sameBits(plain.snapshot()));
                // The routine chosen once for these sizes: the same call (none beyond 6).
                const kernels::fast::BlockCopy routine = kernels::fast::blockCopy(rows, cols, transposed);
                ASSERT_EQ(routine == nullptr, rows > 6 || cols > 6);
                if (routine != nullptr) {
                    for (int i = 0; i < fast.size; ++i) fast.raw[i] = 1000.0 + i;
                    routine(V.data(), fast.data, ld);
                    ASSERT_TRUE(fast.sameBits(plain.snapshot()));
                }
                // The reference itself: element (a, b) of V at (a, b) of the tile, or at (b, a).
                for (unsigned int a = 0; a < rows; ++a)
                    for (unsigned int b = 0; b < cols; ++b) {
                        const double got = transposed ? plain.data[a * ld + b] : plain.data[b * ld + a];
                        ASSERT_EQ(std::memcmp(&got, &V[a * cols + b], sizeof(double)), 0) << a << "," << b;
                    }
                unsigned long written = 0;
                for (int i = 0; i < plain.size; ++i) written += plain.raw[i] != 1000.0 + i ? 1 : 0;
                ASSERT_LE(written, rows * cols);
            }
        }
    }
}
