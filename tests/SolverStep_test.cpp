// The solver object's one-call steps, factor(bodies, jacobians, couplings, compliances) and
// factorPatternValues, against setValues / setPatternValues followed by factor(): the same statuses, pivots,
// solutions and report bit for bit on scene systems and random saddle-point systems, column by column and in
// every fallback (threads, switched-off equations, regularisation, null arrays); bad input answered as
// setValues answers it, changing nothing; a bad pivot in the middle; no allocation in steady state.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Solver.h"
#include "demo/SceneSystem.h"
#include "scenes/Scenes.h"
#include "testing/Bits.h"
#include "testing/BlockSystems.h"
#include "testing/CountedNew.h"
#include "testing/DenseReference.h"

namespace {

using namespace kivTamber;
namespace tst = kivTamber::testing;

// The four arrays of setValues (an empty one is passed as null).
template <typename T>
struct Arrays {
    std::vector<T> v[4];
    const T* p(int k) const { return v[k].empty() ? nullptr : v[k].data(); }
};

bool samePivot(const PivotLocation& a, const PivotLocation& b) {
    return a.found == b.found && a.isConstraint == b.isConstraint && a.id == b.id && a.row == b.row &&
           a.userRow == b.userRow && a.step == b.step && std::memcmp(&a.value, &b.value, sizeof(double)) == 0;
}

// A solver stepped by the one-call form and one by setValues + factor(), with the same options.
template <typename T>
struct Pair {
    Solver<T> step, reference;

