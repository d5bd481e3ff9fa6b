// Tree, Marks and Graph: child lists, the two post orders, the breadth-first spanning forest, print, copy.
#include "Tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "EliminationTree.h"
#include "SkeletonMatrix.h"

using namespace kivTamber;

namespace {

constexpr unsigned int kNone = Tree::noNode;

// A tree with the given parents, child lists and roots built by computeTreeStructure.
void buildTree(Tree& t, const std::vector<unsigned int>& parents) {
    const unsigned int n = static_cast<unsigned int>(parents.size());
    t.allocateMemory(n);
    t.numNodes = n;
    std::copy(parents.begin(), parents.end(), t.parent);
    t.computeTreeStructure();
}

std::vector<unsigned int> childList(const Tree& t, unsigned int p) {
    std::vector<unsigned int> out;
    for (unsigned int c = t.firstChild[p]; c != kNone; c = t.sibling[c]) out.push_back(c);
    return out;
}

// Random forest on n nodes whose parent relation follows a random labelling (parents may have smaller
// indices than their children).
std::vector<unsigned int> randomForest(unsigned int n, std::mt19937& rng) {
    std::vector<unsigned int> label(n);
    for (unsigned int i = 0; i < n; ++i) label[i] = i;
    std::shuffle(label.begin(), label.end(), rng);
    std::vector<unsigned int> parents(n);
    for (unsigned int k = 0; k < n; ++k) {
        // label[k] hangs below a node of larger rank k, or is a root.
        const bool root = k + 1 == n || rng() % 5 == 0;
        parents[label[k]] = root ? label[k] : label[k + 1 + rng() % (n - k - 1)];
    }
    return parents;
}

// Checks that postOrder numbers the forest 0..n-1, every node after its descendants with each subtree
// numbered contiguously, and siblings in reverse list order (reverse = true) or in list order.
void expectPostOrder(const Tree& t, bool reverse) {
    const unsigned int n = t.numNodes;
    std::vector<unsigned int> seen(n, 0), subtree(n, 1);
    for (unsigned int x = 0; x < n; ++x) {
        ASSERT_LT(t.postOrder[x], n);
        ++seen[t.postOrder[x]];
    }
    for (unsigned int k = 0; k < n; ++k) ASSERT_EQ(seen[k], 1u) << "number " << k;
    // Subtree sizes by walking every node's ancestors.
    for (unsigned int x = 0; x < n; ++x)
        for (unsigned int a = x; t.parent[a] != a; a = t.parent[a]) ++subtree[t.parent[a]];
    for (unsigned int x = 0; x < n; ++x) {
        const unsigned int p = t.parent[x];
        if (p != x) {
            EXPECT_LT(t.postOrder[x], t.postOrder[p]);
        }
        // Descendants occupy exactly the numbers below x's own, down to post - size + 1.
        for (unsigned int y = 0; y < n; ++y) {
            bool below = false;
            for (unsigned int a = y; !below && t.parent[a] != a; a = t.parent[a]) below = t.parent[a] == x;
            const bool inRange =
                t.postOrder[y] < t.postOrder[x] && t.postOrder[y] + subtree[x] > t.postOrder[x];
            ASSERT_EQ(below, inRange) << "node " << y << " vs subtree of " << x;
        }
        const std::vector<unsigned int> kids = childList(t, x);
        for (size_t k = 1; k < kids.size(); ++k)
            EXPECT_EQ(reverse, t.postOrder[kids[k]] < t.postOrder[kids[k - 1]]);
    }
}

void fillSkeleton(SkeletonMatrix& S, const std::vector<std::vector<unsigned int>>& lists) {
    unsigned long entries = 0;
    for (const auto& l : lists) entries += l.size();
    S.resize(lists.size(), entries, false);
    unsigned int k = 0;
    for (size_t j = 0; j < lists.size(); ++j) {
        S.colPointers[j] = k;
        for (unsigned int i : lists[j]) S.rowIndices[k++] = i;
    }
    S.colPointers[lists.size()] = k;
}

std::vector<unsigned int> neighbours(const Graph& g, unsigned int v) {
    return std::vector<unsigned int>(g.adjacency.data() + g.adjPointers[v],
                                     g.adjacency.data() + g.adjPointers[v + 1]);
}

std::vector<unsigned int> postOrders(const Tree& t) {
    return {t.postOrder, t.postOrder + t.numNodes};
}
std::vector<unsigned int> parents(const Tree& t) {
    return {t.parent, t.parent + t.numNodes};
}
std::vector<unsigned int> rootList(const Tree& t) {
    return {t.roots.begin(), t.roots.end()};
}

}  // namespace

