// The planned double solves (TamberSolve::solve and solveMany over data.solvePlan) against the passes over
// the tiles (forwardSolve, diagSolve, backwardTSolve) bit for bit, and against a dense solve, on random SPD
// and saddle-point systems with block sizes 1–12 and fixed layouts with odd and even first and last blocks;
// non-finite right-hand sides; several right-hand sides against single solves; the plan across new values,
// new structures, the multifrontal factorization and RankMod; independent trees taken in turns.
#include "SolvePlan.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "RankMod.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;

// The same bits everywhere, except that any NaN matches any NaN: the sign and payload of a NaN depend on
// the operand order the compiler picks for a commutative addition.
bool sameBits(const std::vector<double>& a, const std::vector<double>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t k = 0; k < a.size(); ++k) {
        if (std::isnan(a[k]) && std::isnan(b[k])) continue;
        if (std::memcmp(&a[k], &b[k], sizeof(double)) != 0) return false;
    }
    return true;
}

// The solve over the tiles, pass by pass.
std::vector<double> tileSolve(const TamberData<double>& data, std::vector<double> x) {
    TamberSolve::forwardSolve(data.factor, x.data());
    TamberSolve::diagSolve(data.diagonal, x.data());
    TamberSolve::backwardTSolve(data.factor, x.data());
    return x;
}

std::vector<double> plannedSolve(const TamberData<double>& data, std::vector<double> x) {
    TamberSolve::solve(data, x.data());
    return x;
}

// Random SPD systems with blocks of 1..12, saddle-point systems, and fixed layouts (one size per block).
std::vector<BlockSystem> systems() {
    std::vector<BlockSystem> all;
    for (unsigned long seed = 1; seed <= 10; ++seed) {
        all.push_back(testing::makeSpdSystem(seed, 4 + static_cast<unsigned int>(seed % 9), 12, 0.35));
        all.push_back(testing::makeSaddlePointSystem(200 + seed, 3 + static_cast<unsigned int>(seed % 5),
                                                     2 + static_cast<unsigned int>(seed % 4), 12));
    }
    const std::vector<std::vector<unsigned int>> layouts = {
        {1}, {12}, {11}, {3, 6, 3, 6, 3}, {6, 3, 6, 3, 6, 3}, {12, 1, 7, 2, 9}, {5, 10, 11, 4, 1, 8, 12, 3}};
    unsigned long seed = 700;
    for (const std::vector<unsigned int>& sizes : layouts) {
        unsigned int N = 0;
        for (unsigned int s : sizes) N += s;
        all.push_back(testing::makeFromDense(sizes, testing::makeSpdSystem(++seed, N, 1, 0.5).dense));
    }
    return all;
}

std::unique_ptr<TamberData<double>> factored(const BlockSystem& sys, Tamber& tamber) {
    auto data = std::make_unique<TamberData<double>>();
    sys.fillData(*data);
    tamber.estimateWork(*data, nullptr);
    tamber.factorSerial(*data);
    return data;
}

