// The solver object over many time steps: after any seeded random sequence of steps (good values, values
// with NaN, infinities, huge entries and zero mass blocks, factor failures, switching equations on and off,
// option changes between serial and multifrontal and in and out of the regularised mode, condition
// estimates, re-analyses of another structure and back, and calls that fail), a factorization and solve of
// good values give the bits of a fresh object brought straight to the same structure, options, values and
// active set. And every failed call leaves everything a caller can observe as it was.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Solver.h"
#include "testing/Bits.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

namespace tst = kivTamber::testing;

// A random body/constraint scene with its values in the layout of Solver::setValues: bodies of 1 … 12
// unknowns (odd sizes twice as likely) with SPD mass blocks, constraints of up to 3 rows on one or two bodies
// (J of full row rank: the rows on a body never exceed its size), some body couplings and compliant
// constraints.
struct Scene {
    SystemStructure structure;
    std::vector<double> bodies, jacobians, couplings, compliances;

    Scene(unsigned long seed, unsigned int nb) {
        std::mt19937_64 rng(seed);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        const unsigned int odd[] = {1, 3, 5, 7, 9, 11};
        std::vector<unsigned int> room(nb);
        for (unsigned int b = 0; b < nb; ++b) {
            const unsigned int s = rng() % 3 ? odd[rng() % 6] : 1 + static_cast<unsigned int>(rng() % 12);
            structure.addBody(s);
            room[b] = s;
        }
        for (unsigned int b = 0; b < nb; ++b) {
            const unsigned int rows = 1 + static_cast<unsigned int>(rng() % 3);
            const unsigned int other = b + 1 + static_cast<unsigned int>(rng() % 3);
            if (room[b] < rows) continue;
            room[b] -= rows;
            const unsigned int c = structure.addConstraint(rows, rng() % 4 == 0);
            structure.addJacobian(c, b);
            if (other < nb && structure.bodySizes[other] >= rows) structure.addJacobian(c, other);
        }
        for (unsigned int b = 0; b + 2 < nb; b += 4) structure.addBodyCoupling(b + 2, b);
        for (unsigned int b = 0; b < nb; ++b) {
            const unsigned int s = structure.bodySizes[b];
            std::vector<double> g(s * s);
            for (double& v : g) v = u(rng);
            for (unsigned int i = 0; i < s; ++i)
                for (unsigned int j = 0; j < s; ++j) {
                    double m = i == j ? 2.0 * s : 0.0;  // GᵀG + 2s·I
                    for (unsigned int k = 0; k < s; ++k) m += g[k * s + i] * g[k * s + j];
                    bodies.push_back(m);
                }
        }
        for (const auto& jb : structure.jacobians) {
            const unsigned int n = structure.constraintSizes[jb.first] * structure.bodySizes[jb.second];
            for (unsigned int k = 0; k < n; ++k) jacobians.push_back(u(rng));
        }
        for (const auto& cb : structure.couplings) {
            const unsigned int n = structure.bodySizes[cb.first] * structure.bodySizes[cb.second];
            for (unsigned int k = 0; k < n; ++k) couplings.push_back(0.2 * u(rng));
        }
        for (unsigned int c = 0; c < structure.numConstraints(); ++c) {
            if (!structure.compliant[c]) continue;
            const unsigned int s = structure.constraintSizes[c];
            for (unsigned int i = 0; i < s; ++i)
                for (unsigned int j = 0; j < s; ++j) compliances.push_back(i == j ? 0.05 + 0.01 * i : 0.0);
        }
    }

    template <typename T>
    Status setAll(Solver<T>& solver, double scale = 1.0) const {
        auto cast = [scale](const std::vector<double>& v) {
            std::vector<T> t(v.size());
            for (std::size_t k = 0; k < v.size(); ++k) t[k] = static_cast<T>(scale * v[k]);
            return t;
        };
        return solver.setValues(cast(bodies).data(), cast(jacobians).data(), cast(couplings).data(),
                                cast(compliances).data());
    }

