// Symbolic factorization: the filled skeleton against a dense symbolic elimination of the same pattern, and
// the column counts of L (without the filled pattern) against the counts read off the filled skeleton.
#include "Symbolic.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "TreeUpdate.h"
#include "testing/Patterns.h"

namespace kivTamber {
namespace {

using testing::BlockPattern;

// Writes p into `input`, builds its elimination tree the library's way (every block active) and computes the
// filled skeleton.
bool analyse(const BlockPattern& p, SkeletonMatrix& input, EliminationTree& tree, SkeletonMatrix& filled,
             bool blockWords = false, ScratchPad* pad = nullptr) {
    testing::toSkeleton(p, input, blockWords);
    if (tree.capacity < std::max(p.n, 1u)) {
        tree.releaseMemory();
        tree.allocateMemory(std::max(p.n, 1u));
    }
    tree.numNodes = p.n;
    std::vector<unsigned int> active(p.n, 1);
    TreeUpdate::computeTree(&tree, input, active.data());
    return Analysis::computeFilledSkeleton(input, tree, filled, pad);
}

// `filled` must list, per row i, exactly the columns j <= i of the dense symbolic factor, ascending, the
// diagonal last, with fillFlags = 1 exactly where the original pattern has no entry.
void expectFilledMatches(const BlockPattern& original, const SkeletonMatrix& filled) {
    const BlockPattern reference = testing::symbolicFactor(original);
    ASSERT_EQ(testing::checkSkeletonForm(filled), "");
    ASSERT_EQ(filled.n, original.n);
    ASSERT_EQ(filled.numEntries(), reference.numUpperEntries());
    for (unsigned int i = 0; i < original.n; ++i) {
        std::vector<unsigned int> expected;
        for (unsigned int j = 0; j <= i; ++j) {
            if (reference(i, j) || i == j) expected.push_back(j);
        }
        const std::vector<unsigned int> got(filled.rowIndices + filled.colPointers[i],
                                            filled.rowIndices + filled.colPointers[i + 1]);
        ASSERT_EQ(got, expected) << "row " << i;
        for (unsigned int k = filled.colPointers[i]; k < filled.colPointers[i + 1]; ++k)
            ASSERT_EQ(filled.fillFlags[k], original(i, filled.rowIndices[k]) ? 0 : 1)
                << "row " << i << ", entry " << k;
    }
}

TEST(AnalysisFilledSkeleton, RandomPatternsMatchDenseSymbolicElimination) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    for (unsigned long seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 1 + seed % 61;
        BlockPattern p = seed % 3 == 2 ? testing::randomSaddlePattern(n, n - n / 3, 0.5 + seed % 4, seed)
                                       : testing::randomPattern(n, 0.3 * (seed % 9), seed);
        if (seed % 2) {
            // A random order, so that the tree is not always the natural one of the generator.
            std::vector<unsigned int> forward(n);
            std::iota(forward.begin(), forward.end(), 0u);
            std::shuffle(forward.begin(), forward.end(), std::mt19937_64(seed));
            p = testing::permutePattern(p, forward.data());
        }
        ASSERT_TRUE(analyse(p, input, tree, filled));
        expectFilledMatches(p, filled);
    }
}

// Counted by hand: an arrow pointing up (block 0 couples to every other block, so eliminating it fills
// (2,1), (3,1), (3,2), (4,1), (4,2), (4,3)); an arrow pointing down (every block couples to the last one: no
// fill); the diagonal only; a single block; no block at all.
TEST(AnalysisFilledSkeleton, KnownShapes) {
    const struct {
        unsigned int n;
        bool up, down;
        unsigned long entries, fills;
    } cases[] = {{5, true, false, 15, 6},
                 {5, false, true, 9, 0},
                 {7, false, false, 7, 0},
                 {1, false, false, 1, 0},
                 {0, false, false, 0, 0}};
    EliminationTree tree;
    SkeletonMatrix input, filled;
    for (const auto& c : cases) {
        BlockPattern p(c.n);
        for (unsigned int j = 1; j < c.n; ++j) {
            if (c.up) p.couple(0, j);
            if (c.down) p.couple(c.n - 1, j - 1);
        }
        ASSERT_TRUE(analyse(p, input, tree, filled));
        expectFilledMatches(p, filled);
        EXPECT_EQ(filled.numEntries(), c.entries);
        EXPECT_EQ(std::accumulate(filled.fillFlags, filled.fillFlags + filled.numEntries(), 0ul), c.fills);
    }
}

// The filled skeleton keeps its arrays for a smaller pattern, and with a scratch pad the analysis then
// allocates nothing at all. blockWords travel along; without them in the input the output has none either.
TEST(AnalysisFilledSkeleton, ReusesStorageAndCarriesBlockWords) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    ScratchPad pad;
    const BlockPattern big = testing::randomPattern(40, 3.0, 11), small = testing::randomPattern(25, 2.0, 12);
    ASSERT_TRUE(analyse(big, input, tree, filled, true, &pad));
    expectFilledMatches(big, filled);
    ASSERT_NE(filled.blockWords, nullptr);
    for (unsigned int j = 0; j < 40; ++j) EXPECT_EQ(filled.blockWords[j], j);

