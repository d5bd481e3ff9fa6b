#include "TreeUpdate.h"

#include <cstdio>

namespace kivTamber {
namespace TreeUpdate {

namespace {

constexpr unsigned int noNode = Tree::noNode;

// findRoot with the first levels unrolled: most searches end within a few steps after compression, so the
// general walk of EliminationTree::findRoot is only entered for longer paths. Same result and same
// compression.
inline unsigned int rootOf(EliminationTree* tree, unsigned int x) {
    unsigned int* const parent = tree->parent;
    unsigned int* const colParent = tree->colParent;
    if (parent[x] == x) return colParent[x];
    const unsigned int a = colParent[x];
    if (parent[a] == a) return colParent[a];  // x already points at the root
    const unsigned int b = colParent[a];
    if (parent[b] == b) {
        colParent[x] = colParent[b];
        return colParent[x];
    }
    const unsigned int c = colParent[b];
    if (parent[c] == c) {
        colParent[x] = colParent[a] = colParent[c];
        return colParent[x];
    }
    const unsigned int root = tree->findRoot(c);
    colParent[x] = colParent[a] = colParent[b] = root;
    return root;
}

}  // namespace

void insertChild(EliminationTree* tree, unsigned int child, unsigned int parent) {
    tree->sibling[child] = tree->firstChild[parent];
    tree->firstChild[parent] = child;
    tree->parent[child] = parent;
}

void removeChild(EliminationTree* tree, unsigned int child, unsigned int parent) {
    if (child == parent) return;
    unsigned int* link = &tree->firstChild[parent];
    while (*link != child) link = &tree->sibling[*link];
    *link = tree->sibling[child];
    tree->parent[child] = child;
    tree->sibling[child] = noNode;
}

void updateParent(EliminationTree* tree, unsigned int node, unsigned int oldParent, unsigned int newParent) {
    if (oldParent == newParent) return;
    removeChild(tree, node, oldParent);
    if (newParent != node) insertChild(tree, node, newParent);
}

void moveChildren(EliminationTree* tree, unsigned int from, unsigned int to) {
    unsigned int* const parent = tree->parent;
    unsigned int* const firstChild = tree->firstChild;
    unsigned int* const sibling = tree->sibling;
    const unsigned int head = firstChild[from];
    if (from == to) {
        firstChild[from] = noNode;
        for (unsigned int c = head; c != noNode; c = sibling[c]) parent[c] = c;
        return;
    }
    if (firstChild[to] == noNode) {
        firstChild[to] = head;
    } else {
        unsigned int last = firstChild[to];
        while (sibling[last] != noNode) last = sibling[last];
        sibling[last] = head;
    }
    firstChild[from] = noNode;
    for (unsigned int c = head; c != noNode; c = sibling[c]) parent[c] = to;
}

unsigned int findFirstBlock(const SparseMatrix<double>& L, const MetaLayout& layout, unsigned int j) {
    const unsigned int begin = layout.colPointers[j];
    const unsigned int end = layout.colPointers[j + 1];
    const unsigned int rows = L.blockSizes[j];
    const unsigned int ld = L.blockStrides[j];
    for (unsigned int e = begin + 1; e < end; ++e) {  // entry `begin` is the diagonal block
        const unsigned int c = layout.rowIndices[e];
        const unsigned int cols = L.blockSizes[c];
        const double* tile = layout.blocks[e];
        for (unsigned int k = 0; k < cols; ++k, tile += ld) {
            for (unsigned int r = 0; r < rows; ++r) {
                if (tile[r] != 0.0) return c;  // true for NaN as well
            }
        }
    }
    return j;
}

void computeTree(EliminationTree* tree, const SparseMatrix<double>& L, const MetaLayout& layout) {
    const unsigned int n = static_cast<unsigned int>(L.numBlockCols);
    for (unsigned int j = 0; j < n; ++j) tree->parent[j] = findFirstBlock(L, layout, j);
}

void computeTree(EliminationTree* tree, const SkeletonMatrix& S, const unsigned int* active) {
    tree->clear();
    unsigned int* const parent = tree->parent;
    unsigned int* const colParent = tree->colParent;
    unsigned int* const rank = tree->rank;
    const unsigned int* const cp = S.colPointers;
    const unsigned int* const rows = S.rowIndices;
    const unsigned int n = static_cast<unsigned int>(S.n);
    for (unsigned int j = 0; j < n; ++j) {
        if (active[j] == 0) continue;
        for (unsigned int e = cp[j]; e < cp[j + 1]; ++e) {
            const unsigned int i = rows[e];
            if (i > j) break;  // only the part i <= j of the list is read
            if (active[i] == 0) continue;
            const unsigned int r1 = rootOf(tree, i);
            const unsigned int r2 = rootOf(tree, j);
            if (r1 == r2) continue;
            if (rank[r1] > rank[r2]) {
                parent[r2] = r1;
                colParent[r2] = r1;
            } else {
                parent[r1] = r2;
                colParent[r1] = r2;
                // Deliberate: the new child gains rank, so roots keep rank 0 and root(i) always goes under j.
                if (rank[r1] == rank[r2]) ++rank[r1];
            }
        }
    }
}

bool validate(EliminationTree* tree, const SparseMatrix<double>& L, const MetaLayout& layout) {
    const unsigned int* const parent = tree->parent;
    bool parentsOk = true;
    for (unsigned int j = 0; j < tree->numNodes; ++j) {
        const unsigned int expected = findFirstBlock(L, layout, j);
        const unsigned int p = parent[j];
        if (p != expected) {
            std::printf("[Validate] Incorrect parent for %u. Parent is %u but should be %u\n", j, p,
                        expected);
            std::printf("           %u has %u as parent.\n", p, parent[p]);
            std::fflush(stdout);
            parentsOk = false;
        }
    }
    bool listsOk = true;
    for (unsigned int p = 0; p < tree->numNodes; ++p) {
        for (unsigned int c = tree->firstChild[p]; c != noNode; c = tree->sibling[c]) {
            if (parent[c] != p) listsOk = false;
        }
    }
    if (!listsOk) {
        tree->print();
        return false;
    }
    return parentsOk;
}

}  // namespace TreeUpdate
}  // namespace kivTamber
