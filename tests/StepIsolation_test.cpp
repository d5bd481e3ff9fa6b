// Nothing of one time step leaks into the next. A TamberData object is driven through seeded random
// sequences of steps: factorizations of good values and of values with zero pivots, NaN, infinities, huge,
// tiny and denormal entries (serial, multifrontal on 1 and 2 threads, with and without the stop at a bad
// pivot and the L·D write), solves of every kind on the factor each leaves, switching equations off and on
// again in place, and a detour through another structure. Its next factorization of good values must then
// give the bits of a fresh object that only ever saw those values, padding included, and so must every
// solve after it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "RankMod.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "testing/Bits.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;

// How a step factors: threads 0 is factorSerial, otherwise factorMF on that many threads.
struct Mode {
    unsigned int threads = 0;
    unsigned char writeLD = 1;
    unsigned char stop = 0;
};

std::string describe(const Mode& m) {
    return "threads " + std::to_string(m.threads) + " writeLD " + std::to_string(m.writeLD) + " stop " +
           std::to_string(m.stop);
}

Mode randomMode(std::mt19937_64& rng) {
    Mode m;
    m.threads = static_cast<unsigned int>(rng() % 3);
    m.writeLD = static_cast<unsigned char>(rng() % 2);
    m.stop = static_cast<unsigned char>(rng() % 2);
    return m;
}

template <typename T>
void factorIn(Tamber& tamber, TamberData<T>& data, const Mode& m) {
    data.isFactored = 0;
    data.writeScaledFactor = m.writeLD;
    data.stopAtBadPivot = m.stop;
    data.useMultifrontal = m.threads > 0;
    data.numThreads = std::max(1u, m.threads);
    if (m.threads == 0) {
        tamber.factorSerial(data);
    } else {
        tamber.factorMF(data);
    }
}

// Every value of the tiles of X from the first tile to the end of the last, padding included.
template <typename T>
std::vector<T> tiles(const SparseMatrix<T>& X) {
    if (X.numBlocks == 0 || X.numBlockCols == 0) return {};
    const unsigned long p = X.blockStrides[X.numBlockCols - 1];
    return std::vector<T>(X.blockPointers[0], X.blockPointers[X.numBlocks - 1] + p * p);
}

using testing::firstDifference;
using testing::sameBits;

// What a caller can see of a factored object, taken the same way on both objects compared.
template <typename T>
struct Observation {
    unsigned int work = 0, fill = 0;
    unsigned char isFactored = 0;
    unsigned long badScalar = 0;
    unsigned int badBlock = 0, badLocal = 0;
    double badValue = 0.0;
    std::vector<T> L, D, LD;
    std::vector<unsigned char> flags;
    std::vector<T> solved, many, unit, refined;
    unsigned long unitStart = 0;
};

// Solves of every kind on `data` (a finished factorization), then L, D and L·D (completed first).
template <typename T>
Observation<T> observe(Tamber& tamber, TamberData<T>& data, const BlockSystem& sys, unsigned long seed) {
    Observation<T> o;
    o.isFactored = data.isFactored;
    o.badScalar = data.badPivot.scalar;
    o.badBlock = data.badPivot.block;
    o.badLocal = data.badPivot.local;
    o.badValue = data.badPivot.value;
    const std::vector<double> b = testing::randomVector(sys.N, seed);
    o.solved.assign(b.begin(), b.end());
    tamber.solve(data, o.solved.data());
    // A right-hand side in one block of the middle: the unit solve's path.
    const unsigned int u = sys.nb / 3;
    o.unit.assign(sys.N, T(0));
    for (unsigned int k = 0; k < sys.sizes[u]; ++k) o.unit[sys.offsets[u] + k] = static_cast<T>(b[k]);
    o.unitStart = tamber.unitSolve(data, o.unit.data(), static_cast<int>(sys.offsets[u] + 1));
    if constexpr (std::is_same<T, double>::value) {
        const unsigned int numRhs = 3;
        const unsigned long ld = sys.N + 1;
        o.many.assign(numRhs * ld, 0.0);
        for (unsigned int r = 0; r < numRhs; ++r)
            for (unsigned int k = 0; k < sys.N; ++k) o.many[r * ld + k] = b[(k + 7 * r) % sys.N] * (r + 1);
        TamberSolve::solveMany(data, o.many.data(), numRhs, ld);
        o.refined.assign(sys.N, 0.0);
        tamber.iterativeRefinement(data, b.data(), o.refined.data(), 3);
    }
    if (data.isFactored) tamber.computeScaledFactor(data);
    o.L = tiles(data.factor);
    o.LD = tiles(data.scaledFactor);
    o.D.assign(data.diagonal.data, data.diagonal.data + data.diagonal.size);
    o.flags.assign(data.scaledFactor.blockFlags, data.scaledFactor.blockFlags + data.scaledFactor.numBlocks);
    return o;
}

