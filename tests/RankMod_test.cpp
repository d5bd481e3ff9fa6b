// RankMod over many steps of random switch-off/switch-on requests: after every step a solve with the
// modified factor must match a solve with a freshly factored matrix of the same active set (inactive
// equations replaced by unit rows and columns), and after the first steps no call may allocate.
#include "RankMod.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "Tamber.h"
#include "TamberSolve.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using Equation = RankMod::Equation;
using EquationList = RankMod::EquationList;

void factor(const BlockSystem& sys, TamberData<double>& data) {
    sys.fillData(data);
    Tamber tamber;
    tamber.estimateWork(data, nullptr);
    tamber.factorSerial(data);
}

// The solution of the active system for b, from a fresh factorization of the matrix whose inactive equations
// are unit equations.
std::vector<double> freshSolve(const BlockSystem& sys, const std::vector<unsigned char>& active,
                               const std::vector<double>& b) {
    BlockSystem reduced = sys;
    for (unsigned int i = 0; i < sys.N; ++i) {
        if (active[i]) continue;
        for (unsigned int j = 0; j < sys.N; ++j) reduced.dense(i, j) = reduced.dense(j, i) = 0.0;
        reduced.dense(i, i) = 1.0;
    }
    TamberData<double> data;
    factor(reduced, data);
    std::vector<double> x = b;
    TamberSolve::solve(data, x.data());
    return x;
}

double relativeDifference(const std::vector<double>& a, const std::vector<double>& b) {
    double diff = 0.0, scale = 1.0;
    for (std::size_t k = 0; k < a.size(); ++k) {
        diff = std::max(diff, std::fabs(a[k] - b[k]));
        scale = std::max(scale, std::fabs(b[k]));
    }
    return diff / scale;
}

// The equations a test may switch: those of the constraint blocks of a saddle-point system (switching body
// equations off could leave a constraint without support), every equation of an SPD system.
std::vector<Equation> switchable(const BlockSystem& sys) {
    const bool saddle = std::count(sys.isConstraint.begin(), sys.isConstraint.end(), 1) > 0;
    std::vector<Equation> eqs;
    for (unsigned int b = 0; b < sys.nb; ++b) {
        if (saddle && !sys.isConstraint[b]) continue;
        for (unsigned int s = 0; s < sys.sizes[b]; ++s) eqs.push_back({b, s});
    }
    return eqs;
}

TEST(RankMod, RandomSwitchSequencesSolveLikeAFreshFactorization) {
    for (unsigned long seed = 1; seed <= 10; ++seed) {
        const BlockSystem sys = seed % 2 ? testing::makeSaddlePointSystem(seed, 7, 7, 5)
                                         : testing::makeSpdSystem(seed, 9, 4, 0.35);
        SCOPED_TRACE(testing::describe(sys) + " seed " + std::to_string(seed));
        const std::vector<Equation> candidates = switchable(sys);
        if (candidates.empty()) continue;
        TamberData<double> data;
        factor(sys, data);
        RankMod mod;
        ASSERT_TRUE(mod.prepare(data, 3));  // small batches: chunking is exercised
        std::vector<unsigned char> expected(sys.N, 1);

        std::mt19937_64 rng(seed);
        EquationList off, on;
        unsigned long batched = 0, switched = 0;
        for (int step = 0; step < 30; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            off.clear();
            on.clear();
            const unsigned int requests = 1 + rng() % 6;
            for (unsigned int r = 0; r < requests; ++r) {  // some requests change nothing, some repeat
                const Equation eq = candidates[rng() % candidates.size()];
                (rng() % 2 ? off : on).push_back(eq);
            }
            const RankMod::Method method = step % 2 ? RankMod::batched : RankMod::singles;
            ASSERT_TRUE(mod.apply(data, off, on, method));
            batched += mod.lastBatched;
            switched += mod.lastSwitchedOff + mod.lastSwitchedOn;
            for (const Equation& eq : off) expected[sys.offsets[eq.first] + eq.second] = 0;
            for (const Equation& eq : on) expected[sys.offsets[eq.first] + eq.second] = 1;

            ASSERT_EQ(data.isFactored, 1);
            for (unsigned int b = 0; b < sys.nb; ++b) {
                unsigned int count = 0;
                for (unsigned int s = 0; s < sys.sizes[b]; ++s) {
                    EXPECT_EQ(mod.isActive(b, s), expected[sys.offsets[b] + s] != 0);
                    count += expected[sys.offsets[b] + s];
                }
                EXPECT_EQ(mod.activeCounts[b], count);
            }
            const std::vector<double> rhs = testing::randomVector(sys.N, 1000 * seed + step);
            std::vector<double> x = rhs;
            TamberSolve::solve(data, x.data());
            EXPECT_LT(relativeDifference(x, freshSolve(sys, expected, rhs)), 1e-10);
        }
        EXPECT_GT(switched, 30u);
        EXPECT_GT(batched, 0u);
    }
}

