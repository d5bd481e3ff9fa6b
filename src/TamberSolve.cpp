// Triangular and diagonal solves with a finished factorization, and the solve driver of Tamber.
#include "TamberSolve.h"

#include <kiv/Timer.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Kernels.h"
#include "KernelsFixed.h"

namespace kivTamber {
namespace {

using kernels::divideByDiagonal;
// The paired steps (src/KernelsFixed.h): fixed code for the small sizes, the general loops otherwise.
using kernels::backwardDiagonalStep;
using kernels::backwardOffDiagonalStep;
using kernels::forwardDiagonalStep;
using kernels::forwardOffDiagonalStep;

// ---------------------------------------------------------------------------------------------------------
// Scalar column kernels (no padding touched).
// ---------------------------------------------------------------------------------------------------------

// Forward solve of column j restricted to its first m rows: x_j(r) −= B_ij(q, r)·x_i(q) over all q < s_i for
// every off-diagonal tile, then the unit triangular solve of rows 1 … m−1; term by term.
void forwardColumnScalar(const SparseMatrix<double>& U, double* x, unsigned int j, unsigned int m) {
    const unsigned int diag = U.colPointers[j + 1] - 1;
    double* xj = x + U.blockOffsets[j];
    for (unsigned int k = U.colPointers[j]; k < diag; ++k) {
        const unsigned int i = U.rowIndices[k];
        const double* B = U.blockPointers[k];
        const unsigned int ld = U.blockStrides[i];
        const unsigned int si = U.blockSizes[i];
        const double* xi = x + U.blockOffsets[i];
        for (unsigned int r = 0; r < m; ++r) {
            const double* b = B + static_cast<unsigned long>(r) * ld;
            for (unsigned int q = 0; q < si; ++q) xj[r] -= b[q] * xi[q];  // x_j(r) −= B(q, r)·x_i(q)
        }
    }
    const double* D = U.blockPointers[diag];
    const unsigned int ld = U.blockStrides[j];
    for (unsigned int r = 1; r < m; ++r) {
        const double* u = D + static_cast<unsigned long>(r) * ld;
        for (unsigned int q = 0; q < r; ++q) xj[r] -= u[q] * xj[q];  // x_j(r) −= U(q, r)·x_j(q)
    }
}

// Backward solve of column j with scalar loops: the diagonal tile from the bottom row, then the off-diagonal
// tiles with r outermost and q innermost.
void backwardColumnScalar(const SparseMatrix<double>& U, double* x, unsigned int j) {
    const unsigned int diag = U.colPointers[j + 1] - 1;
    const unsigned int sj = U.blockSizes[j];
    double* xj = x + U.blockOffsets[j];
    const double* D = U.blockPointers[diag];
    const unsigned int ldj = U.blockStrides[j];
    for (unsigned int r = sj; r-- > 0;) {
        const double* u = D + static_cast<unsigned long>(r) * ldj;
        xj[r] = divideByDiagonal(xj[r], u[r]);
        for (unsigned int q = 0; q < r; ++q) xj[q] -= u[q] * xj[r];  // x_j(q) −= U(q, r)·x_j(r)
    }
    for (unsigned int k = U.colPointers[j]; k < diag; ++k) {
        const unsigned int i = U.rowIndices[k];
        const double* B = U.blockPointers[k];
        const unsigned int ld = U.blockStrides[i];
        const unsigned int si = U.blockSizes[i];
        double* xi = x + U.blockOffsets[i];
        for (unsigned int r = 0; r < sj; ++r) {
            const double* b = B + static_cast<unsigned long>(r) * ld;
            for (unsigned int q = 0; q < si; ++q) xi[q] -= b[q] * xj[r];  // x_i(q) −= B(q, r)·x_j(r)
        }
    }
}

// Brings the tiles of container column j (back to back in storage, diagonal tile last) towards the cache,
// for a pass that reaches that column a few columns later; reads nothing, changes no result.
inline void prefetchColumn(const SparseMatrix<double>& U, unsigned int j) {
    const unsigned int diag = U.colPointers[j + 1] - 1;
    const char* p = reinterpret_cast<const char*>(U.blockPointers[U.colPointers[j]]);
    const unsigned long p_j = U.blockStrides[j];
    const char* end = reinterpret_cast<const char*>(U.blockPointers[diag] + p_j * p_j);
    for (; p < end; p += 64) __builtin_prefetch(p, 0, 3);
}

// Columns ahead of the backward pass that are prefetched: the pass runs from the highest column down,
// against the direction the hardware prefetcher follows on its own.
constexpr unsigned int backwardPrefetchDistance = 4;
// Steps ahead of the planned backward pass whose tiles are prefetched (their first cache line).
constexpr unsigned long backwardPrefetchSteps = 6;

// The passes over the plan of data.factor's layout (made first when it does not match): the steps of the tile
// passes in their order, for numRhs vectors x + r·ld, each step applied to every vector in turn.
const SolvePlan& planOf(const TamberData<double>& data) {
    if (!data.solvePlan.matches(data.factor)) data.solvePlan.make(data.factor);
    return data.solvePlan;
}

// x_b ← x_b / d_b on one block (the diagonal solve's operation).
inline void divideBlock(double* x, const double* d, unsigned int size) {
    kernels::divideEntries(x, d, size);
}

// The residual r = b − y of iterative refinement formed in the forward pass, entry by entry in ascending
// order just ahead of the first step that touches it, each square added to its partial sum as the entry is
// formed (the pass changes the entry afterwards): four partial sums over the entries below N4 = N rounded
// down to a multiple of 4 (entry k to sum k mod 4), the last N mod 4 entries into the first sum after them.
// Each entry gets the operation of a separate pass, b[k] − y[k], before the solve reads it, and each sum its
// terms in ascending order, so the solve and the norm see the values of the passes one after the other.
struct ResidualAhead {
    const double* b;
    double* r;  // y on entry, r where formed
    unsigned long N, N4;
    unsigned long formed = 0;  // entries r[0 … formed) are formed and their squares summed
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;

