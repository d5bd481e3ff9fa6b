// The planned serial factorization against the row loop it replaces (factorPlan.use = 0), bit for bit: L and
// L·D with their padding, the pivots, the reciprocal pivots, the L·D flags, the bad-pivot record and
// isFactored, on random block systems (every block size 1 … 12 and mixed sizes, SPD and saddle-point, trees
// and general patterns with fill) and on the physics scenes analysed with and without block merging; with
// and without L·D, with and without the stop at a bad pivot, and with a zero or a NaN pivot in the middle.
// Also: changes of the input's pattern and of the filled pattern that leave the plan's counts alone.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Analysis.h"
#include "FactorCommon.h"
#include "KernelsFixed.h"
#include "Tamber.h"
#include "scenes/Scenes.h"
#include "testing/Bits.h"
#include "testing/BlockSystems.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using testing::sameBits;
using Fill = std::function<void(TamberData<double>&)>;

// Every bit a factorization leaves: the value storages of L and L·D up to the end of the last tile, the
// pivots, the reciprocal pivots (scratch slot 0, p_j per block j), the L·D flags, the bad-pivot record and
// isFactored.
std::vector<double> state(TamberData<double>& data) {
    std::vector<double> v;
    const unsigned long nb = data.factor.numBlockCols, blocks = data.factor.numBlocks;
    for (const SparseMatrix<double>* X : {&data.factor, &data.scaledFactor}) {
        const unsigned long p = X->blockStrides[nb - 1];
        v.insert(v.end(), X->values, X->blockPointers[blocks - 1] + p * p);
    }
    v.insert(v.end(), data.diagonal.data, data.diagonal.data + data.diagonal.size);
    const double* recips = data.scratchPad.getDoubleArray(0, data.diagonal.size + nb + 1);
    for (unsigned int j = 0; j < nb; ++j) {  // p_j of them per block (the spare one of an even size unused)
        const double* r = recips + data.factor.blockOffsets[j] + j;
        v.insert(v.end(), r, r + data.factor.blockStrides[j]);
    }
    for (unsigned long e = 0; e < blocks; ++e) v.push_back(data.scaledFactor.blockFlags[e]);
    const TamberData<double>::BadPivot& bad = data.badPivot;
    v.insert(v.end(), {static_cast<double>(bad.scalar), static_cast<double>(bad.block),
                       static_cast<double>(bad.local), bad.value, static_cast<double>(data.isFactored)});
    return v;
}

enum class Poison { none, zeroRow, nan };

// Block row b of the input zeroed (its pivots are then exactly 0), or a NaN on the diagonal of block b.
void poison(TamberData<double>& data, Poison how, unsigned int b) {
    SparseMatrix<double>& A = data.matrix;
    for (unsigned int e = A.colPointers[b]; e < A.colPointers[b + 1]; ++e) {
        const unsigned long count =
            static_cast<unsigned long>(A.blockSizes[b]) * A.blockStrides[A.rowIndices[e]];
        for (unsigned long q = 0; q < count; ++q) {
            if (how == Poison::zeroRow) A.blockPointers[e][q] = 0.0;
            if (how == Poison::nan && A.rowIndices[e] == b && q == 0) A.blockPointers[e][q] = std::nan("");
        }
    }
}

