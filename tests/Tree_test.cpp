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

// Skeleton from its lists (rows ascending, diagonal last).
void fillSkeleton(SkeletonMatrix& S, const std::vector<Vec>& lists) {
    unsigned long k = 0;
    for (const Vec& l : lists) k += l.size();
    S.resize(lists.size(), k, false);
    S.colPointers[0] = k = 0;
    for (size_t j = 0; j < lists.size(); ++j) {
        for (unsigned int i : lists[j]) S.rowIndices[k++] = i;
        S.colPointers[j + 1] = static_cast<unsigned int>(k);
    }
}

Vec childList(const Tree& t, unsigned int p) {
    Vec out;
    for (unsigned int c = t.firstChild[p]; c != kNone; c = t.sibling[c]) out.push_back(c);
    return out;
}
const auto postOrders = [](const Tree& t) { return Vec(t.postOrder, t.postOrder + t.numNodes); };
const auto parents = [](const Tree& t) { return Vec(t.parent, t.parent + t.numNodes); };
const auto rootList = [](const Tree& t) { return Vec(t.roots.begin(), t.roots.end()); };
const auto neighbours = [](const Graph& g, unsigned int v) {
    return Vec(g.adjacency.data() + g.adjPointers[v], g.adjacency.data() + g.adjPointers[v + 1]);
};

// Random forest whose parent relation follows a random labelling (a parent may have a smaller index).
Vec randomForest(unsigned int n, std::mt19937& rng) {
    Vec label(n), par(n);
    for (unsigned int i = 0; i < n; ++i) label[i] = i;
    std::shuffle(label.begin(), label.end(), rng);
    for (unsigned int k = 0; k < n; ++k)
        par[label[k]] = k + 1 == n || rng() % 5 == 0 ? label[k] : label[k + 1 + rng() % (n - k - 1)];
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

// The safe post order written as its recursive definition over the tree's links and the graph's adjacency
// (read before the library's explicit-stack walk runs): the reference numbers and final tags.
struct SafeReference {
    const Tree& t;
    const Graph& g;
    unsigned int firstConstraint;
    Vec post = Vec(t.numNodes, kNone);
    std::vector<unsigned short> tag = {};
    unsigned int postponed = 0, retried = 0;  // how often steps 4 (false) and 2 ran: coverage of the cases

    void tagNeighbours(unsigned int v) {
        for (unsigned int w : neighbours(g, v)) tag[w] = 1;
    }
    bool handle(unsigned int v, unsigned int& counter) {
        bool ok = true;
        for (unsigned int c = t.firstChild[v]; c != kNone; c = t.sibling[c]) ok = handle(c, counter) && ok;
        if (!ok) {
            ++retried;
            tagNeighbours(v);
            post[v] = counter++;
            for (unsigned int c = t.firstChild[v]; c != kNone; c = t.sibling[c])
                if (post[c] == kNone) handle(c, counter);
        }
        if (post[v] != kNone) return true;
        if (tag[v] == 0) {
            const unsigned int p = t.parent[v];
            if (t.sibling[t.firstChild[p]] != kNone) return ++postponed, false;
            post[p] = counter;
            post[v] = counter + 1;
            counter += 2;
            tagNeighbours(p);
        } else {
            post[v] = counter++;
        }
        if (v < firstConstraint) tagNeighbours(v);
        return true;
    }
    void run() {
        for (unsigned int v = 0; v < t.numNodes; ++v) tag.push_back(v < firstConstraint ? 1 : 0);
        unsigned int counter = 0;
        for (unsigned int r : rootList(t)) handle(r, counter);
    }
};

}  // namespace

TEST(Tree, PrintFormat) {
    Tree t;
    buildTree(t, {2, 2, 2});
    t.computePostOrder();
    testing::internal::CaptureStdout();
    t.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Sets (3):\nNode\tParent\t1.chld\tSibl.\tPost Ordering\n"
              "0\t2\t-1\t1\t1\n1\t2\t-1\t-1\t0\n2\t2\t0\t-1\t2\n");
}

// Edges join each constraint to its listed blocks (body-body entries make none); node types from
// firstConstraint; storage grows in steps of 512 from 1024.
TEST(Graph, RebuildAdjacencyTypesAndGrowth) {
    SkeletonMatrix S;  // bodies 0..2, constraints 3 (coupled to 0, 2) and 4 (coupled to 1, 3)
    fillSkeleton(S, {{0}, {1}, {1, 2}, {0, 2, 3}, {1, 3, 4}});
    Graph g;
    EXPECT_EQ(g.capacity, 1024u);
    g.rebuild(S, 3);
    const std::vector<Vec> expected = {{3}, {4}, {3}, {0, 2, 4}, {1, 3}};
    for (unsigned int v = 0; v < 5; ++v) {
        EXPECT_EQ(neighbours(g, v), expected[v]) << v;
        EXPECT_TRUE(g.nodeInfo[v].flags == (v < 3 ? 0x100 : 0x200) && g.nodeInfo[v].tag == 0 &&
                    g.fillCount[v] == 0);
    }
    EXPECT_EQ(g.marks.size, 8u);
    std::vector<Vec> diagonal(1500);
    for (unsigned int j = 0; j < 1500; ++j) diagonal[j] = {j};
    fillSkeleton(S, diagonal);
    g.rebuild(S, 0);
    EXPECT_EQ(g.capacity, 1536u);
}