TEST(RankMod, CoupledAdditionsFallBackToSingles) {
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        const BlockSystem sys = testing::makeSpdSystem(seed, 8, 5, 0.4);
        SCOPED_TRACE(testing::describe(sys));
        TamberData<double> data;
        factor(sys, data);
        RankMod mod;
        ASSERT_TRUE(mod.prepare(data));
        // A whole block off and on again: its equations couple to each other through the diagonal block.
        const unsigned int b = static_cast<unsigned int>(seed % sys.nb);
        EquationList eqs;
        for (unsigned int s = 0; s < sys.sizes[b]; ++s) eqs.push_back({b, s});
        EquationList none;
        ASSERT_TRUE(mod.apply(data, eqs, none, RankMod::batched));
        EXPECT_EQ(mod.lastSwitchedOff, sys.sizes[b]);
        ASSERT_TRUE(mod.apply(data, none, eqs, RankMod::batched));
        EXPECT_EQ(mod.lastSwitchedOn, sys.sizes[b]);
        EXPECT_EQ(mod.lastBatched, sys.sizes[b] == 1 ? 1u : 0u);
        testing::DenseLdlt ref = testing::denseLdlt(sys.dense), got;
        testing::extractFactor(data, got);
        for (std::size_t k = 0; k < ref.d.size(); ++k)
            EXPECT_NEAR(got.d[k], ref.d[k], 1e-10 * std::fabs(ref.d[k]));
    }
}

TEST(RankMod, StepsAfterTheFirstAllocateNothing) {
    const BlockSystem sys = testing::makeSaddlePointSystem(77, 12, 14, 6);
    const std::vector<Equation> candidates = switchable(sys);
    ASSERT_FALSE(candidates.empty());
    TamberData<double> data;
    factor(sys, data);
    RankMod mod;
    ASSERT_TRUE(mod.prepare(data, 4));
    std::mt19937_64 rng(5);
    EquationList off, on;
    off.reserve(64);
    on.reserve(64);
    std::vector<double> x(sys.N);
    unsigned long before = 0;
    for (int step = 0; step < 40; ++step) {
        if (step == 2) before = kiv::ByteAllocator::allocationCount();
        off.clear();
        on.clear();
        for (unsigned int r = 0; r < 12; ++r)
            (rng() % 2 ? off : on).push_back(candidates[rng() % candidates.size()]);
        ASSERT_TRUE(mod.apply(data, off, on, step % 3 ? RankMod::batched : RankMod::singles));
        std::fill(x.begin(), x.end(), 1.0);
        TamberSolve::solve(data, x.data());
    }
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
}

TEST(RankMod, RefusalsChangeNothing) {
    const BlockSystem sys = testing::makeSpdSystem(3, 5, 3, 0.5);
    TamberData<double> data;
    sys.fillData(data);
    RankMod mod;
    EXPECT_FALSE(mod.prepare(data));  // not factored
    factor(sys, data);
    EquationList none, bad;
    EXPECT_FALSE(mod.apply(data, none, none, RankMod::singles));  // not prepared
    ASSERT_TRUE(mod.prepare(data));
    const std::vector<double> pivots(data.diagonal.data, data.diagonal.data + sys.N);
    bad.push_back({0, 0});
    bad.push_back({0, sys.sizes[0]});  // local index out of range
    EXPECT_FALSE(mod.apply(data, bad, none, RankMod::singles));
    bad.clear();
    bad.push_back({sys.nb, 0});
    EXPECT_FALSE(mod.apply(data, none, bad, RankMod::batched));
    EXPECT_TRUE(std::equal(pivots.begin(), pivots.end(), data.diagonal.data));
    EXPECT_EQ(mod.numActive(), sys.N);
    EXPECT_TRUE(mod.apply(data, none, none, RankMod::batched));
}

}  // namespace
}  // namespace kivTamber
