// Block orderings: symamd (result is a permutation, the strictly lower input it is handed, less fill than the
// natural order on grids, the failure path through a failing allocator), the constraint adjustment
// modifyPermutation on hand-checked cases, the disabled orderings, and the zero-leaf swap (hand-checked
// success and failure cases, and on random saddle patterns: the permuted pattern against a dense
// permutation, the tree against dense symbolic elimination, and the repaired order's invariants).
#include "Reordering.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "testing/Patterns.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;
using kt::BlockPattern;

namespace {

std::vector<unsigned int> forwardOf(const Permutation& P) {
    return std::vector<unsigned int>(P.forward, P.forward + P.size);
}

bool isPermutation(const std::vector<unsigned int>& v) {
    std::vector<unsigned int> s = v;
    std::sort(s.begin(), s.end());
    for (unsigned int k = 0; k < s.size(); ++k) {
        if (s[k] != k) return false;
    }
    return true;
}

// Entries of the dense symbolic factor of p eliminated in the order `forward` (diagonal included).
unsigned long filledEntries(const BlockPattern& p, const std::vector<unsigned int>& forward) {
    return kt::symbolicFactor(kt::permutePattern(p, forward.data())).numUpperEntries();
}

// A k × k grid graph with its 8 neighbours (a 9-point stencil), numbered row by row.
BlockPattern gridPattern(unsigned int k) {
    BlockPattern p(k * k);
    for (unsigned int y = 0; y < k; ++y) {
        for (unsigned int x = 0; x < k; ++x) {
            const unsigned int v = y * k + x;
            if (x + 1 < k) p.couple(v, v + 1);
            if (y + 1 < k) p.couple(v, v + k);
            if (x + 1 < k && y + 1 < k) p.couple(v, v + k + 1);
            if (x > 0 && y + 1 < k) p.couple(v, v + k - 1);
        }
    }
    return p;
}

void* failingCalloc(std::size_t, std::size_t) {
    return nullptr;
}

void setForward(Permutation& P, const std::vector<unsigned int>& forward) {
    P.setSize(forward.size());
    std::copy(forward.begin(), forward.end(), P.forward);
}

// Skeleton of n blocks from the edges (i, j) of a symmetric pattern.
void skeletonOf(unsigned int n, const std::vector<std::pair<unsigned int, unsigned int>>& edges,
                SkeletonMatrix& S) {
    BlockPattern p(n);
    for (const auto& e : edges) p.couple(e.first, e.second);
    kt::toSkeleton(p, S);
}

// ---------------------------------------------------------------------------------------------------------
// computeSymamdPermutation
// ---------------------------------------------------------------------------------------------------------

TEST(ReorderingSymamd, ReturnsAPermutationAndHandsSymamdTheStrictlyLowerPart) {
    SkeletonMatrix S;
    Permutation P;
    ScratchPad pad;
    for (unsigned long seed = 0; seed < 120; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = seed % 40;  // includes 0 and 1
        const BlockPattern p = seed % 5 == 4 ? BlockPattern(n) : kt::randomPattern(n, 0.5 * (seed % 7), seed);
        kt::toSkeleton(p, S);
        ASSERT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
        ASSERT_EQ(P.size, n);
        ASSERT_GE(P.capacity, n + 8ul);
        ASSERT_TRUE(isPermutation(forwardOf(P)));

        // Slot 0 holds the column pointers and slot 1 the rows of the strictly lower part: column i lists
        // the blocks j > i coupled to i, ascending.
        const int* colp = pad.getIntArray(0, n + 1);
        const int* rows = pad.getIntArray(1, S.numEntries());
        ASSERT_EQ(colp[0], 0);
        for (unsigned int i = 0; i < n; ++i) {
            std::vector<int> expected;
            for (unsigned int j = i + 1; j < n; ++j) {
                if (p(i, j)) expected.push_back(static_cast<int>(j));
            }
            ASSERT_EQ(std::vector<int>(rows + colp[i], rows + colp[i + 1]), expected) << "column " << i;
        }
    }
}

TEST(ReorderingSymamd, CutsFillAgainstTheNaturalOrderOnGrids) {
    SkeletonMatrix S;
    Permutation P;
    ScratchPad pad;
    for (unsigned int k : {6u, 9u, 12u}) {
        const BlockPattern p = gridPattern(k);
        kt::toSkeleton(p, S);
        ASSERT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
        std::vector<unsigned int> natural(p.n);
        std::iota(natural.begin(), natural.end(), 0u);
        const unsigned long ordered = filledEntries(p, forwardOf(P));
        const unsigned long plain = filledEntries(p, natural);
        EXPECT_LT(ordered, plain) << k << "x" << k;
        if (k == 12) {
            EXPECT_LT(ordered * 10, plain * 8);
        }
    }
}

TEST(ReorderingSymamd, KeepsLargeEnoughArraysAndGrowsSmallOnesToNPlusEight) {
    SkeletonMatrix S;
    ScratchPad pad;
    kt::toSkeleton(kt::randomPattern(20, 2.0, 1), S);
    Permutation big;
    big.reserve(100, 1);
    unsigned int* keep = big.forward;
    ASSERT_TRUE(Reordering::computeSymamdPermutation(S, big, pad));
    EXPECT_EQ(big.forward, keep);
    EXPECT_EQ(big.capacity, 100u);
    EXPECT_EQ(big.size, 20u);

    Permutation small;
    small.reserve(10);
    ASSERT_TRUE(Reordering::computeSymamdPermutation(S, small, pad));
    EXPECT_EQ(small.capacity, 28u);
    EXPECT_EQ(small.size, 20u);
}

// A failing allocator makes symamd itself report failure: the message, false, and the identity over the whole
// capacity (n + 8 entries), not only over n.
TEST(ReorderingSymamd, FailureLeavesTheIdentityOverTheCapacity) {
    SkeletonMatrix S;
    ScratchPad pad;
    Permutation P;
    kt::toSkeleton(kt::randomPattern(12, 3.0, 5), S);
    Reordering::setSymamdMemoryFunctions(&failingCalloc, &std::free);
    ::testing::internal::CaptureStderr();
    const bool ok = Reordering::computeSymamdPermutation(S, P, pad);
    const std::string err = ::testing::internal::GetCapturedStderr();
    Reordering::setSymamdMemoryFunctions(nullptr, nullptr);
    EXPECT_FALSE(ok);
    EXPECT_EQ(err, "symamd/colamd failed\n");
    ASSERT_EQ(P.capacity, 20u);
    EXPECT_EQ(P.size, 12u);
    for (unsigned int k = 0; k < P.capacity; ++k) {
        EXPECT_EQ(P.forward[k], k);
        EXPECT_EQ(P.inverse[k], k);
    }
    // The defaults are back.
    EXPECT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
    EXPECT_TRUE(isPermutation(forwardOf(P)));
}

// ---------------------------------------------------------------------------------------------------------
// modifyPermutation
// ---------------------------------------------------------------------------------------------------------

struct ModifyCase {
    const char* name;
    unsigned int n;
    std::vector<std::pair<unsigned int, unsigned int>> edges;
    unsigned long firstConstraint;
    std::vector<unsigned int> input;
    std::vector<unsigned int> expected;
};

TEST(ReorderingModify, HandCheckedCases) {
    const ModifyCase cases[] = {
        // Constraint 2 (coupled to body 1) leads: it swaps with its neighbour's input position 2.
        {"constraint first", 3, {{1, 2}}, 2, {2, 0, 1}, {1, 0, 2}},
        // Its neighbour is already placed: nothing moves.
        {"neighbour placed", 3, {{1, 2}}, 2, {1, 2, 0}, {1, 2, 0}},
        // Constraint 3 couples to 0 and 1, both later: it trades places with the earlier of them (1, at 2).
        {"earliest neighbour", 4, {{0, 3}, {1, 3}}, 3, {3, 2, 1, 0}, {1, 2, 3, 0}},
        // firstConstraint 0: every block is a candidate. Block 2 moves behind its neighbour 1; the block
        // moved
        // into its place is not revisited; block 0 has no smaller neighbour and swaps with itself.
        {"all candidates", 3, {{0, 1}, {1, 2}}, 0, {2, 1, 0}, {1, 2, 0}},
        {"all candidates, natural", 3, {{0, 1}, {1, 2}}, 0, {0, 1, 2}, {0, 1, 2}},
        // A constraint without any coupling stays where it is.
        {"isolated constraint", 3, {{0, 2}}, 1, {1, 0, 2}, {1, 0, 2}},
    };
    SkeletonMatrix S;
    Permutation P;
    for (const ModifyCase& c : cases) {
        SCOPED_TRACE(c.name);
        skeletonOf(c.n, c.edges, S);
        setForward(P, c.input);
        Reordering::modifyPermutation(S, c.firstConstraint, P);
        EXPECT_EQ(forwardOf(P), c.expected);
        // The inverse describes the order that came in.
        for (unsigned int k = 0; k < c.n; ++k) EXPECT_EQ(P.inverse[c.input[k]], k);
    }
}

// On random saddle patterns every output is a permutation, and a constraint that was moved ends up after one
// of its neighbours.
TEST(ReorderingModify, RandomPatternsKeepAPermutation) {
    SkeletonMatrix S;
    Permutation P;
    for (unsigned long seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 2 + seed % 30;
        const unsigned int fc = n - n / 3;
        const BlockPattern p = kt::randomSaddlePattern(n, fc, 1.0, seed);
        kt::toSkeleton(p, S);
        std::vector<unsigned int> input(n);
        std::iota(input.begin(), input.end(), 0u);
        std::shuffle(input.begin(), input.end(), std::mt19937_64(seed));
        setForward(P, input);
        Reordering::modifyPermutation(S, fc, P);
        const std::vector<unsigned int> out = forwardOf(P);
        ASSERT_TRUE(isPermutation(out));
        for (unsigned int k = 0; k < n; ++k) {
            const unsigned int x = out[k];
            if (x < fc || out[k] == input[k]) continue;
            bool afterNeighbour = false;
            for (unsigned int t = 0; t < k; ++t)
                afterNeighbour = afterNeighbour || (p(out[t], x) && out[t] != x);
            EXPECT_TRUE(afterNeighbour) << "moved constraint " << x;
        }
    }
}

// ---------------------------------------------------------------------------------------------------------
// Disabled orderings
// ---------------------------------------------------------------------------------------------------------

TEST(ReorderingDeathTest, DisabledOrderingsAbortWithNotEnabled) {
    SkeletonMatrix S;
    Permutation P;
    skeletonOf(3, {{0, 1}}, S);
    EXPECT_EXIT(Reordering::computeModifiedAmdPermutation(S, P), ::testing::KilledBySignal(SIGABRT),
                "^Not enabled\n$");
    EXPECT_EXIT(Reordering::computeTamberPermutation(S, P), ::testing::KilledBySignal(SIGABRT),
                "^Not enabled\n$");
}

// ---------------------------------------------------------------------------------------------------------
// zeroLeafSwap
// ---------------------------------------------------------------------------------------------------------

struct SwapRun {
    SkeletonMatrix S, T;
    EliminationTree tree;
    Permutation P;
    ScratchPad pad;
    bool ok = false;

