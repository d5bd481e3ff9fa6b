// The solver object against a dense reference: random body/constraint systems (body couplings, compliance),
// both precisions, merged and unmerged, serial and multifrontal; switching sequences against the dense
// solution of the active system; every status path, and that a failed call changes nothing.
#include "Solver.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <random>
#include <vector>

#include "Analysis.h"
#include "testing/BlockSystems.h"
#include "testing/CountedNew.h"
#include "testing/DenseReference.h"
#ifdef KIVTAMBER_HAVE_IO
#include "MatrixMarket.h"
#endif

namespace {

using namespace kivTamber;
using kivTamber::testing::DenseSymmetric;
namespace tst = kivTamber::testing;

// A random system: bodies of 1..6 unknowns with SPD mass blocks, constraints of 1..3 rows acting on two
// bodies with random dense Jacobians (J of full row rank: the constraints whose first body is b have at most
// s_b rows in all), optional body couplings and compliance. Holds the values as the physics would, and the
// dense matrix in the user's numbering.
struct RandomSystem {
    SystemStructure structure;
    std::vector<std::vector<double>> bodies, jacobians, couplings, compliances;
    std::vector<unsigned long> offsets;
    DenseSymmetric dense;

    RandomSystem(unsigned long seed, unsigned int nb, bool withCouplings, bool withCompliance) {
        std::mt19937_64 rng(seed);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        std::vector<unsigned int> room(nb);
        for (unsigned int b = 0; b < nb; ++b)
            room[b] = structure.addBody(1 + rng() % 6), room[b] = structure.bodySizes[b];
        // Constraints: a chain-like pattern with random extra links; rows bounded by the bodies' room so that
        // J keeps full row rank.
        for (unsigned int b = 0; b + 1 < nb; ++b) {
            const unsigned int other =
                b + 1 + static_cast<unsigned int>(rng() % std::min<unsigned int>(3, nb - b - 1));
            // Rows within both bodies' sizes: every Jacobian block has full row rank, which the orderings
            // that place a constraint right after one of its bodies need.
            const unsigned int rows = 1 + rng() % 3;
            if (room[b] < rows || structure.bodySizes[other] < rows) continue;
            room[b] -= rows;
            const bool soft = withCompliance && rng() % 3 == 0;
            const unsigned int c = structure.addConstraint(rows, soft);
            structure.addJacobian(c, b);
            structure.addJacobian(c, other);
        }
        if (withCouplings)
            for (unsigned int b = 0; b + 2 < nb; b += 3) structure.addBodyCoupling(b + 2, b);
        const unsigned int nc = structure.numConstraints();
        offsets.assign(nb + nc + 1, 0);
        for (unsigned int b = 0; b < nb; ++b) offsets[b + 1] = offsets[b] + structure.bodySizes[b];
        for (unsigned int c = 0; c < nc; ++c)
            offsets[nb + c + 1] = offsets[nb + c] + structure.constraintSizes[c];
        dense = DenseSymmetric(static_cast<unsigned int>(offsets.back()));
        for (unsigned int b = 0; b < nb; ++b) {
            const unsigned int s = structure.bodySizes[b];
            std::vector<double> m(s * s);
            for (auto& v : m) v = u(rng);
            std::vector<double> spd(s * s, 0.0);  // M = GᵀG + s·I
            for (unsigned int i = 0; i < s; ++i)
                for (unsigned int j = 0; j < s; ++j) {
                    for (unsigned int k = 0; k < s; ++k) spd[i * s + j] += m[k * s + i] * m[k * s + j];
                    if (i == j) spd[i * s + j] += 2.0 * s;
                }
            bodies.push_back(spd);
            for (unsigned int i = 0; i < s; ++i)
                for (unsigned int j = 0; j < s; ++j) dense(offsets[b] + i, offsets[b] + j) = spd[i * s + j];
        }
        for (const auto& cb : structure.couplings) {
            const unsigned int b1 = cb.first, b2 = cb.second;
            const unsigned int s1 = structure.bodySizes[b1], s2 = structure.bodySizes[b2];
            std::vector<double> k(s1 * s2);
            for (auto& v : k) v = 0.3 * u(rng);
            couplings.push_back(k);
            for (unsigned int i = 0; i < s1; ++i)
                for (unsigned int j = 0; j < s2; ++j)
                    dense.setSymmetric(offsets[b1] + i, offsets[b2] + j, k[i * s2 + j]);
        }
        for (const auto& jb : structure.jacobians) {
            const unsigned int c = jb.first, b = jb.second;
            const unsigned int sc = structure.constraintSizes[c], sb = structure.bodySizes[b];
            std::vector<double> J(sc * sb);
            for (auto& v : J) v = u(rng);
            jacobians.push_back(J);
            for (unsigned int i = 0; i < sc; ++i)
                for (unsigned int j = 0; j < sb; ++j)
                    dense.setSymmetric(offsets[nb + c] + i, offsets[b] + j, J[i * sb + j]);
        }
        for (unsigned int c = 0; c < nc; ++c) {
            if (!structure.compliant[c]) continue;
            const unsigned int s = structure.constraintSizes[c];
            std::vector<double> C(s * s, 0.0);
            for (unsigned int i = 0; i < s; ++i) C[i * s + i] = 0.01 + 0.1 * std::fabs(u(rng));
            compliances.push_back(C);
            for (unsigned int i = 0; i < s; ++i)
                dense(offsets[nb + c] + i, offsets[nb + c] + i) = -C[i * s + i];
        }
    }

