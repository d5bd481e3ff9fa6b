// Block orderings: symamd (result is a permutation, the strictly lower input it is handed, less fill than the
// natural order on grids, array reuse, the failure path through a failing allocator), the constraint
// adjustment modifyPermutation on hand-checked and random cases, the disabled orderings, and the zero-leaf
// swap (hand-checked success and failure cases, and on random saddle patterns: the permuted pattern against a
// dense permutation, the tree against dense symbolic elimination, and the repaired order's invariants), and
// the centroid order of body forests (safe, shallow, refuses other body graphs).
#include "Reordering.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Tamber.h"
#include "testing/Patterns.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;
using kt::BlockPattern;
using Blocks = std::vector<unsigned int>;
using Edges = std::vector<std::pair<unsigned int, unsigned int>>;

namespace {

Blocks forwardOf(const Permutation& P) {
    return Blocks(P.forward, P.forward + P.size);
}

bool isPermutation(const Blocks& v) {
    Blocks identity(v.size());
    std::iota(identity.begin(), identity.end(), 0u);
    return std::is_permutation(v.begin(), v.end(), identity.begin());
}

// forward and inverse are the identity over the whole capacity.
bool identityOverCapacity(const Permutation& P) {
    for (unsigned int k = 0; k < P.capacity; ++k) {
        if (P.forward[k] != k || P.inverse[k] != k) return false;
    }
    return true;
}

void setForward(Permutation& P, const Blocks& forward) {
    P.setSize(forward.size());
    std::copy(forward.begin(), forward.end(), P.forward);
}

// Skeleton of n blocks from the edges (i, j) of a symmetric pattern.
void skeletonOf(unsigned int n, const Edges& edges, SkeletonMatrix& S) {
    BlockPattern p(n);
    for (const auto& e : edges) p.couple(e.first, e.second);
    kt::toSkeleton(p, S);
}

void* failingCalloc(std::size_t, std::size_t) {
    return nullptr;
}

// The result is a permutation in arrays kept when large enough and grown to n + 8 otherwise.
TEST(ReorderingSymamd, ReturnsAPermutationAndHandsSymamdTheStrictlyLowerPart) {
    SkeletonMatrix S;
    Permutation P;
    ScratchPad pad;
    for (unsigned long seed = 0; seed < 120; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = seed % 40;  // includes 0 and 1
        const BlockPattern p = seed % 5 == 4 ? BlockPattern(n) : kt::randomPattern(n, 0.5 * (seed % 7), seed);
        kt::toSkeleton(p, S);
        const unsigned long capacity = std::max(P.capacity, n + 8ul);  // kept when large enough
        const unsigned int* kept = P.capacity >= n + 8 ? P.forward : nullptr;
        ASSERT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
        ASSERT_EQ(P.size, n);
        ASSERT_EQ(P.capacity, capacity);
        ASSERT_TRUE(kept == nullptr || P.forward == kept);
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

// On a k × k grid with its 8 neighbours (a 9-point stencil) symamd fills less than the natural order.
TEST(ReorderingSymamd, CutsFillAgainstTheNaturalOrderOnGrids) {
    SkeletonMatrix S;
    Permutation P;
    ScratchPad pad;
    for (unsigned int k : {6u, 9u, 12u}) {
        BlockPattern p(k * k);
        for (unsigned int v = 0; v < k * k; ++v) {
            const unsigned int x = v % k, y = v / k;
            if (x + 1 < k) p.couple(v, v + 1);
            if (y + 1 < k) p.couple(v, v + k);
            if (x + 1 < k && y + 1 < k) p.couple(v, v + k + 1);
            if (x > 0 && y + 1 < k) p.couple(v, v + k - 1);
        }
        kt::toSkeleton(p, S);
        ASSERT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
        const unsigned long ordered = kt::symbolicFactor(kt::permutePattern(p, P.forward)).numUpperEntries();
        const unsigned long plain = kt::symbolicFactor(p).numUpperEntries();
        EXPECT_LT(ordered, k == 12 ? plain * 8 / 10 : plain) << k << "x" << k;
    }
}

// A failing allocator makes symamd itself report failure: the message, false, and the identity over the
// whole capacity, not only over n.
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
    EXPECT_EQ(P.capacity, 20u);
    EXPECT_EQ(P.size, 12u);
    EXPECT_TRUE(identityOverCapacity(P));
    EXPECT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));  // the defaults are back
    EXPECT_TRUE(isPermutation(forwardOf(P)));
}