TEST(Tree, StructureListsAndRootsAscending) {
    std::mt19937 rng(7);
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE(round);
        const unsigned int n = 1 + rng() % 40;
        const std::vector<unsigned int> par = randomForest(n, rng);
        Tree t;
        buildTree(t, par);
        std::vector<unsigned int> expectRoots;
        for (unsigned int p = 0; p < n; ++p) {
            std::vector<unsigned int> expectKids;
            for (unsigned int c = 0; c < n; ++c)
                if (par[c] == p && c != p) expectKids.push_back(c);
            EXPECT_EQ(childList(t, p), expectKids);
            if (par[p] == p) expectRoots.push_back(p);
        }
        EXPECT_EQ(rootList(t), expectRoots);
    }
}

TEST(Tree, PostOrderHandCases) {
    Tree chain;
    buildTree(chain, {1, 2, 2});
    chain.computePostOrder();
    EXPECT_EQ(postOrders(chain), (std::vector<unsigned int>{0, 1, 2}));

    Tree fork;  // node 2 with children 0 and 1: the last child is numbered first
    buildTree(fork, {2, 2, 2});
    fork.computePostOrder();
    EXPECT_EQ(postOrders(fork), (std::vector<unsigned int>{1, 0, 2}));
}

TEST(Tree, PostOrderInvariantsOnRandomForests) {
    std::mt19937 rng(11);
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE(round);
        Tree t;
        buildTree(t, randomForest(1 + rng() % 60, rng));
        // Listing every root twice (as a search followed by computeTreeStructure does) changes nothing.
        const std::vector<unsigned int> once = rootList(t);
        for (unsigned int r : once) t.roots.push_back(r);
        t.computePostOrder();
        expectPostOrder(t, true);
        for (unsigned int i = 0; i < t.marks.markCapacity; ++i) ASSERT_EQ(t.marks.flags[i], 0) << i;
        EXPECT_EQ(t.marks.count, 0u);
    }
}

TEST(Tree, PostOrderOfDeepChainUsesNoRecursion) {
    const unsigned int n = 1u << 20;
    std::vector<unsigned int> par(n);
    for (unsigned int x = 0; x < n; ++x) par[x] = x + 1 < n ? x + 1 : x;
    Tree t;
    buildTree(t, par);
    t.computePostOrder();
    for (unsigned int x = 0; x < n; ++x) ASSERT_EQ(t.postOrder[x], x);
}

TEST(Tree, PrintFormat) {
    Tree t;
    buildTree(t, {2, 2, 2});
    t.computePostOrder();
    testing::internal::CaptureStdout();
    t.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Sets (3):\n"
              "Node\tParent\t1.chld\tSibl.\tPost Ordering\n"
              "0\t2\t-1\t1\t1\n"
              "1\t2\t-1\t-1\t0\n"
              "2\t2\t0\t-1\t2\n");
}

TEST(Tree, AssignmentGrowsAndCopies) {
    std::mt19937 rng(3);
    Tree src;
    buildTree(src, randomForest(37, rng));
    src.computePostOrder();
    src.marks.mark(5);
    src.marks.mark(2);

    Tree dst;
    buildTree(dst, {0, 0, 1});
    dst = src;
    EXPECT_EQ(dst.numNodes, 37u);
    EXPECT_GE(dst.capacity, 37u);
    EXPECT_EQ(parents(dst), parents(src));
    EXPECT_EQ(postOrders(dst), postOrders(src));
    for (unsigned int x = 0; x < 37; ++x) {
        EXPECT_EQ(dst.firstChild[x], src.firstChild[x]);
        EXPECT_EQ(dst.sibling[x], src.sibling[x]);
    }
    EXPECT_EQ(rootList(dst), rootList(src));
    EXPECT_EQ(dst.marks.count, 2u);
    EXPECT_EQ(dst.marks.list[0], 5u);
    EXPECT_EQ(dst.marks.list[1], 2u);
    EXPECT_TRUE(dst.marks.isMarked(5));
    EXPECT_FALSE(dst.marks.isMarked(4));

    // A large enough target keeps its arrays; self-assignment is a no-op.
    unsigned int* const before = dst.parent;
    Tree small;
    buildTree(small, {1, 1});
    dst = small;
    EXPECT_EQ(dst.parent, before);
    EXPECT_EQ(dst.numNodes, 2u);
    dst = *&dst;
    EXPECT_EQ(parents(dst), (std::vector<unsigned int>{1, 1}));
}