    template <typename T>
    static std::vector<T> cast(const std::vector<double>& v) {
        return std::vector<T>(v.begin(), v.end());
    }

    template <typename T>
    void setAll(Solver<T>& solver) const {
        const unsigned int nb = structure.numBodies();
        for (unsigned int b = 0; b < nb; ++b) ASSERT_TRUE(solver.setBody(b, cast<T>(bodies[b]).data()));
        for (unsigned long k = 0; k < jacobians.size(); ++k)
            ASSERT_TRUE(solver.setJacobian(structure.jacobians[k].first, structure.jacobians[k].second,
                                           cast<T>(jacobians[k]).data()));
        for (unsigned long k = 0; k < couplings.size(); ++k)
            ASSERT_TRUE(solver.setBodyCoupling(structure.couplings[k].first, structure.couplings[k].second,
                                               cast<T>(couplings[k]).data()));
        unsigned long t = 0;
        for (unsigned int c = 0; c < structure.numConstraints(); ++c)
            if (structure.compliant[c]) {
                ASSERT_TRUE(solver.setCompliance(c, cast<T>(compliances[t++]).data()));
            }
    }

    // The dense matrix of the active system: switched-off rows and columns replaced by the identity's.
    DenseSymmetric activeDense(const std::vector<unsigned char>& active) const {
        DenseSymmetric A = dense;
        for (unsigned int i = 0; i < A.n; ++i) {
            if (active[i]) continue;
            for (unsigned int j = 0; j < A.n; ++j) A(i, j) = A(j, i) = 0.0;
            A(i, i) = 1.0;
        }
        return A;
    }
};

std::vector<double> denseSolution(const DenseSymmetric& A, std::vector<double> b,
                                  const std::vector<unsigned char>& active) {
    for (unsigned int i = 0; i < A.n; ++i)
        if (!active[i]) b[i] = 0.0;
    return tst::denseSolve(tst::denseLdlt(A), b);
}

template <typename T>
double maxRelativeError(const std::vector<T>& x, const std::vector<double>& ref) {
    double err = 0, scale = 0;
    for (unsigned long i = 0; i < ref.size(); ++i) {
        err = std::max(err, std::fabs(static_cast<double>(x[i]) - ref[i]));
        scale = std::max(scale, std::fabs(ref[i]));
    }
    return err / std::max(scale, 1e-300);
}

struct Config {
    bool merge;
    unsigned int threads;
    bool couplings, compliance;
};

class SolverDense : public ::testing::TestWithParam<int> {};

template <typename T>
void checkAgainstDense(unsigned long seed, const Config& cfg, double tolerance) {
    RandomSystem sys(seed, 30, cfg.couplings, cfg.compliance);
    Solver<T> solver;
    SolverOptions o;
    o.mergeBlocks = cfg.merge;
    o.threads = cfg.threads;
    o.checkValues = true;
    ASSERT_TRUE(solver.setOptions(o));
    Status st = solver.analyze(sys.structure);
    ASSERT_TRUE(st) << st.message;
    ASSERT_EQ(solver.size(), sys.dense.n);
    sys.setAll(solver);
    st = solver.factor();
    ASSERT_TRUE(st) << st.message;
    const std::vector<double> b = tst::randomVector(sys.dense.n, seed + 7);
    std::vector<T> bt(b.begin(), b.end()), x(b.size());
    st = solver.solve(bt.data(), x.data());
    ASSERT_TRUE(st) << st.message;
    std::vector<unsigned char> all(b.size(), 1);
    const std::vector<double> ref = denseSolution(sys.dense, b, all);
    EXPECT_LT(maxRelativeError(x, ref), tolerance) << "seed " << seed;
    // Inertia of a saddle-point system: one positive pivot per body row, one negative per constraint row.
    unsigned long bodyRows = sys.offsets[sys.structure.numBodies()];
    EXPECT_EQ(solver.report().positivePivots, bodyRows);
    EXPECT_EQ(solver.report().negativePivots, b.size() - bodyRows);
    EXPECT_EQ(solver.report().path, cfg.threads > 1 ? "multifrontal" : "serial");

    // In place, several right-hand sides, and the caller's b unchanged.
    std::vector<T> X(3 * b.size()), B(3 * b.size());
    for (unsigned int k = 0; k < 3; ++k)
        for (unsigned long i = 0; i < b.size(); ++i) B[k * b.size() + i] = static_cast<T>(b[i] * (k + 1));
    const std::vector<T> Bcopy = B;
    ASSERT_TRUE(solver.solve(B.data(), X.data(), 3, b.size()));
    EXPECT_EQ(B, Bcopy);
    for (unsigned long i = 0; i < b.size(); ++i)
        EXPECT_EQ(X[i], x[i]) << "the first of several right-hand sides";
    std::vector<T> y = bt;
    ASSERT_TRUE(solver.solve(y.data()));
    EXPECT_EQ(y, x);
}

TEST_P(SolverDense, DoubleMatchesDenseReference) {
    const unsigned long seed = 100 + GetParam();
    for (const Config& c : {Config{true, 1, true, true}, Config{false, 1, false, true},
                            Config{true, 2, true, false}, Config{false, 3, true, true}})
        checkAgainstDense<double>(seed, c, 1e-9);
}

TEST_P(SolverDense, FloatMatchesDenseReference) {
    const unsigned long seed = 200 + GetParam();
    for (const Config& c : {Config{true, 1, true, true}, Config{false, 2, false, false}})
        checkAgainstDense<float>(seed, c, 2e-3);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SolverDense, ::testing::Range(0, 6));

// Switching sequences: each step switches random constraint rows off and on; the solution equals the dense
// solution of the active system, by the in-place update and by factoring again.
template <typename T>
void checkSwitching(unsigned long seed, SwitchMethod method, bool merge, double tolerance) {
    RandomSystem sys(seed, 40, seed % 2 == 0, false);
    Solver<T> solver;
    SolverOptions o;
    o.switching = method;
    o.mergeBlocks = merge;
    o.threads = 1;
    ASSERT_TRUE(solver.setOptions(o));
    ASSERT_TRUE(solver.analyze(sys.structure));
    sys.setAll(solver);
    ASSERT_TRUE(solver.factor());
    std::mt19937_64 rng(seed);
    std::vector<unsigned char> active(sys.dense.n, 1);
    const unsigned int nb = sys.structure.numBodies();
    const std::vector<double> b = tst::randomVector(sys.dense.n, seed + 3);
    std::vector<T> bt(b.begin(), b.end()), x(b.size());
    for (int step = 0; step < 8; ++step) {
        for (int k = 0; k < 4; ++k) {
            const unsigned int c = static_cast<unsigned int>(rng() % sys.structure.numConstraints());
            const unsigned int r = static_cast<unsigned int>(rng() % sys.structure.constraintSizes[c]);
            const bool on = rng() % 2 == 0;
            ASSERT_TRUE(solver.setActive(c, r, on));
            active[sys.offsets[nb + c] + r] = on;
            EXPECT_EQ(solver.isActive(c, r), on);
        }
        Status st = solver.solve(bt.data(), x.data());
        ASSERT_TRUE(st) << st.message;
        const std::vector<double> ref = denseSolution(sys.activeDense(active), b, active);
        EXPECT_LT(maxRelativeError(x, ref), tolerance) << "seed " << seed << " step " << step;
        for (unsigned long i = 0; i < b.size(); ++i)
            if (!active[i]) {
                EXPECT_EQ(x[i], T(0)) << "a switched-off equation's unknown is 0";
            }
        const SolverReport& r = solver.report();
        if (method == SwitchMethod::refactor || !std::is_same<T, double>::value) {
            EXPECT_TRUE(r.switchPath.empty() || r.switchPath == "refactor");
        }
        if (method == SwitchMethod::update && std::is_same<T, double>::value &&
            r.switchedOff + r.switchedOn > 0) {
            EXPECT_EQ(r.switchPath, "update");
        }
    }
    // A fresh factorization of the same active set gives the same solution.
    ASSERT_TRUE(solver.factor());
    std::vector<T> fresh(b.size());
    ASSERT_TRUE(solver.solve(bt.data(), fresh.data()));
    const std::vector<double> ref = denseSolution(sys.activeDense(active), b, active);
    EXPECT_LT(maxRelativeError(fresh, ref), tolerance);
}

TEST(SolverSwitching, MatchesActiveSystem) {
    for (unsigned long seed = 1; seed <= 4; ++seed) {
        checkSwitching<double>(seed, SwitchMethod::update, seed % 2 == 1, 1e-8);
        checkSwitching<double>(seed, SwitchMethod::refactor, true, 1e-9);
        checkSwitching<double>(seed, SwitchMethod::automatic, false, 1e-8);
        checkSwitching<float>(seed, SwitchMethod::automatic, true, 5e-3);
    }
}

// A single-precision solve is right whatever the scale of the right-hand side (the float solve skips
// entries below epsilon, so a tiny right-hand side must be scaled first), and refinement then helps.
TEST(SolverFloat, TinyAndHugeRightHandSidesSolve) {
    RandomSystem sys(71, 30, true, false);
    Solver<float> solver;
    SolverOptions o;
    o.refinementSteps = 0;
    ASSERT_TRUE(solver.setOptions(o));
    ASSERT_TRUE(solver.analyze(sys.structure));
    sys.setAll(solver);
    ASSERT_TRUE(solver.factor());
    const std::vector<double> b = tst::randomVector(sys.dense.n, 8);
    std::vector<unsigned char> all(b.size(), 1);
    const std::vector<double> ref = denseSolution(sys.dense, b, all);
    std::vector<float> x(b.size()), unit(b.size());
    std::vector<float> bt(b.begin(), b.end());
    ASSERT_TRUE(solver.solve(bt.data(), unit.data()));
    for (double scale : {1e-9, 1e-20, 1e12}) {
        std::vector<float> bs(b.size());
        for (unsigned long i = 0; i < b.size(); ++i) bs[i] = static_cast<float>(b[i] * scale);
        ASSERT_TRUE(solver.solve(bs.data(), x.data()));
        std::vector<double> xs(x.begin(), x.end());
        for (double& v : xs) v /= scale;
        EXPECT_LT(maxRelativeError(xs, ref), 1e-3) << "scale " << scale;
    }
}

// Refinement keeps the best iterate: with a regularised factor the refined solution is far better than the
// plain solve, and never worse than it.
TEST(SolverRefinement, RegularisedModeRecoversAccuracy) {
    RandomSystem sys(11, 25, true, false);
    Solver<double> solver;
    SolverOptions o;
    o.regularization = 1e-6;
    o.refinementSteps = 0;
    ASSERT_TRUE(solver.setOptions(o));
    ASSERT_TRUE(solver.analyze(sys.structure));
    sys.setAll(solver);
    ASSERT_TRUE(solver.factor());
    EXPECT_TRUE(solver.report().regularized);
    const std::vector<double> b = tst::randomVector(sys.dense.n, 5);
    std::vector<double> plain(b.size()), refined(b.size());
    ASSERT_TRUE(solver.solve(b.data(), plain.data()));
    o.refinementSteps = 5;
    ASSERT_TRUE(solver.setOptions(o));
    ASSERT_TRUE(solver.factor());
    ASSERT_TRUE(solver.solve(b.data(), refined.data()));
    std::vector<unsigned char> all(b.size(), 1);
    const std::vector<double> ref = denseSolution(sys.dense, b, all);
    const double plainError = maxRelativeError(plain, ref), refinedError = maxRelativeError(refined, ref);
    EXPECT_LT(refinedError, 1e-12);
    EXPECT_LE(refinedError, plainError);
    EXPECT_GT(solver.report().refinementSteps, 0u);
    EXPECT_LT(solver.report().residual, 1e-14);
}

// Every status path; a failed call changes nothing.
TEST(SolverStatus, BadInputIsAnsweredAndChangesNothing) {
    Solver<double> solver;
    std::vector<double> v(64, 1.0), x(64, 7.0);
    EXPECT_EQ(solver.factor().code, StatusCode::notAnalyzed);
    EXPECT_EQ(solver.solve(v.data(), x.data()).code, StatusCode::notAnalyzed);
    EXPECT_EQ(solver.setBody(0, v.data()).code, StatusCode::notAnalyzed);
    EXPECT_EQ(x, std::vector<double>(64, 7.0));

    SystemStructure bad;
    EXPECT_EQ(solver.analyze(bad).code, StatusCode::badStructure);
    bad.addBody(3);
    bad.addConstraint(2);
    Status st = solver.analyze(bad);
    EXPECT_EQ(st.code, StatusCode::badStructure);
    EXPECT_EQ(st.message, "constraint 0 has no Jacobian block (acts on no body)");
    bad.addJacobian(0, 5);
    EXPECT_EQ(solver.analyze(bad).message, "Jacobian 0: unknown body 5 (1 bodies)");
    bad.jacobians = {{0, 0}, {0, 0}};
    EXPECT_EQ(solver.analyze(bad).message, "constraint 0 has two Jacobian blocks on body 0");
    bad.jacobians = {{0, 0}};
    bad.bodySizes[0] = 0;
    EXPECT_EQ(solver.analyze(bad).message, "body 0 has size 0");
    EXPECT_FALSE(solver.isAnalyzed());

    RandomSystem sys(3, 12, true, true);
    ASSERT_TRUE(solver.analyze(sys.structure));
    const unsigned long n = solver.size();
    std::vector<double> b = tst::randomVector(static_cast<unsigned int>(n), 9), y(n, 7.0);
    EXPECT_EQ(solver.solve(b.data(), y.data()).code, StatusCode::notFactored);
    EXPECT_EQ(y, std::vector<double>(n, 7.0));
    sys.setAll(solver);
    ASSERT_TRUE(solver.factor());
    std::vector<double> good(n);
    ASSERT_TRUE(solver.solve(b.data(), good.data()));

    // Bad ids and values: each answered, the factor still valid and the same.
    EXPECT_EQ(solver.setBody(99, v.data()).code, StatusCode::invalidArgument);
    EXPECT_EQ(solver.setBody(0, nullptr).code, StatusCode::invalidArgument);
    EXPECT_EQ(solver.setJacobian(0, 11, v.data()).message,
              "setJacobian: constraint 0 has no Jacobian block on body 11");
    EXPECT_EQ(solver.setJacobian(999, 0, v.data()).code, StatusCode::invalidArgument);
    EXPECT_EQ(solver.setBodyCoupling(1, 1, v.data()).code, StatusCode::invalidArgument);
    EXPECT_EQ(solver.setActive(999, 0, false).code, StatusCode::invalidArgument);
    EXPECT_EQ(solver.setActive(0, 99, false).code, StatusCode::invalidArgument);
    SolverOptions o;
    o.regularization = -1;
    EXPECT_EQ(solver.setOptions(o).code, StatusCode::invalidArgument);
    o = SolverOptions();
    o.checkValues = true;
    ASSERT_TRUE(solver.setOptions(o));
    std::vector<double> nan(64, 1.0);
    nan[2] = std::nan("");
    st = solver.setBody(0, nan.data());
    EXPECT_EQ(st.code, StatusCode::nonFiniteValue);
    EXPECT_NE(st.message.find("body (0, 0): value 2"), std::string::npos) << st.message;
    EXPECT_EQ(solver.setValues(nan.data(), nullptr).code, StatusCode::nonFiniteValue);
    std::vector<double> again(n);
    ASSERT_TRUE(solver.solve(b.data(), again.data()));
    EXPECT_EQ(again, good);

    // New values without factor(): the solve refuses instead of using the old factor.
    ASSERT_TRUE(solver.setBody(0, RandomSystem::cast<double>(sys.bodies[0]).data()));
    y.assign(n, 7.0);
    EXPECT_EQ(solver.solve(b.data(), y.data()).code, StatusCode::notFactored);
    EXPECT_EQ(y, std::vector<double>(n, 7.0));

    // A zero pivot: a body with a zero mass block is named at once, and solves refuse.
    const unsigned int s0 = sys.structure.bodySizes[4];
    std::vector<double> zero(s0 * s0, 0.0);
    ASSERT_TRUE(solver.setBody(4, zero.data()));
    st = solver.factor();
    EXPECT_EQ(st.code, StatusCode::zeroPivot) << st.message;
    EXPECT_TRUE(solver.badPivot().found);
    EXPECT_FALSE(solver.badPivot().isConstraint);
    EXPECT_EQ(solver.badPivot().id, 4u);
    EXPECT_NE(st.message.find(": body 4, row "), std::string::npos) << st.message;
    EXPECT_NE(st.message.find("regularised mode"), std::string::npos);
    EXPECT_EQ(solver.solve(b.data(), y.data()).code, StatusCode::notFactored);
    // The same system regularised factors.
    o.regularization = 1e-8;
    ASSERT_TRUE(solver.setOptions(o));
    EXPECT_TRUE(solver.factor());
}

// A time step whose values blow up (non-finite, not checked on the way in) fails to factor, and leaves
// nothing behind: the next finite values factor and solve to the bits of a solver that never saw the bad
// step.
TEST(SolverStatus, NonFiniteStepLeavesNoTrace) {
    for (unsigned long seed = 0; seed < 12; ++seed) {
        RandomSystem sys(100 + seed, 16 + seed % 24, seed % 2 == 0, seed % 3 == 0);
        Solver<double> used, fresh;
        ASSERT_TRUE(used.analyze(sys.structure));
        ASSERT_TRUE(fresh.analyze(sys.structure));
        sys.setAll(used);
        sys.setAll(fresh);
        ASSERT_TRUE(used.factor());
        ASSERT_TRUE(fresh.factor());
        const unsigned long n = fresh.size();
        const std::vector<double> b = tst::randomVector(static_cast<unsigned int>(n), seed);
        std::vector<double> expected(n), x(n);
        ASSERT_TRUE(fresh.solve(b.data(), expected.data()));
        for (unsigned long k = sys.jacobians.size() / 2; k < sys.jacobians.size(); ++k) {
            std::vector<double> inf = sys.jacobians[k];
            for (double& v : inf) v = v != 0.0 ? std::numeric_limits<double>::infinity() : 0.0;
            ASSERT_TRUE(used.setJacobian(sys.structure.jacobians[k].first, sys.structure.jacobians[k].second,
                                         inf.data()));
        }
        const Status st = used.factor();
        EXPECT_EQ(st.code, StatusCode::nonFinitePivot) << st.message;
        sys.setAll(used);
        ASSERT_TRUE(used.factor());
        ASSERT_TRUE(used.solve(b.data(), x.data()));
        EXPECT_EQ(x, expected) << "seed " << seed;
    }
}

// A solution that overflows is not reported as accurate: its scaled residual is NaN, not −1 or a small
// number taken from the finite entries alone.
TEST(SolverStatus, OverflowingSolutionReportsANaNResidual) {
    RandomSystem sys(5, 10, true, false);
    Solver<double> solver;
    ASSERT_TRUE(solver.analyze(sys.structure));
    sys.setAll(solver);
    ASSERT_TRUE(solver.factor());
    const unsigned long n = solver.size();
    std::vector<double> b(n, 0.0), x(n);
    for (unsigned long k = 0; k < n; ++k) b[k] = (k % 2 ? -1.0 : 1.0) * std::numeric_limits<double>::max();
    ASSERT_TRUE(solver.solve(b.data(), x.data()));
    bool finite = true;
    for (double v : x) finite = finite && std::isfinite(v);
    ASSERT_FALSE(finite);  // the system amplifies b beyond the largest double
    EXPECT_TRUE(std::isnan(solver.report().residual)) << solver.report().residual;
    b.assign(n, 1.0);
    ASSERT_TRUE(solver.solve(b.data(), x.data()));
    EXPECT_LT(solver.report().residual, 1e-14);
}

TEST(SolverStatus, ValuesFromArraysEqualSingleSetters) {
    RandomSystem sys(21, 20, true, true);
    Solver<double> one, all;
    ASSERT_TRUE(one.analyze(sys.structure));
    ASSERT_TRUE(all.analyze(sys.structure));
    sys.setAll(one);
    std::vector<double> bodies, jac, coup, comp;
    for (const auto& v : sys.bodies) bodies.insert(bodies.end(), v.begin(), v.end());
    for (const auto& v : sys.jacobians) jac.insert(jac.end(), v.begin(), v.end());
    for (const auto& v : sys.couplings) coup.insert(coup.end(), v.begin(), v.end());
    for (const auto& v : sys.compliances) comp.insert(comp.end(), v.begin(), v.end());
    EXPECT_EQ(all.bodyValueCount(), bodies.size());
    EXPECT_EQ(all.jacobianValueCount(), jac.size());
    EXPECT_EQ(all.couplingValueCount(), coup.size());
    EXPECT_EQ(all.complianceValueCount(), comp.size());
    ASSERT_TRUE(all.setValues(bodies.data(), jac.data(), coup.data(), comp.data()));
    ASSERT_TRUE(one.factor());
    ASSERT_TRUE(all.factor());
    const std::vector<double> b = tst::randomVector(static_cast<unsigned int>(one.size()), 1);
    std::vector<double> x1(b.size()), x2(b.size());
    ASSERT_TRUE(one.solve(b.data(), x1.data()));
    ASSERT_TRUE(all.solve(b.data(), x2.data()));
    EXPECT_EQ(x1, x2);
}

// After the first step, a step (values, factor, solve with refinement, switching) allocates nothing.
TEST(SolverAllocation, SteadyStateAllocatesNothing) {
    RandomSystem sys(31, 60, true, false);
    Solver<double> solver;
    SolverOptions o;
    o.threads = 1;
    ASSERT_TRUE(solver.setOptions(o));
    ASSERT_TRUE(solver.analyze(sys.structure));
    std::vector<double> bodies, jac, coup;
    for (const auto& v : sys.bodies) bodies.insert(bodies.end(), v.begin(), v.end());
    for (const auto& v : sys.jacobians) jac.insert(jac.end(), v.begin(), v.end());
    for (const auto& v : sys.couplings) coup.insert(coup.end(), v.begin(), v.end());
    const std::vector<double> b = tst::randomVector(static_cast<unsigned int>(solver.size()), 1);
    std::vector<double> x(b.size());
    unsigned long newBefore = 0, kivBefore = 0;
    for (int step = 0; step < 6; ++step) {
        if (step == 2) {
            newBefore = kivTamber::testing::newCount();
            kivBefore = kiv::ByteAllocator::allocationCount();
        }
        ASSERT_TRUE(solver.setValues(bodies.data(), jac.data(), coup.data()));
        ASSERT_TRUE(solver.setConstraintActive(step % 3, step % 2 == 0));
        ASSERT_TRUE(solver.factor());
        ASSERT_TRUE(solver.setActive(5, 0, step % 2 == 1));
        ASSERT_TRUE(solver.solve(b.data(), x.data()));
    }
    EXPECT_EQ(kivTamber::testing::newCount() - newBefore, 0u);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - kivBefore, 0u);
}