    // The matrix in the caller's numbering (bodies, then constraints), as a dense symmetric matrix.
    tst::DenseSymmetric dense() const {
        const unsigned int nb = structure.numBodies(), nc = structure.numConstraints();
        std::vector<unsigned int> off(nb + nc + 1, 0);
        for (unsigned int b = 0; b < nb; ++b) off[b + 1] = off[b] + structure.bodySizes[b];
        for (unsigned int c = 0; c < nc; ++c) off[nb + c + 1] = off[nb + c] + structure.constraintSizes[c];
        tst::DenseSymmetric A(off.back());
        unsigned long at = 0;
        for (unsigned int b = 0; b < nb; ++b)
            for (unsigned int i = 0; i < structure.bodySizes[b]; ++i)
                for (unsigned int j = 0; j < structure.bodySizes[b]; ++j)
                    A(off[b] + i, off[b] + j) = bodies[at++];
        at = 0;
        for (const auto& jb : structure.jacobians)
            for (unsigned int i = 0; i < structure.constraintSizes[jb.first]; ++i)
                for (unsigned int j = 0; j < structure.bodySizes[jb.second]; ++j)
                    A.setSymmetric(off[nb + jb.first] + i, off[jb.second] + j, jacobians[at++]);
        at = 0;
        for (const auto& cb : structure.couplings)
            for (unsigned int i = 0; i < structure.bodySizes[cb.first]; ++i)
                for (unsigned int j = 0; j < structure.bodySizes[cb.second]; ++j)
                    A.setSymmetric(off[cb.first] + i, off[cb.second] + j, couplings[at++]);
        at = 0;
        for (unsigned int c = 0; c < nc; ++c) {
            if (!structure.compliant[c]) continue;
            const unsigned int sc = structure.constraintSizes[c];
            for (unsigned int i = 0; i < sc; ++i)
                for (unsigned int j = 0; j < sc; ++j)
                    A(off[nb + c] + i, off[nb + c] + j) = -compliances[at++];
        }
        return A;
    }

    unsigned long rows() const {
        unsigned long n = 0;
        for (unsigned int s : structure.bodySizes) n += s;
        for (unsigned int s : structure.constraintSizes) n += s;
        return n;
    }
};

using testing::firstDifference;
using testing::sameBits;

// Everything a caller can observe of a factored object: one solve, three at once, the condition estimate,
// the active flags and the report's figures of the factorization and the solve.
template <typename T>
struct Observation {
    Status factorStatus, solveStatus, manyStatus, conditionStatus;
    std::vector<T> x, many;
    double kappa = -2.0;
    std::vector<unsigned char> active;
    unsigned long positive = 0, negative = 0, zero = 0;
    double smallest = 0.0, residual = 0.0;
    bool badFound = false, regularized = false;
    std::string path;
    unsigned int threads = 0, refinementSteps = 0;
};

// Solves and reads without factoring (the caller factors first when it wants a factorization).
template <typename T>
Observation<T> look(Solver<T>& s, const Scene& scene, unsigned long seed) {
    Observation<T> o;
    const unsigned long n = s.size();
    const std::vector<double> b = tst::randomVector(static_cast<unsigned int>(n), seed);
    std::vector<T> bt(b.begin(), b.end());
    o.x.assign(n, T(7));
    o.solveStatus = s.solve(bt.data(), o.x.data());
    const SolverReport& r = s.report();
    o.residual = r.residual;
    o.refinementSteps = r.refinementSteps;
    const unsigned long ld = n + 3;
    std::vector<T> B(3 * ld, T(0));
    for (unsigned int k = 0; k < 3; ++k)
        for (unsigned long i = 0; i < n; ++i) B[k * ld + i] = static_cast<T>(b[(i + 5 * k) % n] * (k + 1));
    o.many.assign(3 * ld, T(7));
    o.manyStatus = s.solve(B.data(), o.many.data(), 3, ld);
    o.conditionStatus = s.estimateCondition(o.kappa);
    for (unsigned int c = 0; c < scene.structure.numConstraints(); ++c)
        for (unsigned int row = 0; row < scene.structure.constraintSizes[c]; ++row)
            o.active.push_back(s.isActive(c, row));
    o.positive = r.positivePivots;
    o.negative = r.negativePivots;
    o.zero = r.zeroPivots;
    o.smallest = r.smallestPivot.value;
    o.badFound = r.badPivot.found;
    o.regularized = r.regularized;
    o.path = r.path;
    o.threads = r.threads;
    return o;
}

template <typename T>
void expectSame(const Observation<T>& got, const Observation<T>& want) {
    EXPECT_EQ(got.factorStatus.code, want.factorStatus.code) << got.factorStatus.message;
    EXPECT_EQ(got.factorStatus.message, want.factorStatus.message);
    EXPECT_EQ(got.solveStatus.code, want.solveStatus.code) << got.solveStatus.message;
    EXPECT_EQ(got.manyStatus.code, want.manyStatus.code);
    EXPECT_EQ(got.conditionStatus.code, want.conditionStatus.code);
    EXPECT_TRUE(sameBits(got.x, want.x)) << "solve " << firstDifference(got.x, want.x);
    EXPECT_TRUE(sameBits(got.many, want.many))
        << "three right-hand sides " << firstDifference(got.many, want.many);
    EXPECT_TRUE(sameBits(std::vector<double>{got.kappa}, std::vector<double>{want.kappa}))
        << got.kappa << " " << want.kappa;
    EXPECT_EQ(got.active, want.active);
    EXPECT_EQ(got.positive, want.positive);
    EXPECT_EQ(got.negative, want.negative);
    EXPECT_EQ(got.zero, want.zero);
    EXPECT_TRUE(sameBits(std::vector<double>{got.smallest}, std::vector<double>{want.smallest}));
    EXPECT_TRUE(sameBits(std::vector<double>{got.residual}, std::vector<double>{want.residual}))
        << got.residual << " " << want.residual;
    EXPECT_EQ(got.badFound, want.badFound);
    EXPECT_EQ(got.regularized, want.regularized);
    EXPECT_EQ(got.path, want.path);
    EXPECT_EQ(got.threads, want.threads);
    EXPECT_EQ(got.refinementSteps, want.refinementSteps);
}