// The planned and the row-loop factorization of the system `fill` makes, in every form: the same state
// after a clean factorization, one with a bad pivot in block row nb/2, and a clean one again.
void checkPlannedEqualsRowLoop(const Fill& fill) {
    for (unsigned char lean : {0, 1}) {
        for (unsigned char stop : {0, 1}) {
            for (Poison how : {Poison::none, Poison::zeroRow, Poison::nan}) {
                SCOPED_TRACE("lean " + std::to_string(lean) + " stop " + std::to_string(stop) + " poison " +
                             std::to_string(static_cast<int>(how)));
                Tamber tamber;
                TamberData<double> planned, loop;
                loop.factorPlan.use = 0;
                for (TamberData<double>* data : {&planned, &loop}) {
                    fill(*data);
                    tamber.estimateWork(*data, nullptr);
                    data->writeScaledFactor = lean ? 0 : 1;
                    data->stopAtBadPivot = stop;
                }
                for (int step = 0; step < 3; ++step) {
                    for (TamberData<double>* data : {&planned, &loop}) {
                        if (step == 2) fill(*data);
                        if (step == 1) poison(*data, how, static_cast<unsigned int>(data->skeleton.n / 2));
                        tamber.factorSerial(*data);
                    }
                    ASSERT_TRUE(planned.factorPlan.isMade && planned.factorPlan.usable);
                    ASSERT_EQ(planned.badPivot.scalar == TamberData<double>::BadPivot::noPivot,
                              step != 1 || how == Poison::none);
                    const std::vector<double> a = state(planned), b = state(loop);
                    ASSERT_TRUE(sameBits(a, b)) << "step " << step << ": " << testing::firstDifference(a, b);
                }
            }
        }
    }
}

// A random tree of n blocks, SPD and diagonally dominant: block i > 0 coupled to one earlier block among
// the last few with probability 0.85 (else a root), sizes from `sizeOf`. The filled pattern has rows of one
// entry, rows of several with fill, and lone diagonal blocks.
BlockSystem makeTree(unsigned long seed, unsigned int n,
                     const std::function<unsigned int(std::mt19937&)>& sizeOf) {
    std::mt19937 rng(static_cast<std::mt19937::result_type>(seed));
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::vector<unsigned int> sizes(n), offsets(n + 1, 0);
    for (unsigned int i = 0; i < n; ++i) {
        sizes[i] = sizeOf(rng);
        offsets[i + 1] = offsets[i] + sizes[i];
    }
    testing::DenseSymmetric A(offsets[n]);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int r = 0; r < sizes[i]; ++r) {
            for (unsigned int c = 0; c < r; ++c) A.setSymmetric(offsets[i] + r, offsets[i] + c, value(rng));
            A(offsets[i] + r, offsets[i] + r) = 40.0 + 5.0 * value(rng);
        }
        if (i == 0 || rng() % 100 >= 85) continue;
        const unsigned int j = i - 1 - rng() % std::min(i, 4u);
        for (unsigned int r = 0; r < sizes[i]; ++r)
            for (unsigned int c = 0; c < sizes[j]; ++c)
                A.setSymmetric(offsets[i] + r, offsets[j] + c, value(rng));
    }
    return testing::makeFromDense(sizes, A);
}

TEST(FactorPlan, SameBitsAsRowLoopOnRandomSystems) {
    for (unsigned long seed = 0; seed < 24; ++seed) {
        const unsigned int maxSize = 1 + seed % 12;
        const BlockSystem sys =
            seed % 2 ? testing::makeSpdSystem(seed, 6 + seed * 7 % 40, maxSize, 0.1 + 0.03 * (seed % 7))
                     : testing::makeSaddlePointSystem(seed, 4 + seed * 5 % 23, 3 + seed * 3 % 17, maxSize,
                                                      0.05 * (seed % 5));
        SCOPED_TRACE(testing::describe(sys));
        checkPlannedEqualsRowLoop([&](TamberData<double>& data) { sys.fillData(data); });
        if (HasFatalFailure()) return;
    }
}

TEST(FactorPlan, SameBitsAsRowLoopOnTreesOfEveryBlockSize) {
    for (unsigned int size = 1; size <= 13; ++size) {  // 13: mixed sizes 1 … 12
        for (unsigned long seed = 0; seed < 3; ++seed) {
            const BlockSystem sys = makeTree(100 * size + seed, 300, [size](std::mt19937& rng) {
                return size <= 12 ? size : 1 + static_cast<unsigned int>(rng() % 12);
            });
            SCOPED_TRACE(testing::describe(sys));
            checkPlannedEqualsRowLoop([&](TamberData<double>& data) { sys.fillData(data); });
            if (HasFatalFailure()) return;
        }
    }
}