    void setOptions(const SolverOptions& o) {
        ASSERT_TRUE(step.setOptions(o));
        ASSERT_TRUE(reference.setOptions(o));
    }
    template <typename S>
    void analyze(const S& structure) {
        Status st = step.analyze(structure);
        ASSERT_TRUE(st) << st.message;
        ASSERT_TRUE(reference.analyze(structure));
    }
    // One step both ways: the same status and message.
    Status run(const Arrays<T>& a) {
        const Status s = step.factor(a.p(0), a.p(1), a.p(2), a.p(3));
        Status r = reference.setValues(a.p(0), a.p(1), a.p(2), a.p(3));
        if (r) r = reference.factor();
        EXPECT_EQ(s.code, r.code);
        EXPECT_EQ(s.message, r.message);
        return s;
    }
    Status runPattern(const T* values, const unsigned long* pointers) {
        const Status s = step.factorPatternValues(values, pointers);
        Status r = reference.setPatternValues(values, pointers);
        if (r) r = reference.factor();
        EXPECT_EQ(s.code, r.code);
        EXPECT_EQ(s.message, r.message);
        return s;
    }
    // What a caller can observe of the two factorizations, bit for bit: the report's factorization fields
    // and pivots, solves of three right-hand sides without refinement (they read L and D only) and with it
    // (they also read the matrix held).
    void expectSame(const std::string& where) {
        const SolverReport &a = step.report(), &b = reference.report();
        EXPECT_EQ(a.path, b.path) << where;
        EXPECT_EQ(a.threads, b.threads) << where;
        EXPECT_EQ(a.factorizations, b.factorizations) << where;
        EXPECT_EQ(a.regularized, b.regularized) << where;
        EXPECT_EQ(a.positivePivots, b.positivePivots) << where;
        EXPECT_EQ(a.negativePivots, b.negativePivots) << where;
        EXPECT_EQ(a.zeroPivots, b.zeroPivots) << where;
        EXPECT_TRUE(samePivot(a.smallestPivot, b.smallestPivot)) << where;
        EXPECT_TRUE(samePivot(a.badPivot, b.badPivot)) << where;
        const unsigned long n = step.size();
        const std::vector<double> b0 = tst::randomVector(static_cast<unsigned int>(3 * n), 5);
        const std::vector<T> rhs(b0.begin(), b0.end());
        for (unsigned int steps : {0u, 2u}) {
            SolverOptions o = step.options();
            o.refinementSteps = steps;
            setOptions(o);
            std::vector<T> x(3 * n), y(3 * n);
            const Status s = step.solve(rhs.data(), x.data(), 3, n),
                         r = reference.solve(rhs.data(), y.data(), 3, n);
            EXPECT_EQ(s.code, r.code) << where;
            EXPECT_EQ(s.message, r.message) << where;
            EXPECT_TRUE(tst::sameBits(x, y))
                << where << ", refinement " << steps << ": " << tst::firstDifference(x, y);
            EXPECT_EQ(step.report().residual, reference.report().residual) << where;
        }
    }
};

// A scene's system in the arrays a physics engine hands over (SceneSystem::gather), at scene time t.
template <typename T>
Arrays<T> sceneArrays(scenes::Scene& scene, scenes::BlockProblem& problem, demo::SceneSystem<T>& sys,
                      const Solver<T>& solver, double t) {
    scene.setTime(t);
    scene.build(problem);
    sys.gather(problem);
    Arrays<T> a;
    a.v[0].assign(sys.bodies(), sys.bodies() + solver.bodyValueCount());
    a.v[1].assign(sys.jacobians(), sys.jacobians() + solver.jacobianValueCount());
    a.v[2].assign(sys.couplings(), sys.couplings() + solver.couplingValueCount());
    return a;
}

template <typename T>
void checkScene(scenes::SceneKind kind, unsigned long blocks, bool merge) {
    auto scene = scenes::makeScene(kind, scenes::sizeForBlockCount(kind, blocks));
    scenes::BlockProblem problem;
    scene->setTime(0.25);
    scene->build(problem);
    demo::SceneSystem<T> sys;
    sys.describe(problem);
    ASSERT_FALSE(sys.general());
    Pair<T> pair;
    SolverOptions o;
    o.threads = 1;
    o.mergeBlocks = merge;
    pair.setOptions(o);
    pair.analyze(sys.structure());
    const std::string name = std::string(scene->name()) + (merge ? " merged" : "");
    // Several groups of 128 block rows, so that columns are fed ahead of more than one group.
    EXPECT_GT(pair.step.report().factorBlocks, 300u) << name;
    for (int k = 0; k < 3; ++k) {
        const Arrays<T> a = sceneArrays(*scene, problem, sys, pair.step, 0.25 + 0.05 * k);
        ASSERT_TRUE(pair.run(a)) << name;
        pair.expectSame(name + " step " + std::to_string(k));
    }
}

TEST(SolverStep, SceneStepsMatchSetValuesThenFactor) {
    using scenes::SceneKind;
    checkScene<double>(SceneKind::chain, 700, true);
    checkScene<double>(SceneKind::ragdolls, 800, true);
    checkScene<double>(SceneKind::cloth, 1600, true);
    checkScene<double>(SceneKind::cloth, 900, false);
    checkScene<double>(SceneKind::boxWall, 800, true);
    checkScene<float>(SceneKind::ragdolls, 800, true);
}

// A random saddle-point system (tst::makeSaddlePointSystem) as bodies, constraints, body couplings and, on
// every third constraint, a diagonal compliance block; its dense matrix; arrays of its values scaled per
// kind.
struct RandomStep {
    SystemStructure structure;
    tst::BlockSystem sys;
    std::vector<unsigned int> id;      // block → body or constraint id
    std::vector<unsigned int> offset;  // block → its first row in the solver's numbering (bodies first)

