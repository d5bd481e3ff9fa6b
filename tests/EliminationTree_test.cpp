// EliminationTree and TreeUpdate: the tree of a block pattern against dense symbolic elimination, the rank
// rule, node edits, the parent implied by a numeric factor, validation, print and copy.
#include "EliminationTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "SkeletonMatrix.h"
#include "SparseTypes.h"
#include "TamberUtils.h"
#include "TreeUpdate.h"
#include "testing/Patterns.h"

using namespace kivTamber;
namespace pat = kivTamber::testing;

namespace {

using Vec = std::vector<unsigned int>;
constexpr unsigned int kNone = Tree::noNode;

void fillSkeleton(SkeletonMatrix& S, const std::vector<Vec>& lists) {
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

void sized(EliminationTree& t, unsigned int n) {
    t.allocateMemory(n);
    t.numNodes = n;
}

Vec parents(const Tree& t) {
    return {t.parent, t.parent + t.numNodes};
}

Vec childList(const Tree& t, unsigned int p) {
    Vec out;
    for (unsigned int c = t.firstChild[p]; c != kNone; c = t.sibling[c]) out.push_back(c);
    return out;
}

}  // namespace

TEST(EliminationTree, ComputeTreeMatchesDenseSymbolicElimination) {
    std::mt19937 rng(2024);
    EliminationTree t;
    sized(t, 61);
    for (unsigned long seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const unsigned int n = 1 + static_cast<unsigned int>(seed % 61);
        const double density = 0.5 + static_cast<double>(seed % 7);
        const pat::BlockPattern p = seed % 3 == 0 ? pat::randomSaddlePattern(n, n - n / 3, density, seed)
                                                  : pat::randomPattern(n, density, seed);
        Vec active(n, 1);
        for (unsigned int x = 0; x < n && seed % 2 == 0; ++x) active[x] = rng() % 4 != 0;
        // The skeleton form, where some seeds add entries below the diagonal that must not be read; the
        // reference sees the pattern without the couplings of inactive nodes.
        std::vector<Vec> lists(n);
        pat::BlockPattern reduced(n);
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i <= j; ++i) {
                if (p(i, j)) lists[j].push_back(i);
                if (p(i, j) && i < j && active[i] && active[j]) reduced.couple(i, j);
            }
            for (unsigned int i = j + 1; i < n && seed % 5 == 0; i += 1 + rng() % 3) lists[j].push_back(i);
        }
        const Vec expected = pat::eliminationParent(pat::symbolicFactor(reduced));
        SkeletonMatrix S;
        fillSkeleton(S, lists);
        t.numNodes = n;
        TreeUpdate::computeTree(&t, S, active.data());
        ASSERT_EQ(parents(t), expected);
        for (unsigned int x = 0; x < n; ++x) {
            // Parents above children between active nodes. Roots keep rank 0: with the textbook rule (the
            // surviving root gains rank) a chain 0-1-2-3 would hang node 2 below root 1.
            const unsigned int px = t.parent[x];
            EXPECT_TRUE(px == x ? t.rank[x] == 0 : px > x && active[x] && active[px]) << x;
            // colParent leads to an ancestor (or x itself for a root) and ends at x's root.
            unsigned int a = x, root = x;
            while (a != t.colParent[x] && t.parent[a] != a) a = t.parent[a];
            while (t.parent[root] != root) root = t.parent[root];
            EXPECT_TRUE(a == t.colParent[x] && t.findRoot(x) == root) << x;
        }
    }
}

// A path of a million ancestors (a long chain of blocks) is compressed without recursion: the stack of a
// test thread would not hold one frame per level.
TEST(EliminationTree, LongAncestorPathsAreCompressedWithoutRecursion) {
    const unsigned int n = 1000000;
    EliminationTree t;
    sized(t, n);
    // findRoot on a hand-made chain x → x+1 whose links were never compressed.
    for (unsigned int x = 0; x + 1 < n; ++x) t.parent[x] = t.colParent[x] = x + 1;
    EXPECT_EQ(t.findRoot(0), n - 1);
    EXPECT_EQ(std::count(t.colParent, t.colParent + n, n - 1), long(n));  // every link now leads to the root

    // The same path from a pattern: a tridiagonal chain whose last column couples to every block, so the
    // first entry of that column walks all the way up from block 0.
    std::vector<Vec> lists(n);
    for (unsigned int j = 0; j + 1 < n; ++j) lists[j] = j == 0 ? Vec{0} : Vec{j - 1, j};
    for (unsigned int i = 0; i < n; ++i) lists[n - 1].push_back(i);
    SkeletonMatrix S;
    fillSkeleton(S, lists);
    const Vec active(n, 1);
    TreeUpdate::computeTree(&t, S, active.data());
    unsigned int wrongParents = t.parent[n - 1] != n - 1;
    for (unsigned int x = 0; x + 1 < n; ++x) wrongParents += t.parent[x] != x + 1;
    EXPECT_EQ(wrongParents, 0u);
}

