// The packed copy of the factor: its solve steps against the paired tile steps (fast and reference) bit for
// bit at every size pair 1–14, non-finite values included; whole solves through it against the tile solves
// (bit for bit) and a dense solve on random SPD and saddle-point systems with block sizes 1–12; several
// right-hand sides against single solves; what clears it and what it refuses to pack.
#include "SolveStorage.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Kernels.h"
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

// Random values in [−1, 1] with, when `special`, a few infinities and NaNs among them.
std::vector<double> randomValues(std::mt19937& random, unsigned int n, bool special) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(n);
    for (double& e : v) e = u(random);
    if (special) {
        const double inf = std::numeric_limits<double>::infinity();
        const double nan = std::numeric_limits<double>::quiet_NaN();
        for (int t = 0; t < 2; ++t) {
            v[random() % n] = (random() & 1) ? inf : -inf;
            v[random() % n] = nan;
        }
    }
    return v;
}

// Each packed step against the paired tile step and its reference, for s_i, s_j = 1 … 14: the packed tile is
// the padded tile without its padding, the packed triangle the strict upper triangle of a unit tile. x holds
// the slices followed by one more entry, as every column but the last has; random, and once per size pair
// with infinities and NaNs in x (also in the entry after a slice, which an odd size reads times zero).
TEST(SolveStorage, PackedStepsEqualTheTileStepsBitForBit) {
    std::mt19937 random(11);
    for (unsigned int si = 1; si <= 14; ++si) {
        for (unsigned int sj = 1; sj <= 14; ++sj) {
            for (bool special : {false, true}) {
                const std::string where = "s_i " + std::to_string(si) + ", s_j " + std::to_string(sj) +
                                          (special ? ", non-finite x" : "");
                const unsigned int pi = (si + 1) & ~1u, pj = (sj + 1) & ~1u;
                // Tiles: B (s_i × s_j, ld p_i) and U (s_j × s_j, ld p_j), zero padding, unit diagonal.
                DenseVector<double> B, U;
                B.resize(static_cast<unsigned long>(pi) * pj);
                U.resize(static_cast<unsigned long>(pj) * pj);
                std::memset(B.data, 0, B.size * sizeof(double));
                std::memset(U.data, 0, U.size * sizeof(double));
                std::vector<double> packedB, packedU;
                const std::vector<double> b = randomValues(random, si * sj, false);
                for (unsigned int r = 0; r < sj; ++r)
                    for (unsigned int q = 0; q < si; ++q) {
                        B.data[r * pi + q] = b[r * si + q];
                        packedB.push_back(b[r * si + q]);
                    }
                for (unsigned int r = 0; r < sj; ++r) {
                    const std::vector<double> u = randomValues(random, r + 1, false);
                    for (unsigned int q = 0; q < r; ++q) {
                        U.data[r * pj + q] = u[q];
                        packedU.push_back(u[q]);
                    }
                    U.data[r * pj + r] = 1.0;
                }
                packedB.push_back(0.0);  // the packed arrays are not read past their end; keep .data() valid
                packedU.push_back(0.0);
                // x: x_i at 0 (s_i + 1 entries), x_j at s_i + 1 (s_j + 1 entries).
                const std::vector<double> x0 = randomValues(random, si + sj + 2, special);
                const unsigned int oj = si + 1;
                auto run = [&](auto step) {
                    std::vector<double> x = x0;
                    step(x.data(), x.data() + oj);
                    return x;
                };
                using namespace kernels;
                // Forward off-diagonal.
                std::vector<double> tile = run(
                    [&](double* xi, double* xj) { fast::forwardOffDiagonal(B.data, pi, xi, si, xj, sj); });
                std::vector<double> ref = run([&](double* xi, double* xj) {
                    reference::forwardOffDiagonal(B.data, pi, xi, si, xj, sj);
                });
                std::vector<double> packed = run([&](double* xi, double* xj) {
                    packed::forwardOffDiagonal(packedB.data(), xi, si, xj, sj);
                });
                ASSERT_TRUE(sameBits(tile, ref)) << "forward off-diagonal, " << where;
                ASSERT_TRUE(sameBits(packed, tile)) << "forward off-diagonal, " << where;
                // Backward off-diagonal.
                tile = run(
                    [&](double* xi, double* xj) { fast::backwardOffDiagonal(B.data, pi, xj, sj, xi, si); });
                packed = run([&](double* xi, double* xj) {
                    packed::backwardOffDiagonal(packedB.data(), xj, sj, xi, si);
                });
                ASSERT_TRUE(sameBits(packed, tile)) << "backward off-diagonal, " << where;
                if (si != 1) continue;  // the diagonal steps depend on s_j only
                tile = run([&](double*, double* xj) { fast::forwardDiagonal(U.data, pj, xj, sj); });
                ref = run([&](double*, double* xj) { reference::forwardDiagonal(U.data, pj, xj, sj); });
                packed = run([&](double*, double* xj) { packed::forwardDiagonal(packedU.data(), xj, sj); });
                ASSERT_TRUE(sameBits(tile, ref)) << "forward diagonal, " << where;
                ASSERT_TRUE(sameBits(packed, tile)) << "forward diagonal, " << where;
                tile = run([&](double*, double* xj) { fast::backwardDiagonal(U.data, pj, xj, sj); });
                packed = run([&](double*, double* xj) { packed::backwardDiagonal(packedU.data(), xj, sj); });
                ASSERT_TRUE(sameBits(packed, tile)) << "backward diagonal, " << where;
            }
        }
    }
}

