// Dense reference arithmetic for the tests: a full symmetric matrix, an unpivoted dense L·D·Lᵀ, solves and
// scaled residuals. Everything is plain double-precision loops, slow and obviously correct; the library's
// results (in float or double) are compared against it.
#ifndef KIVTAMBER_TESTING_DENSEREFERENCE_H
#define KIVTAMBER_TESTING_DENSEREFERENCE_H

#include <vector>

namespace kivTamber {
namespace testing {

// Square matrix of n rows, stored in full, row-major: (i, j) at i·n + j. Used for symmetric matrices, but
// nothing enforces symmetry.
class DenseSymmetric {
public:
    DenseSymmetric() = default;
    explicit DenseSymmetric(unsigned int size) : n(size), a(static_cast<std::size_t>(size) * size, 0.0) {}

    double& operator()(unsigned int i, unsigned int j) { return a[static_cast<std::size_t>(i) * n + j]; }
    double operator()(unsigned int i, unsigned int j) const { return a[static_cast<std::size_t>(i) * n + j]; }

    // Sets (i, j) and (j, i) to v.
    void setSymmetric(unsigned int i, unsigned int j, double v) {
        (*this)(i, j) = v;
        (*this)(j, i) = v;
    }

    unsigned int n = 0;
    std::vector<double> a;
};

// Result of denseLdlt: L unit lower triangular (n×n, row-major, exact zeros above the diagonal) and the n
// pivots d.
struct DenseLdlt {
    unsigned int n = 0;
    std::vector<double> L;
    std::vector<double> d;
};

// A = L·D·Lᵀ without pivoting (reads the lower triangle of A only). A zero pivot gives non-finite values.
DenseLdlt denseLdlt(const DenseSymmetric& A);

// x = A⁻¹·b with a factorization from denseLdlt (b: in, x: out, n elements each).
std::vector<double> denseSolve(const DenseLdlt& f, const std::vector<double>& b);

// L·D·Lᵀ of a factorization, as a full matrix.
DenseSymmetric denseReconstruct(const DenseLdlt& f);

// y = A·x (x: n elements).
std::vector<double> denseMultiply(const DenseSymmetric& A, const std::vector<double>& x);

// ‖A‖∞, the largest absolute row sum; 0 for n = 0.
double normInf(const DenseSymmetric& A);

// ‖x‖∞ of n elements.
template <typename T>
double normInf(const T* x, unsigned int n);

// ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞), computed in double; 0 when the denominator is 0. The scaled residual of a
// backward-stable solve is a small multiple of the machine epsilon of the precision it ran in.
// x, b: n = A.n elements each.
template <typename T>
double scaledResidual(const DenseSymmetric& A, const T* x, const T* b);

// Largest |A(i, j) − B(i, j)| over all i, j (both n×n).
double maxAbsDifference(const DenseSymmetric& A, const DenseSymmetric& B);

// A random vector of n values, uniform in [−1, 1], from `seed`.
std::vector<double> randomVector(unsigned int n, unsigned long seed);

extern template double normInf<float>(const float*, unsigned int);
extern template double normInf<double>(const double*, unsigned int);
extern template double scaledResidual<float>(const DenseSymmetric&, const float*, const float*);
extern template double scaledResidual<double>(const DenseSymmetric&, const double*, const double*);

}  // namespace testing
}  // namespace kivTamber

#endif  // KIVTAMBER_TESTING_DENSEREFERENCE_H
