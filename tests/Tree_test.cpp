// Tree and Graph: child lists, the two post orders, the breadth-first spanning forest, print.
#include "Tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "EliminationTree.h"
#include "SkeletonMatrix.h"

using namespace kivTamber;

namespace {

using Vec = std::vector<unsigned int>;
constexpr unsigned int kNone = Tree::noNode;

void buildTree(Tree& t, const Vec& parents) {
    t.allocateMemory(static_cast<unsigned int>(parents.size()));
    t.numNodes = static_cast<unsigned int>(parents.size());
    std::copy(parents.begin(), parents.end(), t.parent);
    t.computeTreeStructure();
}

Vec childList(const Tree& t, unsigned int p) {
    Vec out;
    for (unsigned int c = t.firstChild[p]; c != kNone; c = t.sibling[c]) out.push_back(c);
    return out;
}
Vec postOrders(const Tree& t) {
    return {t.postOrder, t.postOrder + t.numNodes};
}
Vec parents(const Tree& t) {
    return {t.parent, t.parent + t.numNodes};
}
Vec rootList(const Tree& t) {
    return {t.roots.begin(), t.roots.end()};
}

// Random forest whose parent relation follows a random labelling (a parent may have a smaller index).
Vec randomForest(unsigned int n, std::mt19937& rng) {
    Vec label(n), par(n);
    for (unsigned int i = 0; i < n; ++i) label[i] = i;
    std::shuffle(label.begin(), label.end(), rng);
    for (unsigned int k = 0; k < n; ++k) {
        const bool root = k + 1 == n || rng() % 5 == 0;
        par[label[k]] = root ? label[k] : label[k + 1 + rng() % (n - k - 1)];
    }
    return par;
}

// postOrder is a permutation of 0..n-1 in which the descendants of every node a take exactly the numbers
// post[a] - size(a) + 1 .. post[a] - 1, and siblings come in reverse list order (or in list order).
void expectPostOrder(const Tree& t, bool reverseSiblings) {
    const unsigned int n = t.numNodes;
    Vec seen(n, 0), size(n, 1);
    for (unsigned int x = 0; x < n; ++x) {
        ASSERT_LT(t.postOrder[x], n);
        ASSERT_EQ(seen[t.postOrder[x]]++, 0u) << "number " << t.postOrder[x] << " twice";
        for (unsigned int a = x; t.parent[a] != a; a = t.parent[a]) ++size[t.parent[a]];
    }
    for (unsigned int y = 0; y < n; ++y) {
        for (unsigned int a = y; t.parent[a] != a;) {
            a = t.parent[a];
            ASSERT_TRUE(t.postOrder[y] < t.postOrder[a] && t.postOrder[y] + size[a] > t.postOrder[a])
                << y << " below " << a;
        }
        const Vec kids = childList(t, y);
        for (size_t k = 1; k < kids.size(); ++k)
            EXPECT_EQ(reverseSiblings, t.postOrder[kids[k]] < t.postOrder[kids[k - 1]]);
    }
}

void fillSkeleton(SkeletonMatrix& S, const std::vector<Vec>& lists) {
    unsigned long entries = 0;
    for (const Vec& l : lists) entries += l.size();
    S.resize(lists.size(), entries, false);
    unsigned int k = 0;
    for (size_t j = 0; j < lists.size(); ++j) {
        S.colPointers[j] = k;
        for (unsigned int i : lists[j]) S.rowIndices[k++] = i;
    }
    S.colPointers[lists.size()] = k;
}

Vec neighbours(const Graph& g, unsigned int v) {
    return Vec(g.adjacency.data() + g.adjPointers[v], g.adjacency.data() + g.adjPointers[v + 1]);
}

}  // namespace

TEST(Tree, StructureAndPostOrderOnRandomForests) {
    std::mt19937 rng(11);
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE(round);
        const unsigned int n = 1 + rng() % 60;
        const Vec par = randomForest(n, rng);
        Tree t;
        buildTree(t, par);
        Vec expectRoots;
        for (unsigned int p = 0; p < n; ++p) {  // lists and roots ascending
            Vec kids;
            for (unsigned int c = 0; c < n; ++c)
                if (par[c] == p && c != p) kids.push_back(c);
            ASSERT_EQ(childList(t, p), kids);
            if (par[p] == p) expectRoots.push_back(p);
        }
        ASSERT_EQ(rootList(t), expectRoots);
        // Every root listed twice (as after a search and computeTreeStructure) changes nothing.
        for (unsigned int r : expectRoots) t.roots.push_back(r);
        t.computePostOrder();
        expectPostOrder(t, true);
        for (unsigned int i = 0; i < t.marks.markCapacity; ++i) ASSERT_EQ(t.marks.flags[i], 0) << i;
        EXPECT_EQ(t.marks.count, 0u);
    }
}