SolverOptions randomOptions(std::mt19937_64& rng) {
    SolverOptions o;
    o.threads = static_cast<unsigned int>(rng() % 3);  // 0: by predicted work
    o.maxThreads = 2;
    o.refinementSteps = static_cast<unsigned int>(rng() % 3);
    o.regularization = rng() % 4 == 0 ? 1e-7 : 0.0;
    o.switching = static_cast<SwitchMethod>(rng() % 3);
    o.checkValues = rng() % 2 == 0;
    return o;
}

// Values that break a step, written over a copy of the scene's: NaN or infinities in a few Jacobian entries,
// huge entries in a mass block, or a zero mass block.
template <typename T>
Status setBroken(Solver<T>& s, const Scene& scene, unsigned int kind, std::mt19937_64& rng) {
    std::vector<T> bodies(scene.bodies.begin(), scene.bodies.end());
    std::vector<T> jac(scene.jacobians.begin(), scene.jacobians.end());
    std::vector<T> coup(scene.couplings.begin(), scene.couplings.end());
    std::vector<T> comp(scene.compliances.begin(), scene.compliances.end());
    const T bad[] = {std::numeric_limits<T>::quiet_NaN(), std::numeric_limits<T>::infinity(),
                     -std::numeric_limits<T>::infinity(), std::numeric_limits<T>::max() / 8, T(0)};
    if (kind < 3) {
        for (T& v : jac)
            if (rng() % 4 == 0) v = bad[kind];
        jac[rng() % jac.size()] = bad[kind];
    } else {
        const unsigned int body = static_cast<unsigned int>(rng() % scene.structure.numBodies());
        unsigned long at = 0;
        for (unsigned int b = 0; b < body; ++b)
            at += scene.structure.bodySizes[b] * scene.structure.bodySizes[b];
        const unsigned int sz = scene.structure.bodySizes[body];
        for (unsigned int k = 0; k < sz * sz; ++k) bodies[at + k] = kind == 3 ? bad[3] : T(0);
    }
    return s.setValues(bodies.data(), jac.data(), coup.data(), comp.data());
}