// The condition estimate against κ₁ of the dense matrix (its inverse column by column): a lower bound
// within a small factor; with switched-off equations, of the active system.
TEST(SolverCondition, EstimateBoundsTheDenseConditionNumber) {
    RandomSystem sys(61, 20, true, true);
    Solver<double> solver;
    double kappa = 0;
    EXPECT_EQ(solver.estimateCondition(kappa).code, StatusCode::notAnalyzed);
    ASSERT_TRUE(solver.analyze(sys.structure));
    EXPECT_EQ(solver.estimateCondition(kappa).code, StatusCode::notFactored);
    sys.setAll(solver);
    ASSERT_TRUE(solver.factor());
    std::vector<unsigned char> active(sys.dense.n, 1);
    for (int round = 0; round < 2; ++round) {
        const DenseSymmetric A = sys.activeDense(active);
        const tst::DenseLdlt f = tst::denseLdlt(A);
        double normA = 0, normInverse = 0;
        for (unsigned int j = 0; j < A.n; ++j) {
            double column = 0;
            for (unsigned int i = 0; i < A.n; ++i) column += std::fabs(A(i, j));
            normA = std::max(normA, column);
            std::vector<double> e(A.n, 0.0);
            e[j] = 1.0;
            const std::vector<double> inv = tst::denseSolve(f, e);
            double sum = 0;
            for (double v : inv) sum += std::fabs(v);
            normInverse = std::max(normInverse, sum);
        }
        const double exact = normA * normInverse;
        ASSERT_TRUE(solver.estimateCondition(kappa));
        EXPECT_LE(kappa, exact * (1 + 1e-9)) << "round " << round;
        EXPECT_GE(kappa, exact / 10) << "round " << round;
        EXPECT_EQ(solver.report().conditionEstimate, kappa);
        // Switch a constraint off: the estimate follows the active system.
        ASSERT_TRUE(solver.setConstraintActive(2, false));
        for (unsigned long r = sys.offsets[sys.structure.numBodies() + 2];
             r < sys.offsets[sys.structure.numBodies() + 3]; ++r)
            active[r] = 0;
    }
}