TEST(TreeUpdate, EditsRelinkChildLists) {
    EliminationTree t;
    sized(t, 8);
    for (unsigned int c : {2u, 1u, 0u}) TreeUpdate::insertChild(&t, c, 5);  // each new child leads the list
    for (unsigned int c : {4u, 3u, 7u}) TreeUpdate::insertChild(&t, c, c == 7 ? 5 : 6);
    EXPECT_EQ(childList(t, 5), (Vec{7, 0, 1, 2}));
    EXPECT_EQ(t.parent[7], 5u);
    TreeUpdate::updateParent(&t, 1, 5, 5);  // same parent: nothing
    EXPECT_EQ(childList(t, 5), (Vec{7, 0, 1, 2}));
    TreeUpdate::updateParent(&t, 1, 5, 1);  // detach, stays a root
    EXPECT_EQ(childList(t, 5), (Vec{7, 0, 2}));
    EXPECT_TRUE(t.parent[1] == 1 && t.sibling[1] == kNone);
    TreeUpdate::updateParent(&t, 7, 5, 6);  // head of one list to the head of another
    EXPECT_EQ(childList(t, 5), (Vec{0, 2}));
    EXPECT_EQ(childList(t, 6), (Vec{7, 3, 4}));
    TreeUpdate::removeChild(&t, 3, 3);  // child == parent: nothing
    EXPECT_EQ(t.parent[3], 6u);
    TreeUpdate::moveChildren(&t, 5, 6);  // appended at the tail, in their order
    EXPECT_EQ(childList(t, 6), (Vec{7, 3, 4, 0, 2}));
    EXPECT_TRUE(t.firstChild[5] == kNone && t.parent[0] == 6 && t.parent[2] == 6);
    TreeUpdate::moveChildren(&t, 6, 1);  // into an empty list
    EXPECT_EQ(childList(t, 1), (Vec{7, 3, 4, 0, 2}));
    TreeUpdate::moveChildren(&t, 1, 1);  // all children become roots, the list is emptied
    EXPECT_EQ(t.firstChild[1], kNone);
    for (unsigned int c : {7u, 3u, 4u, 0u, 2u}) EXPECT_EQ(t.parent[c], c);
    EXPECT_EQ(t.sibling[7], 3u);  // sibling links are left as they were
}

namespace {

// Factor with 4 blocks of sizes 3, 2, 1, 3 (double strides 4, 2, 2, 4), stored by block rows of L:
// L(1,0); L(2,1); L(3,0), L(3,2); each row's diagonal last. The layout lists, per block column j of L, the
// diagonal first and then the rows c > j with the tile L(c, j) (container block (j, c)).
struct SmallFactor {
    SparseMatrix<double> L;
    MetaLayout layout;
    double* tile[4][4] = {};  // tile[j][c]: container block (j, c)