// One random sequence of steps on a used object, then the same final step on it and on a fresh object.
template <typename T>
void runSequence(unsigned long seed, int steps) {
    const Scene scene(seed, 6 + seed % 10), other(seed + 500, 4 + seed % 5);
    std::mt19937_64 rng(seed);
    Solver<T> used;
    SolverOptions analyzed;  // the options of the last analyze of `scene`
    analyzed.ordering = static_cast<OrderingMethod>(rng() % 4);
    analyzed.mergeBlocks = rng() % 2 == 0;
    SolverOptions current = analyzed;
    ASSERT_TRUE(used.setOptions(current));
    ASSERT_TRUE(used.analyze(scene.structure));
    ASSERT_TRUE(scene.setAll(used));
    const unsigned int nc = scene.structure.numConstraints();
    std::vector<std::vector<unsigned char>> active(nc);
    for (unsigned int c = 0; c < nc; ++c) active[c].assign(scene.structure.constraintSizes[c], 1);
    std::string trail;
    for (int step = 0; step < steps; ++step) {
        const unsigned int op = static_cast<unsigned int>(rng() % 6);
        trail += " " + std::to_string(op);
        if (op == 0) {  // a good step
            ASSERT_TRUE(scene.setAll(used, rng() % 3 == 0 ? 1e20 : 1.0));
            used.factor();
            look(used, scene, rng());
        } else if (op == 1) {  // a broken step: the setter or the factorization refuses, the solves too
            const unsigned int kind = static_cast<unsigned int>(rng() % 5);
            trail += "k" + std::to_string(kind);
            const Status set = setBroken(used, scene, kind, rng);
            const Status f = used.factor();
            if (kind < 3 && set) {
                EXPECT_FALSE(f.ok()) << trail;
            }
            if (rng() % 2) look(used, scene, rng());
            if (!set) {  // checkValues refused them: good values go in instead
                ASSERT_TRUE(scene.setAll(used));
            }
        } else if (op == 2) {  // switching rows on and off, solved (in place or factored again)
            for (int k = 0; k < 3; ++k) {
                const unsigned int c = static_cast<unsigned int>(rng() % nc);
                const unsigned int row =
                    static_cast<unsigned int>(rng() % scene.structure.constraintSizes[c]);
                const bool on = rng() % 2 == 0;
                ASSERT_TRUE(used.setActive(c, row, on));
                active[c][row] = on;
            }
            look(used, scene, rng());
        } else if (op == 3) {  // options between steps
            SolverOptions o = randomOptions(rng);
            o.ordering = analyzed.ordering;
            o.mergeBlocks = analyzed.mergeBlocks;
            ASSERT_TRUE(used.setOptions(o));
            current = o;
            trail += "t" + std::to_string(o.threads) + "r" + std::to_string(o.regularization > 0);
            used.factor();
        } else if (op == 4) {  // another structure, then back: every value zero, every row active again
            ASSERT_TRUE(used.analyze(other.structure));
            ASSERT_TRUE(other.setAll(used));
            used.factor();
            look(used, other, rng());
            analyzed.ordering = static_cast<OrderingMethod>(rng() % 4);
            analyzed.mergeBlocks = rng() % 2 == 0;
            current.ordering = analyzed.ordering;
            current.mergeBlocks = analyzed.mergeBlocks;
            ASSERT_TRUE(used.setOptions(current));
            ASSERT_TRUE(used.analyze(scene.structure));
            for (auto& a : active) a.assign(a.size(), 1);
            ASSERT_TRUE(scene.setAll(used));
        } else {  // calls that fail
            SystemStructure bad = scene.structure;
            bad.addJacobian(0, 999);
            EXPECT_FALSE(used.analyze(bad).ok());
            std::vector<T> v(200, T(1));
            EXPECT_FALSE(used.setBody(999, v.data()).ok());
            EXPECT_FALSE(used.setActive(nc, 0, false).ok());
            double kappa = 0;
            used.estimateCondition(kappa);
        }
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + " steps" + trail);

    // The last step on both objects: good values, the current options and active set, factor, observe.
    const unsigned long rhsSeed = rng();
    ASSERT_TRUE(scene.setAll(used));
    Observation<T> got;
    got.factorStatus = used.factor();
    got = [&] {
        Observation<T> o = look(used, scene, rhsSeed);
        o.factorStatus = got.factorStatus;
        return o;
    }();

    Solver<T> fresh;
    ASSERT_TRUE(fresh.setOptions(analyzed));
    ASSERT_TRUE(fresh.analyze(scene.structure));
    ASSERT_TRUE(fresh.setOptions(current));
    ASSERT_TRUE(scene.setAll(fresh));
    for (unsigned int c = 0; c < nc; ++c)
        for (unsigned int row = 0; row < active[c].size(); ++row)
            ASSERT_TRUE(fresh.setActive(c, row, active[c][row] != 0));
    Observation<T> want;
    want.factorStatus = fresh.factor();
    ASSERT_TRUE(want.factorStatus.ok()) << want.factorStatus.message;
    want = [&] {
        Observation<T> o = look(fresh, scene, rhsSeed);
        o.factorStatus = want.factorStatus;
        return o;
    }();
    expectSame(got, want);
}

TEST(SolverSequences, RandomStepsEndLikeAFreshObjectDouble) {
    for (unsigned long seed = 0; seed < 40; ++seed) runSequence<double>(seed, 10);
}

TEST(SolverSequences, RandomStepsEndLikeAFreshObjectFloat) {
    for (unsigned long seed = 0; seed < 40; ++seed) runSequence<float>(seed, 10);
}

// A switch of equations by factoring again (switching = refactor, and always in the regularised mode) and a
// fresh object factored with the same active set: the same masked factor, so the same bits of x and the
// same residual in the report, switching off from all active and back on again.
// ‖A‖∞ of the active set is what the refinement's stop test and SolverReport::residual use; a norm kept
// from an earlier active set once stopped the used object after 5 steps at 2.1e-16 while a fresh one ran 6 to
// 2.2e-18 (seed 337).
TEST(SolverSequences, SwitchedStepUsesTheNormOfItsActiveSet) {
    for (unsigned long seed : {337ul, 345ul, 362ul, 3ul, 7ul}) {
        const Scene scene(seed, 12);
        SolverOptions o;
        o.switching = SwitchMethod::refactor;
        o.refinementSteps = 20;
        o.regularization = 1e-4;
        o.threads = 1;
        Solver<double> used;
        ASSERT_TRUE(used.setOptions(o));
        ASSERT_TRUE(used.analyze(scene.structure));
        ASSERT_TRUE(scene.setAll(used));
        ASSERT_TRUE(used.factor());
        const std::vector<double> b = tst::randomVector(static_cast<unsigned int>(used.size()), seed);
        std::vector<double> x(b.size()), y(b.size());
        ASSERT_TRUE(used.solve(b.data(), x.data()));
        for (bool on : {false, true}) {
            SCOPED_TRACE("seed " + std::to_string(seed) + (on ? " back on" : " switched off"));
            Solver<double> fresh;
            ASSERT_TRUE(fresh.setOptions(o));
            ASSERT_TRUE(fresh.analyze(scene.structure));
            ASSERT_TRUE(scene.setAll(fresh));
            for (unsigned int c = 0; c < scene.structure.numConstraints(); c += 2) {
                ASSERT_TRUE(used.setConstraintActive(c, on));
                ASSERT_TRUE(fresh.setConstraintActive(c, on));
            }
            ASSERT_TRUE(used.solve(b.data(), x.data()));
            ASSERT_TRUE(fresh.factor());
            ASSERT_TRUE(fresh.solve(b.data(), y.data()));
            EXPECT_TRUE(sameBits(x, y));
            EXPECT_EQ(used.report().refinementSteps, fresh.report().refinementSteps);
            EXPECT_EQ(used.report().residual, fresh.report().residual);
        }
    }
}