TEST(Tree, PostOrderHandCasesAndDeepChain) {
    Tree t;
    buildTree(t, {1, 2, 2});  // chain
    t.computePostOrder();
    EXPECT_EQ(postOrders(t), (Vec{0, 1, 2}));
    Tree fork;  // node 2 with children 0 and 1: the last child is numbered first
    buildTree(fork, {2, 2, 2});
    fork.computePostOrder();
    EXPECT_EQ(postOrders(fork), (Vec{1, 0, 2}));

    // A chain of 2^20 nodes: an explicit stack, no recursion.
    Vec par(1u << 20);
    for (unsigned int x = 0; x < par.size(); ++x) par[x] = x + 1 < par.size() ? x + 1 : x;
    Tree chain;
    buildTree(chain, par);
    chain.computePostOrder();
    for (unsigned int x = 0; x < par.size(); ++x) ASSERT_EQ(chain.postOrder[x], x);
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

TEST(Graph, RebuildAdjacencyTypesAndGrowth) {
    // Bodies 0..2, constraints 3 (coupled to 0, 2) and 4 (coupled to 1, 3); body column 2's entry makes no
    // edge.
    SkeletonMatrix S;
    fillSkeleton(S, {{0}, {1}, {1, 2}, {0, 2, 3}, {1, 3, 4}});
    Graph g;
    EXPECT_EQ(g.capacity, 1024u);
    g.rebuild(S, 3);
    const std::vector<Vec> expected = {{3}, {4}, {3}, {0, 2, 4}, {1, 3}};
    for (unsigned int v = 0; v < 5; ++v) {
        EXPECT_EQ(neighbours(g, v), expected[v]) << v;
        EXPECT_EQ(g.nodeInfo[v].flags, v < 3 ? 0x100 : 0x200);
        EXPECT_EQ(g.nodeInfo[v].tag, 0);
        EXPECT_EQ(g.fillCount[v], 0u);
    }
    EXPECT_EQ(g.marks.size, 8u);

    std::vector<Vec> diagonal(1500);
    for (unsigned int j = 0; j < 1500; ++j) diagonal[j] = {j};
    fillSkeleton(S, diagonal);
    g.rebuild(S, 0);
    EXPECT_EQ(g.capacity, 1536u);
    testing::internal::CaptureStdout();
    g.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Graph, BreadthFirstSearchDiscoversConstraintsAtLastButOneArrival) {
    SkeletonMatrix S;  // constraint 3 of degree 3 couples bodies 0, 1, 2
    fillSkeleton(S, {{0}, {1}, {2}, {0, 1, 2, 3}});
    Graph g;
    g.rebuild(S, 3);
    Tree t;  // no storage yet: the search allocates it
    g.breadthFirstSearch(0, t);
    // Reached once from 0: not discovered. The extra root 1 reaches it the second time, and 3 finds 2.
    EXPECT_EQ(parents(t), (Vec{0, 1, 3, 1}));
    EXPECT_EQ(rootList(t), (Vec{0, 1}));
    EXPECT_EQ(g.nodeInfo[3].tag, 2);
    EXPECT_EQ(g.marks.count, 2u);  // discovering positions 1 (1 -> 3) and 5 (3 -> 2)
    EXPECT_TRUE(g.marks.isMarked(1) && g.marks.isMarked(5));
    for (unsigned int v = 0; v < 4; ++v) EXPECT_EQ(g.nodeInfo[v].flags & 0xF, 2) << v;

    // The counters start from the tags: with 3's tag preset to 1, the arrival from 0 is the second.
    g.rebuild(S, 3);
    g.tagNeighbors(0, 1);
    g.breadthFirstSearch(0, t);
    EXPECT_EQ(parents(t), (Vec{0, 3, 3, 0}));

    fillSkeleton(S, {{0}, {1}, {0, 1, 2}});  // degree 2: discovered at the first arrival
    g.rebuild(S, 2);
    g.breadthFirstSearch(0, t);
    EXPECT_EQ(parents(t), (Vec{0, 2, 0}));
    EXPECT_EQ(rootList(t), (Vec{0}));

    fillSkeleton(S, {{0}, {0, 1}});  // degree 1 would need zero arrivals: a root of its own
    g.rebuild(S, 1);
    g.breadthFirstSearch(0, t);
    EXPECT_EQ(parents(t), (Vec{0, 1}));
    EXPECT_EQ(rootList(t), (Vec{0, 1}));
}

TEST(Graph, BreadthFirstSearchExtraRootsAscendingThenPostOrder) {
    SkeletonMatrix S;
    fillSkeleton(S, {{0}, {1}, {2}, {3}, {4}});  // isolated bodies
    Graph g;
    g.rebuild(S, 5);
    Tree t;
    g.breadthFirstSearch(2, t);
    EXPECT_EQ(rootList(t), (Vec{2, 0, 1, 3, 4}));
    EXPECT_EQ(parents(t), (Vec{0, 1, 2, 3, 4}));

    fillSkeleton(S, {{0}, {1}, {2}, {0, 1, 3}, {2, 3, 4}, {5}});
    g.rebuild(S, 3);
    g.breadthFirstSearch(1, t);
    EXPECT_EQ(parents(t), (Vec{0, 1, 4, 0, 3, 5}));
    t.computeTreeStructure();  // pushes every root again
    EXPECT_EQ(rootList(t), (Vec{1, 0, 5, 0, 1, 5}));
    t.computePostOrder();
    expectPostOrder(t, true);
}

TEST(Tree, SafePostOrderPostponesUnsafeNodes) {
    struct Case {
        const char* what;
        std::vector<Vec> lists;  // skeleton
        unsigned int firstConstraint;
        Vec parents, expected;
    };
    // clang-format off
    const Case cases[] = {
        {"unsafe leaf 1, only child of body 0: the parent first, the leaf right after it",
         {{0}, {1}}, 1, {0, 0}, {0, 1}},
        {"unsafe leaf 2 (coupled to 1) with a safe sibling 0: postponed until its parent 1 is numbered",
         {{0}, {1}, {1, 2}}, 2, {1, 1, 1}, {0, 1, 2}},
        {"constraint 2 coupled to body 0, numbered before it: safe in its turn",
         {{0}, {1}, {0, 2}}, 2, {1, 1, 1}, {0, 2, 1}},
        {"numbering 1 makes its child 4 safe; 3, coupled to the later root 2 only, stays unnumbered",
         {{0}, {1}, {2}, {2, 3}, {1, 4}}, 3, {1, 1, 2, 1, 1}, {0, 1, 3, kNone, 2}},
        {"no early stop: 3 (made safe by root 0) is numbered before its parent 1, the postponed 2 after it",
         {{0}, {1}, {1, 2}, {0, 3}}, 2, {0, 1, 1, 1}, {0, 2, 3, 1}},
        {"numbering body 0 ahead of its only child 2 makes 0's other neighbour 3 safe",
         {{0}, {1}, {0, 2}, {0, 3}}, 2, {1, 1, 0, 1}, {0, 3, 1, 2}},
        {"unsafe root 1 with one child: numbered twice, keeps the second number",
         {{0}, {1}}, 1, {1, 1}, {0, 2}},
        {"unsafe root 2 with two children stays unnumbered",
         {{0}, {1}, {2}}, 2, {2, 2, 2}, {0, 1, kNone}},
    };
    // clang-format on
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
        std::vector<Vec> diagonal(n);
        for (unsigned int j = 0; j < n; ++j) diagonal[j] = {j};
        SkeletonMatrix S;
        fillSkeleton(S, diagonal);
        g.rebuild(S, n);
        t.computeSafePostOrder(g);
        expectPostOrder(t, false);
    }
}