// Random SPD systems with blocks of 1..12 and saddle-point systems, plus fixed layouts (one size per block)
// with odd and even first and last blocks.
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

// The packed solve gives the tile solve's bits (pointer and vector forms) and solves A·x = b; several
// right-hand sides (ld > N) give the single solves' bits; repacking the same structure and solving again
// allocates nothing.
TEST(SolveStorage, PackedSolvesEqualTileSolvesAndTheDenseSolution) {
    Tamber tamber;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        auto data = factored(sys, tamber);
        ASSERT_EQ(data->solveStorage.isCurrent, 0);
        const std::vector<double> b = testing::randomVector(sys.N, sys.N + 5);
        std::vector<double> tile = b;
        TamberSolve::solve(*data, tile.data());

        ASSERT_TRUE(data->solveStorage.pack(data->factor));
        std::vector<double> packed = b;
        TamberSolve::solve(*data, packed.data());
        EXPECT_TRUE(sameBits(packed, tile));
        EXPECT_LT(testing::scaledResidual(sys.dense, packed.data(), b.data()), 1e-12);
        DenseVector<double> v;
        v.resize(sys.N);
        std::memcpy(v.data, b.data(), sys.N * sizeof(double));
        TamberSolve::solve(*data, v);
        EXPECT_EQ(std::memcmp(v.data, tile.data(), sys.N * sizeof(double)), 0);

        const unsigned int k = 3;
        const unsigned long ld = sys.N + 3;
        std::vector<double> start(k * ld, 7.0);
        for (unsigned int r = 0; r < k; ++r) {
            const std::vector<double> br = testing::randomVector(sys.N, 31 * r + sys.N);
            std::copy(br.begin(), br.end(), start.begin() + r * ld);
        }
        std::vector<double> many = start, singles = start, manyTiles = start;
        for (unsigned int r = 0; r < k; ++r) TamberSolve::solve(*data, singles.data() + r * ld);
        TamberSolve::solveMany(*data, many.data(), k, ld);
        EXPECT_TRUE(sameBits(many, singles));
        data->solveStorage.clear();
        TamberSolve::solveMany(*data, manyTiles.data(), k, ld);
        EXPECT_TRUE(sameBits(manyTiles, many));

        const std::uint64_t before = kiv::ByteAllocator::allocationCount();
        data->solveStorage.pack(data->factor);
        packed = b;
        TamberSolve::solve(*data, packed.data());
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    }
}

// A factorization and RankMod::apply leave the packed copy out of date (the solves read the new tiles); a
// diagonal tile whose diagonal is not exactly 1 is not packed; an empty factor packs nothing.
TEST(SolveStorage, ClearedByWhatChangesTheFactorAndRefusedForANonUnitDiagonal) {
    Tamber tamber;
    const BlockSystem sys = testing::makeSaddlePointSystem(77, 6, 4, 6);
    auto data = factored(sys, tamber);
    const std::vector<double> b = testing::randomVector(sys.N, 3);
    ASSERT_TRUE(data->solveStorage.pack(data->factor));

    sys.refillValues(data->matrix, 2.0);  // A ← 2·A: x halves
    tamber.factorSerial(*data);
    EXPECT_EQ(data->solveStorage.isCurrent, 0);
    std::vector<double> x = b;
    TamberSolve::solve(*data, x.data());
    for (double& e : x) e *= 2.0;
    EXPECT_LT(testing::scaledResidual(sys.dense, x.data(), b.data()), 1e-12);

    ASSERT_TRUE(data->solveStorage.pack(data->factor));
    data->useMultifrontal = 1;
    data->numThreads = 2;
    tamber.factorMF(*data);
    EXPECT_EQ(data->solveStorage.isCurrent, 0);

    ASSERT_TRUE(data->solveStorage.pack(data->factor));
    RankMod rankMod;
    ASSERT_TRUE(rankMod.prepare(*data));
    RankMod::EquationList none;
    rankMod.apply(*data, none, none, RankMod::batched);
    EXPECT_EQ(data->solveStorage.isCurrent, 0);

    // A pivot on a diagonal tile's diagonal (as the scaled factor's tiles carry): not packed.
    const unsigned int last = data->factor.colPointers[data->factor.numBlockCols] - 1;
    data->factor.blockPointers[last][0] = 2.0;
    EXPECT_FALSE(data->solveStorage.pack(data->factor));
    EXPECT_EQ(data->solveStorage.isCurrent, 0);

    TamberData<double> empty;
    EXPECT_FALSE(empty.solveStorage.pack(empty.factor));
}

}  // namespace
}  // namespace kivTamber