    ResidualAhead(const double* b_, double* r_, unsigned long n) : b(b_), r(r_), N(n), N4(n & ~3ul) {}

    // Forms the entries up to at least `need` (at most N): up to 64 ahead, in groups of four where it can,
    // so that a call serves many steps.
    void formUpTo(unsigned long need) {
        if (need <= formed) return;
        unsigned long end = (formed + 64 > need ? formed + 64 : need + 3) & ~3ul;
        if (end > N) end = N;
        unsigned long k = formed;
        for (; k < end && (k & 3) != 0; ++k) formOne(k);
        double a0 = s0, a1 = s1, a2 = s2, a3 = s3;
        for (; k + 4 <= end && k + 4 <= N4; k += 4) {
            const double v0 = b[k] - r[k], v1 = b[k + 1] - r[k + 1];
            const double v2 = b[k + 2] - r[k + 2], v3 = b[k + 3] - r[k + 3];
            r[k] = v0;
            r[k + 1] = v1;
            r[k + 2] = v2;
            r[k + 3] = v3;
            a0 += v0 * v0;
            a1 += v1 * v1;
            a2 += v2 * v2;
            a3 += v3 * v3;
        }
        s0 = a0, s1 = a1, s2 = a2, s3 = a3;
        for (; k < end; ++k) formOne(k);
        formed = end;
    }

    void formOne(unsigned long k) {
        const double v = b[k] - r[k];
        r[k] = v;
        double& sum = k >= N4 ? s0 : (k & 3) == 0 ? s0 : (k & 3) == 1 ? s1 : (k & 3) == 2 ? s2 : s3;
        sum += v * v;
    }