template <typename T>
void expectSame(const Observation<T>& got, const Observation<T>& want) {
    EXPECT_EQ(got.work, want.work);
    EXPECT_EQ(got.fill, want.fill);
    EXPECT_EQ(got.isFactored, want.isFactored);
    EXPECT_EQ(got.badScalar, want.badScalar);
    EXPECT_EQ(got.badBlock, want.badBlock);
    EXPECT_EQ(got.badLocal, want.badLocal);
    EXPECT_TRUE(sameBits(std::vector<double>{got.badValue}, std::vector<double>{want.badValue}));
    EXPECT_TRUE(sameBits(got.L, want.L)) << "L " << firstDifference(got.L, want.L);
    EXPECT_TRUE(sameBits(got.D, want.D)) << "D " << firstDifference(got.D, want.D);
    EXPECT_TRUE(sameBits(got.LD, want.LD)) << "LD " << firstDifference(got.LD, want.LD);
    EXPECT_EQ(got.flags, want.flags);
    EXPECT_TRUE(sameBits(got.solved, want.solved)) << "solve";
    EXPECT_TRUE(sameBits(got.many, want.many)) << "solveMany";
    EXPECT_TRUE(sameBits(got.unit, want.unit)) << "unitSolve";
    EXPECT_EQ(got.unitStart, want.unitStart);
    EXPECT_TRUE(sameBits(got.refined, want.refined)) << "iterativeRefinement";
}

// A system whose blocks all have odd sizes (1, 3, …, 11): every tile has padding rows.
BlockSystem makeOddSystem(unsigned long seed, unsigned int nb) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<unsigned int> sizes(nb), offsets(nb + 1, 0);
    for (unsigned int b = 0; b < nb; ++b) {
        sizes[b] = 1 + 2 * static_cast<unsigned int>(rng() % 6);
        offsets[b + 1] = offsets[b] + sizes[b];
    }
    testing::DenseSymmetric A(offsets[nb]);
    for (unsigned int i = 0; i < nb; ++i)
        for (unsigned int j = 0; j < i; ++j) {
            if (rng() % 4 != 0) continue;
            for (unsigned int r = offsets[i]; r < offsets[i + 1]; ++r)
                for (unsigned int c = offsets[j]; c < offsets[j + 1]; ++c) A.setSymmetric(r, c, u(rng));
        }
    for (unsigned int i = 0; i < nb; ++i)  // diagonal blocks: symmetric, dominant
        for (unsigned int r = offsets[i]; r < offsets[i + 1]; ++r) {
            for (unsigned int c = offsets[i]; c < r; ++c) A.setSymmetric(r, c, 0.5 * u(rng));
            double row = 0.0;
            for (unsigned int c = 0; c < A.n; ++c) row += c == r ? 0.0 : std::fabs(A(r, c));
            A(r, r) = row + 1.0 + std::fabs(u(rng));
        }
    return testing::makeFromDense(sizes, A);
}

// The systems of the sequences: SPD, saddle point and all-odd, block sizes up to 1 … 12.
BlockSystem makeSystem(unsigned long seed) {
    const unsigned int maxSize = 1 + static_cast<unsigned int>(seed % 12);
    switch (seed % 3) {
        case 0:
            return testing::makeSpdSystem(seed, 8 + seed % 9, maxSize, 0.3);
        case 1:
            return testing::makeSaddlePointSystem(seed, 6 + seed % 5, 4 + seed % 4, maxSize, 0.2);
        default:
            return makeOddSystem(seed, 6 + seed % 7);
    }
}

// The values that break a step, in T: non-finite, at the ends of the range, denormal, or a zero pivot.
enum class Poison { nan, inf, minusInf, huge, tiny, denormal, zeroBlock, count };