    const unsigned int* rows = filled.rowIndices;
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    ASSERT_TRUE(analyse(small, input, tree, filled, true, &pad));
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(filled.rowIndices, rows);
    expectFilledMatches(small, filled);

    ASSERT_TRUE(analyse(small, input, tree, filled));
    EXPECT_EQ(filled.blockWords, nullptr);
    expectFilledMatches(small, filled);
}

TEST(AnalysisFilledSkeleton, TreeTooSmallLeavesOutputUnchanged) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    ASSERT_TRUE(analyse(testing::randomPattern(10, 2.0, 3), input, tree, filled));
    const SkeletonMatrix before = filled;
    testing::toSkeleton(testing::randomPattern(12, 2.0, 4), input);
    tree.numNodes = 10;  // a tree of the old size
    EXPECT_FALSE(Analysis::computeFilledSkeleton(input, tree, filled));
    ASSERT_EQ(filled.n, before.n);
    ASSERT_EQ(filled.numEntries(), before.numEntries());
    EXPECT_TRUE(std::equal(before.rowIndices, before.rowIndices + before.numEntries(), filled.rowIndices));
    EXPECT_TRUE(std::equal(before.fillFlags, before.fillFlags + before.numEntries(), filled.fillFlags));
}

// countedCost (Gilbert–Ng–Peyton column counts on the tree, no filled pattern) equals the cost read off the
// filled skeleton, block counts and weighted scalar counts alike, on random SPD and saddle-point patterns
// with random block sizes, including forests and empty columns.
TEST(Symbolic, ColumnCountsEqualTheFilledPattern) {
    std::mt19937 random(11);
    unsigned long checked = 0;
    for (unsigned long seed = 0; seed < 120; ++seed) {
        const unsigned int n = 1 + seed % 60;
        const double density = 0.3 + (seed % 7) * 0.6;
        const BlockPattern p = seed % 2 ? testing::randomPattern(n, density, seed)
                                        : testing::randomSaddlePattern(n, n - n / 3, density, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + " n " + std::to_string(n));
        SkeletonMatrix input, filled;
        EliminationTree tree;
        ASSERT_TRUE(analyse(p, input, tree, filled));
        tree.computeTreeStructure();
        tree.computePostOrder();
        std::vector<unsigned int> sizes(n);
        for (unsigned int& s : sizes) s = 1 + random() % 7;
        Analysis::ColumnCounts counts;
        Analysis::CountWork work;
        const Analysis::FactorCost counted =
            Analysis::countedCost(input, tree.parent, tree.postOrder, sizes.data(), counts, work);
        const Analysis::FactorCost read = Analysis::factorCost(filled, sizes.data());
        ASSERT_EQ(std::make_tuple(counted.blocks, counted.blockEntries, counted.scalarEntries),
                  std::make_tuple(read.blocks, read.blockEntries, read.scalarEntries));
        ASSERT_EQ(counted.flops, read.flops);
        ASSERT_EQ(counted.blockOperations, read.blockOperations);
        std::vector<unsigned int> blocksBelow(n, 0);
        for (unsigned int i = 0; i < n; ++i)
            for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e)
                ++blocksBelow[filled.rowIndices[e]];
        ASSERT_TRUE(std::equal(blocksBelow.begin(), blocksBelow.end(), counts.blocks.data()));
        ++checked;
    }
    EXPECT_EQ(checked, 120ul);
}

}  // namespace
}  // namespace kivTamber