    // ‖r‖₂² once every entry is formed.
    double squaredNorm() {
        formUpTo(N);
        return (s0 + s1) + (s2 + s3);
    }
};

// The forward pass; with `divide` also the diagonal solve, each block right after the last forward step that
// reads it (see SolvePlan.h). divide requires data.diagonal.size = N. With `residual` (one vector only, x
// = residual->r): x holds y on entry and gets r = b − y formed ahead of the steps (a step of target block j
// touches x_j and at most the entry after it, and reads blocks before j).
void plannedForward(const TamberData<double>& data, double* x, unsigned int numRhs, unsigned long ld,
                    bool divide, ResidualAhead* residual = nullptr) {
    const SolvePlan& plan = planOf(data);
    const SolvePlan::Division* divisions = plan.divisions.data();
    const double* d = data.diagonal.data;
    unsigned long formed = residual ? residual->formed : ~0ul;  // a copy the steps cannot change
    for (const SolvePlan::Step& step : plan.forward) {
        if (step.target + step.sj + 1ul > formed) {
            residual->formUpTo(static_cast<unsigned long>(step.target) + step.sj + 1);
            formed = residual->formed;
        }
        for (unsigned int r = 0; r < numRhs; ++r) step.run(step, x + r * ld);
        if (!divide) continue;
        for (unsigned int t = step.firstDivision; t < step.endDivision; ++t) {
            const SolvePlan::Division b = divisions[t];
            for (unsigned int r = 0; r < numRhs; ++r)
                divideBlock(x + r * ld + b.offset, d + b.offset, b.size);
        }
    }
    const unsigned int n = static_cast<unsigned int>(plan.numBlockCols);
    if (residual) residual->formUpTo(residual->N);
    if (plan.scalarColumn < n) {
        for (unsigned int r = 0; r < numRhs; ++r)
            forwardColumnScalar(data.factor, x + r * ld, n - 1, data.factor.blockSizes[n - 1]);
    }
    if (!divide) return;
    for (unsigned int t = plan.tailDivision; t < n; ++t) {
        const SolvePlan::Division b = divisions[t];
        for (unsigned int r = 0; r < numRhs; ++r) divideBlock(x + r * ld + b.offset, d + b.offset, b.size);
    }
}

// True when the forward pass can do the diagonal solve: the pivots are N values, N those of the plan.
inline bool divideInForward(const TamberData<double>& data) {
    const SolvePlan& plan = planOf(data);
    return data.diagonal.size == plan.N;
}

// sum[q] += x[q] for begin ≤ q < end.
inline void addRun(double* __restrict sum, const double* __restrict x, unsigned long begin,
                   unsigned long end) {
    for (unsigned long q = begin; q < end; ++q) sum[q] += x[q];
}

// The backward pass. With `sum` (one vector only): sum ← sum + x as well, the entries added in runs as soon
// as the pass can no longer change them, while they are in cache (the additions of a loop after the solve,
// on the same values). Block j is final once the diagonal step of column j − 1 is done: the diagonal step
// of column j finishes its entries, but the paired steps of an odd block j − 1 still write its first entry
// back (minus zero products, which can turn −0 into +0 or a finite value into NaN).
void plannedBackward(const TamberData<double>& data, double* x, unsigned int numRhs, unsigned long ld,
                     double* sum = nullptr) {
    const SolvePlan& plan = planOf(data);
    const unsigned int n = static_cast<unsigned int>(plan.numBlockCols);
    if (plan.scalarColumn < n)
        for (unsigned int r = 0; r < numRhs; ++r) backwardColumnScalar(data.factor, x + r * ld, n - 1);
    // Entries from `finalFrom` on are final once the next diagonal step is done; from `added` on, added.
    unsigned long finalFrom = plan.scalarColumn < n ? data.factor.blockOffsets[n - 1] : plan.N;
    unsigned long added = plan.N;
    // Columns taken out of order finish their blocks out of order: the sum is then formed after the pass.
    const bool inOrder = plan.inOrder != 0;
    const SolvePlan::Step* steps = plan.backward.data();
    const unsigned long count = plan.backward.size();
    for (unsigned long k = 0; k < count; ++k) {
        if (k + backwardPrefetchSteps < count) {
            const SolvePlan::Step& ahead = steps[k + backwardPrefetchSteps];
            __builtin_prefetch(ahead.tile, 0, 3);
        }
        const SolvePlan::Step& step = steps[k];
        for (unsigned int r = 0; r < numRhs; ++r) step.run(step, x + r * ld);
        if (sum && inOrder && step.firstDivision) {
            if (added >= finalFrom + 64) {
                addRun(sum, x, finalFrom, added);
                added = finalFrom;
            }
            finalFrom = step.target;
        }
    }
    if (sum) addRun(sum, x, 0, added);
}

// Rows of column j below `limit`: min(s_j, limit − offset), 0 when the offset is at or past limit.
inline unsigned int rowsBelow(const SparseMatrix<double>& U, unsigned int j, unsigned int limit) {
    const unsigned int off = U.blockOffsets[j];
    if (limit <= off) return 0;
    const unsigned int m = limit - off;
    return m < U.blockSizes[j] ? m : U.blockSizes[j];
}

// ---------------------------------------------------------------------------------------------------------
// Block kernels of the driver's solves. The float forms are the dense kernels; the double forms are the same
// loops written out (the dense kernel family has no double overloads of these four). A row-major view of a
// container tile (i, j) with leading dimension blockStrides[i] is its transpose, L(j, i).
// ---------------------------------------------------------------------------------------------------------

// y(n) −= A·x, A n×m row-major (lda).
inline void subtractAX(const float* A, int lda, const float* x, float* y, int n, int m) {
    tamber_MV_YM_AX(A, lda, x, y, n, m);
}
inline void subtractAX(const double* A, int lda, const double* x, double* y, int n, int m) {
    for (int i = 0; i < n; ++i) {
        const double* a = A + static_cast<long>(i) * lda;
        for (int j = 0; j < m; ++j) y[i] -= a[j] * x[j];
    }
}

// y(m) −= Aᵀ·x, A n×m row-major (lda).
inline void subtractAtX(const float* A, int lda, const float* x, float* y, int n, int m) {
    tamber_MV_YM_AtX(A, lda, x, y, n, m);
}
inline void subtractAtX(const double* A, int lda, const double* x, double* y, int n, int m) {
    for (int i = 0; i < n; ++i) {
        const double* a = A + static_cast<long>(i) * lda;
        const double s = x[i];
        for (int j = 0; j < m; ++j) y[j] -= a[j] * s;
    }
}

// x ← L⁻¹·x, L unit lower row-major (ld), diagonal not read.
inline void solveUnitLower(const float* L, int ld, float* x, int n) {
    tamber_SV_TRIL_UD(L, ld, x, n);
}
inline void solveUnitLower(const double* L, int ld, double* x, int n) {
    for (int i = 1; i < n; ++i) {
        const double* l = L + static_cast<long>(i) * ld;
        for (int j = 0; j < i; ++j) x[i] -= l[j] * x[j];
    }
}

// x ← L⁻ᵀ·x, L lower row-major (ld) with its diagonal.
inline void solveLowerTransposed(const float* L, int ld, float* x, int n) {
    tamber_SV_TRILt(L, ld, x, n);
}
inline void solveLowerTransposed(const double* L, int ld, double* x, int n) {
    for (int i = n - 1; i >= 0; --i) {
        const double* l = L + static_cast<long>(i) * ld;
        x[i] = x[i] / l[i];
        for (int j = 0; j < i; ++j) x[j] -= l[j] * x[i];
    }
}

template <typename T>
constexpr T solveEpsilon();
template <>
constexpr float solveEpsilon<float>() {
    return 1.1920929e-07f;
}
template <>
constexpr double solveEpsilon<double>() {
    return 2.220446049250313e-16;
}

// First block column of M whose slice of x holds an entry with |x_k| ≥ eps; n−1 when there is none.
template <typename T>
unsigned int firstNonzeroBlock(const SparseMatrix<T>& M, const T* x, T eps) {
    const unsigned int n = static_cast<unsigned int>(M.numBlockCols);
    for (unsigned int j = 0; j < n; ++j) {
        const T* xj = x + M.blockOffsets[j];
        for (unsigned int k = 0; k < M.blockSizes[j]; ++k)
            if (std::fabs(xj[k]) >= eps) return j;
    }
    return n - 1;
}

// x_j ← x_j − B_ijᵀ·x_i for container block k of column j (forward pass of the driver's solves).
template <typename T>
inline void forwardBlock(const SparseMatrix<T>& L, unsigned int k, T* xj, unsigned int sj, T* x) {
    const unsigned int i = L.rowIndices[k];
    subtractAX(L.blockPointers[k], static_cast<int>(L.blockStrides[i]), x + L.blockOffsets[i], xj,
               static_cast<int>(sj), static_cast<int>(L.blockSizes[i]));
}

// x_i ← x_i − B_ij·x_j for container block k of column j (backward pass of the driver's solves).
template <typename T>
inline void backwardBlock(const SparseMatrix<T>& LD, unsigned int k, const T* xj, unsigned int sj, T* x) {
    const unsigned int i = LD.rowIndices[k];
    subtractAtX(LD.blockPointers[k], static_cast<int>(LD.blockStrides[i]), xj, x + LD.blockOffsets[i],
                static_cast<int>(sj), static_cast<int>(LD.blockSizes[i]));
}

// The factorization the solves run when data.isFactored is 0.
template <typename T>
void factorIfNeeded(Tamber& driver, TamberData<T>& data) {
    if (!data.isFactored) data.useMultifrontal != 0 ? driver.factorMF<T>(data) : driver.factorSerial<T>(data);
    driver.computeScaledFactor<T>(data);  // the L·D these solves read, when the factorization kept none
}

// Scalar dimension N of the input matrix, 0 when it has no block column.
template <typename T>
unsigned long scalarDimension(const SparseMatrix<T>& M) {
    return M.numBlockCols == 0 ? 0 : M.blockSizes[M.numBlockCols];
}

// The float solve of Tamber::solve<float>.
bool solveFloat(Tamber& driver, TamberData<float>& data, float* x) {
    factorIfNeeded(driver, data);
    const std::uint64_t start = kiv::Timer::ticks();
    const SparseMatrix<float>& L = data.factor;
    const SparseMatrix<float>& LD = data.scaledFactor;
    if (L.numBlockCols == 0 || L.numBlocks == 0) return false;
    const unsigned int n = static_cast<unsigned int>(L.numBlockCols);

    // Forward pass over L from the first column with a non-negligible entry.
    for (unsigned int j = firstNonzeroBlock(L, x, solveEpsilon<float>()); j < n; ++j) {
        const unsigned int sj = L.blockSizes[j];
        float* xj = x + L.blockOffsets[j];
        const unsigned int diag = L.colPointers[j + 1] - 1;
        for (unsigned int k = L.colPointers[j]; k < diag; ++k) forwardBlock(L, k, xj, sj, x);
        solveUnitLower(L.blockPointers[diag], static_cast<int>(L.blockStrides[j]), xj, static_cast<int>(sj));
    }
    // Backward pass over L·D, every column: the diagonal tile divides by the pivots.
    for (unsigned int j = n; j-- > 0;) {
        const unsigned int sj = LD.blockSizes[j];
        float* xj = x + LD.blockOffsets[j];
        const unsigned int diag = LD.colPointers[j + 1] - 1;
        solveLowerTransposed(LD.blockPointers[diag], static_cast<int>(LD.blockStrides[j]), xj,
                             static_cast<int>(sj));
        for (unsigned int k = LD.colPointers[j]; k < diag; ++k) backwardBlock(LD, k, xj, sj, x);
    }
    driver.solveTime += kiv::Timer::seconds(start, kiv::Timer::ticks());
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------
// TamberSolve
// ---------------------------------------------------------------------------------------------------------

namespace TamberSolve {

bool forwardSolve(const SparseMatrix<double>& U, double* x) {
    const unsigned int n = static_cast<unsigned int>(U.numBlockCols);
    if (n == 0) return true;
    // The last column runs scalar when its size is odd: its padding column would write past the end of x.
    const unsigned int paired = (U.blockSizes[n - 1] & 1u) ? n - 1 : n;
    for (unsigned int j = 0; j < paired; ++j) {
        const unsigned int sj = U.blockSizes[j];
        double* xj = x + U.blockOffsets[j];
        const unsigned int diag = U.colPointers[j + 1] - 1;
        for (unsigned int k = U.colPointers[j]; k < diag; ++k) {
            const unsigned int i = U.rowIndices[k];
            forwardOffDiagonalStep(U.blockPointers[k], U.blockStrides[i], x + U.blockOffsets[i],
                                   U.blockSizes[i], xj, sj);
        }
        forwardDiagonalStep(U.blockPointers[diag], U.blockStrides[j], xj, sj);
    }
    if (paired < n) forwardColumnScalar(U, x, n - 1, U.blockSizes[n - 1]);
    return true;
}

bool forwardSolve(const SparseMatrix<double>& U, DenseVector<double>& x, unsigned int limit,
                  unsigned int startBlock) {
    const unsigned long n = U.numBlockCols;
    for (unsigned int j = startBlock; j < n; ++j) {
        forwardColumnScalar(U, x.data, j, rowsBelow(U, j, limit));
        if (U.blockOffsets[j] + U.blockSizes[j] >= limit) break;  // this column reaches limit: the last one
    }
    return true;
}

bool forwardSolve(const SparseMatrix<double>& U, DenseVector<double>& x, unsigned int limit,
                  std::set<unsigned int>& blocks, const EliminationTree* tree) {
    if (blocks.empty()) return true;
    auto it = blocks.begin();
    if (limit < U.blockOffsets[*it]) return true;
    for (;;) {
        const unsigned int j = *it;
        forwardColumnScalar(U, x.data, j, rowsBelow(U, j, limit));
        const unsigned int p = tree->parent[j];
        if (p != j) blocks.insert(p);  // p > j: the walk below reaches it
        ++it;
        if (it == blocks.end() || U.blockOffsets[*it] > limit) break;
    }
    return true;
}

bool diagSolve(const DenseVector<double>& D, double* x) {
    const unsigned int n = static_cast<unsigned int>(D.size);
    const double* d = D.data;
    for (unsigned int k = 0; k < n; ++k) x[k] = x[k] / d[k];
    return true;
}

bool diagSolve(const DenseVector<double>& D, DenseVector<double>& x) {
    if (x.size != D.size) return false;
    return diagSolve(D, x.data);
}

bool backwardTSolve(const SparseMatrix<double>& U, double* x) {
    const unsigned int n = static_cast<unsigned int>(U.numBlockCols);
    if (n == 0) return true;
    unsigned int j = n;
    // An odd last column first, scalar: its padding column would read past the end of x.
    if (U.blockSizes[n - 1] & 1u) backwardColumnScalar(U, x, --j);
    while (j-- > 0) {
        if (j >= backwardPrefetchDistance) prefetchColumn(U, j - backwardPrefetchDistance);
        const unsigned int sj = U.blockSizes[j];
        double* xj = x + U.blockOffsets[j];
        const unsigned int diag = U.colPointers[j + 1] - 1;
        backwardDiagonalStep(U.blockPointers[diag], U.blockStrides[j], xj, sj);
        for (unsigned int k = U.colPointers[j]; k < diag; ++k) {
            const unsigned int i = U.rowIndices[k];
            backwardOffDiagonalStep(U.blockPointers[k], U.blockStrides[i], xj, sj, x + U.blockOffsets[i],
                                    U.blockSizes[i]);
        }
    }
    return true;
}

bool solve(const TamberData<double>& data, double* x) {
    if (!planOf(data).usable) {
        forwardSolve(data.factor, x);
        diagSolve(data.diagonal, x);
        backwardTSolve(data.factor, x);
        return true;
    }
    const bool divide = divideInForward(data);
    plannedForward(data, x, 1, 0, divide);
    if (!divide) diagSolve(data.diagonal, x);
    plannedBackward(data, x, 1, 0);
    return true;
}

// One step of iterative refinement after the product y = A·x (in r): r = b − y, ‖r‖₂ into `norm`, and
// unless ‖r‖₂ > previousNorm, x ← x + A⁻¹·r (r overwritten with A⁻¹·r) and true; false leaves x as it was.
// The bits of the three passes one after the other (residual and its norm, TamberSolve::solve, x[q] +=
// r[q]); with a usable plan the residual is formed in the forward pass (the pass runs before the norm is
// known: it works on r alone) and x + δ is formed in the backward pass, block by block as δ is final.
static bool refinementStep(const TamberData<double>& data, const double* b, double* r, double* x,
                           unsigned long N, double previousNorm, double& norm) {
    ResidualAhead residual(b, r, N);
    if (!planOf(data).usable) {
        norm = std::sqrt(residual.squaredNorm());
        if (norm > previousNorm) return false;
        solve(data, r);
        for (unsigned long q = 0; q < N; ++q) x[q] += r[q];
        return true;
    }
    const bool divide = divideInForward(data);
    plannedForward(data, r, 1, 0, divide, &residual);
    norm = std::sqrt(residual.squaredNorm());
    if (norm > previousNorm) return false;
    if (!divide) diagSolve(data.diagonal, r);
    plannedBackward(data, r, 1, 0, x);
    return true;
}

bool solve(const TamberData<double>& data, DenseVector<double>& x) {
    if (!planOf(data).usable) {
        forwardSolve(data.factor, x.data);
        diagSolve(data.diagonal, x);
        backwardTSolve(data.factor, x.data);
        return true;
    }
    const bool divide = divideInForward(data) && x.size == data.diagonal.size;
    plannedForward(data, x.data, 1, 0, divide);
    if (!divide) diagSolve(data.diagonal, x);
    plannedBackward(data, x.data, 1, 0);
    return true;
}

bool solveMany(const TamberData<double>& data, double* x, unsigned int numRhs, unsigned long ld) {
    if (numRhs == 1) return solve(data, x);
    if (!planOf(data).usable) {
        for (unsigned int r = 0; r < numRhs; ++r)
            solve(data, x + r * ld);  // the tile passes, vector by vector
        return true;
    }
    const bool divide = divideInForward(data);
    plannedForward(data, x, numRhs, ld, divide);
    if (!divide)
        for (unsigned int r = 0; r < numRhs; ++r) diagSolve(data.diagonal, x + r * ld);
    plannedBackward(data, x, numRhs, ld);
    return true;
}

template <typename T>
bool findBadPivot(const TamberData<T>& data, PivotReport& out, double threshold) {
    out = PivotReport();
    const SparseMatrix<T>& A = data.matrix;
    if (!data.isFactored || A.numBlockCols == 0) return false;
    const unsigned int n = static_cast<unsigned int>(A.numBlockCols);
    const unsigned long N = std::min<unsigned long>(A.blockSizes[n], data.diagonal.size);
    const T* d = data.diagonal.data;
    out.scanned = N;
    unsigned long first = N;
    for (unsigned long k = 0; k < N; ++k) {
        const double v = static_cast<double>(d[k]);
        if (std::isfinite(v) && std::fabs(v) > threshold) continue;
        if (out.count++ == 0) first = k;
    }
    if (out.count == 0) return false;

    const double v = static_cast<double>(d[first]);
    out.kind = !std::isfinite(v) ? PivotReport::nonFinite : v == 0.0 ? PivotReport::zero : PivotReport::tiny;
    out.value = v;
    out.scalar = first;
    // The block holding `first`: the last j with blockOffsets[j] <= first (sizes >= 1, offsets ascending).
    const unsigned int* offsets = A.blockOffsets;
    const unsigned int block = static_cast<unsigned int>(
        std::upper_bound(offsets, offsets + n, static_cast<unsigned int>(first)) - offsets - 1);
    out.block = block;
    out.local = static_cast<unsigned int>(first - offsets[block]);

    const Permutation& P = data.permutation;
    if (P.size != n) {
        out.userBlock = block;
        out.userScalar = first;
        return true;
    }
    const unsigned int userBlock = P.forward[block];
    // Σ sizes of the user blocks before userBlock; user block c is block inverse[c] of the factor.
    unsigned long offset = 0;
    for (unsigned int c = 0; c < userBlock; ++c) offset += A.blockSizes[P.inverse[c]];
    out.userBlock = userBlock;
    out.userScalar = offset + out.local;
    return true;
}

const char* pivotKindName(PivotReport::Kind kind) {
    switch (kind) {
        case PivotReport::zero:
            return "zero";
        case PivotReport::nonFinite:
            return "non-finite";
        case PivotReport::tiny:
            return "tiny";
        case PivotReport::none:
            break;
    }
    return "none";
}

template <typename T>
bool solveAtAnyScale(Tamber& tamber, TamberData<T>& data, T* x) {
    if constexpr (std::is_same<T, double>::value) {
        return tamber.solve(data, x);
    } else {
        const unsigned long n = data.matrix.numBlockCols;
        const unsigned long N = n == 0 ? 0 : data.matrix.blockSizes[n];
        double largest = 0.0;
        for (unsigned long p = 0; p < N; ++p)
            largest = std::max(largest, std::fabs(static_cast<double>(x[p])));
        if (!(largest > 0.0) || !std::isfinite(largest)) return tamber.solve(data, x);
        int exponent = 0;
        std::frexp(largest, &exponent);  // largest = f·2^exponent, f in [0.5, 1)
        const int shift = 1 - exponent;
        for (unsigned long p = 0; p < N; ++p) x[p] = std::ldexp(x[p], shift);
        const bool ok = tamber.solve(data, x);
        for (unsigned long p = 0; p < N; ++p) x[p] = std::ldexp(x[p], -shift);
        return ok;
    }
}

template bool solveAtAnyScale<float>(Tamber&, TamberData<float>&, float*);
template bool solveAtAnyScale<double>(Tamber&, TamberData<double>&, double*);
template bool findBadPivot<float>(const TamberData<float>&, PivotReport&, double);
template bool findBadPivot<double>(const TamberData<double>&, PivotReport&, double);

}  // namespace TamberSolve

// ---------------------------------------------------------------------------------------------------------
// Tamber: solve driver
// ---------------------------------------------------------------------------------------------------------

template <typename T>
bool Tamber::solve(TamberData<T>& data, T* x) {
    if constexpr (std::is_same<T, double>::value) {
        // Deliberately untimed and without on-demand factoring (see TamberSolve::solve).
        return TamberSolve::solve(data, x);
    } else {
        return solveFloat(*this, data, x);
    }
}

template <typename T>
bool Tamber::solve(TamberData<T>& data, const T* b, T* x) {
    const unsigned long N = scalarDimension(data.matrix);
    if (N > 0 && b != x) std::memmove(x, b, N * sizeof(T));
    return solve<T>(data, x);
}

template <typename T>
unsigned long Tamber::unitSolve(TamberData<T>& data, T* x, int start) {
    factorIfNeeded(*this, data);
    const SparseMatrix<T>& L = data.factor;
    const SparseMatrix<T>& LD = data.scaledFactor;
    if (L.numBlockCols == 0) return 0;
    const unsigned int n = static_cast<unsigned int>(L.numBlockCols);
    const unsigned long N = L.blockSizes[n];
    if (L.numBlocks == 0) return N;

    const std::uint64_t clockStart = kiv::Timer::ticks();
    unsigned char* marks = data.scratchPad.getUCharArray(0, n);
    std::memset(marks, 0, n);
    unsigned int* path =
        reinterpret_cast<unsigned int*>(data.scratchPad.getIntArray(TamberSolve::unitSolvePathSlot, n));

    // Start block s.
    unsigned int s = 0;
    if (start < 0) {
        s = firstNonzeroBlock(L, x, solveEpsilon<T>());
    } else if (start > 0) {
        unsigned long end = L.blockSizes[0];  // blockOffsets[s] + s_s
        while (end < static_cast<unsigned long>(start) && s + 1 < n) end += L.blockSizes[++s];
    }

    // Path s → root, marked.
    unsigned int length = 0;
    unsigned int j = s;
    for (;;) {
        path[length++] = j;
        marks[j] = 1;
        const unsigned int p = data.etree.parent[j];
        if (p == j || length == n) break;
        j = p;
    }

    unsigned long lowest = N;
    // Forward pass over L along the path; sources from unmarked blocks are skipped.
    for (unsigned int t = 0; t < length; ++t) {
        j = path[t];
        const unsigned int sj = L.blockSizes[j];
        T* xj = x + L.blockOffsets[j];
        const unsigned int diag = L.colPointers[j + 1] - 1;
        for (unsigned int k = L.colPointers[j]; k < diag; ++k)
            if (marks[L.rowIndices[k]]) forwardBlock(L, k, xj, sj, x);
        solveUnitLower(L.blockPointers[diag], static_cast<int>(L.blockStrides[j]), xj, static_cast<int>(sj));
        if (L.blockOffsets[j] < lowest) lowest = L.blockOffsets[j];
    }
    // Backward pass over L·D from the root down; the marks spread to every block that is updated.
    for (j = path[length - 1] + 1; j-- > 0;) {
        if (!marks[j]) continue;
        const unsigned int sj = LD.blockSizes[j];
        T* xj = x + LD.blockOffsets[j];
        const unsigned int diag = LD.colPointers[j + 1] - 1;
        solveLowerTransposed(LD.blockPointers[diag], static_cast<int>(LD.blockStrides[j]), xj,
                             static_cast<int>(sj));
        if (LD.blockOffsets[j] < lowest) lowest = LD.blockOffsets[j];
        for (unsigned int k = LD.colPointers[j]; k < diag; ++k) {
            const unsigned int i = LD.rowIndices[k];
            marks[i] = 1;
            backwardBlock(LD, k, xj, sj, x);
            if (LD.blockOffsets[i] < lowest) lowest = LD.blockOffsets[i];
        }
    }
    solveTime += kiv::Timer::seconds(clockStart, kiv::Timer::ticks());
    return lowest;
}

void Tamber::iterativeRefinement(TamberData<double>& data, const double* b, double* x, int maxIterations) {
    if (maxIterations <= 0) return;
    const unsigned long N = scalarDimension(data.matrix);
    double* r = data.scratchPad.getDoubleArray(TamberSolve::refinementResidualSlot, N);
    double* x0 = data.scratchPad.getDoubleArray(TamberSolve::refinementEntrySlot, N);
    // The entry copy is needed only when a later step can diverge after x has moved.
    if (N > 0 && maxIterations > 1) std::memcpy(x0, x, N * sizeof(double));
    double previousNorm = 1.0e9;
    for (int iteration = 0; iteration < maxIterations; ++iteration) {
        data.matrix.multiply(x, r);
        // r = b − A·x and ‖r‖² (in four partial sums: one chain of N dependent additions would cost more than
        // the product), then x ← x + δ with δ = A⁻¹·r.
        double norm = 0.0;
        if (!TamberSolve::refinementStep(data, b, r, x, N, previousNorm, norm)) {
            // Diverging: back to the entry value of x, not to the previous iterate (unchanged in step 0).
            if (N > 0 && iteration > 0) std::memcpy(x, x0, N * sizeof(double));
            return;
        }
        previousNorm = norm;
    }
}

template bool Tamber::solve<float>(TamberData<float>&, float*);
template bool Tamber::solve<double>(TamberData<double>&, double*);
template bool Tamber::solve<float>(TamberData<float>&, const float*, float*);
template bool Tamber::solve<double>(TamberData<double>&, const double*, double*);
template unsigned long Tamber::unitSolve<float>(TamberData<float>&, float*, int);
template unsigned long Tamber::unitSolve<double>(TamberData<double>&, double*, int);

}  // namespace kivTamber