// Planned = tiles bit for bit (pointer and vector forms, finite and non-finite right-hand sides), a solution
// of A·x = b; several right-hand sides (ld > N) = single solves; a second solve allocates nothing.
TEST(SolvePlan, PlannedSolvesEqualTileSolvesAndTheDenseSolution) {
    Tamber tamber;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys, tamber);
        const std::vector<double> b = testing::randomVector(sys.N, sys.N + 5);
        const std::vector<double> tile = tileSolve(*data, b);
        const std::vector<double> planned = plannedSolve(*data, b);
        ASSERT_TRUE(data->solvePlan.isMade);
        EXPECT_TRUE(sameBits(planned, tile));
        EXPECT_LT(testing::scaledResidual(sys.dense, planned.data(), b.data()), 1e-12);
        DenseVector<double> v;
        v.resize(sys.N);
        std::memcpy(v.data, b.data(), sys.N * sizeof(double));
        TamberSolve::solve(*data, v);
        EXPECT_TRUE(sameBits(std::vector<double>(v.data, v.data + sys.N), tile));

        std::vector<double> special = b;  // non-finite entries, also first entries of blocks
        special[0] = std::numeric_limits<double>::infinity();
        special[sys.N / 2] = std::numeric_limits<double>::quiet_NaN();
        special[sys.N - 1] = -std::numeric_limits<double>::infinity();
        EXPECT_TRUE(sameBits(plannedSolve(*data, special), tileSolve(*data, special)));

        const unsigned int k = 3;
        const unsigned long ld = sys.N + 3;
        std::vector<double> start(k * ld, 7.0);
        for (unsigned int r = 0; r < k; ++r) {
            const std::vector<double> br = testing::randomVector(sys.N, 31 * r + sys.N);
            std::copy(br.begin(), br.end(), start.begin() + r * ld);
        }
        std::vector<double> many = start, singles = start;
        for (unsigned int r = 0; r < k; ++r) TamberSolve::solve(*data, singles.data() + r * ld);
        TamberSolve::solveMany(*data, many.data(), k, ld);
        EXPECT_TRUE(sameBits(many, singles));

        std::vector<double> x = b;
        const std::uint64_t before = kiv::ByteAllocator::allocationCount();
        TamberSolve::solve(*data, x.data());
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    }
}

// New values on the same structure keep the plan (the solves read the new tiles), also through a work
// estimate of that structure; a new structure laid out by estimateWork clears it and the next solve makes it
// again; the multifrontal factorization and RankMod leave solves that equal the tile solves of what they
// produced.
TEST(SolvePlan, FollowsTheFactorThroughNewValuesStructuresAndModifications) {
    Tamber tamber;
    const BlockSystem sys = testing::makeSaddlePointSystem(77, 6, 4, 6);
    auto data = factored(sys, tamber);
    const std::vector<double> b = testing::randomVector(sys.N, 3);
    const std::vector<double> first = plannedSolve(*data, b);

    sys.refillValues(data->matrix, 2.0);  // A ← 2·A: x halves
    tamber.estimateWork(*data, nullptr);  // the same structure: the layout and the plan stay
    EXPECT_TRUE(data->solvePlan.isMade);
    tamber.factorSerial(*data);
    EXPECT_TRUE(data->solvePlan.matches(data->factor));
    std::vector<double> x = plannedSolve(*data, b);
    EXPECT_TRUE(sameBits(x, tileSolve(*data, b)));
    for (double& e : x) e *= 2.0;
    EXPECT_LT(testing::scaledResidual(sys.dense, x.data(), b.data()), 1e-12);

    const BlockSystem other = testing::makeSpdSystem(78, 9, 6, 0.4);
    other.fillData(*data);
    tamber.estimateWork(*data, nullptr);
    EXPECT_FALSE(data->solvePlan.isMade);
    tamber.factorSerial(*data);
    const std::vector<double> c = testing::randomVector(other.N, 4);
    EXPECT_TRUE(sameBits(plannedSolve(*data, c), tileSolve(*data, c)));
    EXPECT_LT(testing::scaledResidual(other.dense, plannedSolve(*data, c).data(), c.data()), 1e-12);

    auto mf = std::make_unique<TamberData<double>>();
    sys.fillData(*mf);
    mf->useMultifrontal = 1;
    mf->numThreads = 2;
    tamber.factorMF(*mf);
    EXPECT_TRUE(sameBits(plannedSolve(*mf, b), tileSolve(*mf, b)));
    EXPECT_LT(testing::scaledResidual(sys.dense, plannedSolve(*mf, b).data(), b.data()), 1e-12);

    data = factored(sys, tamber);
    EXPECT_TRUE(sameBits(plannedSolve(*data, b), first));
    RankMod rankMod;
    ASSERT_TRUE(rankMod.prepare(*data));
    RankMod::EquationList off, none;
    off.push_back(RankMod::Equation(sys.nb - 1, 0));  // the last block is a constraint
    ASSERT_TRUE(sys.isConstraint[sys.nb - 1]);
    ASSERT_TRUE(rankMod.apply(*data, off, none, RankMod::batched));
    EXPECT_TRUE(sameBits(plannedSolve(*data, b), tileSolve(*data, b)));
    EXPECT_FALSE(sameBits(plannedSolve(*data, b), first));
}