// Every call that fails leaves what a caller can observe as it was: the next solves without factoring give
// the same bits (the factor is untouched), and so does a factorization after them (the values are
// untouched). Checked on a factored object, one with a pending switch, and one whose values changed since
// its factorization (the solve must keep refusing).
template <typename T>
void checkFailedCalls(unsigned long seed) {
    const Scene scene(seed, 10);
    const unsigned int nb = scene.structure.numBodies(), nc = scene.structure.numConstraints();
    SolverOptions o;
    o.checkValues = true;
    o.threads = 1 + seed % 2;
    o.refinementSteps = 2;
    Solver<T> s;
    ASSERT_TRUE(s.setOptions(o));
    ASSERT_TRUE(s.analyze(scene.structure));
    ASSERT_TRUE(scene.setAll(s));
    ASSERT_TRUE(s.factor());
    std::vector<T> v(200, T(1)), nan(scene.jacobians.size() + 200, T(1));
    nan[0] = nan[scene.jacobians.size() - 1] = std::numeric_limits<T>::quiet_NaN();  // first and last
    std::vector<T> bodies(scene.bodies.size(), T(3));  // valid but different: must not be stored
    std::vector<T> x(s.size() + 1), b(s.size() + 1, T(1));
    SystemStructure unknownBody = scene.structure, twice = scene.structure, empty;
    unknownBody.addJacobian(0, nb + 5);
    twice.jacobians.push_back(twice.jacobians.front());
    const unsigned int colPointers[] = {0, 1, 3}, rowIndices[] = {0, 0, 7};
    const unsigned int wrongSizes[] = {2, 2};
    SolverOptions badOptions = o;
    badOptions.regularization = std::nan("");
    SolverOptions badThreads = o;
    badThreads.threads = 1000;
    const unsigned long ld = s.size() - 1;
    struct Call {
        const char* what;
        std::function<Status()> call;
    };
    const std::vector<Call> calls = {
        {"analyze unknown body", [&] { return s.analyze(unknownBody); }},
        {"analyze Jacobian twice", [&] { return s.analyze(twice); }},
        {"analyze empty", [&] { return s.analyze(empty); }},
        {"analyzeScalar bad row", [&] { return s.analyzeScalar(2, 2, colPointers, rowIndices); }},
        {"analyzeScalar bad sizes",
         [&] { return s.analyzeScalar(2, 2, colPointers, rowIndices, wrongSizes, 2); }},
        {"setBody id", [&] { return s.setBody(nb, v.data()); }},
        {"setBody null", [&] { return s.setBody(0, nullptr); }},
        {"setJacobian pair", [&] { return s.setJacobian(0, nb - 1 == 0 ? 1 : nb - 1, v.data()); }},
        {"setJacobian NaN",
         [&] {
             return s.setJacobian(scene.structure.jacobians[0].first, scene.structure.jacobians[0].second,
                                  nan.data());
         }},
        {"setBodyCoupling self", [&] { return s.setBodyCoupling(1, 1, v.data()); }},
        {"setCompliance id", [&] { return s.setCompliance(nc, v.data()); }},
        {"setBlock id", [&] { return s.setBlock(nb + nc, 0, v.data()); }},
        {"setPatternValues", [&] { return s.setPatternValues(v.data(), nullptr); }},
        {"setScalarValues", [&] { return s.setScalarValues(v.data()); }},
        {"setValues NaN Jacobian", [&] { return s.setValues(bodies.data(), nan.data()); }},
        {"setActive constraint", [&] { return s.setActive(nc, 0, false); }},
        {"setActive row", [&] { return s.setActive(0, 99, false); }},
        {"setConstraintActive", [&] { return s.setConstraintActive(nc + 1, false); }},
        {"setOptions NaN", [&] { return s.setOptions(badOptions); }},
        {"setOptions threads", [&] { return s.setOptions(badThreads); }},
        {"solve null", [&] { return s.solve(nullptr, x.data()); }},
        {"solve ld", [&] { return s.solve(b.data(), x.data(), 2, ld); }},
    };
    for (int state = 0; state < 3; ++state) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " state " + std::to_string(state));
        if (state == 1) {  // a switch pending until the next solve
            ASSERT_TRUE(s.setConstraintActive(nc / 2, false));
        } else if (state == 2) {  // new values: solves refuse until the next factorization
            const std::vector<T> body0(scene.bodies.begin(), scene.bodies.end());
            ASSERT_TRUE(s.setBody(0, body0.data()));
        }
        // Observed after each failing call (solving applies a pending switch, so the first observation is
        // taken after the first call).
        Observation<T> before;
        bool first = true;
        for (const Call& c : calls) {
            SCOPED_TRACE(c.what);
            const Status st = c.call();
            EXPECT_FALSE(st.ok());
            EXPECT_FALSE(st.message.empty());
            Observation<T> now = look(s, scene, seed);
            if (first) {
                before = now;
                first = false;
                continue;
            }
            expectSame(now, before);
        }
        if (state == 2) {
            EXPECT_EQ(before.solveStatus.code, StatusCode::notFactored);
            ASSERT_TRUE(s.factor());
        }
        // The values: a factorization now equals one of a fresh object with the same active set.
        Solver<T> fresh;
        ASSERT_TRUE(fresh.setOptions(o));
        ASSERT_TRUE(fresh.analyze(scene.structure));
        ASSERT_TRUE(scene.setAll(fresh));
        for (unsigned int c = 0; c < nc; ++c)
            for (unsigned int r = 0; r < scene.structure.constraintSizes[c]; ++r)
                ASSERT_TRUE(fresh.setActive(c, r, s.isActive(c, r)));
        ASSERT_TRUE(fresh.factor());
        ASSERT_TRUE(s.factor());
        expectSame(look(s, scene, seed), look(fresh, scene, seed));
    }
}