// On random saddle patterns every output is a permutation, and a constraint that was moved ends up after one
// of its neighbours.
TEST(ReorderingModify, RandomPatternsKeepAPermutation) {
    SkeletonMatrix S;
    Permutation P;
    for (unsigned long seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 2 + seed % 30, fc = n - n / 3;
        const BlockPattern p = kt::randomSaddlePattern(n, fc, 1.0, seed);
        kt::toSkeleton(p, S);
        Blocks input(n);
        std::iota(input.begin(), input.end(), 0u);
        std::shuffle(input.begin(), input.end(), std::mt19937_64(seed));
        setForward(P, input);
        Reordering::modifyPermutation(S, fc, P);
        const Blocks out = forwardOf(P);
        ASSERT_TRUE(isPermutation(out));
        for (unsigned int k = 0; k < n; ++k) {
            if (out[k] < fc || out[k] == input[k]) continue;
            bool afterNeighbour = false;
            for (unsigned int t = 0; t < k; ++t) afterNeighbour = afterNeighbour || p(out[t], out[k]);
            EXPECT_TRUE(afterNeighbour) << "moved constraint " << out[k];
        }
    }
}

TEST(ReorderingDeathTest, DisabledOrderingsAbortWithNotEnabled) {
    SkeletonMatrix S;
    Permutation P;
    skeletonOf(3, {{0, 1}}, S);
    EXPECT_EXIT(Reordering::computeModifiedAmdPermutation(S, P), ::testing::KilledBySignal(SIGABRT),
                "^Not enabled\n$");
    EXPECT_EXIT(Reordering::computeTamberPermutation(S, P), ::testing::KilledBySignal(SIGABRT),
                "^Not enabled\n$");
}

struct SwapRun {
    SkeletonMatrix S, T;
    EliminationTree tree;
    Permutation P;
    ScratchPad pad;
};