// Independent parts of the elimination forest are taken in turns: the forward order of the columns is a
// permutation in which every column comes after the columns it reads, the separate islands of a scene get
// such an order (not 0, 1, 2, …) on most seeds, and every solve form keeps the bits of the tile passes:
// finite and non-finite right-hand sides, zeros of either sign, several right-hand sides at once.
TEST(SolvePlan, IndependentTreesTakenInTurnsKeepTheBits) {
    Tamber tamber;
    int interleaved = 0, systemsSeen = 0;
    for (unsigned long seed = 1; seed <= 16; ++seed) {
        const BlockSystem sys = testing::makeIslands(seed, 2 + static_cast<unsigned int>(seed % 6));
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys, tamber);
        const std::vector<double> b = testing::randomVector(sys.N, seed);
        const std::vector<double> planned = plannedSolve(*data, b);
        const SolvePlan& plan = data->solvePlan;
        ASSERT_TRUE(plan.usable);
        ++systemsSeen;
        interleaved += plan.inOrder == 0;

        const SparseMatrix<double>& U = data->factor;
        const unsigned int n = static_cast<unsigned int>(U.numBlockCols);
        std::vector<unsigned int> position(n, n);  // the scalar column, when there is one, comes last
        for (unsigned int t = 0; t < plan.scalarColumn; ++t) {
            ASSERT_LT(plan.columnOrder[t], plan.scalarColumn);
            ASSERT_EQ(position[plan.columnOrder[t]], n) << "column listed twice";
            position[plan.columnOrder[t]] = t;
        }
        for (unsigned int j = 0; j < n; ++j)
            for (unsigned int k = U.colPointers[j]; k + 1 < U.colPointers[j + 1]; ++k)
                ASSERT_LT(position[U.rowIndices[k]], position[j])
                    << "column " << j << " before a column it reads";

        EXPECT_TRUE(sameBits(planned, tileSolve(*data, b)));
        EXPECT_LT(testing::scaledResidual(sys.dense, planned.data(), b.data()), 1e-12);
        std::vector<double> special = b;
        special[seed % sys.N] = std::numeric_limits<double>::infinity();
        special[(7 * seed) % sys.N] = std::numeric_limits<double>::quiet_NaN();
        EXPECT_TRUE(sameBits(plannedSolve(*data, special), tileSolve(*data, special)));
        std::vector<double> zeros(sys.N, -0.0);
        for (unsigned int k = 0; k < sys.N; k += 3) zeros[k] = 0.0;
        EXPECT_TRUE(sameBits(plannedSolve(*data, zeros), tileSolve(*data, zeros)));

        const unsigned int k = 3;
        const unsigned long ld = sys.N + 1;
        std::vector<double> many(k * ld, 5.0);
        for (unsigned int r = 0; r < k; ++r) {
            const std::vector<double> br = testing::randomVector(sys.N, 17 * r + seed);
            std::copy(br.begin(), br.end(), many.begin() + r * ld);
        }
        std::vector<double> singles = many;
        for (unsigned int r = 0; r < k; ++r) TamberSolve::solve(*data, singles.data() + r * ld);
        TamberSolve::solveMany(*data, many.data(), k, ld);
        EXPECT_TRUE(sameBits(many, singles));
    }
    EXPECT_GE(2 * interleaved, systemsSeen) << "islands taken in turns on too few seeds";
}

}  // namespace
}  // namespace kivTamber
