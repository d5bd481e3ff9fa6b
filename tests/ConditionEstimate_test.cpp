// The accuracy checks of a factorization against dense references: ‖A‖₁, the estimate of ‖A⁻¹‖₁ (plain and
// weighted, in double and float, serial and multifrontal factors) and the tiny-pivot test.
#include "ConditionEstimate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using testing::DenseSymmetric;

// max_c Σ_r |w_r·(A⁻¹)_rc| by N dense solves (w = null: all ones).
double exactInverseNorm1(const DenseSymmetric& A, const double* w = nullptr) {
    const testing::DenseLdlt f = testing::denseLdlt(A);
    double norm = 0.0;
    for (unsigned int c = 0; c < A.n; ++c) {
        std::vector<double> e(A.n, 0.0);
        e[c] = 1.0;
        const std::vector<double> column = testing::denseSolve(f, e);
        double sum = 0.0;
        for (unsigned int r = 0; r < A.n; ++r) sum += std::fabs(column[r]) * (w != nullptr ? w[r] : 1.0);
        norm = std::max(norm, sum);
    }
    return norm;
}

double exactNorm1(const DenseSymmetric& A) {
    double norm = 0.0;
    for (unsigned int c = 0; c < A.n; ++c) {
        double sum = 0.0;
        for (unsigned int r = 0; r < A.n; ++r) sum += std::fabs(A(r, c));
        norm = std::max(norm, sum);
    }
    return norm;
}

template <typename T>
void factor(const BlockSystem& sys, TamberData<T>& data, Tamber& tamber, bool multifrontal) {
    sys.fillData(data);
    tamber.estimateWork(data, nullptr);
    data.useMultifrontal = multifrontal ? 1 : 0;
    data.numThreads = multifrontal ? 2 : 1;
    if (multifrontal)
        tamber.factorMF(data);
    else
        tamber.factorSerial(data);
}

// The estimate is a lower bound (up to rounding) and, on these systems, within a factor 3 of the truth; the
// weighted form estimates ‖W·A⁻¹‖₁; ‖A‖₁ is the dense one to rounding.
TEST(ConditionEstimate, NormsMatchDenseReferences) {
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        const BlockSystem sys = seed % 2 == 0 ? testing::makeSpdSystem(seed, 9, 4)
                                              : testing::makeSaddlePointSystem(seed, 8, 5, 3);
        SCOPED_TRACE(testing::describe(sys) + " seed " + std::to_string(seed));
        const double exact = exactInverseNorm1(sys.dense);
        std::vector<double> w(sys.N);
        for (unsigned int k = 0; k < sys.N; ++k) w[k] = 1.0 + static_cast<double>((k * 7919u + seed) % 13);
        const double exactWeighted = exactInverseNorm1(sys.dense, w.data());
        for (bool multifrontal : {false, true}) {
            Tamber tamber;
            TamberData<double> data;
            factor(sys, data, tamber, multifrontal);
            EXPECT_NEAR(matrixNorm1(data), exactNorm1(sys.dense), 1e-13 * exactNorm1(sys.dense));
            const double estimate = estimateInverseNorm1(tamber, data);
            EXPECT_LE(estimate, exact * (1 + 1e-10));
            EXPECT_GE(estimate, exact / 3);
            const double weighted = estimateInverseNorm1(tamber, data, 5, w.data());
            EXPECT_LE(weighted, exactWeighted * (1 + 1e-10));
            EXPECT_GE(weighted, exactWeighted / 3);
            TamberData<float> single;
            factor(sys, single, tamber, multifrontal);
            EXPECT_NEAR(estimateInverseNorm1(tamber, single), exact, 0.67 * exact + 1e-3 * exact);
        }
    }
}