namespace {

// The safe post order written as its recursive definition, on plain copies of the links: the reference for
// the library's explicit-stack walk.
struct SafeReference {
    Vec parent, firstChild, sibling, post;
    std::vector<unsigned short> tag;
    std::vector<bool> body;
    std::vector<Vec> adjacent;
    unsigned int postponed = 0, retried = 0;  // how often steps 4 (false) and 2 ran: coverage of the cases

    void tagNeighbours(unsigned int v) {
        for (unsigned int w : adjacent[v]) tag[w] = 1;
    }
    bool handle(unsigned int v, unsigned int& counter) {
        bool ok = true;
        for (unsigned int c = firstChild[v]; c != kNone; c = sibling[c]) ok = handle(c, counter) && ok;
        if (!ok) {
            ++retried;
            tagNeighbours(v);
            post[v] = counter++;
            for (unsigned int c = firstChild[v]; c != kNone; c = sibling[c])
                if (post[c] == kNone) handle(c, counter);
        }
        if (post[v] != kNone) return true;
        if (tag[v] == 0) {
            const unsigned int p = parent[v];
            if (sibling[firstChild[p]] != kNone) {
                ++postponed;
                return false;
            }
            post[p] = counter;
            post[v] = counter + 1;
            counter += 2;
            tagNeighbours(p);
            if (body[v]) tagNeighbours(v);
            return true;
        }
        post[v] = counter++;
        if (body[v]) tagNeighbours(v);
        return true;
    }
};

}  // namespace