TEST(SolverSequences, FailedCallsChangeNothing) {
    for (unsigned long seed : {1ul, 2ul, 3ul}) {
        checkFailedCalls<double>(seed);
        checkFailedCalls<float>(seed + 10);
    }
}

// One scene given three ways: its structure, its block pattern (Analysis::Problem with the values of
// setPatternValues) and its lower triangle as a scalar matrix (analyzeScalar, blocks given).
struct Inputs {
    const Scene* scene = nullptr;
    unsigned int n = 0, nb = 0, N = 0, firstConstraintRow = 0;
    std::vector<unsigned int> cp, ri, sizes;  // block pattern, upper (i <= j) by columns
    std::vector<unsigned long> vp;
    std::vector<double> blockValues;
    std::vector<unsigned int> scp, sri;  // scalar lower triangle
    std::vector<double> scalarValues;

    explicit Inputs(const Scene& s) : scene(&s) {
        const tst::DenseSymmetric A = s.dense();
        nb = s.structure.numBodies();
        n = nb + s.structure.numConstraints();
        for (unsigned int x : s.structure.bodySizes) sizes.push_back(x);
        for (unsigned int x : s.structure.constraintSizes) sizes.push_back(x);
        std::vector<unsigned int> off(n + 1, 0);
        for (unsigned int k = 0; k < n; ++k) off[k + 1] = off[k] + sizes[k];
        N = off[n];
        firstConstraintRow = off[nb];
        cp.push_back(0);
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i <= j; ++i) {
                bool coupled = i == j;
                for (unsigned int r = off[i]; r < off[i + 1] && !coupled; ++r)
                    for (unsigned int c = off[j]; c < off[j + 1] && !coupled; ++c) coupled = A(r, c) != 0.0;
                if (!coupled) continue;
                ri.push_back(i);
                vp.push_back(blockValues.size());
                for (unsigned int r = off[i]; r < off[i + 1]; ++r)
                    for (unsigned int c = off[j]; c < off[j + 1]; ++c) blockValues.push_back(A(r, c));
            }
            cp.push_back(static_cast<unsigned int>(ri.size()));
        }
        scp.push_back(0);
        for (unsigned int j = 0; j < N; ++j) {
            for (unsigned int i = j; i < N; ++i)
                if (A(i, j) != 0.0 || i == j) sri.push_back(i), scalarValues.push_back(A(i, j));
            scp.push_back(static_cast<unsigned int>(sri.size()));
        }
    }

    // Analyses `solver` by input kind 0 (structure), 1 (pattern) or 2 (scalar) and sets the values.
    template <typename T>
    void bring(Solver<T>& solver, unsigned int kind) const {
        if (kind == 0) {
            ASSERT_TRUE(solver.analyze(scene->structure));
            ASSERT_TRUE(scene->setAll(solver));
        } else if (kind == 1) {
            const Analysis::Problem problem{n, nb, cp.data(), ri.data(), sizes.data()};
            ASSERT_TRUE(solver.analyze(problem));
            const std::vector<T> v(blockValues.begin(), blockValues.end());
            ASSERT_TRUE(solver.setPatternValues(v.data(), vp.data()));
        } else {
            const Status st =
                solver.analyzeScalar(N, firstConstraintRow, scp.data(), sri.data(), sizes.data(), n);
            ASSERT_TRUE(st) << st.message;
            const std::vector<T> v(scalarValues.begin(), scalarValues.end());
            ASSERT_TRUE(solver.setScalarValues(v.data()));
        }
    }
};

