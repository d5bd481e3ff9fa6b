// 1-norm of A, estimate of ‖A⁻¹‖₁ and the tiny-pivot test.
#include "ConditionEstimate.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "TamberSolve.h"

namespace kivTamber {
namespace {

// Σ |v_k| in double; +infinity when a value is not finite.
template <typename T>
double norm1(const T* v, unsigned long n) {
    double s = 0.0;
    for (unsigned long k = 0; k < n; ++k) {
        const double a = std::fabs(static_cast<double>(v[k]));
        if (!std::isfinite(a)) return std::numeric_limits<double>::infinity();
        s += a;
    }
    return s;
}

// Index of the largest |v_k| (the first of equal ones).
template <typename T>
unsigned long argMaxAbs(const T* v, unsigned long n) {
    unsigned long best = 0;
    for (unsigned long k = 1; k < n; ++k)
        if (std::fabs(v[k]) > std::fabs(v[best])) best = k;
    return best;
}

// The diagonal tile of block column j of data.matrix (the block whose row is j), or null.
template <typename T>
const T* diagonalTile(const SparseMatrix<T>& A, unsigned int j) {
    for (unsigned int k = A.colPointers[j + 1]; k > A.colPointers[j]; --k)
        if (A.rowIndices[k - 1] == j) return A.blockPointers[k - 1];
    return nullptr;
}

}  // namespace

template <typename T>
double matrixNorm1(const TamberData<T>& data, double* work) {
    const SparseMatrix<T>& A = data.matrix;
    const unsigned long n = A.numBlockCols;
    if (n == 0) return 0.0;
    const unsigned long N = A.blockSizes[n];
    std::fill(work, work + N, 0.0);
    for (unsigned long i = 0; i < n; ++i) {
        const unsigned int si = A.blockSizes[i], oi = A.blockOffsets[i];
        for (unsigned int k = A.colPointers[i]; k < A.colPointers[i + 1]; ++k) {
            const unsigned int j = A.rowIndices[k];  // tile (j, i): s_j × s_i, column-major, stride_j
            const unsigned int sj = A.blockSizes[j], oj = A.blockOffsets[j], ld = A.blockStrides[j];
            const T* B = A.blockPointers[k];
            for (unsigned int c = 0; c < si; ++c)
                for (unsigned int r = 0; r < sj; ++r) {
                    if (j == i && r > c) break;  // the triangle r <= c of a diagonal tile
                    const double a =
                        std::fabs(static_cast<double>(B[static_cast<unsigned long>(c) * ld + r]));
                    work[oi + c] += a;                        // a(oj + r, oi + c)
                    if (j != i || r != c) work[oj + r] += a;  // its mirror
                }
        }
    }
    double norm = 0.0;
    for (unsigned long c = 0; c < N; ++c) norm = std::max(norm, work[c]);
    return norm;
}

template <typename T>
double matrixNorm1(const TamberData<T>& data) {
    const unsigned long n = data.matrix.numBlockCols;
    std::vector<double> work(n == 0 ? 0 : data.matrix.blockSizes[n]);
    return matrixNorm1(data, work.data());
}

template <typename T>
double estimateInverseNorm1(Tamber& tamber, TamberData<T>& data, T* work, int maxSteps,
                            const double* weights) {
    const unsigned long n = data.matrix.numBlockCols;
    if (!data.isFactored || n == 0) return std::numeric_limits<double>::quiet_NaN();
    const unsigned long N = data.matrix.blockSizes[n];
    const double infinity = std::numeric_limits<double>::infinity();
    T* x = work;
    T* sign = work + N;
    // B = W·A⁻¹ and Bᵀ = A⁻¹·W (A symmetric).
    auto timesB = [&](T* v) {
        TamberSolve::solveAtAnyScale(tamber, data, v);
        if (weights != nullptr)
            for (unsigned long k = 0; k < N; ++k)
                v[k] = static_cast<T>(weights[k] * static_cast<double>(v[k]));
    };
    auto timesBt = [&](T* v) {
        if (weights != nullptr)
            for (unsigned long k = 0; k < N; ++k)
                v[k] = static_cast<T>(weights[k] * static_cast<double>(v[k]));
        TamberSolve::solveAtAnyScale(tamber, data, v);
    };
    auto signOf = [](T v) { return v >= T(0) ? T(1) : T(-1); };
    // y = B·(1/N, …, 1/N).
    std::fill(x, x + N, static_cast<T>(1.0 / static_cast<double>(N)));
    timesB(x);
    double estimate = norm1(x, N);
    if (!std::isfinite(estimate)) return infinity;
    if (N == 1) return estimate;
    for (unsigned long k = 0; k < N; ++k) sign[k] = signOf(x[k]);
    // z = Bᵀ·sign(y); j = argmax |z_j|.
    std::copy(sign, sign + N, x);
    timesBt(x);
    unsigned long j = argMaxAbs(x, N);
    for (int step = 0; step < maxSteps; ++step) {
        // y = B·e_j: column j of B.
        std::fill(x, x + N, T(0));
        x[j] = T(1);
        timesB(x);
        const double previous = estimate;
        estimate = norm1(x, N);
        if (!std::isfinite(estimate)) return infinity;
        bool sameSigns = true;
        for (unsigned long k = 0; k < N && sameSigns; ++k) sameSigns = signOf(x[k]) == sign[k];
        if (sameSigns || estimate <= previous) {
            estimate = std::max(estimate, previous);
            break;
        }
        for (unsigned long k = 0; k < N; ++k) sign[k] = signOf(x[k]);
        std::copy(sign, sign + N, x);
        timesBt(x);
        const unsigned long next = argMaxAbs(x, N);
        if (std::fabs(x[next]) <= std::fabs(x[j])) break;  // no better column in sight
        j = next;
    }
    // Higham's safeguard against the rare matrices that fool the search.
    for (unsigned long k = 0; k < N; ++k) {
        const double v = 1.0 + static_cast<double>(k) / static_cast<double>(N - 1);
        x[k] = static_cast<T>(k % 2 == 0 ? v : -v);
    }
    timesB(x);
    const double alternative = 2.0 * norm1(x, N) / (3.0 * static_cast<double>(N));
    if (!std::isfinite(alternative)) return infinity;
    return std::max(estimate, alternative);
}

template <typename T>
double estimateInverseNorm1(Tamber& tamber, TamberData<T>& data, int maxSteps, const double* weights) {
    const unsigned long n = data.matrix.numBlockCols;
    std::vector<T> work(n == 0 ? 0 : 2ul * data.matrix.blockSizes[n]);
    return estimateInverseNorm1(tamber, data, work.data(), maxSteps, weights);
}

template <typename T>
bool findTinyPivot(const TamberData<T>& data, double epsilon, TinyPivot& out) {
    const SparseMatrix<T>& L = data.factor;  // container column j = block row j of L
    const SparseMatrix<T>& A = data.matrix;
    const unsigned long n = L.numBlockCols;
    if (!data.isFactored || n == 0) return false;
    const T* d = data.diagonal.data;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int sj = L.blockSizes[j], oj = L.blockOffsets[j], ldj = L.blockStrides[j];
        const unsigned int diag = L.colPointers[j + 1] - 1;
        const T* Ajj = diagonalTile(A, j);
        const unsigned int ldA = A.blockStrides[j];
        for (unsigned int r = 0; r < sj; ++r) {
            // Row (j, r) of L: l_(j,r),(i,q) = tile[r·stride_i + q] of the off-diagonal tiles, and the
            // strict lower part of the diagonal block, tile[r·stride_j + q], q < r.
            double scale = Ajj != nullptr
                               ? std::fabs(static_cast<double>(Ajj[static_cast<unsigned long>(r) * ldA + r]))
                               : 0.0;
            for (unsigned int k = L.colPointers[j]; k < diag; ++k) {
                const unsigned int i = L.rowIndices[k];
                const T* B = L.blockPointers[k] + static_cast<unsigned long>(r) * L.blockStrides[i];
                const T* di = d + L.blockOffsets[i];
                for (unsigned int q = 0; q < L.blockSizes[i]; ++q) {
                    const double l = static_cast<double>(B[q]);
                    scale += l * l * std::fabs(static_cast<double>(di[q]));  // l_kj²·|d_j|
                }
            }
            const T* D = L.blockPointers[diag] + static_cast<unsigned long>(r) * ldj;
            for (unsigned int q = 0; q < r; ++q) {
                const double l = static_cast<double>(D[q]);
                scale += l * l * std::fabs(static_cast<double>(d[oj + q]));
            }
            const double value = static_cast<double>(d[oj + r]);
            if (!std::isfinite(value) || !(std::fabs(value) > epsilon * scale)) {
                out.scalar = oj + r;
                out.block = j;
                out.local = r;
                out.value = value;
                out.scale = scale;
                return true;
            }
        }
    }
    return false;
}

template double matrixNorm1<float>(const TamberData<float>&, double*);
template double matrixNorm1<double>(const TamberData<double>&, double*);
template double matrixNorm1<float>(const TamberData<float>&);
template double matrixNorm1<double>(const TamberData<double>&);
template double estimateInverseNorm1<float>(Tamber&, TamberData<float>&, float*, int, const double*);
template double estimateInverseNorm1<double>(Tamber&, TamberData<double>&, double*, int, const double*);
template double estimateInverseNorm1<float>(Tamber&, TamberData<float>&, int, const double*);
template double estimateInverseNorm1<double>(Tamber&, TamberData<double>&, int, const double*);
template bool findTinyPivot<float>(const TamberData<float>&, double, TinyPivot&);
template bool findTinyPivot<double>(const TamberData<double>&, double, TinyPivot&);

}  // namespace kivTamber