    void run(unsigned int n, const std::vector<std::pair<unsigned int, unsigned int>>& edges,
             unsigned long firstConstraint, const std::vector<unsigned int>& forward) {
        skeletonOf(n, edges, S);
        P.reserve(n + 8, 1);
        setForward(P, forward);
        ok = Reordering::zeroLeafSwap(S, T, tree, firstConstraint, P, pad);
    }
};

TEST(ReorderingZeroLeafSwap, ConstraintLeafMovesBehindItsBodyAndItsEntryIsFlaggedSwapped) {
    // Bodies 0, 1; constraint 2 couples to body 0 only. In the order 2, 1, 0 the constraint is a leaf under
    // body 0 (new index 2), so it moves to directly after it.
    SwapRun r;
    r.run(3, {{0, 2}}, 2, {2, 1, 0});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(forwardOf(r.P), (std::vector<unsigned int>{1, 0, 2}));
    for (unsigned int k = 0; k < 3; ++k)
        EXPECT_EQ(r.P.inverse[k], r.P.forward[k]);  // a copy, not the inverse
    // T describes the incoming order: (0, 2) is user entry (0, 2) swapped across the diagonal.
    ASSERT_EQ(kt::checkSkeletonForm(r.T), "");
    ASSERT_EQ(r.T.numEntries(), 4u);
    EXPECT_EQ(std::vector<unsigned int>(r.T.rowIndices, r.T.rowIndices + 4),
              (std::vector<unsigned int>{0, 1, 0, 2}));
    EXPECT_EQ(std::vector<unsigned char>(r.T.fillFlags, r.T.fillFlags + 4),
              (std::vector<unsigned char>{0, 0, 1, 0}));
    EXPECT_EQ(r.tree.parent[0], 2u);
    EXPECT_EQ(r.tree.parent[1], 1u);
    EXPECT_EQ(r.tree.parent[2], 2u);
}

TEST(ReorderingZeroLeafSwap, TwoLeavesFollowTheirBodyInAscendingNodeOrder) {
    // Constraints 2 and 3 both hang on body 0; in the order 3, 2, 1, 0 they are nodes 0 and 1 under node 3.
    SwapRun r;
    r.run(4, {{0, 2}, {0, 3}}, 2, {3, 2, 1, 0});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(forwardOf(r.P), (std::vector<unsigned int>{1, 0, 3, 2}));
}

TEST(ReorderingZeroLeafSwap, NoConstraintsLeavesTheOrderUnchanged) {
    SwapRun r;
    r.run(5, {{0, 4}, {1, 3}, {2, 3}}, 5, {4, 2, 0, 3, 1});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(forwardOf(r.P), (std::vector<unsigned int>{4, 2, 0, 3, 1}));
}

TEST(ReorderingZeroLeafSwap, FailuresResetToTheIdentityOverTheCapacity) {
    struct Case {
        const char* name;
        unsigned int n;
        std::vector<std::pair<unsigned int, unsigned int>> edges;
        std::vector<unsigned int> forward;
    };
    const Case cases[] = {
        // Constraint 2 couples only to constraint 1: a zero leaf whose parent is a constraint.
        {"leaf under a constraint", 3, {{0, 1}, {1, 2}}, {2, 0, 1}},
        // Constraint 1 couples to nothing: a zero leaf that is a root.
        {"isolated constraint", 2, {}, {0, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SwapRun r;
        r.run(c.n, c.edges, 1, c.forward);
        EXPECT_FALSE(r.ok);
        ASSERT_EQ(r.P.capacity, c.n + 8ul);
        for (unsigned int k = 0; k < r.P.capacity; ++k) {
            EXPECT_EQ(r.P.forward[k], k);
            EXPECT_EQ(r.P.inverse[k], k);
        }
    }
}

TEST(ReorderingZeroLeafSwap, EmptyPattern) {
    SwapRun r;
    r.run(0, {}, 0, {});
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.T.n, 0u);
    EXPECT_EQ(r.tree.numNodes, 0u);
}

// Random saddle patterns in random orders: T is exactly the permuted pattern with the swapped entries
// flagged, the tree is the elimination tree of dense symbolic elimination, blockWords travel along, and on
// success the repaired order is the incoming one with every zero leaf pulled up behind its body parent.
TEST(ReorderingZeroLeafSwap, RandomPatternsAgainstDenseReferences) {
    SwapRun r;
    unsigned int successes = 0, failures = 0;
    for (unsigned long seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 1 + seed % 35;
        const unsigned int fc = seed % 4 == 0 ? n : n - n / 3;
        BlockPattern p = kt::randomSaddlePattern(n, fc, 0.3 * (seed % 5), seed);
        // Some constraints coupled to each other, some to nothing: the two ways the swap fails.
        std::mt19937_64 rng(seed);
        if (fc + 1 < n && seed % 3 == 0) p.couple(fc + rng() % (n - fc), fc + rng() % (n - fc));
        if (fc < n && seed % 7 == 0) {
            const unsigned int c = fc + rng() % (n - fc);
            for (unsigned int v = 0; v < n; ++v) {
                if (v != c) p.a[v * n + c] = p.a[c * n + v] = 0;
            }
        }
        kt::toSkeleton(p, r.S, seed % 2 == 0);
        std::vector<unsigned int> input(n);
        std::iota(input.begin(), input.end(), 0u);
        std::shuffle(input.begin(), input.end(), std::mt19937_64(seed + 7));
        setForward(r.P, input);
        r.ok = Reordering::zeroLeafSwap(r.S, r.T, r.tree, fc, r.P, r.pad);

        ASSERT_EQ(kt::checkSkeletonForm(r.T), "");
        const BlockPattern permuted = kt::permutePattern(p, input.data());
        ASSERT_TRUE(kt::fromSkeleton(r.T) == permuted);
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int e = r.T.colPointers[j]; e < r.T.colPointers[j + 1]; ++e) {
                const unsigned int i = r.T.rowIndices[e];
                // (i, j) of T came from user entry (min, max) of input[i], input[j]: swapped when input[i] >
                // input[j].
                EXPECT_EQ(r.T.fillFlags[e], input[i] > input[j] ? 1 : 0) << i << "," << j;
            }
            if (seed % 2 == 0) {
                EXPECT_EQ(r.T.blockWords[j], input[j]);
            }
        }
        EXPECT_EQ(r.T.blockWords == nullptr, seed % 2 == 1);
        const std::vector<unsigned int> parent = kt::eliminationParent(kt::symbolicFactor(permuted));
        ASSERT_EQ(r.tree.numNodes, n);
        for (unsigned int j = 0; j < n; ++j) ASSERT_EQ(r.tree.parent[j], parent[j]) << "node " << j;

        // Zero leaves of the incoming order.
        std::vector<unsigned char> zeroLeaf(n, 0);
        bool failureExpected = false;
        for (unsigned int k = 0; k < n; ++k) {
            if (input[k] < fc || r.tree.firstChild[k] != Tree::noNode) continue;
            zeroLeaf[k] = 1;
            if (parent[k] == k || input[parent[k]] >= fc) failureExpected = true;
        }
        ASSERT_EQ(r.ok, !failureExpected);
        if (!r.ok) {
            ++failures;
            for (unsigned int k = 0; k < r.P.capacity; ++k) ASSERT_EQ(r.P.forward[k], k);
            continue;
        }
        ++successes;
        const std::vector<unsigned int> out = forwardOf(r.P);
        ASSERT_TRUE(isPermutation(out));
        // The blocks that are not zero leaves keep their relative order; each zero leaf follows its parent,
        // possibly behind other zero leaves of the same parent.
        std::vector<unsigned int> kept, keptOut;
        for (unsigned int k = 0; k < n; ++k) {
            if (!zeroLeaf[k]) kept.push_back(input[k]);
        }
        std::vector<unsigned int> node(n);  // user block → node of the incoming order
        for (unsigned int k = 0; k < n; ++k) node[input[k]] = k;
        for (unsigned int k = 0; k < n; ++k) {
            const unsigned int v = node[out[k]];
            if (!zeroLeaf[v]) {
                keptOut.push_back(out[k]);
                continue;
            }
            unsigned int q = k;
            while (q > 0 && zeroLeaf[node[out[q - 1]]] && parent[node[out[q - 1]]] == parent[v]) --q;
            ASSERT_GT(q, 0u);
            EXPECT_EQ(node[out[q - 1]], parent[v]) << "zero leaf " << out[k];
        }
        EXPECT_EQ(keptOut, kept);
    }
    EXPECT_GT(successes, 50u);
    EXPECT_GT(failures, 5u);
}

TEST(ReorderingZeroLeafSwap, KeepsTheOutputArraysWhenLargeEnough) {
    SwapRun r;
    std::vector<unsigned int> natural(30);
    std::iota(natural.begin(), natural.end(), 0u);
    r.run(30, {{0, 20}, {1, 21}, {2, 22}, {3, 4}}, 30, natural);
    ASSERT_TRUE(r.ok);
    const unsigned int* rows = r.T.rowIndices;
    const unsigned int* parent = r.tree.parent;
    skeletonOf(10, {{0, 8}, {1, 9}}, r.S);
    natural.resize(10);
    setForward(r.P, natural);
    ASSERT_TRUE(Reordering::zeroLeafSwap(r.S, r.T, r.tree, 10, r.P, r.pad));
    EXPECT_EQ(r.T.rowIndices, rows);
    EXPECT_EQ(r.tree.parent, parent);
    EXPECT_EQ(r.T.n, 10u);
    EXPECT_EQ(r.tree.numNodes, 10u);
}

}  // namespace