// Re-analyses across the three kinds of input and two scenes, with factorizations, broken values and
// switching in between; the last analysis, factorization and solve equal a fresh object's.
template <typename T>
void runInputKinds(unsigned long seed) {
    const Scene a(seed, 5 + seed % 6), b(seed + 300, 4 + seed % 4);
    const Inputs ia(a), ib(b);
    std::mt19937_64 rng(seed);
    Solver<T> used;
    std::string trail;
    unsigned int kind = 0;
    const Scene* current = &a;
    for (int step = 0; step < 6; ++step) {
        kind = static_cast<unsigned int>(rng() % 3);
        current = rng() % 3 ? &a : &b;
        trail += " " + std::to_string(kind) + (current == &a ? "a" : "b");
        (current == &a ? ia : ib).bring(used, kind);
        if (rng() % 2) {  // a NaN mass block: the factorization fails
            const unsigned int s0 = current->structure.bodySizes[0];
            const std::vector<T> bad(s0 * s0, std::numeric_limits<T>::quiet_NaN());
            ASSERT_TRUE(used.setBlock(0, 0, bad.data()));
            EXPECT_FALSE(used.factor().ok());
            (current == &a ? ia : ib).bring(used, kind);
        }
        if (rng() % 2) {
            ASSERT_TRUE(used.setConstraintActive(0, false));
        }
        used.factor();
        look(used, *current, rng());
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + trail);
    kind = static_cast<unsigned int>(rng() % 3);
    const Inputs& last = rng() % 2 ? ia : ib;
    last.bring(used, kind);
    Solver<T> fresh;
    last.bring(fresh, kind);
    Observation<T> got, want;
    got.factorStatus = used.factor();
    want.factorStatus = fresh.factor();
    const unsigned long rhsSeed = rng();
    Observation<T> g = look(used, *last.scene, rhsSeed), w = look(fresh, *last.scene, rhsSeed);
    g.factorStatus = got.factorStatus;
    w.factorStatus = want.factorStatus;
    ASSERT_TRUE(w.factorStatus.ok()) << w.factorStatus.message;
    expectSame(g, w);
    EXPECT_EQ(used.report().ordering, fresh.report().ordering);
    EXPECT_EQ(used.report().factorEntries, fresh.report().factorEntries);
}

TEST(SolverSequences, ReanalysesAcrossInputKindsEndLikeAFreshObject) {
    for (unsigned long seed = 0; seed < 16; ++seed) {
        runInputKinds<double>(seed);
        runInputKinds<float>(seed + 100);
    }
}

// SolverOptions::maxThreads (with threads = 0, by predicted work) takes effect at the next factor(), as the
// other options but the ordering and merging do: a used object decides as a fresh one with the same options.
// The structure: 4 independent islands of 100 bodies of 12 unknowns, each body coupled to the next 12 of its
// island, enough work for 2 threads on a machine with 2 processors (on one processor both sides choose 1).
// (The thread count chosen at the first factor() of a structure was once kept through a change of
// maxThreads, beyond what the caller allowed.)
TEST(SolverSequences, MaxThreadsTakesEffectAtTheNextFactor) {
    SystemStructure islands;
    const unsigned int nb = 400;
    for (unsigned int b = 0; b < nb; ++b) islands.addBody(12);
    for (unsigned int b = 0; b < nb; ++b)
        for (unsigned int k = 1; k <= 12 && b % 100 + k < 100; ++k) islands.addBodyCoupling(b, b + k);
    for (unsigned int first : {1u, 2u}) {
        Solver<double> used;
        SolverOptions o;
        o.maxThreads = first;
        ASSERT_TRUE(used.setOptions(o));
        ASSERT_TRUE(used.analyze(islands));
        std::vector<double> bodies(used.bodyValueCount(), 0.0), couplings(used.couplingValueCount(), 0.01);
        for (unsigned int b = 0; b < nb; ++b)
            for (unsigned int k = 0; k < 12; ++k) bodies[b * 144 + k * 13] = 10.0;
        ASSERT_TRUE(used.setValues(bodies.data(), nullptr, couplings.data()));
        ASSERT_TRUE(used.factor());
        o.maxThreads = 3 - first;
        ASSERT_TRUE(used.setOptions(o));
        ASSERT_TRUE(used.factor());
        Solver<double> fresh;
        ASSERT_TRUE(fresh.setOptions(o));
        ASSERT_TRUE(fresh.analyze(islands));
        ASSERT_TRUE(fresh.setValues(bodies.data(), nullptr, couplings.data()));
        ASSERT_TRUE(fresh.factor());
        EXPECT_EQ(used.report().threads, fresh.report().threads)
            << "maxThreads " << first << " then " << 3 - first;
        EXPECT_EQ(used.report().path, fresh.report().path);
        EXPECT_LE(used.report().threads, o.maxThreads);
    }
}