TEST(Graph, RebuildAdjacencyTypesAndGrowth) {
    // Bodies 0..2, constraints 3..4: constraint 3 couples to 0 and 2, constraint 4 to 1 and 3.
    SkeletonMatrix S;
    fillSkeleton(S, {{0}, {1}, {1, 2}, {0, 2, 3}, {1, 3, 4}});
    Graph g;
    EXPECT_EQ(g.capacity, 1024u);
    g.rebuild(S, 3);
    EXPECT_EQ(g.numNodes, 5u);
    // Body column 2's entry (1, 2) makes no edge.
    EXPECT_EQ(neighbours(g, 0), (std::vector<unsigned int>{3}));
    EXPECT_EQ(neighbours(g, 1), (std::vector<unsigned int>{4}));
    EXPECT_EQ(neighbours(g, 2), (std::vector<unsigned int>{3}));
    EXPECT_EQ(neighbours(g, 3), (std::vector<unsigned int>{0, 2, 4}));
    EXPECT_EQ(neighbours(g, 4), (std::vector<unsigned int>{1, 3}));
    EXPECT_EQ(g.marks.size, 8u);
    for (unsigned int v = 0; v < 5; ++v) {
        EXPECT_EQ(g.nodeInfo[v].flags, v < 3 ? 0x100 : 0x200);
        EXPECT_EQ(g.nodeInfo[v].tag, 0);
        EXPECT_EQ(g.fillCount[v], 0u);
    }
    g.tagNeighbors(3, 7);
    EXPECT_EQ(g.nodeInfo[2].tag, 7);
    EXPECT_EQ(g.nodeInfo[1].tag, 0);

    SkeletonMatrix big;
    std::vector<std::vector<unsigned int>> lists(1500);
    for (unsigned int j = 0; j < 1500; ++j) lists[j] = {j};
    fillSkeleton(big, lists);
    g.rebuild(big, 0);
    EXPECT_EQ(g.capacity, 1536u);

    testing::internal::CaptureStdout();
    g.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Graph, BreadthFirstSearchDiscoversConstraintsAtLastButOneArrival) {
    // Constraint 3 of degree 3 couples bodies 0, 1, 2.
    SkeletonMatrix S;
    fillSkeleton(S, {{0}, {1}, {2}, {0, 1, 2, 3}});
    Graph g;
    g.rebuild(S, 3);
    Tree t;  // no storage yet: the search allocates it
    g.breadthFirstSearch(0, t);
    // From 0, node 3 is reached once (degree 3): not discovered. Root 1 reaches it the second time.
    EXPECT_EQ(parents(t), (std::vector<unsigned int>{0, 1, 3, 1}));
    EXPECT_EQ(rootList(t), (std::vector<unsigned int>{0, 1}));
    EXPECT_EQ(g.nodeInfo[3].tag, 2);
    // Discovering positions: 1 -> 3 (adjacency position 1) and 3 -> 2 (position 5).
    EXPECT_EQ(g.marks.count, 2u);
    EXPECT_TRUE(g.marks.isMarked(1));
    EXPECT_TRUE(g.marks.isMarked(5));
    for (unsigned int v = 0; v < 4; ++v) EXPECT_EQ(g.nodeInfo[v].flags & 0xF, 2) << v;

    // Degree 2: discovered at the first arrival, then discovers the other body.
    SkeletonMatrix S2;
    fillSkeleton(S2, {{0}, {1}, {0, 1, 2}});
    g.rebuild(S2, 2);
    g.breadthFirstSearch(0, t);
    EXPECT_EQ(parents(t), (std::vector<unsigned int>{0, 2, 0}));
    EXPECT_EQ(rootList(t), (std::vector<unsigned int>{0}));

    // Degree 1 would need zero arrivals: the constraint is never discovered and becomes a root of its own.
    SkeletonMatrix S1;
    fillSkeleton(S1, {{0}, {0, 1}});
    g.rebuild(S1, 1);
    g.breadthFirstSearch(0, t);
    EXPECT_EQ(parents(t), (std::vector<unsigned int>{0, 1}));
    EXPECT_EQ(rootList(t), (std::vector<unsigned int>{0, 1}));

    // Tags left by tagNeighbors are where the counters start: with 3's tag preset to 1, the first arrival
    // from 0 is already the second.
    g.rebuild(S, 3);
    g.tagNeighbors(0, 1);
    g.breadthFirstSearch(0, t);
    EXPECT_EQ(parents(t), (std::vector<unsigned int>{0, 3, 3, 0}));
}

