// Accuracy checks of a finished L·D·Lᵀ factorization: the 1-norm of A, an estimate of ‖A⁻¹‖₁ from a few
// solves with the factor (so κ₁(A) = ‖A‖₁·‖A⁻¹‖₁ without forming A⁻¹), and the first pivot that lost all its
// digits to cancellation.
//
// Everything works in the factor's (permuted) order: a symmetric permutation changes neither norm, so no
// vector needs to be permuted. A is symmetric, so ‖A‖₁ = ‖A‖∞ and κ₁(A) = κ∞(A).
#ifndef KIVTAMBER_CONDITIONESTIMATE_H
#define KIVTAMBER_CONDITIONESTIMATE_H

#include "Tamber.h"

namespace kivTamber {

// ‖A‖₁ = max_c Σ_r |a_rc| of the symmetric matrix held by data.matrix (each stored block (j, i), j < i,
// counts for both triangles; of a diagonal tile the triangle r <= c is read, as the library's products do).
// work: workspace of N = data.matrix.blockSizes[n] doubles. Reads only; allocates nothing. Cost O(values).
// An empty matrix (n = 0) gives 0.
template <typename T>
double matrixNorm1(const TamberData<T>& data, double* work);

// The same with its own workspace (allocates N doubles).
template <typename T>
double matrixNorm1(const TamberData<T>& data);

// An estimate of ‖A⁻¹‖₁ by Hager's method as refined by Higham (N. J. Higham, "FORTRAN codes for estimating
// the one-norm of a real or complex matrix", ACM TOMS 14, 1988; LAPACK's xLACN2): a search for the column of
// A⁻¹ of largest 1-norm that uses only products with A⁻¹ (here Tamber::solve, A being symmetric A⁻ᵀ = A⁻¹),
// at most 2 + 2·maxSteps + 1 solves, plus Higham's extra vector x_i = (−1)^i·(1 + i/(N−1)) as a safeguard.
// The estimate is a lower bound of ‖A⁻¹‖₁, nearly always within a factor 3 of it.
// With `weights` w (N values in the factor's order, or null for all ones) the same estimates ‖W·A⁻¹‖₁ =
// ‖A⁻¹·W‖∞, W = diag(w): with w = |r| + c·ε·(|A|·|x| + |b|) this is the forward error bound of a computed
// solution x in the ∞-norm times ‖x‖∞ (the bound LAPACK's refinement routines report as FERR), which is
// tighter than κ(A) times the scaled residual for badly scaled matrices.
// Preconditions: data is factored (data.isFactored = 1); otherwise nothing is solved and the result is NaN.
// work: workspace of 2·N values of T. maxSteps >= 1 (5 is LAPACK's choice).
// Returns the estimate; +infinity when a solve produced a non-finite value (A numerically singular in T).
// Allocates nothing itself (Tamber::solve uses data's scratch arrays, which a factorization has sized).
// Cost: at most 2·maxSteps + 3 solves and O(N) per step.
template <typename T>
double estimateInverseNorm1(Tamber& tamber, TamberData<T>& data, T* work, int maxSteps = 5,
                            const double* weights = nullptr);

// The same with its own workspace (allocates 2·N values of T).
template <typename T>
double estimateInverseNorm1(Tamber& tamber, TamberData<T>& data, int maxSteps = 5,
                            const double* weights = nullptr);

// A pivot d_k that is tiny relative to the terms it was computed from.
struct TinyPivot {
    unsigned long scalar = 0;  // k in elimination order (index into data.diagonal)
    unsigned int block = 0;    // data's block holding k, and k's index inside it
    unsigned int local = 0;
    double value = 0.0;  // d_k
    double scale = 0.0;  // |a_kk| + Σ_{j<k} l_kj²·|d_j|
};

// The first pivot k, in elimination order, with |d_k| <= epsilon·(|a_kk| + Σ_{j<k} l_kj²·|d_j|): d_k =
// a_kk − Σ_{j<k} l_kj²·d_j, and when its magnitude is at the rounding level of the terms it is computed
// from, no digit of it can be trusted. The test reads only the pivot's own row of L and its own diagonal
// entry of A, so it does not depend on how the other rows are scaled: an exact unit pivot of a fixed degree
// of freedom is never tiny, however stiff the rest of the matrix; a constraint's pivot (a_kk = 0, no
// cancellation) is tiny only when it is exactly 0. Zero and non-finite pivots also match.
// Preconditions: data is factored (isFactored = 1); otherwise false. epsilon: e.g. the unit roundoff of T.
// out: filled when a pivot matches. Reads only; allocates nothing. Cost O(entries of L).
template <typename T>
bool findTinyPivot(const TamberData<T>& data, double epsilon, TinyPivot& out);

extern template double matrixNorm1<float>(const TamberData<float>&, double*);
extern template double matrixNorm1<double>(const TamberData<double>&, double*);
extern template double matrixNorm1<float>(const TamberData<float>&);
extern template double matrixNorm1<double>(const TamberData<double>&);
extern template double estimateInverseNorm1<float>(Tamber&, TamberData<float>&, float*, int, const double*);
extern template double estimateInverseNorm1<double>(Tamber&, TamberData<double>&, double*, int,
                                                    const double*);
extern template double estimateInverseNorm1<float>(Tamber&, TamberData<float>&, int, const double*);
extern template double estimateInverseNorm1<double>(Tamber&, TamberData<double>&, int, const double*);
extern template bool findTinyPivot<float>(const TamberData<float>&, double, TinyPivot&);
extern template bool findTinyPivot<double>(const TamberData<double>&, double, TinyPivot&);

}  // namespace kivTamber

#endif  // KIVTAMBER_CONDITIONESTIMATE_H