// A step factored on 2 threads whose values hold NaN fails; the next step factors good values serially
// (threads = 1): it succeeds and solves to the bits of a fresh serial object (the multifrontal failure
// leaves no NaN in the padding rows of the factor's tiles).
TEST(SolverSequences, MultifrontalFailureThenSerialStep) {
    for (unsigned long seed = 0; seed < 12; ++seed) {
        const Scene scene(seed, 8 + seed % 8);
        SolverOptions o;
        o.threads = 2;
        Solver<double> used, fresh;
        ASSERT_TRUE(used.setOptions(o));
        ASSERT_TRUE(used.analyze(scene.structure));
        std::vector<double> jac = scene.jacobians;
        for (double& v : jac) v = std::nan("");
        ASSERT_TRUE(used.setValues(scene.bodies.data(), jac.data(), scene.couplings.data(),
                                   scene.compliances.data()));
        EXPECT_FALSE(used.factor().ok());
        o.threads = 1;
        ASSERT_TRUE(used.setOptions(o));
        ASSERT_TRUE(fresh.setOptions(o));
        ASSERT_TRUE(fresh.analyze(scene.structure));
        ASSERT_TRUE(scene.setAll(used));
        ASSERT_TRUE(scene.setAll(fresh));
        Observation<double> got, want;
        got.factorStatus = used.factor();
        want.factorStatus = fresh.factor();
        ASSERT_TRUE(want.factorStatus.ok());
        Observation<double> g = look(used, scene, seed), w = look(fresh, scene, seed);
        g.factorStatus = got.factorStatus;
        w.factorStatus = want.factorStatus;
        SCOPED_TRACE("seed " + std::to_string(seed));
        expectSame(g, w);
    }
}

// A re-analysis holds every value zero: values set before it (of the same structure, or of a larger one,
// or of a switched-off row) do not reappear when the next step sets only some of them.
template <typename T>
void checkReanalysisZeroes(unsigned long seed) {
    const Scene scene(seed, 8 + seed % 5), larger(seed + 900, 14);
    if (scene.couplings.empty()) return;
    SCOPED_TRACE("seed " + std::to_string(seed));
    Solver<T> used, fresh;
    ASSERT_TRUE(used.analyze(larger.structure));
    ASSERT_TRUE(larger.setAll(used));
    ASSERT_TRUE(used.factor());
    ASSERT_TRUE(used.analyze(scene.structure));
    ASSERT_TRUE(scene.setAll(used, 2.0));
    ASSERT_TRUE(used.setConstraintActive(0, false));
    ASSERT_TRUE(used.factor());
    ASSERT_TRUE(used.analyze(scene.structure));
    ASSERT_TRUE(fresh.analyze(scene.structure));
    const std::vector<T> bodies(scene.bodies.begin(), scene.bodies.end());
    const std::vector<T> jacobians(scene.jacobians.begin(), scene.jacobians.end());
    const std::vector<T> compliances(scene.compliances.begin(), scene.compliances.end());
    for (Solver<T>* s : {&used, &fresh})  // no couplings: they stay zero
        ASSERT_TRUE(s->setValues(bodies.data(), jacobians.data(), nullptr, compliances.data()));
    Observation<T> got, want;
    got.factorStatus = used.factor();
    want.factorStatus = fresh.factor();
    Observation<T> g = look(used, scene, seed), w = look(fresh, scene, seed);
    g.factorStatus = got.factorStatus;
    w.factorStatus = want.factorStatus;
    expectSame(g, w);
}

TEST(SolverSequences, ReanalysisHoldsEveryValueZero) {
    for (unsigned long seed = 0; seed < 10; ++seed) {
        checkReanalysisZeroes<double>(seed);
        checkReanalysisZeroes<float>(seed + 30);
    }
}

}  // namespace
}  // namespace kivTamber