// A constraint of degree d is discovered at its (d − 1)-th arrival, counting from its tag; degree 1 would
// need none, so it stays a root. Unreached nodes start extra searches in ascending order.
TEST(Graph, BreadthFirstSearchDiscoversConstraintsAtLastButOneArrival) {
    struct Case {
        const char* what;
        std::vector<Vec> lists;
        unsigned int firstConstraint, start;
        bool presetTag;  // tag 1 on the neighbours of 0 before the search
        Vec parents, roots;
    };
    // clang-format off
    const Case cases[] = {
        {"degree 3, reached once from 0; the extra root 1 arrives second, 3 then finds 2",
         {{0}, {1}, {2}, {0, 1, 2, 3}}, 3, 0, false, {0, 1, 3, 1}, {0, 1}},
        {"the same with 3's tag preset to 1: the arrival from 0 is the second",
         {{0}, {1}, {2}, {0, 1, 2, 3}}, 3, 0, true, {0, 3, 3, 0}, {0}},
        {"degree 2: discovered at the first arrival", {{0}, {1}, {0, 1, 2}}, 2, 0, false, {0, 2, 0}, {0}},
        {"degree 1: a root of its own", {{0}, {0, 1}}, 1, 0, false, {0, 1}, {0, 1}},
        {"isolated bodies", {{0}, {1}, {2}, {3}, {4}}, 5, 2, false, {0, 1, 2, 3, 4}, {2, 0, 1, 3, 4}},
        {"two components", {{0}, {1}, {2}, {0, 1, 3}, {2, 3, 4}, {5}}, 3, 1, false, {0, 1, 4, 0, 3, 5},
         {1, 0, 5}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SkeletonMatrix S;
        fillSkeleton(S, c.lists);
        Graph g;
        g.rebuild(S, c.firstConstraint);
        if (c.presetTag) g.tagNeighbors(0, 1);
        Tree t;  // no storage yet: the search allocates it
        g.breadthFirstSearch(c.start, t);
        EXPECT_EQ(parents(t), c.parents);
        EXPECT_EQ(rootList(t), c.roots);
        for (unsigned int v = 0; v < c.lists.size(); ++v) EXPECT_EQ(g.nodeInfo[v].flags & 0xF, 2) << v;
        if (&c == cases) {  // 3 counted two arrivals; the marks hold positions 1 (1 -> 3) and 5 (3 -> 2)
            EXPECT_EQ(g.nodeInfo[3].tag, 2);
            EXPECT_TRUE(g.marks.count == 2 && g.marks.isMarked(1) && g.marks.isMarked(5));
        }
        if (&c == cases + 5) {  // computeTreeStructure pushes every root again, ascending
            t.computeTreeStructure();
            EXPECT_EQ(rootList(t), (Vec{1, 0, 5, 0, 1, 5}));
            t.computePostOrder();
            expectPostOrder(t, true);
        }
    }
}

// Hand cases of the postponement rules, then random constraint graphs and random forests (childless roots
// are bodies, the one shape the walk may not be given), some with every root listed twice as a search and
// computeTreeStructure leave them: the numbers and the final tags equal those of the recursive definition;
// with bodies only it is a plain post order.
TEST(Tree, PostOrdersMatchRecursiveDefinitions) {
    struct Case {
        const char* what;
        std::vector<Vec> lists;
        unsigned int firstConstraint;
        Vec parents, expected;
    };
    // clang-format off
    std::vector<Case> cases = {
        {"unsafe only child 1 of body 0: the parent first, the leaf next", {{0}, {1}}, 1, {0, 0}, {0, 1}},
        {"unsafe leaf 2 (coupled to 1), safe sibling 0: waits for its parent 1",
         {{0}, {1}, {1, 2}}, 2, {1, 1, 1}, {0, 1, 2}},
        {"constraint 2 coupled to body 0, numbered first: safe", {{0}, {1}, {0, 2}}, 2, {1, 1, 1}, {0, 2, 1}},
        {"numbering 1 makes its child 4 safe; 3, coupled to the later root 2 only, stays unnumbered",
         {{0}, {1}, {2}, {2, 3}, {1, 4}}, 3, {1, 1, 2, 1, 1}, {0, 1, 3, kNone, 2}},
        {"no early stop: 3 (made safe by root 0) is numbered before its parent 1, the postponed 2 after it",
         {{0}, {1}, {1, 2}, {0, 3}}, 2, {0, 1, 1, 1}, {0, 2, 3, 1}},
        {"numbering body 0 ahead of its only child 2 makes 0's other neighbour 3 safe",
         {{0}, {1}, {0, 2}, {0, 3}}, 2, {1, 1, 0, 1}, {0, 3, 1, 2}},
        {"unsafe root 1 with one child: numbered twice, keeps the second", {{0}, {1}}, 1, {1, 1}, {0, 2}},
        {"unsafe root 2 with two children stays unnumbered", {{0}, {1}, {2}}, 2, {2, 2, 2}, {0, 1, kNone}},
    };
    // clang-format on
    std::mt19937 rng(77);
    for (int round = 0; round < 400; ++round) {  // random cases, expected from the reference
        const unsigned int n = 2 + rng() % 40;
        const unsigned int firstConstraint = round % 8 == 0 ? n : 1 + rng() % n;
        const double density = 0.05 + 0.4 * (rng() % 100) / 100.0;
        std::vector<Vec> lists(n);
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i < j; ++i)
                if (std::uniform_real_distribution<double>(0, 1)(rng) < density) lists[j].push_back(i);
            lists[j].push_back(j);
        }
        Vec par = randomForest(n, rng), hasChild(n, 0);
        for (unsigned int x = 0; x < n; ++x) hasChild[par[x]] |= par[x] != x;
        for (unsigned int x = firstConstraint; x < n; ++x)
            if (par[x] == x && !hasChild[x]) par[x] = rng() % firstConstraint;  // under a body
        cases.push_back({nullptr, lists, firstConstraint, par, {}});
    }
    unsigned int postponed = 0, retried = 0, unnumbered = 0;
    for (size_t k = 0; k < cases.size(); ++k) {
        const Case& c = cases[k];
        SCOPED_TRACE(::testing::Message() << (c.what ? c.what : "random case ") << k);
        SkeletonMatrix S;
        fillSkeleton(S, c.lists);
        Graph g;
        g.rebuild(S, c.firstConstraint);
        Tree t;
        buildTree(t, c.parents);
        for (unsigned int r : !c.what && k % 2 ? rootList(t) : Vec()) t.roots.push_back(r);
        SafeReference ref{t, g, c.firstConstraint};
        ref.run();
        postponed += ref.postponed, retried += ref.retried;
        unnumbered += static_cast<unsigned int>(std::count(ref.post.begin(), ref.post.end(), kNone));
        t.computeSafePostOrder(g);
        ASSERT_EQ(postOrders(t), c.what ? c.expected : ref.post);
        ASSERT_EQ(ref.post, c.what ? c.expected : ref.post) << "the reference";
        for (unsigned int v = 0; v < t.numNodes; ++v)
            ASSERT_EQ(g.nodeInfo[v].tag, ref.tag[v]) << "tag of " << v;
        if (c.firstConstraint == t.numNodes) expectPostOrder(t, false);

        // The plain post order of the same forest: siblings in reverse list order, no mark left behind; the
        // lists and roots are ascending.
        t.computePostOrder();
        expectPostOrder(t, true);
        for (unsigned int i = 0; i < t.marks.markCapacity; ++i) ASSERT_EQ(t.marks.flags[i], 0) << i;
        EXPECT_EQ(t.marks.count, 0u);
        Vec roots;
        for (unsigned int p = 0; p < t.numNodes; ++p) {
            Vec kids;
            for (unsigned int x = 0; x < t.numNodes; ++x)
                if (c.parents[x] == p && x != p) kids.push_back(x);
            ASSERT_EQ(childList(t, p), kids);
            if (c.parents[p] == p) roots.push_back(p);
        }
        for (unsigned int r : !c.what && k % 2 ? roots : Vec()) roots.push_back(r);
        ASSERT_EQ(rootList(t), roots);
    }
    EXPECT_TRUE(postponed > 0 && retried > 0 && unnumbered > 0);
}

// A chain of 2^20 nodes, bodies and constraints alternating (each constraint coupled to the body below it):
// both post orders number it bottom up with an explicit stack, not one native frame per level.
TEST(Tree, PostOrdersOfADeepChain) {
    const unsigned int n = 1u << 20, firstConstraint = n / 2;
    std::vector<Vec> lists(n);
    for (unsigned int j = 0; j < n; ++j)
        lists[j] = j < firstConstraint ? Vec{j} : Vec{j - firstConstraint, j};
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
    for (int safe = 0; safe < 2; ++safe) {
        std::fill(t.postOrder, t.postOrder + n, kNone);
        safe ? t.computeSafePostOrder(g) : t.computePostOrder();
        unsigned int misplaced = 0;
        for (unsigned int k = 0; k < n; ++k) misplaced += t.postOrder[order[k]] != k;
        EXPECT_EQ(misplaced, 0u) << (safe ? "safe" : "plain");
    }
}
