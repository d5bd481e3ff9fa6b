// Symbolic factorization: the filled skeleton against a dense symbolic elimination of the same pattern.
#include "Analysis.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "TreeUpdate.h"
#include "testing/Patterns.h"

namespace kivTamber {
namespace {

using testing::BlockPattern;

// The elimination tree of skeleton S, built the library's way (every block active).
void buildTree(const SkeletonMatrix& S, EliminationTree& tree) {
    const unsigned int n = static_cast<unsigned int>(S.n);
    if (tree.capacity < n || tree.parent == nullptr) {
        if (tree.parent) tree.releaseMemory();
        tree.allocateMemory(std::max(n, 1u));
    }
    tree.numNodes = n;
    std::vector<unsigned int> active(n, 1);
    TreeUpdate::computeTree(&tree, S, active.data());
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
        for (unsigned int k = filled.colPointers[i]; k < filled.colPointers[i + 1]; ++k) {
            const unsigned int j = filled.rowIndices[k];
            ASSERT_EQ(filled.fillFlags[k], original(i, j) ? 0 : 1) << "entry " << i << "," << j;
        }
    }
}

TEST(AnalysisFilledSkeleton, RandomPatternsMatchDenseSymbolicElimination) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    for (unsigned long seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 1 + seed % 61;
        BlockPattern p;
        if (seed % 3 == 2) {
            p = testing::randomSaddlePattern(n, n - n / 3, 0.5 + seed % 4, seed);
        } else {
            p = testing::randomPattern(n, 0.3 * (seed % 9), seed);
        }
        if (seed % 2) {
            // A random order, so that the tree is not always the natural one of the generator.
            std::vector<unsigned int> forward(n);
            std::iota(forward.begin(), forward.end(), 0u);
            std::shuffle(forward.begin(), forward.end(), std::mt19937_64(seed));
            p = testing::permutePattern(p, forward.data());
        }
        testing::toSkeleton(p, input);
        buildTree(input, tree);
        ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
        expectFilledMatches(p, filled);
    }
}

TEST(AnalysisFilledSkeleton, KnownShapes) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    {
        // Arrow pointing up: block 0 couples to every other block, so eliminating it fills everything.
        BlockPattern p(5);
        for (unsigned int j = 1; j < 5; ++j) p.couple(0, j);
        testing::toSkeleton(p, input);
        buildTree(input, tree);
        ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
        expectFilledMatches(p, filled);
        EXPECT_EQ(filled.numEntries(), 15u);
        unsigned int fills = 0;
        for (unsigned long k = 0; k < filled.numEntries(); ++k) fills += filled.fillFlags[k];
        EXPECT_EQ(fills, 6u);  // (2,1), (3,1), (3,2), (4,1), (4,2), (4,3)
    }
    {
        // Arrow pointing down (every block couples to the last one): no fill.
        BlockPattern p(5);
        for (unsigned int j = 0; j < 4; ++j) p.couple(4, j);
        testing::toSkeleton(p, input);
        buildTree(input, tree);
        ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
        expectFilledMatches(p, filled);
        EXPECT_EQ(filled.numEntries(), 9u);
    }
    {
        // Diagonal only, and a single block.
        for (unsigned int n : {1u, 7u}) {
            BlockPattern p(n);
            testing::toSkeleton(p, input);
            buildTree(input, tree);
            ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
            expectFilledMatches(p, filled);
            EXPECT_EQ(filled.numEntries(), n);
        }
    }
}

TEST(AnalysisFilledSkeleton, EmptyPattern) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    input.resize(0, 0, false);
    input.colPointers[0] = 0;
    tree.allocateMemory(1);
    tree.numNodes = 0;
    ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
    EXPECT_EQ(filled.n, 0u);
    EXPECT_EQ(filled.numEntries(), 0u);
}

// The filled skeleton keeps its arrays for a smaller pattern; with a scratch pad a repeated analysis of the
// same size allocates nothing at all. blockWords travel along.
TEST(AnalysisFilledSkeleton, ReusesStorageAndCarriesBlockWords) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    ScratchPad pad;
    const BlockPattern big = testing::randomPattern(40, 3.0, 11);
    testing::toSkeleton(big, input, true);
    buildTree(input, tree);
    ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled, &pad));
    expectFilledMatches(big, filled);
    ASSERT_NE(filled.blockWords, nullptr);
    for (unsigned int j = 0; j < 40; ++j) EXPECT_EQ(filled.blockWords[j], j);

    const unsigned int* rows = filled.rowIndices;
    const BlockPattern small = testing::randomPattern(25, 2.0, 12);
    testing::toSkeleton(small, input, true);
    buildTree(input, tree);
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled, &pad));
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(filled.rowIndices, rows);
    expectFilledMatches(small, filled);

    // Without block words in the input the output has none either.
    testing::toSkeleton(small, input, false);
    ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
    EXPECT_EQ(filled.blockWords, nullptr);
    expectFilledMatches(small, filled);
}

TEST(AnalysisFilledSkeleton, TreeTooSmallLeavesOutputUnchanged) {
    EliminationTree tree;
    SkeletonMatrix input, filled;
    const BlockPattern p = testing::randomPattern(10, 2.0, 3);
    testing::toSkeleton(p, input);
    buildTree(input, tree);
    ASSERT_TRUE(Analysis::computeFilledSkeleton(input, tree, filled));
    const SkeletonMatrix before = filled;

    const BlockPattern bigger = testing::randomPattern(12, 2.0, 4);
    testing::toSkeleton(bigger, input);
    tree.numNodes = 10;  // a tree of the old size
    EXPECT_FALSE(Analysis::computeFilledSkeleton(input, tree, filled));
    ASSERT_EQ(filled.n, before.n);
    ASSERT_EQ(filled.numEntries(), before.numEntries());
    for (unsigned long k = 0; k < filled.numEntries(); ++k) {
        EXPECT_EQ(filled.rowIndices[k], before.rowIndices[k]);
        EXPECT_EQ(filled.fillFlags[k], before.fillFlags[k]);
    }
}

}  // namespace
}  // namespace kivTamber