TEST(Graph, BreadthFirstSearchExtraRootsAscendingThenPostOrder) {
    SkeletonMatrix S;  // five isolated bodies
    fillSkeleton(S, {{0}, {1}, {2}, {3}, {4}});
    Graph g;
    g.rebuild(S, 5);
    Tree t;
    g.breadthFirstSearch(2, t);
    EXPECT_EQ(rootList(t), (std::vector<unsigned int>{2, 0, 1, 3, 4}));
    EXPECT_EQ(parents(t), (std::vector<unsigned int>{0, 1, 2, 3, 4}));

    // On a connected pattern: the structure pass pushes every root again; the post order is unharmed.
    SkeletonMatrix S2;
    fillSkeleton(S2, {{0}, {1}, {2}, {0, 1, 3}, {2, 3, 4}, {5}});
    g.rebuild(S2, 3);
    g.breadthFirstSearch(1, t);
    EXPECT_EQ(parents(t), (std::vector<unsigned int>{0, 1, 4, 0, 3, 5}));
    t.computeTreeStructure();
    EXPECT_EQ(rootList(t), (std::vector<unsigned int>{1, 0, 5, 0, 1, 5}));
    t.computePostOrder();
    expectPostOrder(t, true);
}

TEST(Tree, SafePostOrderPostponesUnsafeNodes) {
    // Each case: skeleton lists, first constraint, tree parents, expected post order.
    struct Case {
        const char* what;
        std::vector<std::vector<unsigned int>> lists;
        unsigned int firstConstraint;
        std::vector<unsigned int> parents;
        std::vector<unsigned int> expected;
    };
    const Case cases[] = {
        {"unsafe leaf 1, only child of body 0: parent first, the leaf right after it",
         {{0}, {1}},
         1,
         {0, 0},
         {0, 1}},
        {"unsafe leaf 2 (coupled to 1) with a safe sibling 0 under body 1: postponed until 1 is numbered",
         {{0}, {1}, {1, 2}},
         2,
         {1, 1, 1},
         {0, 1, 2}},
        {"constraint 2 coupled to body 0, which is numbered first: safe in its turn",
         {{0}, {1}, {0, 2}},
         2,
         {1, 1, 1},
         {0, 2, 1}},
        {"under body 1, constraint 4 (coupled to 1) is made safe by numbering 1; constraint 3 (coupled to "
         "the "
         "later root 2) stays unnumbered",
         {{0}, {1}, {2}, {2, 3}, {1, 4}},
         3,
         {1, 1, 2, 1, 1},
         {0, 1, 3, kNone, 2}},
        {"every child is visited before the parent, also after a postponed one: 3 (made safe by the earlier "
         "root 0) precedes its parent 1, the postponed 2 follows it",
         {{0}, {1}, {1, 2}, {0, 3}},
         2,
         {0, 1, 1, 1},
         {0, 2, 3, 1}},
        {"numbering body 0 before its only child 2 makes 0's other neighbour 3 safe",
         {{0}, {1}, {0, 2}, {0, 3}},
         2,
         {1, 1, 0, 1},
         {0, 3, 1, 2}},
        {"unsafe root 1 with one child: numbered twice, keeps the second number",
         {{0}, {1}},
         1,
         {1, 1},
         {0, 2}},
        {"unsafe root 2 with two children stays unnumbered", {{0}, {1}, {2}}, 2, {2, 2, 2}, {0, 1, kNone}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SkeletonMatrix S;
        fillSkeleton(S, c.lists);
        Graph g;
        g.rebuild(S, c.firstConstraint);
        Tree t;
        buildTree(t, c.parents);
        t.computeSafePostOrder(g);
        EXPECT_EQ(postOrders(t), c.expected);
    }
}

TEST(Tree, SafePostOrderWithBodiesOnlyIsAPostOrderInListOrder) {
    std::mt19937 rng(5);
    Graph g;
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        const unsigned int n = 1 + rng() % 50;
        Tree t;
        buildTree(t, randomForest(n, rng));
        std::vector<std::vector<unsigned int>> lists(n);
        for (unsigned int j = 0; j < n; ++j) lists[j] = {j};
        SkeletonMatrix S;
        fillSkeleton(S, lists);
        g.rebuild(S, n);
        t.computeSafePostOrder(g);
        expectPostOrder(t, false);
    }
}

TEST(Marks, MarkClearCopy) {
    Marks m;
    m.grow(10);
    m.size = 10;
    m.mark(3);
    m.mark(7);
    m.mark(3);
    EXPECT_EQ(m.count, 2u);
    Marks copy;
    copy.copyFrom(m);
    EXPECT_EQ(copy.markCapacity, 10u);
    EXPECT_TRUE(copy.isMarked(7));
    m.clear();
    EXPECT_EQ(m.count, 0u);
    for (unsigned int i = 0; i < 10; ++i) EXPECT_FALSE(m.isMarked(i));
    EXPECT_EQ(copy.count, 2u);
}