    SmallFactor() {
        const unsigned int size[4] = {3, 2, 1, 3};
        const std::vector<Vec> rowsOf = {{0}, {0, 1}, {1, 2}, {0, 2, 3}};
        L.setSize(4, 4, 8, 200);
        for (unsigned int c = 0; c < 4; ++c)
            for (unsigned int j : rowsOf[c]) tile[j][c] = L.acquireBlock(c, j, size[c], size[j]);
        layout.colPointers.push_back(0);
        for (unsigned int j = 0; j < 4; ++j) {
            for (unsigned int c = j; c < 4; ++c)
                if (tile[j][c]) layout.rowIndices.push_back(c), layout.blocks.push_back(tile[j][c]);
            layout.colPointers.push_back(static_cast<unsigned int>(layout.rowIndices.size()));
        }
    }
};

std::string printOf(EliminationTree& t) {
    ::testing::internal::CaptureStdout();
    t.print();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(TreeUpdate, FindFirstBlockTreeOfFactorAndValidate) {
    SmallFactor f;
    ASSERT_EQ(f.L.blockStrides[0], 4u);
    // Stored blocks of exact zeros (and -0.0) make no parent; nor does anything in the diagonal entry.
    f.tile[0][1][0] = -0.0;
    f.tile[0][0][1] = 5.0;
    for (unsigned int j = 0; j < 4; ++j) EXPECT_EQ(TreeUpdate::findFirstBlock(f.L, f.layout, j), j);

    // Padding row 3 of the 3-row tiles of block row 0, and padding column 3 of tile (0, 3), are not read.
    f.tile[0][1][3] = 1.0;
    f.tile[0][3][3 * 4 + 0] = 1.0;
    EXPECT_EQ(TreeUpdate::findFirstBlock(f.L, f.layout, 0), 0u);

    // Value (2, 2) of tile (0, 3), at 2·stride + 2: column k starts at k·blockStrides[0].
    f.tile[0][3][2 * 4 + 2] = 1e-300;
    EXPECT_EQ(TreeUpdate::findFirstBlock(f.L, f.layout, 0), 3u);
    // A NaN in the earlier tile (0, 1) takes precedence.
    f.tile[0][1][1 * 4 + 2] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(TreeUpdate::findFirstBlock(f.L, f.layout, 0), 1u);

    // The tree of a factor: each block's first non-zero block; only the parents are written.
    SmallFactor g;
    g.tile[0][3][0] = 2.0;   // 0 -> 3
    g.tile[1][2][1] = -1.0;  // 1 -> 2
    g.tile[2][3][2] = 0.5;   // 2 -> 3 (column 1 of a 1-row tile of stride 2)
    EliminationTree t;
    sized(t, 4);
    TreeUpdate::computeTree(&t, g.L, g.layout);
    EXPECT_EQ(parents(t), (Vec{3, 2, 3, 3}));
    EXPECT_EQ(t.firstChild[3], kNone);
    auto validate = [&t, &g](const char* message, bool valid) {
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(TreeUpdate::validate(&t, g.L, g.layout), valid);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), message);
    };
    validate("", true);  // no child lists yet: nothing to contradict
    t.computeTreeStructure();
    validate("", true);
    TreeUpdate::updateParent(&t, 1, 2, 3);  // a wrong parent with consistent lists: both lines, no tree print
    validate(
        "[Validate] Incorrect parent for 1. Parent is 3 but should be 2\n           3 has 3 as parent.\n",
        false);
    // A parent that its child list contradicts (0 stays in 3's list): the lines, then the tree once.
    TreeUpdate::updateParent(&t, 1, 3, 2);
    t.fillIns.push_back(9);
    t.parent[0] = 2;
    validate(
        "[Validate] Incorrect parent for 0. Parent is 2 but should be 3\n"
        "           2 has 3 as parent.\n"
        "Sets (4):\nNode\tParent\tCol.Prnt\tPostOrder\n"
        "0\t2\t0\t0\n1\t2\t1\t1\n2\t3\t2\t2\n3\t3\t3\t3\nFill ins: 1\n",
        false);
}

TEST(EliminationTree, PrintAndAssignment) {
    EliminationTree src;
    sized(src, 4);
    src.parent[0] = src.parent[1] = src.colParent[1] = 2;
    src.computeTreeStructure();
    src.computePostOrder();
    src.fillIns.push_back(1), src.fillIns.push_back(2), src.auxList.push_back(42);
    src.marks.mark(3);
    const std::string printed = printOf(src);
    EXPECT_EQ(
        printed,
        "Sets (4):\nNode\tParent\tCol.Prnt\tPostOrder\n0\t2\t0\t1\n1\t2\t2\t0\n2\t2\t2\t2\n3\t3\t3\t3\nFill "
        "ins: 2\n");

    EliminationTree dst;  // too small: grows through releaseMemory and allocateMemory
    sized(dst, 2);
    dst = src;
    dst = *&dst;
    EXPECT_EQ(dst.capacity, 4u);
    EXPECT_EQ(printOf(dst), printed);  // numNodes, parent, colParent, postOrder, fillIns
    auto same = [](const unsigned int* x, const unsigned int* y) { return std::equal(x, x + 4, y); };
    EXPECT_TRUE(same(dst.rank, src.rank) && same(dst.firstChild, src.firstChild) &&
                same(dst.sibling, src.sibling));
    EXPECT_EQ(Vec(dst.roots.begin(), dst.roots.end()), (Vec{2, 3}));
    EXPECT_EQ(Vec(dst.auxList.begin(), dst.auxList.end()), (Vec{42}));
    EXPECT_TRUE(dst.marks.isMarked(3) && dst.marks.count == 1);
}
