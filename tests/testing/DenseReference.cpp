#include "testing/DenseReference.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace kivTamber {
namespace testing {

DenseLdlt denseLdlt(const DenseSymmetric& A) {
    const unsigned int n = A.n;
    DenseLdlt f;
    f.n = n;
    f.L.assign(static_cast<std::size_t>(n) * n, 0.0);
    f.d.assign(n, 0.0);
    auto L = [&f, n](unsigned int i, unsigned int j) -> double& {
        return f.L[static_cast<std::size_t>(i) * n + j];
    };
    for (unsigned int j = 0; j < n; ++j) {
        double djj = A(j, j);
        for (unsigned int k = 0; k < j; ++k) djj -= L(j, k) * L(j, k) * f.d[k];
        f.d[j] = djj;
        L(j, j) = 1.0;
        for (unsigned int i = j + 1; i < n; ++i) {
            double v = A(i, j);
            for (unsigned int k = 0; k < j; ++k) v -= L(i, k) * f.d[k] * L(j, k);
            L(i, j) = v / djj;
        }
    }
    return f;
}

std::vector<double> denseSolve(const DenseLdlt& f, const std::vector<double>& b) {
    const unsigned int n = f.n;
    std::vector<double> x(b);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int k = 0; k < i; ++k) x[i] -= f.L[static_cast<std::size_t>(i) * n + k] * x[k];
    }
    for (unsigned int i = 0; i < n; ++i) x[i] /= f.d[i];
    for (unsigned int i = n; i-- > 0;) {
        for (unsigned int k = i + 1; k < n; ++k) x[i] -= f.L[static_cast<std::size_t>(k) * n + i] * x[k];
    }
    return x;
}

DenseSymmetric denseReconstruct(const DenseLdlt& f) {
    const unsigned int n = f.n;
    DenseSymmetric A(n);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int j = 0; j < n; ++j) {
            double s = 0.0;
            const unsigned int kEnd = std::min(i, j);
            for (unsigned int k = 0; k <= kEnd; ++k) {
                s += f.L[static_cast<std::size_t>(i) * n + k] * f.d[k] *
                     f.L[static_cast<std::size_t>(j) * n + k];
            }
            A(i, j) = s;
        }
    }
    return A;
}

std::vector<double> denseMultiply(const DenseSymmetric& A, const std::vector<double>& x) {
    std::vector<double> y(A.n, 0.0);
    for (unsigned int i = 0; i < A.n; ++i) {
        double s = 0.0;
        for (unsigned int j = 0; j < A.n; ++j) s += A(i, j) * x[j];
        y[i] = s;
    }
    return y;
}

// max that lets a NaN win, so that a non-finite result can never pass a check.
inline double maxNan(double a, double b) { return (std::isnan(a) || std::isnan(b)) ? NAN : std::max(a, b); }

double normInf(const DenseSymmetric& A) {
    double m = 0.0;
    for (unsigned int i = 0; i < A.n; ++i) {
        double s = 0.0;
        for (unsigned int j = 0; j < A.n; ++j) s += std::fabs(A(i, j));
        m = maxNan(m, s);
    }
    return m;
}

template <typename T>
double normInf(const T* x, unsigned int n) {
    double m = 0.0;
    for (unsigned int i = 0; i < n; ++i) m = maxNan(m, std::fabs(static_cast<double>(x[i])));
    return m;
}

template <typename T>
double scaledResidual(const DenseSymmetric& A, const T* x, const T* b) {
    double r = 0.0;
    for (unsigned int i = 0; i < A.n; ++i) {
        double s = -static_cast<double>(b[i]);
        for (unsigned int j = 0; j < A.n; ++j) s += A(i, j) * static_cast<double>(x[j]);
        r = maxNan(r, std::fabs(s));
    }
    const double denominator = normInf(A) * normInf(x, A.n) + normInf(b, A.n);
    if (std::isnan(r) || std::isnan(denominator)) return NAN;
    return denominator > 0.0 ? r / denominator : 0.0;
}

double maxAbsDifference(const DenseSymmetric& A, const DenseSymmetric& B) {
    double m = 0.0;
    for (std::size_t k = 0; k < A.a.size(); ++k) m = maxNan(m, std::fabs(A.a[k] - B.a[k]));
    return m;
}

std::vector<double> randomVector(unsigned int n, unsigned long seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(n);
    for (double& x : v) x = u(rng);
    return v;
}

template double normInf<float>(const float*, unsigned int);
template double normInf<double>(const double*, unsigned int);
template double scaledResidual<float>(const DenseSymmetric&, const float*, const float*);
template double scaledResidual<double>(const DenseSymmetric&, const double*, const double*);

}  // namespace testing
}  // namespace kivTamber