    explicit RandomStep(unsigned long seed) : sys(tst::makeSaddlePointSystem(seed, 160, 220, 6, 0.02)) {
        unsigned int rows[2] = {0, 0};
        for (unsigned int b = 0; b < sys.nb; ++b) {
            id.push_back(sys.isConstraint[b] ? structure.addConstraint(sys.sizes[b], false)
                                             : structure.addBody(sys.sizes[b]));
            rows[sys.isConstraint[b]] += sys.sizes[b];
        }
        for (unsigned int b = 0, at[2] = {0, rows[0]}; b < sys.nb; ++b) {
            offset.push_back(at[sys.isConstraint[b]]);
            at[sys.isConstraint[b]] += sys.sizes[b];
        }
        for (unsigned int c = 0; c < structure.numConstraints(); c += 3) structure.compliant[c] = 1;
        for (unsigned int i = 0; i < sys.nb; ++i)
            for (unsigned int j : sys.lowerRows[i]) {
                EXPECT_FALSE(sys.isConstraint[j]) << "constraints couple to bodies only";
                if (sys.isConstraint[i]) structure.addJacobian(id[i], id[j]);
                if (!sys.isConstraint[i]) structure.addBodyCoupling(id[j], id[i]);
            }
    }
    // Values of the kinds scaled by s[0..3]; dense: the matrix they make, in the solver's numbering.
    Arrays<double> values(const double* s, tst::DenseSymmetric& dense) const {
        Arrays<double> a;
        dense = tst::DenseSymmetric(sys.N);
        auto block = [&](std::vector<double>& out, unsigned int i, unsigned int j, double scale) {
            for (unsigned int r = 0; r < sys.sizes[i]; ++r)
                for (unsigned int c = 0; c < sys.sizes[j]; ++c) {
                    out.push_back(scale * sys.dense(sys.offsets[i] + r, sys.offsets[j] + c));
                    dense.setSymmetric(offset[i] + r, offset[j] + c, out.back());
                }
        };
        std::vector<unsigned int> blockOf[2];  // bodies, constraints by id
        for (unsigned int b = 0; b < sys.nb; ++b) blockOf[sys.isConstraint[b]].push_back(b);
        for (unsigned int b : blockOf[0]) block(a.v[0], b, b, s[0]);
        for (const auto& jb : structure.jacobians)
            block(a.v[1], blockOf[1][jb.first], blockOf[0][jb.second], s[1]);
        for (const auto& cb : structure.couplings)
            block(a.v[2], blockOf[0][cb.first], blockOf[0][cb.second], s[2]);
        for (unsigned int c = 0; c < structure.numConstraints(); c += 3) {
            const unsigned int b = blockOf[1][c], n = sys.sizes[b];
            for (unsigned int r = 0; r < n; ++r)
                for (unsigned int q = 0; q < n; ++q) {
                    a.v[3].push_back(r == q ? 0.01 * s[3] * (1 + r) : 0.0);
                    dense(offset[b] + r, offset[b] + q) = -a.v[3].back();
                }
        }
        return a;
    }
};

// Two steps of other values each (the second rewrites every value), merged and not; the step's solution
// against the dense matrix.
TEST(SolverStep, RandomSystemsMatchAndSolve) {
    const double first[4] = {1, 1, 1, 1}, second[4] = {1.5, 0.7, 1.2, 2.0};
    for (unsigned long seed = 1; seed <= 4; ++seed) {
        RandomStep r(seed);
        Pair<double> pair;
        SolverOptions o;
        o.threads = 1;
        o.mergeBlocks = seed % 2 == 0;
        pair.setOptions(o);
        pair.analyze(r.structure);
        for (const double* scale : {first, second}) {
            tst::DenseSymmetric dense;
            const Arrays<double> a = r.values(scale, dense);
            ASSERT_TRUE(pair.run(a)) << "seed " << seed;
            pair.expectSame("seed " + std::to_string(seed));
            const std::vector<double> b = tst::randomVector(dense.n, seed);
            std::vector<double> x(b.size());
            ASSERT_TRUE(pair.step.solve(b.data(), x.data()));
            EXPECT_LT(tst::scaledResidual(dense, x.data(), b.data()), 1e-14) << "seed " << seed;
        }
    }
}

// The cases that write every value first: two threads, switched-off equations, regularisation; then back to
// the column-by-column path. Null arrays keep those values.
TEST(SolverStep, FallbacksAndNullArraysMatch) {
    RandomStep r(7);
    tst::DenseSymmetric dense;
    const double s1[4] = {1, 1, 1, 1}, s2[4] = {2, 0.5, 1.5, 3}, s3[4] = {1.2, 0.9, 0.8, 0.5};
    const Arrays<double> a1 = r.values(s1, dense), a2 = r.values(s2, dense), a3 = r.values(s3, dense);
    Pair<double> pair;
    SolverOptions o;
    o.threads = 2;
    pair.setOptions(o);
    pair.analyze(r.structure);
    ASSERT_TRUE(pair.run(a1));
    EXPECT_EQ(pair.step.report().path, "multifrontal");
    pair.expectSame("two threads");
    o.threads = 1;
    pair.setOptions(o);
    for (unsigned int c : {3u, 10u, 11u}) {
        ASSERT_TRUE(pair.step.setConstraintActive(c, false));
        ASSERT_TRUE(pair.reference.setConstraintActive(c, false));
    }
    ASSERT_TRUE(pair.run(a2));
    pair.expectSame("switched off");
    for (unsigned int c : {3u, 10u, 11u}) {
        ASSERT_TRUE(pair.step.setConstraintActive(c, true));
        ASSERT_TRUE(pair.reference.setConstraintActive(c, true));
    }
    o.regularization = 1e-6;
    pair.setOptions(o);
    ASSERT_TRUE(pair.run(a3));
    EXPECT_TRUE(pair.step.report().regularized);
    pair.expectSame("regularised");
    o.regularization = 0.0;
    pair.setOptions(o);
    Arrays<double> some;  // bodies and couplings kept from a3
    some.v[1] = a1.v[1];
    some.v[3] = a2.v[3];
    ASSERT_TRUE(pair.run(some));
    pair.expectSame("null bodies and couplings");
    ASSERT_TRUE(pair.run(Arrays<double>()));
    pair.expectSame("all null");
}

// A general block pattern: factorPatternValues (Analyzer::setBlocksAndFactor) serial and on two threads.
TEST(SolverStep, PatternValuesMatch) {
    auto scene = scenes::makeScene(scenes::SceneKind::ragdolls, 34);
    scenes::BlockProblem problem;
    for (unsigned int threads : {1u, 2u}) {
        Pair<double> pair;
        SolverOptions o;
        o.threads = threads;
        pair.setOptions(o);
        scene->setTime(0.1);
        scene->build(problem);
        const Analysis::Problem p = problem.pattern();
        pair.analyze(p);
        for (int k = 0; k < 2; ++k) {
            scene->setTime(0.1 + 0.2 * k);
            scene->build(problem);
            ASSERT_TRUE(pair.runPattern(problem.values.data(), problem.valuePointers.data()));
            pair.expectSame("pattern, threads " + std::to_string(threads));
        }
    }
}

// Bad input: the status and message of setValues / setPatternValues, nothing written, the factor kept.
TEST(SolverStep, BadInputChangesNothing) {
    RandomStep r(3);
    tst::DenseSymmetric dense;
    const double s1[4] = {1, 1, 1, 1}, s2[4] = {2, 2, 2, 2};
    const Arrays<double> good = r.values(s1, dense);
    Pair<double> pair;
    pair.run(good);  // not analyzed
    EXPECT_EQ(pair.step.factor(nullptr, nullptr).code, StatusCode::notAnalyzed);
    EXPECT_EQ(pair.runPattern(nullptr, nullptr).code, StatusCode::notAnalyzed);
    SolverOptions o;
    o.checkValues = true;
    pair.setOptions(o);
    pair.analyze(r.structure);
    ASSERT_TRUE(pair.run(good));
    EXPECT_EQ(pair.runPattern(good.p(0), nullptr).code, StatusCode::invalidArgument);
    for (int kind = 0; kind < 4; ++kind) {
        Arrays<double> bad = r.values(s2, dense);
        if (bad.v[kind].empty()) continue;
        bad.v[kind][bad.v[kind].size() / 2] = kind % 2 ? std::nan("") : -HUGE_VAL;
        EXPECT_EQ(pair.run(bad).code, StatusCode::nonFiniteValue);
        pair.expectSame("after bad kind " + std::to_string(kind));  // the factor of `good`, still valid
        ASSERT_TRUE(pair.step.factor());
        ASSERT_TRUE(pair.reference.factor());
        pair.expectSame("values held after bad kind " + std::to_string(kind));
    }
    Pair<double> general;
    auto scene = scenes::makeScene(scenes::SceneKind::chain, 20);
    scenes::BlockProblem problem;
    scene->build(problem);
    const Analysis::Problem p = problem.pattern();
    general.analyze(p);
    EXPECT_EQ(general.run(good).code, StatusCode::invalidArgument);
}

// A NaN in a body block in the middle, with checkValues off: the step stops at that pivot as factor() does,
// and still writes every value (after fixing the block, factor() gives the reference's factor).
TEST(SolverStep, BadPivotInTheMiddle) {
    auto scene = scenes::makeScene(scenes::SceneKind::chain, 300);
    scenes::BlockProblem problem;
    scene->build(problem);
    demo::SceneSystem<double> sys;
    sys.describe(problem);
    Pair<double> pair;
    SolverOptions o;
    o.threads = 1;
    pair.setOptions(o);
    pair.analyze(sys.structure());
    ASSERT_TRUE(pair.run(sceneArrays(*scene, problem, sys, pair.step, 0.1)));
    Arrays<double> a = sceneArrays(*scene, problem, sys, pair.step, 0.4);
    const unsigned int body = 150;
    const std::vector<double> kept(a.v[0].begin() + 36 * body, a.v[0].begin() + 36 * (body + 1));
    a.v[0][36 * body + 7] = std::nan("");
    const Status st = pair.run(a);
    EXPECT_EQ(st.code, StatusCode::nonFinitePivot);
    const PivotLocation& at = pair.step.badPivot();
    EXPECT_TRUE(at.found && at.step > 0 && at.step + 1 < pair.step.size()) << st.message;
    pair.expectSame("bad pivot");
    ASSERT_TRUE(pair.step.setConstraintActive(5, false));
    ASSERT_TRUE(pair.reference.setConstraintActive(5, false));
    pair.expectSame("bad pivot, then a switch");
    ASSERT_TRUE(pair.step.setBody(body, kept.data()));
    ASSERT_TRUE(pair.reference.setBody(body, kept.data()));
    ASSERT_TRUE(pair.step.factor());
    ASSERT_TRUE(pair.reference.factor());
    pair.expectSame("repaired");
}

TEST(SolverStep, SecondStepAllocatesNothing) {
    auto scene = scenes::makeScene(scenes::SceneKind::ragdolls, 20);
    scenes::BlockProblem problem;
    scene->build(problem);
    demo::SceneSystem<double> sys;
    sys.describe(problem);
    Solver<double> solver, pattern;
    SolverOptions o;
    o.threads = 1;
    ASSERT_TRUE(solver.setOptions(o));
    ASSERT_TRUE(pattern.setOptions(o));
    ASSERT_TRUE(solver.analyze(sys.structure()));
    const Analysis::Problem p = problem.pattern();
    ASSERT_TRUE(pattern.analyze(p));
    const Arrays<double> a = sceneArrays(*scene, problem, sys, solver, 0.3);
    std::vector<double> b(solver.size(), 1.0), x(b.size());
    unsigned long newBefore = 0, kivBefore = 0;
    for (int k = 0; k < 4; ++k) {
        if (k == 2)
            newBefore = kivTamber::testing::newCount(), kivBefore = kiv::ByteAllocator::allocationCount();
        ASSERT_TRUE(solver.factor(a.p(0), a.p(1), a.p(2), a.p(3)));
        ASSERT_TRUE(solver.solve(b.data(), x.data()));
        ASSERT_TRUE(pattern.factorPatternValues(problem.values.data(), problem.valuePointers.data()));
        ASSERT_TRUE(pattern.solve(b.data(), x.data()));
    }
    EXPECT_EQ(kivTamber::testing::newCount() - newBefore, 0u);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - kivBefore, 0u);
}

}  // namespace