// A general block pattern (Analysis::Problem) with every block at once, and block by block through setBlock
// in either triangle: the dense reference's solution.
TEST(SolverProblem, PatternValuesSolveLikeTheDenseReference) {
    RandomSystem sys(51, 25, true, true);
    const unsigned int nb = sys.structure.numBodies(), n = nb + sys.structure.numConstraints();
    std::vector<unsigned int> cp(1, 0), ri, sizes(n);
    std::vector<unsigned long> vp;
    std::vector<double> values;
    for (unsigned int j = 0; j < n; ++j) {
        sizes[j] = static_cast<unsigned int>(sys.offsets[j + 1] - sys.offsets[j]);
        for (unsigned int i = 0; i <= j; ++i) {
            bool coupled = i == j;
            for (unsigned long r = sys.offsets[i]; r < sys.offsets[i + 1] && !coupled; ++r)
                for (unsigned long c = sys.offsets[j]; c < sys.offsets[j + 1] && !coupled; ++c)
                    coupled = sys.dense(static_cast<unsigned int>(r), static_cast<unsigned int>(c)) != 0.0;
            if (!coupled) continue;
            ri.push_back(i);
            vp.push_back(values.size());
            for (unsigned long r = sys.offsets[i]; r < sys.offsets[i + 1]; ++r)
                for (unsigned long c = sys.offsets[j]; c < sys.offsets[j + 1]; ++c)
                    values.push_back(sys.dense(static_cast<unsigned int>(r), static_cast<unsigned int>(c)));
        }
        cp.push_back(static_cast<unsigned int>(ri.size()));
    }
    Analysis::Problem problem{n, nb, cp.data(), ri.data(), sizes.data()};
    Solver<double> solver;
    SolverOptions o;
    o.checkValues = true;
    ASSERT_TRUE(solver.setOptions(o));
    Status st = solver.analyze(problem);
    ASSERT_TRUE(st) << st.message;
    ASSERT_TRUE(solver.setPatternValues(values.data(), vp.data()));
    ASSERT_TRUE(st = solver.factor()) << st.message;
    const std::vector<double> b = tst::randomVector(sys.dense.n, 4);
    std::vector<double> x(b.size()), y(b.size());
    ASSERT_TRUE(solver.solve(b.data(), x.data()));
    std::vector<unsigned char> all(b.size(), 1);
    EXPECT_LT(maxRelativeError(x, denseSolution(sys.dense, b, all)), 1e-9);
    // The same blocks one by one, each given as its transpose A(j, i): the same factor, the same solution.
    for (unsigned int j = 0; j < n; ++j)
        for (unsigned int e = cp[j]; e < cp[j + 1]; ++e) {
            const unsigned int i = ri[e];
            std::vector<double> t(static_cast<unsigned long>(sizes[i]) * sizes[j]);
            for (unsigned int r = 0; r < sizes[i]; ++r)
                for (unsigned int c = 0; c < sizes[j]; ++c)
                    t[c * sizes[i] + r] = values[vp[e] + r * sizes[j] + c];
            ASSERT_TRUE(solver.setBlock(j, i, t.data()));
        }
    ASSERT_TRUE(solver.factor());
    ASSERT_TRUE(solver.solve(b.data(), y.data()));
    EXPECT_EQ(x, y);
    EXPECT_EQ(solver.setValues(values.data(), nullptr).code, StatusCode::invalidArgument);
    EXPECT_EQ(solver.setBody(0, values.data()).code, StatusCode::invalidArgument);
    values[vp[1]] = std::nan("");
    EXPECT_EQ(solver.setPatternValues(values.data(), vp.data()).code, StatusCode::nonFiniteValue);
    ASSERT_TRUE(solver.solve(b.data(), y.data())) << "a refused call leaves the factor valid";
}