// Hilbert matrices: the condition estimate follows the known growth, κ₁(H_n) ≈ 3.4e10 at n = 8.
TEST(ConditionEstimate, HilbertCondition) {
    for (unsigned int n : {4u, 6u, 8u}) {
        DenseSymmetric H(n);
        for (unsigned int i = 0; i < n; ++i)
            for (unsigned int j = 0; j < n; ++j) H(i, j) = 1.0 / (i + j + 1.0);
        const BlockSystem sys = testing::makeFromDense(std::vector<unsigned int>(n, 1), H);
        Tamber tamber;
        TamberData<double> data;
        factor(sys, data, tamber, false);
        const double kappa = matrixNorm1(data) * estimateInverseNorm1(tamber, data);
        const double exact = exactNorm1(H) * exactInverseNorm1(H);
        EXPECT_NEAR(kappa, exact, 1e-4 * exact) << n;
    }
}

// An unfactored object is not solved: NaN, and no tiny pivot.
TEST(ConditionEstimate, UnfactoredDataGivesNaN) {
    const BlockSystem sys = testing::makeSpdSystem(3, 5, 3);
    Tamber tamber;
    TamberData<double> data;
    sys.fillData(data);
    EXPECT_TRUE(std::isnan(estimateInverseNorm1(tamber, data)));
    TinyPivot tiny;
    EXPECT_FALSE(findTinyPivot(data, 1e-3, tiny));
    EXPECT_EQ(data.isFactored, 0);
}

// d_2 = (1 + δ) − 1: tiny exactly when δ is at the rounding level of the terms (scale |a_22| + l²|d_1| ≈ 2);
// an exact unit pivot beside huge entries is never tiny; a constraint pivot −j²/m without cancellation is
// not tiny however stiff m is.
TEST(ConditionEstimate, TinyPivotIsRelativeToItsOwnRow) {
    struct Case {
        std::vector<double> a;  // 3×3 row-major
        double epsilon;
        bool tiny;
        unsigned int at;
    };
    const double e = std::numeric_limits<double>::epsilon();
    const Case cases[] = {
        {{1, 1, 0, 1, 1 + 4 * e, 0, 0, 0, 5}, e, false, 0},
        {{1, 1, 0, 1, 1 + e, 0, 0, 0, 5}, e, true, 1},
        {{1e12, 0, 1e6, 0, 1, 0, 1e6, 0, 2e12}, e, false, 0},  // row 2: an exact unit pivot
        {{1e9, 0, 1, 0, 1e9, 1, 1, 1, 0}, 1e-7, false, 0},     // d_3 = −2e−9, |J| = 1
        {{1, 1, 0, 1, 1, 0, 0, 0, 5}, e, true, 1},             // d_2 = 0
    };
    for (const Case& c : cases) {
        DenseSymmetric A(3);
        for (unsigned int i = 0; i < 9; ++i) A(i / 3, i % 3) = c.a[i];
        const BlockSystem sys = testing::makeFromDense({1, 1, 1}, A);
        Tamber tamber;
        TamberData<double> data;
        factor(sys, data, tamber, false);
        TinyPivot tiny;
        ASSERT_EQ(findTinyPivot(data, c.epsilon, tiny), c.tiny) << c.a[4] << " " << c.a[0];
        if (c.tiny) {
            EXPECT_EQ(tiny.scalar, c.at);
            EXPECT_EQ(tiny.block, c.at);
            EXPECT_EQ(tiny.local, 0u);
            EXPECT_NEAR(tiny.scale, 2.0, 1e-12);
        }
    }
    // Inside a block of 3 the same pivot is found at its local index.
    DenseSymmetric A(3);
    const double a[] = {2, 1, 0, 1, 0.5, 0, 0, 0, 1};  // d_2 = 0.5 − 1/2 = 0
    for (unsigned int i = 0; i < 9; ++i) A(i / 3, i % 3) = a[i];
    const BlockSystem sys = testing::makeFromDense({3}, A);
    Tamber tamber;
    TamberData<float> data;
    factor(sys, data, tamber, false);
    TinyPivot tiny;
    ASSERT_TRUE(findTinyPivot(data, std::numeric_limits<float>::epsilon(), tiny));
    EXPECT_EQ(tiny.scalar, 1u);
    EXPECT_EQ(tiny.block, 0u);
    EXPECT_EQ(tiny.local, 1u);
    EXPECT_NEAR(tiny.scale, 1.0, 1e-6);  // |a_22| + l²·|d_1| = 0.5 + 0.25·2
}

}  // namespace
}  // namespace kivTamber