template <typename T>
T poisonValue(Poison p) {
    switch (p) {
        case Poison::nan:
            return std::numeric_limits<T>::quiet_NaN();
        case Poison::inf:
            return std::numeric_limits<T>::infinity();
        case Poison::minusInf:
            return -std::numeric_limits<T>::infinity();
        case Poison::huge:
            return std::numeric_limits<T>::max() / 4;
        case Poison::tiny:
            return std::numeric_limits<T>::min() * 4;
        case Poison::denormal:
            return std::numeric_limits<T>::denorm_min() * 3;
        default:
            return T(0);
    }
}

// Writes the poison into data.matrix (never into padding) and returns the block it aimed at: a zero block
// sets the whole diagonal block of that block to 0 (a zero pivot when it is block 0), huge, tiny and
// denormal values fill its diagonal (pivots of that size), NaN and infinities go into the first diagonal
// entry of a block of the second half and into random entries after it.
template <typename T>
unsigned int poison(const BlockSystem& sys, SparseMatrix<T>& A, Poison p, std::mt19937_64& rng) {
    unsigned int target = static_cast<unsigned int>(rng() % sys.nb);
    auto entries = [&](unsigned int i, unsigned int e, auto&& f) {
        const unsigned int j = A.rowIndices[e], stride = A.blockStrides[j];
        for (unsigned int c = 0; c < sys.sizes[i]; ++c)
            for (unsigned int r = 0; r < sys.sizes[j]; ++r) f(A.blockPointers[e][c * stride + r], r, c);
    };
    const T v = poisonValue<T>(p);
    if (p == Poison::zeroBlock || p == Poison::huge || p == Poison::tiny || p == Poison::denormal) {
        const unsigned int e = A.colPointers[target + 1] - 1;  // the diagonal block
        entries(target, e, [&](T& x, unsigned int r, unsigned int c) { x = r == c ? v : T(0); });
        return target;
    }
    target = std::max(target, sys.nb / 2);
    A.blockPointers[A.colPointers[target + 1] - 1][0] = v;
    for (unsigned int i = target; i < sys.nb; ++i)
        for (unsigned int e = A.colPointers[i]; e < A.colPointers[i + 1]; ++e)
            entries(i, e, [&](T& x, unsigned int, unsigned int) {
                if (x != T(0) && rng() % 5 == 0) x = v;
            });
    return target;
}

// Brings `data` to the structure of `sys` with its values.
template <typename T>
void bringUp(Tamber& tamber, TamberData<T>& data, const BlockSystem& sys, Observation<T>* o) {
    sys.fillData(data);
    unsigned int work = 0;
    const unsigned int fill = tamber.estimateWork(data, &work);
    if (o != nullptr) o->work = work, o->fill = fill;
}

// Switches a few equations off and back on in place (double only), solving in between: the solve after the
// switch back equals the solve before the switch within rounding.
void switchAndBack(Tamber& tamber, TamberData<double>& data, const BlockSystem& sys, std::mt19937_64& rng) {
    factorIn(tamber, data, Mode{});
    RankMod mod;
    ASSERT_TRUE(mod.prepare(data, 2));
    RankMod::EquationList off, none;
    const bool saddle = std::count(sys.isConstraint.begin(), sys.isConstraint.end(), 1) > 0;
    for (unsigned int b = 0; b < sys.nb; ++b) {
        if ((!saddle || sys.isConstraint[b]) && rng() % 3 == 0)
            off.push_back({b, static_cast<unsigned int>(rng() % sys.sizes[b])});
    }
    const std::vector<double> rhs = testing::randomVector(sys.N, rng());
    std::vector<double> before = rhs, between = rhs, after = rhs;
    TamberSolve::solve(data, before.data());
    ASSERT_TRUE(mod.apply(data, off, none, rng() % 2 ? RankMod::batched : RankMod::singles));
    TamberSolve::solve(data, between.data());
    ASSERT_TRUE(mod.apply(data, none, off, rng() % 2 ? RankMod::batched : RankMod::singles));
    TamberSolve::solve(data, after.data());
    double err = 0.0, scale = 1.0;
    for (unsigned int k = 0; k < sys.N; ++k) {
        err = std::max(err, std::fabs(after[k] - before[k]));
        scale = std::max(scale, std::fabs(before[k]));
    }
    EXPECT_LT(err / scale, 1e-9) << off.size() << " equations off and on again";
}