// A scalar matrix (lower, upper or full compressed columns) through analyzeScalar with block detection,
// and with blocks given: the same solution as the dense reference.
TEST(SolverScalar, DetectedBlocksSolveLikeTheDenseReference) {
    RandomSystem sys(41, 30, true, true);
    const unsigned int n = sys.dense.n;
    const unsigned int firstConstraintRow = static_cast<unsigned int>(sys.offsets[sys.structure.numBodies()]);
    const std::vector<double> b = tst::randomVector(n, 3);
    std::vector<unsigned char> all(n, 1);
    const std::vector<double> ref = denseSolution(sys.dense, b, all);
    for (int triangle = 0; triangle < 3; ++triangle) {  // lower, upper, full
        std::vector<unsigned int> cp(1, 0), ri;
        std::vector<double> v;
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i < n; ++i) {
                const bool keep = triangle == 0 ? i >= j : triangle == 1 ? i <= j : true;
                if (keep && (sys.dense(i, j) != 0.0 || i == j)) ri.push_back(i), v.push_back(sys.dense(i, j));
            }
            cp.push_back(static_cast<unsigned int>(ri.size()));
        }
        Solver<double> solver;
        Status st = solver.analyzeScalar(n, firstConstraintRow, cp.data(), ri.data());
        ASSERT_TRUE(st) << st.message;
        EXPECT_NE(solver.report().ordering.find("blocks detected"), std::string::npos)
            << solver.report().ordering;
        ASSERT_TRUE(solver.setScalarValues(v.data()));
        ASSERT_TRUE(st = solver.factor()) << st.message;
        std::vector<double> x(n);
        ASSERT_TRUE(solver.solve(b.data(), x.data()));
        EXPECT_LT(maxRelativeError(x, ref), 1e-9) << "triangle " << triangle;
        // The blocks of the structure given by hand: the same solution within rounding.
        std::vector<unsigned int> sizes;
        for (unsigned int s : sys.structure.bodySizes) sizes.push_back(s);
        for (unsigned int s : sys.structure.constraintSizes) sizes.push_back(s);
        Solver<double> byHand;
        ASSERT_TRUE(st = byHand.analyzeScalar(n, firstConstraintRow, cp.data(), ri.data(), sizes.data(),
                                              static_cast<unsigned int>(sizes.size())))
            << st.message;
        ASSERT_TRUE(byHand.setScalarValues(v.data()));
        ASSERT_TRUE(byHand.factor());
        std::vector<double> y(n);
        ASSERT_TRUE(byHand.solve(b.data(), y.data()));
        EXPECT_LT(maxRelativeError(y, ref), 1e-9);
    }
    Solver<double> solver;
    std::vector<unsigned int> cp{0, 1}, ri{3};
    EXPECT_EQ(solver.analyzeScalar(1, 0, cp.data(), ri.data()).code, StatusCode::badStructure);
    EXPECT_EQ(solver.setScalarValues(nullptr).code, StatusCode::notAnalyzed);
}