// modifyPermutation: the order and the inverse of the order it was given. zeroLeafSwap: on success the
// repaired order, the inverse array a copy of the forward one; on failure (empty expected order) the
// identity over the capacity.
TEST(Reordering, HandCheckedCases) {
    const struct {
        const char* name;
        bool swap;  // zeroLeafSwap, else modifyPermutation
        unsigned int n;
        Edges edges;
        unsigned long firstConstraint;
        Blocks input, expected;
    } cases[] = {
        // Constraint 2 (coupled to body 1) leads: it swaps with its neighbour's input position 2.
        {"constraint first", false, 3, {{1, 2}}, 2, {2, 0, 1}, {1, 0, 2}},
        // Its neighbour is already placed: nothing moves.
        {"neighbour placed", false, 3, {{1, 2}}, 2, {1, 2, 0}, {1, 2, 0}},
        // Constraint 3 couples to 0 and 1, both later: it trades places with the earlier of them (1, at 2).
        {"earliest neighbour", false, 4, {{0, 3}, {1, 3}}, 3, {3, 2, 1, 0}, {1, 2, 3, 0}},
        // firstConstraint 0: every block is a candidate. Block 2 moves behind its neighbour 1; the block
        // moved into its place is not revisited; block 0 has no smaller neighbour and swaps with itself.
        {"all candidates", false, 3, {{0, 1}, {1, 2}}, 0, {2, 1, 0}, {1, 2, 0}},
        {"all candidates, natural", false, 3, {{0, 1}, {1, 2}}, 0, {0, 1, 2}, {0, 1, 2}},
        // A constraint without any coupling stays where it is.
        {"isolated constraint", false, 3, {{0, 2}}, 1, {1, 0, 2}, {1, 0, 2}},
        // Bodies 0, 1; constraint 2 couples to body 0 only. In the order 2, 1, 0 it is a leaf under body 0
        // (node 2), so it moves to directly after it.
        {"leaf behind its body", true, 3, {{0, 2}}, 2, {2, 1, 0}, {1, 0, 2}},
        // Constraints 2 and 3 both hang on body 0 (nodes 0 and 1 under node 3): ascending node order.
        {"two leaves", true, 4, {{0, 2}, {0, 3}}, 2, {3, 2, 1, 0}, {1, 0, 3, 2}},
        {"no constraints", true, 5, {{0, 4}, {1, 3}, {2, 3}}, 5, {4, 2, 0, 3, 1}, {4, 2, 0, 3, 1}},
        {"empty", true, 0, {}, 0, {}, {}},
        // Constraint 2 couples only to constraint 1: a zero leaf whose parent is a constraint.
        {"leaf under a constraint", true, 3, {{0, 1}, {1, 2}}, 1, {2, 0, 1}, {}},
        // Constraint 1 couples to nothing: a zero leaf that is a root.
        {"isolated zero leaf", true, 2, {}, 1, {0, 1}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SwapRun r;
        skeletonOf(c.n, c.edges, r.S);
        r.P.reserve(c.n + 8, 1);
        setForward(r.P, c.input);
        if (!c.swap) {
            Reordering::modifyPermutation(r.S, c.firstConstraint, r.P);
            EXPECT_EQ(forwardOf(r.P), c.expected);
            for (unsigned int k = 0; k < c.n; ++k) EXPECT_EQ(r.P.inverse[c.input[k]], k);
            continue;
        }
        const bool ok = Reordering::zeroLeafSwap(r.S, r.T, r.tree, c.firstConstraint, r.P, r.pad);
        EXPECT_EQ(ok, c.expected.size() == c.n);
        EXPECT_EQ(r.T.n + r.tree.numNodes, 2ul * c.n);
        if (ok) {
            EXPECT_EQ(forwardOf(r.P), c.expected);
            EXPECT_EQ(Blocks(r.P.inverse, r.P.inverse + c.n), c.expected);
        } else {
            EXPECT_EQ(r.P.capacity, c.n + 8ul);
            EXPECT_TRUE(identityOverCapacity(r.P));
        }
    }
}

// Random saddle patterns in random orders: T is exactly the permuted pattern with the swapped entries
// flagged, the tree is the elimination tree of dense symbolic elimination, blockWords travel along, arrays
// are reused, and the swap fails exactly when a zero leaf is a root or hangs on a constraint.
TEST(ReorderingZeroLeafSwap, RandomPatternsAgainstDenseReferences) {
    SwapRun r;
    unsigned int successes = 0, failures = 0;
    for (unsigned long seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 1 + seed % 35, fc = seed % 4 == 0 ? n : n - n / 3;
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
        Blocks input(n);
        std::iota(input.begin(), input.end(), 0u);
        std::shuffle(input.begin(), input.end(), std::mt19937_64(seed + 7));
        setForward(r.P, input);
        // T's and the tree's arrays are kept when large enough.
        const bool roomy = n <= r.T.blockCapacity && r.S.numEntries() <= r.T.entryCapacity;
        const unsigned int *rows = roomy ? r.T.rowIndices : nullptr,
                           *up = n <= r.tree.capacity ? r.tree.parent : nullptr;
        const bool ok = Reordering::zeroLeafSwap(r.S, r.T, r.tree, fc, r.P, r.pad);
        ASSERT_TRUE((rows == nullptr || r.T.rowIndices == rows) && (up == nullptr || r.tree.parent == up));

        ASSERT_EQ(kt::checkSkeletonForm(r.T), "");
        const BlockPattern permuted = kt::permutePattern(p, input.data());
        ASSERT_TRUE(kt::fromSkeleton(r.T) == permuted);
        ASSERT_EQ(r.T.blockWords == nullptr, seed % 2 == 1);
        for (unsigned int j = 0; j < n; ++j) {
            // (i, j) of T came from user entry (min, max) of input[i], input[j]: swapped when input[i] >
            // input[j].
            for (unsigned int e = r.T.colPointers[j]; e < r.T.colPointers[j + 1]; ++e)
                EXPECT_EQ(r.T.fillFlags[e], input[r.T.rowIndices[e]] > input[j] ? 1 : 0) << e << " of " << j;
            EXPECT_TRUE(seed % 2 || r.T.blockWords[j] == input[j]) << "block word " << j;
        }
        const std::vector<unsigned int> parent = kt::eliminationParent(kt::symbolicFactor(permuted));
        ASSERT_EQ(r.tree.numNodes, n);
        for (unsigned int j = 0; j < n; ++j) ASSERT_EQ(r.tree.parent[j], parent[j]) << "node " << j;

        // Zero leaves of the incoming order; the swap fails when one is a root or hangs on a constraint.
        std::vector<unsigned char> zeroLeaf(n, 0);
        bool failureExpected = false;
        for (unsigned int k = 0; k < n; ++k) {
            if (input[k] < fc || r.tree.firstChild[k] != Tree::noNode) continue;
            zeroLeaf[k] = 1;
            failureExpected = failureExpected || parent[k] == k || input[parent[k]] >= fc;
        }
        ASSERT_EQ(ok, !failureExpected);
        if (!ok) {
            ++failures;
            ASSERT_TRUE(identityOverCapacity(r.P));
            continue;
        }
        ++successes;
        // The incoming order with each zero leaf moved to directly after its parent, several leaves of one
        // parent in ascending node order.
        Blocks expected;
        for (unsigned int k = 0; k < n; ++k) {
            if (zeroLeaf[k]) continue;
            expected.push_back(input[k]);
            for (unsigned int l = 0; l < n; ++l) {
                if (zeroLeaf[l] && parent[l] == k) expected.push_back(input[l]);
            }
        }
        EXPECT_EQ(forwardOf(r.P), expected);
    }
    EXPECT_GT(successes, 50u);
    EXPECT_GT(failures, 5u);
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------
// Centroid order
// ---------------------------------------------------------------------------------------------------------

namespace {

// A problem in list form: bodies 0 .. numBodies−1 (size 6), constraints after them (size 3), each
// constraint's list its bodies (ascending) then itself.
struct ListProblem {
    unsigned int numBodies = 0;
    std::vector<Blocks> constraints;  // bodies of each constraint
    Blocks colPointers, rowIndices, sizes;

    void build() {
        colPointers.assign(1, 0);
        rowIndices.clear();
        const unsigned int n = numBodies + static_cast<unsigned int>(constraints.size());
        for (unsigned int b = 0; b < numBodies; ++b)
            rowIndices.push_back(b), colPointers.push_back(rowIndices.size());
        for (std::size_t c = 0; c < constraints.size(); ++c) {
            Blocks bodies = constraints[c];
            std::sort(bodies.begin(), bodies.end());
            bodies.erase(std::unique(bodies.begin(), bodies.end()), bodies.end());
            for (unsigned int b : bodies) rowIndices.push_back(b);
            rowIndices.push_back(numBodies + static_cast<unsigned int>(c));
            colPointers.push_back(rowIndices.size());
        }
        sizes.assign(n, 3);
        std::fill(sizes.begin(), sizes.begin() + numBodies, 6u);
    }
    unsigned int n() const { return numBodies + static_cast<unsigned int>(constraints.size()); }
    Analysis::Problem problem() const {
        return Analysis::Problem{n(), numBodies, colPointers.data(), rowIndices.data(), sizes.data()};
    }
};

// Longest path from a block to its root in the elimination tree of the analysed order.
unsigned int treeHeight(const TamberData<double>& data) {
    const unsigned int n = data.etree.numNodes;
    std::vector<unsigned int> depth(n, 0);
    unsigned int height = 0;
    for (unsigned int v = n; v-- > 0;) {  // parents come after their children
        const unsigned int p = data.etree.parent[v];
        depth[v] = p == v ? 1 : depth[p] + 1;
        height = std::max(height, depth[v]);
    }
    return height;
}

}  // namespace

TEST(ReorderingCentroid, ShallowSafeOrdersOfBodyForests) {
    std::mt19937 random(11);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ListProblem lp;
        lp.numBodies = 1 + random() % 400;
        // A random forest: body b > 0 joins an earlier body (a chain for the first rounds), sometimes by two
        // constraints, sometimes not at all; one-body constraints anchor bodies to the world.
        for (unsigned int b = 1; b < lp.numBodies; ++b) {
            if (random() % 10 == 0) continue;
            const unsigned int other = round < 5 ? b - 1 : random() % b;
            lp.constraints.push_back({other, b});
            if (random() % 5 == 0) lp.constraints.push_back({b, other});
        }
        for (unsigned int b = 0; b < lp.numBodies; ++b)
            if (random() % 7 == 0) lp.constraints.push_back({b});
        lp.build();
        const Analysis::Problem problem = lp.problem();
        ASSERT_TRUE(Analysis::checkProblem(problem));

        Blocks forward(lp.n());
        ASSERT_TRUE(Reordering::centroidOrder(lp.n(), lp.numBodies, lp.colPointers.data(),
                                              lp.rowIndices.data(), forward.data()));
        ASSERT_TRUE(isPermutation(forward));
        std::string message;
        EXPECT_TRUE(Analysis::checkOrder(problem, forward.data(), &message, false)) << message;

        // Every constraint directly after its last body or after constraints that are.
        std::vector<unsigned int> position(lp.n());
        for (unsigned int k = 0; k < lp.n(); ++k) position[forward[k]] = k;
        for (unsigned int c = lp.numBodies; c < lp.n(); ++c) {
            unsigned int last = 0;
            for (unsigned int e = lp.colPointers[c]; e + 1 < lp.colPointers[c + 1]; ++e)
                last = std::max(last, position[lp.rowIndices[e]]);
            for (unsigned int k = last + 1; k < position[c]; ++k) EXPECT_GE(forward[k], lp.numBodies);
        }

        // Shallow: a centroid halves its part, and every level adds a body and the constraints after it (at
        // most the largest number of constraints on one body).
        Analysis::Options options;
        options.ordering = Analysis::Ordering::centroid;
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        const Analysis::Report report = analyzer.analyze(problem, options, data);
        ASSERT_TRUE(report.ok) << report.message;
        EXPECT_FALSE(report.centroidFallback);
        EXPECT_EQ(Blocks(analyzer.order(), analyzer.order() + lp.n()), forward);
        const double levels = std::floor(std::log2(static_cast<double>(lp.numBodies))) + 1;
        std::vector<unsigned int> perBody(lp.numBodies, 0);
        for (const Blocks& bodies : lp.constraints)
            for (unsigned int b : bodies) ++perBody[b];
        const double perLevel = 1 + *std::max_element(perBody.begin(), perBody.end());
        EXPECT_LE(treeHeight(data), perLevel * levels + 1);
    }
}

TEST(ReorderingCentroid, RefusesBodyGraphsThatAreNotForests) {
    ListProblem cycle;
    cycle.numBodies = 3;
    cycle.constraints = {{0, 1}, {1, 2}, {0, 2}};
    cycle.build();
    Blocks forward(cycle.n());
    EXPECT_FALSE(Reordering::centroidOrder(cycle.n(), 3, cycle.colPointers.data(), cycle.rowIndices.data(),
                                           forward.data()));
    Analysis::Options options;
    options.ordering = Analysis::Ordering::centroid;
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    const Analysis::Report report = analyzer.analyze(cycle.problem(), options, data);
    EXPECT_TRUE(report.ok && report.centroidFallback) << report.message;
    ListProblem threeBodies;
    threeBodies.numBodies = 3;
    threeBodies.constraints = {{0, 1, 2}};
    threeBodies.build();
    forward.assign(threeBodies.n(), 0);
    EXPECT_FALSE(Reordering::centroidOrder(threeBodies.n(), 3, threeBodies.colPointers.data(),
                                           threeBodies.rowIndices.data(), forward.data()));
    // A chain of 7 bodies: the middle body last among the bodies, each half centred the same way.
    ListProblem chain;
    chain.numBodies = 7;
    for (unsigned int b = 1; b < 7; ++b) chain.constraints.push_back({b - 1, b});
    chain.build();
    forward.assign(chain.n(), 0);
    ASSERT_TRUE(Reordering::centroidOrder(chain.n(), 7, chain.colPointers.data(), chain.rowIndices.data(),
                                          forward.data()));
    EXPECT_EQ(forward, (Blocks{0, 2, 1, 7, 8, 4, 6, 5, 11, 12, 3, 9, 10}));
}