// One random sequence of steps on a used object, then a good factorization in a random mode, compared with
// a fresh object factored in that mode.
template <typename T>
void runSequence(unsigned long seed, int steps) {
    const BlockSystem sys = makeSystem(seed), other = makeSystem(seed + 1000);
    SCOPED_TRACE(testing::describe(sys) + " seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Tamber tamber;
    TamberData<T> used;
    bringUp<T>(tamber, used, sys, nullptr);
    std::string trail;
    for (int step = 0; step < steps; ++step) {
        const unsigned int op = static_cast<unsigned int>(rng() % 5);
        const Mode m = randomMode(rng);
        trail += " " + std::to_string(op) + "(" + describe(m) + ")";
        if (op == 0) {  // a good step
            sys.refillValues(used.matrix, 1.0);
            factorIn(tamber, used, m);
            observe(tamber, used, sys, rng());
        } else if (op == 1) {  // a broken step, solved anyway (the float and unit solves may factor again)
            sys.refillValues(used.matrix, 1.0);
            const Poison p = static_cast<Poison>(rng() % static_cast<unsigned int>(Poison::count));
            trail += "p" + std::to_string(static_cast<int>(p));
            const unsigned int target = poison(sys, used.matrix, p, rng);
            factorIn(tamber, used, m);
            if (p < Poison::huge || (p == Poison::zeroBlock && target == 0)) {
                EXPECT_NE(used.badPivot.scalar, TamberData<T>::BadPivot::noPivot) << trail;
            }
            if (rng() % 2) observe(tamber, used, sys, rng());
        } else if (op == 2) {  // values scaled far up or down, all finite
            sys.refillValues(used.matrix, rng() % 2 ? 1e30 : 1e-30);
            factorIn(tamber, used, m);
            observe(tamber, used, sys, rng());
        } else if (op == 3) {  // a detour through another structure, back with or without estimateWork
            bringUp<T>(tamber, used, other, nullptr);
            factorIn(tamber, used, m);
            observe(tamber, used, other, rng());
            sys.fillData(used);
            if (rng() % 2) tamber.estimateWork(used, nullptr);
        } else {  // switching equations off and on in place; or the layout asked for again
            if constexpr (std::is_same<T, double>::value) {
                sys.refillValues(used.matrix, 1.0);
                switchAndBack(tamber, used, sys, rng);
            }
            tamber.estimateWork(used, nullptr);
        }
    }
    const Mode last = randomMode(rng);
    const unsigned long rhsSeed = rng();
    SCOPED_TRACE("steps" + trail + "; last " + describe(last));
    sys.refillValues(used.matrix, 1.0);
    Observation<T> want;
    TamberData<T> fresh;
    bringUp(tamber, fresh, sys, &want);
    factorIn(tamber, fresh, last);
    want = [&] {
        Observation<T> o = observe(tamber, fresh, sys, rhsSeed);
        o.work = want.work, o.fill = want.fill;
        return o;
    }();
    unsigned int work = 0;
    const unsigned int fill = tamber.estimateWork(used, &work);
    factorIn(tamber, used, last);
    Observation<T> got = observe(tamber, used, sys, rhsSeed);
    got.work = work, got.fill = fill;
    expectSame(got, want);

    // The fresh object itself solves right (a leak into both would otherwise pass).
    ASSERT_EQ(fresh.badPivot.scalar, TamberData<T>::BadPivot::noPivot);
    const std::vector<double> b = testing::randomVector(sys.N, rhsSeed);
    const std::vector<double> ref = testing::denseSolve(testing::denseLdlt(sys.dense), b);
    double err = 0.0, scale = 1.0;
    for (unsigned int k = 0; k < sys.N; ++k) {
        err = std::max(err, std::fabs(static_cast<double>(want.solved[k]) - ref[k]));
        scale = std::max(scale, std::fabs(ref[k]));
    }
    const double tol = std::is_same<T, double>::value ? 1e-9 : 1e-3;
    EXPECT_LT(err / scale, tol);
    std::vector<double> unitRhs(sys.N, 0.0);
    const unsigned int u = sys.nb / 3;
    for (unsigned int k = 0; k < sys.sizes[u]; ++k) unitRhs[sys.offsets[u] + k] = static_cast<T>(b[k]);
    const std::vector<double> unitRef = testing::denseSolve(testing::denseLdlt(sys.dense), unitRhs);
    err = 0.0, scale = 1.0;
    for (unsigned int k = 0; k < sys.N; ++k) {
        err = std::max(err, std::fabs(static_cast<double>(want.unit[k]) - unitRef[k]));
        scale = std::max(scale, std::fabs(unitRef[k]));
    }
    EXPECT_LT(err / scale, tol) << "unitSolve";
}

TEST(StepIsolation, RandomSequencesEndLikeAFreshObjectDouble) {
    for (unsigned long seed = 0; seed < 36; ++seed) runSequence<double>(seed, 6);
}

// The same over many more sequences (about 15 s in Release, so kept out of the suite: run it with
// --gtest_also_run_disabled_tests after a change of the factorizations). Seeds 87 and 1432 found the two
// multifrontal leaks below.
TEST(StepIsolation, DISABLED_ManyRandomSequencesEndLikeAFreshObjectDouble) {
    for (unsigned long seed = 0; seed < 1500; ++seed) runSequence<double>(seed, 10);
}

TEST(StepIsolation, RandomSequencesEndLikeAFreshObjectFloat) {
    for (unsigned long seed = 0; seed < 36; ++seed) runSequence<float>(seed, 6);
}

// Every poison in every mode, one step each, then good values in the same mode: the bits of a fresh object.
template <typename T>
void runEveryPoison(unsigned long seed) {
    const BlockSystem sys = makeSystem(seed);
    SCOPED_TRACE(testing::describe(sys) + " seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Tamber tamber;
    for (unsigned int threads = 0; threads < 3; ++threads)
        for (unsigned char writeLD = 0; writeLD < 2; ++writeLD)
            for (unsigned char stop = 0; stop < 2; ++stop) {
                const Mode m{threads, writeLD, stop};
                TamberData<T> fresh;
                Observation<T> want;
                bringUp(tamber, fresh, sys, &want);
                factorIn(tamber, fresh, m);
                want = observe(tamber, fresh, sys, seed);
                for (unsigned int p = 0; p < static_cast<unsigned int>(Poison::count); ++p) {
                    SCOPED_TRACE(describe(m) + " poison " + std::to_string(p));
                    TamberData<T> used;
                    bringUp<T>(tamber, used, sys, nullptr);
                    factorIn(tamber, used, m);
                    poison(sys, used.matrix, static_cast<Poison>(p), rng);
                    factorIn(tamber, used, m);
                    sys.refillValues(used.matrix, 1.0);
                    factorIn(tamber, used, m);
                    expectSame(observe(tamber, used, sys, seed), want);
                }
            }
}

TEST(StepIsolation, EveryPoisonInEveryModeLeavesNoTrace) {
    for (unsigned long seed : {1ul, 2ul, 5ul, 11ul}) {
        runEveryPoison<double>(seed);
        runEveryPoison<float>(seed + 20);
    }
}

// The system of `sys`'s block sizes with as many couplings as it has, placed at random (dominant diagonal).
BlockSystem rewired(const BlockSystem& sys, unsigned long seed) {
    std::mt19937_64 rng(seed);
    std::vector<std::pair<unsigned int, unsigned int>> all;
    for (unsigned int i = 0; i < sys.nb; ++i)
        for (unsigned int j = 0; j < i; ++j) all.push_back({i, j});
    std::shuffle(all.begin(), all.end(), rng);
    const unsigned long couplings = sys.numEntries() - sys.nb;
    testing::DenseSymmetric A(sys.N);
    for (unsigned long k = 0; k < couplings; ++k)
        for (unsigned int r = sys.offsets[all[k].first]; r < sys.offsets[all[k].first + 1]; ++r)
            for (unsigned int c = sys.offsets[all[k].second]; c < sys.offsets[all[k].second + 1]; ++c)
                A.setSymmetric(r, c, 0.5 + 0.25 * std::sin(r * 7.0 + c));
    for (unsigned int r = 0; r < sys.N; ++r) A(r, r) = 2.0 * sys.N;
    return testing::makeFromDense(sys.sizes, A);
}

// Structures that differ only in where their blocks are (same block sizes, tile count and dimension):
// switching from one to the other with and without estimateWork, the factor and the solves after the
// factorization are those of a fresh object. The filled patterns may differ in tile count.
TEST(StepIsolation, LookalikeStructuresLeaveNoTrace) {
    for (unsigned long seed = 0; seed < 60; ++seed) {
        const unsigned int nb = 3 + seed % 4;
        const BlockSystem a = testing::makeSpdSystem(seed, nb, 1 + seed % 5, 0.4);
        const BlockSystem b = rewired(a, seed);
        SCOPED_TRACE(testing::describe(a) + " then " + testing::describe(b));
        for (unsigned int variant = 0; variant < 4; ++variant) {
            const Mode m{variant % 2 ? 0u : 1u, 1, 0};
            Tamber tamber;
            TamberData<double> used, fresh;
            bringUp<double>(tamber, used, a, nullptr);
            factorIn(tamber, used, m);
            observe(tamber, used, a, seed);
            b.fillData(used);
            if (variant >= 2) tamber.estimateWork(used, nullptr);
            factorIn(tamber, used, m);
            bringUp<double>(tamber, fresh, b, nullptr);
            factorIn(tamber, fresh, m);
            expectSame(observe(tamber, used, b, seed), observe(tamber, fresh, b, seed));
        }
    }
}

// Unit solves from different start blocks one after the other (their marks live in the scratch pad), with
// float and double solves between them: each equals the same unit solve on a fresh factored object.
template <typename T>
void checkUnitSolves(unsigned long seed) {
    const BlockSystem sys = makeSystem(seed);
    SCOPED_TRACE(testing::describe(sys) + " seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Tamber tamber;
    TamberData<T> used;
    bringUp<T>(tamber, used, sys, nullptr);
    factorIn(tamber, used,
             Mode{static_cast<unsigned int>(seed % 3), static_cast<unsigned char>(seed % 2), 0});
    const std::vector<double> b = testing::randomVector(sys.N, seed);
    for (int k = 0; k < 8; ++k) {
        const unsigned int u = static_cast<unsigned int>(rng() % sys.nb);
        const int start = rng() % 4 == 0 ? -1 : static_cast<int>(sys.offsets[u] + 1);
        std::vector<T> x(sys.N, T(0)), y(sys.N, T(0));
        for (unsigned int q = 0; q < sys.sizes[u]; ++q)
            x[sys.offsets[u] + q] = y[sys.offsets[u] + q] = T(b[q]);
        TamberData<T> fresh;
        bringUp<T>(tamber, fresh, sys, nullptr);
        factorIn(tamber, fresh,
                 Mode{static_cast<unsigned int>(seed % 3), static_cast<unsigned char>(seed % 2), 0});
        EXPECT_EQ(tamber.unitSolve(used, x.data(), start), tamber.unitSolve(fresh, y.data(), start)) << u;
        EXPECT_TRUE(sameBits(x, y)) << "block " << u << " " << firstDifference(x, y);
        std::vector<T> z(b.begin(), b.end());
        tamber.solve(used, z.data());
    }
}

TEST(StepIsolation, UnitSolvesFromChangingBlocksLeaveNoTrace) {
    for (unsigned long seed = 0; seed < 12; ++seed) {
        checkUnitSolves<double>(seed);
        checkUnitSolves<float>(seed + 40);
    }
}

// The smallest case of a leak between two factorizations: blocks of 3 (one padding row each), coupled, a
// NaN in A(0, 1) factored by the multifrontal method (with and without the stop at the bad pivot), then good
// values factored serially: no bad pivot, and the factor's bits (padding included) are a fresh factor's.
TEST(StepIsolation, MultifrontalBadPivotLeavesNoTrace) {
    for (unsigned int nb : {2u, 4u}) {
        for (unsigned int code = 0; code < 4; ++code) {
            const unsigned int threads = 1 + code % 2;
            const unsigned char stop = static_cast<unsigned char>(code / 2);
            const std::vector<unsigned int> sizes(nb, 3);
            testing::DenseSymmetric A(3 * nb);
            for (unsigned int r = 0; r < A.n; ++r) {
                for (unsigned int c = 0; c < r; ++c) A.setSymmetric(r, c, 0.25 / (1 + r - c));
                A(r, r) = 4.0;
            }
            const BlockSystem sys = testing::makeFromDense(sizes, A);
            Tamber tamber;
            TamberData<double> used, fresh;
            bringUp<double>(tamber, fresh, sys, nullptr);
            factorIn(tamber, fresh, Mode{});
            bringUp<double>(tamber, used, sys, nullptr);
            used.matrix.blockPointers[used.matrix.colPointers[1]][0] = std::nan("");  // A(0, 1)
            factorIn(tamber, used, Mode{threads, 1, stop});
            sys.refillValues(used.matrix, 1.0);
            factorIn(tamber, used, Mode{});
            EXPECT_EQ(used.badPivot.scalar, TamberData<double>::BadPivot::noPivot)
                << nb << " " << threads << " " << int(stop);
            EXPECT_TRUE(sameBits(tiles(used.factor), tiles(fresh.factor)))
                << firstDifference(tiles(used.factor), tiles(fresh.factor));
        }
    }
}

// A multifrontal factorization on 2 threads that meets NaN, with and without the stop, then good values
// factored serially: the factor of a fresh object. The fronts at the top of the elimination tree once left
// NaN in the padding of their tiles (seed 5, 11 blocks of odd sizes 1 … 11: NaN at value 1491 of L and a bad
// pivot of good values; seed 29: NaN at value 963).
TEST(StepIsolation, MultifrontalTwoThreadsBadPivotLeavesNoTrace) {
    for (unsigned long seed : {5ul, 29ul}) {
        const BlockSystem sys = makeSystem(seed);
        SCOPED_TRACE(testing::describe(sys) + " seed " + std::to_string(seed));
        for (unsigned char stop = 0; stop < 2; ++stop) {
            std::mt19937_64 rng(seed);
            Tamber tamber;
            TamberData<double> used, fresh;
            bringUp<double>(tamber, fresh, sys, nullptr);
            factorIn(tamber, fresh, Mode{});
            bringUp<double>(tamber, used, sys, nullptr);
            factorIn(tamber, used, Mode{});
            poison(sys, used.matrix, Poison::nan, rng);
            factorIn(tamber, used, Mode{2, 1, stop});
            sys.refillValues(used.matrix, 1.0);
            factorIn(tamber, used, Mode{});
            EXPECT_EQ(used.badPivot.scalar, fresh.badPivot.scalar) << int(stop);
            EXPECT_TRUE(sameBits(tiles(used.factor), tiles(fresh.factor)))
                << int(stop) << " " << firstDifference(tiles(used.factor), tiles(fresh.factor));
        }
    }
}

// A structure of 8 blocks of sizes 2, 1, 2, 1, … factored; the object then filled with a structure of 4
// blocks of size 1 (tiles of the same padded size 2) without estimateWork; a NaN pivot in block 0 stops a
// multifrontal factorization (which lays the factor out anew by itself); good values are then factored
// serially and must give a fresh object's factor and solve.
// The layout made inside factorMF keeps the old values, which only the tiles the factorization reaches
// overwrite; a stopped factorization once left a value of the earlier structure in a padding entry (value 10:
// 0.0295 where a fresh factor holds 0) and a wrong solution of the good values without any error (0.4920
// against 0.4986).
TEST(StepIsolation, StoppedMultifrontalLayoutLeavesNoTrace) {
    const BlockSystem other = testing::makeSpdSystem(3, 8, 2, 0.5);
    const BlockSystem sys = testing::makeSpdSystem(7, 4, 1, 0.6);
    SCOPED_TRACE(testing::describe(other) + " then " + testing::describe(sys));
    for (unsigned int threads : {1u, 2u}) {
        Tamber tamber;
        TamberData<double> used, fresh;
        bringUp<double>(tamber, fresh, sys, nullptr);
        factorIn(tamber, fresh, Mode{});
        bringUp<double>(tamber, used, other, nullptr);
        factorIn(tamber, used, Mode{});
        sys.fillData(used);
        used.matrix.blockPointers[0][0] = std::nan("");
        factorIn(tamber, used, Mode{threads, 1, 1});
        sys.refillValues(used.matrix, 1.0);
        factorIn(tamber, used, Mode{});
        EXPECT_TRUE(sameBits(tiles(used.factor), tiles(fresh.factor)))
            << threads << " " << firstDifference(tiles(used.factor), tiles(fresh.factor));
        std::vector<double> x(sys.N, 1.0), y(sys.N, 1.0);
        TamberSolve::solve(used, x.data());
        TamberSolve::solve(fresh, y.data());
        EXPECT_TRUE(sameBits(x, y)) << threads << " " << firstDifference(x, y);
    }
}

}  // namespace
}  // namespace kivTamber