TEST(FactorPlan, SameBitsAsRowLoopOnScenesMergedOrNot) {
    using namespace scenes;
    for (SceneKind kind : {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall}) {
        auto scene = makeScene(kind, sizeForBlockCount(kind, 400));
        scene->step(0.01);
        BlockProblem problem;
        scene->build(problem);
        const Analysis::Problem view = problem.pattern();
        for (bool merge : {false, true}) {
            SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + (merge ? " merged" : " not merged"));
            Analysis::Options options;
            options.mergeBlocks = merge;
            Analysis::Analyzer analyzer;
            checkPlannedEqualsRowLoop([&](TamberData<double>& data) {
                if (data.skeleton.n == 0) {
                    ASSERT_TRUE(analyzer.analyze(view, options, data).ok);
                }
                analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
            });
            if (HasFatalFailure()) return;
        }
    }
}

// Changes the plan's O(1) identity does not see: an input block dropped from A on the same filled pattern
// (it becomes a fill block), and a coupling of the last row moved to another column with the same counts.
// The planned factorization follows both (the bits of the row loop, which checks every row), makes the plan
// again for the new structure, and then factors without allocating.
TEST(FactorPlan, FollowsChangesOfInputAndPattern) {
    for (unsigned long seed = 0; seed < 8; ++seed) {
        const BlockSystem sys = makeTree(seed, 2 * FactorPlan::groupRows + 40, [](std::mt19937& rng) {
            return 1 + static_cast<unsigned int>(rng() % 7);
        });
        SCOPED_TRACE(testing::describe(sys));
        // The same filled pattern with block (i, j) missing from the input, i in the last group of rows.
        BlockSystem sparser = sys;
        unsigned int i = sys.nb - 1;
        while (sparser.lowerRows[i].empty()) --i;
        const unsigned int j = sparser.lowerRows[i].back();
        sparser.lowerRows[i].pop_back();
        for (unsigned int r = sys.offsets[i]; r < sys.offsets[i + 1]; ++r)
            for (unsigned int c = sys.offsets[j]; c < sys.offsets[j + 1]; ++c)
                sparser.dense.setSymmetric(r, c, 0.0);
        const Fill sparserInput = [&](TamberData<double>& data) {
            sys.fillData(data);
            data.matrix.clear();
            sparser.fillMatrix(data.matrix);
        };
        // The last row coupled to another column instead of its first one, when the counts stay.
        BlockSystem moved = sys;
        std::vector<unsigned int>& last = moved.lowerRows[sys.nb - 1];
        for (unsigned int k = 0; k + 1 < sys.nb && !last.empty(); ++k) {
            if (std::find(last.begin(), last.end(), k) != last.end()) continue;
            const unsigned int dropped = last.front();
            last.erase(last.begin());
            last.insert(std::lower_bound(last.begin(), last.end(), k), k);
            for (unsigned int r = sys.offsets[sys.nb - 1]; r < sys.N; ++r) {
                for (unsigned int c = sys.offsets[dropped]; c < sys.offsets[dropped + 1]; ++c)
                    moved.dense.setSymmetric(r, c, 0.0);
                for (unsigned int c = sys.offsets[k]; c < sys.offsets[k + 1]; ++c)
                    moved.dense.setSymmetric(r, c, 0.5);
            }
            break;
        }
        const Fill movedPattern = [&](TamberData<double>& data) { moved.fillData(data); };
        const Fill original = [&](TamberData<double>& data) { sys.fillData(data); };

        Tamber tamber;
        TamberData<double> planned, loop;
        loop.factorPlan.use = 0;
        for (const Fill* fill : {&original, &sparserInput, &original, &movedPattern, &original}) {
            for (TamberData<double>* data : {&planned, &loop}) {
                (*fill)(*data);
                tamber.factorSerial(*data);
            }
            ASSERT_TRUE(sameBits(state(planned), state(loop)))
                << testing::firstDifference(state(planned), state(loop));
            const std::uint64_t before = kiv::ByteAllocator::allocationCount();
            tamber.factorSerial(planned);  // the plan made again for this structure; nothing allocated
            EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
            EXPECT_TRUE(planned.factorPlan.isMade && planned.factorPlan.usable);
            ASSERT_TRUE(sameBits(state(planned), state(loop)));
        }
    }
}