// Random constraint graphs and random forests (childless roots are bodies, the one shape the walk may not be
// given), some with every root listed twice as a search followed by computeTreeStructure leaves them: the
// numbers and the final tags equal those of the recursive definition.
TEST(Tree, SafePostOrderMatchesRecursiveDefinition) {
    std::mt19937 rng(77);
    unsigned int postponed = 0, retried = 0, unnumbered = 0;
    for (int round = 0; round < 400; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        const unsigned int n = 2 + rng() % 40;
        const unsigned int firstConstraint = 1 + rng() % n;
        const double density = 0.05 + 0.4 * (rng() % 100) / 100.0;
        std::vector<Vec> lists(n);
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i < j; ++i)
                if (std::uniform_real_distribution<double>(0, 1)(rng) < density) lists[j].push_back(i);
            lists[j].push_back(j);
        }
        SkeletonMatrix S;
        fillSkeleton(S, lists);
        Graph g;
        g.rebuild(S, firstConstraint);

        Vec par = randomForest(n, rng);
        Vec hasChild(n, 0);
        for (unsigned int x = 0; x < n; ++x)
            if (par[x] != x) hasChild[par[x]] = 1;
        for (unsigned int x = firstConstraint; x < n; ++x)
            if (par[x] == x && !hasChild[x]) par[x] = rng() % firstConstraint;  // under a body
        Tree t;
        buildTree(t, par);
        if (round % 2 == 1) {
            const Vec once = rootList(t);
            for (unsigned int r : once) t.roots.push_back(r);
        }

        SafeReference ref;
        ref.parent = parents(t);
        ref.firstChild.assign(t.firstChild, t.firstChild + n);
        ref.sibling.assign(t.sibling, t.sibling + n);
        ref.post.assign(n, kNone);
        for (unsigned int v = 0; v < n; ++v) {
            ref.body.push_back(v < firstConstraint);
            ref.tag.push_back(v < firstConstraint ? 1 : 0);
            ref.adjacent.push_back(neighbours(g, v));
        }
        unsigned int counter = 0;
        for (unsigned int r : rootList(t)) ref.handle(r, counter);
        postponed += ref.postponed;
        retried += ref.retried;
        for (unsigned int v = 0; v < n; ++v) unnumbered += ref.post[v] == kNone;

        t.computeSafePostOrder(g);
        ASSERT_EQ(postOrders(t), ref.post);
        for (unsigned int v = 0; v < n; ++v) ASSERT_EQ(g.nodeInfo[v].tag, ref.tag[v]) << "tag of " << v;
    }
    EXPECT_GT(postponed, 0u);
    EXPECT_GT(retried, 0u);
    EXPECT_GT(unnumbered, 0u);
}

// A chain of 2^20 nodes, bodies and constraints alternating (each constraint coupled to the body below it):
// numbered bottom up without one native frame per level.
TEST(Tree, SafePostOrderOfADeepChain) {
    const unsigned int n = 1u << 20, firstConstraint = n / 2;
    std::vector<Vec> lists(n);
    for (unsigned int j = 0; j < n; ++j) {
        if (j >= firstConstraint) lists[j].push_back(j - firstConstraint);
        lists[j].push_back(j);
    }
    SkeletonMatrix S;
    fillSkeleton(S, lists);
    Graph g;
    g.rebuild(S, firstConstraint);
    // Chain order: body 0, constraint n/2, body 1, constraint n/2 + 1, ...; each node's parent is the next.
    Vec order(n), par(n);
    for (unsigned int k = 0; k < n; ++k) order[k] = k % 2 == 0 ? k / 2 : firstConstraint + k / 2;
    for (unsigned int k = 0; k < n; ++k) par[order[k]] = k + 1 < n ? order[k + 1] : order[k];
    Tree t;
    buildTree(t, par);
    t.computeSafePostOrder(g);
    unsigned int misplaced = 0;
    for (unsigned int k = 0; k < n; ++k) misplaced += t.postOrder[order[k]] != k;
    EXPECT_EQ(misplaced, 0u);
}