#ifdef KIVTAMBER_HAVE_IO
// Quadratic programs whose Hessian is only semidefinite: the regularised mode factors them and refinement
// against the true matrix brings the residual down to rounding level.
TEST(SolverScalar, RegularisedModeOnRealQuadraticPrograms) {
    const char* dir = tst::realDataDir();
    if (dir == nullptr) GTEST_SKIP() << "no real matrices";
    struct Case {
        const char* file;
        unsigned int bodyRows;
    };
    for (const Case& c :
         {Case{"CONT-101_kkt.mtx", 10197}, Case{"DTOC3_kkt.mtx.gz", 14999}, Case{"CVXQP3_M_kkt.mtx", 1000}}) {
        io::SymmetricMatrix A;
        std::string message;
        ASSERT_TRUE(io::readMatrixMarket(std::string(dir) + "/" + c.file, A, message)) << message;
        std::vector<unsigned int> cp(A.colPointers.begin(), A.colPointers.end());
        std::vector<double> ones(A.n, 1.0), b(A.n), x(A.n), r(A.n);
        A.multiply(ones.data(), b.data());
        Solver<double> solver;
        SolverOptions o;
        o.regularization = 1e-8;
        o.refinementSteps = 10;
        ASSERT_TRUE(solver.setOptions(o));
        Status st = solver.analyzeScalar(A.n, c.bodyRows, cp.data(), A.rowIndices.data());
        ASSERT_TRUE(st) << c.file << ": " << st.message;
        ASSERT_TRUE(solver.setScalarValues(A.values.data()));
        ASSERT_TRUE(st = solver.factor()) << c.file << ": " << st.message;
        ASSERT_TRUE(st = solver.solve(b.data(), x.data())) << st.message;
        A.multiply(x.data(), r.data());
        double nr = 0, nx = 0, nb = 0;
        for (unsigned int i = 0; i < A.n; ++i) {
            nr = std::max(nr, std::fabs(b[i] - r[i]));
            nx = std::max(nx, std::fabs(x[i]));
            nb = std::max(nb, std::fabs(b[i]));
        }
        const double scaled = nr / (A.normInf() * nx + nb);
        std::printf("%s: n %u, %s, regularised residual %.2e after %u refinement steps (report %.2e)\n",
                    c.file, A.n, solver.report().ordering.c_str(), scaled, solver.report().refinementSteps,
                    solver.report().residual);
        EXPECT_LT(scaled, 1e-12) << c.file;
    }
}
#endif

}  // namespace