// The inline update of the planned rows, subtractABtLowerFixed<S, KP>, gives the bits of the library's
// subtractABtLower (in place) and subtractABtLowerFrom (from an input tile) on and below the diagonal, at
// every size the planned rows use it for, S = 2 … 6 and inner size k = 2 … 6 (KP = k rounded up to even), with
// NaN and infinities among the values.
template <int S, int KP>
void expectFixedUpdateLikeTheLibrary(std::mt19937_64& rng) {
    constexpr int NP = (S + 1) & ~1, ld = NP;
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    for (int k = KP - 1; k <= KP; ++k) {
        if (k < 2) continue;
        for (int round = 0; round < 4; ++round) {
            alignas(16) double A[NP * KP] = {}, B[NP * KP] = {}, X[NP * ld], C1[NP * ld], C2[NP * ld];
            for (int r = 0; r < S; ++r)
                for (int q = 0; q < k; ++q) A[r * KP + q] = u(rng), B[r * KP + q] = u(rng);
            for (int e = 0; e < NP * ld; ++e) X[e] = u(rng);
            if (round == 1) A[0] = std::numeric_limits<double>::quiet_NaN();
            if (round == 2) B[(S - 1) * KP + k - 1] = std::numeric_limits<double>::infinity();
            if (round == 3) X[(S - 1) * ld] = -std::numeric_limits<double>::infinity();
            // In place: C = X, then C −= A·Bᵀ.
            std::copy(X, X + NP * ld, C1);
            std::copy(X, X + NP * ld, C2);
            factorCommon::subtractABtLower(A, KP, B, KP, C1, ld, S, k);
            kernels::subtractABtLowerFixed<S, KP>(A, B, C2, C2, ld);
            for (int r = 0; r < S; ++r)
                for (int c = 0; c <= r; ++c)
                    ASSERT_EQ(std::memcmp(&C1[r * ld + c], &C2[r * ld + c], sizeof(double)), 0)
                        << "in place, S " << S << " k " << k << " round " << round << " (" << r << ", " << c
                        << ")";
            // From the input tile X.
            std::fill(C1, C1 + NP * ld, 5.0);
            std::fill(C2, C2 + NP * ld, 5.0);
            factorCommon::subtractABtLowerFrom(A, KP, B, KP, X, C1, ld, S, k);
            kernels::subtractABtLowerFixed<S, KP>(A, B, X, C2, ld);
            for (int r = 0; r < S; ++r)
                for (int c = 0; c <= r; ++c)
                    ASSERT_EQ(std::memcmp(&C1[r * ld + c], &C2[r * ld + c], sizeof(double)), 0)
                        << "from X, S " << S << " k " << k << " round " << round << " (" << r << ", " << c
                        << ")";
        }
    }
}

template <int S>
void expectFixedUpdatesOfSize(std::mt19937_64& rng) {
    expectFixedUpdateLikeTheLibrary<S, 2>(rng);
    expectFixedUpdateLikeTheLibrary<S, 4>(rng);
    expectFixedUpdateLikeTheLibrary<S, 6>(rng);
}

TEST(FactorPlan, InlineDiagonalUpdateEqualsTheLibraryKernel) {
    std::mt19937_64 rng(2026);
    expectFixedUpdatesOfSize<2>(rng);
    expectFixedUpdatesOfSize<3>(rng);
    expectFixedUpdatesOfSize<4>(rng);
    expectFixedUpdatesOfSize<5>(rng);
    expectFixedUpdatesOfSize<6>(rng);
}

}  // namespace
}  // namespace kivTamber
