#include "EliminationTree.h"

#include <kiv/ByteAllocator.h>

#include <cstdio>
#include <cstring>

namespace kivTamber {

// ---------------------------------------------------------------------------------------------------------
// Graph

Graph::Graph() : firstConstraint(0), numNodes(0), capacity(0), nodeInfo(nullptr) {
    allocateMemory(1024);
}

Graph::~Graph() {
    releaseMemory();
    marks.releaseMemory();
}

void Graph::allocateMemory(unsigned int n) {
    capacity = n;
    nodeInfo = kiv::allocateArray<NodeInfo>(n);
    for (unsigned int v = 0; v < n; ++v) nodeInfo[v] = NodeInfo{bodyNode, 0};
    adjPointers.resize(static_cast<std::size_t>(n) + 1);
    fillCount.resize(n);
    adjacency.reserve(3 * static_cast<std::size_t>(n));
}

void Graph::releaseMemory() {
    kiv::deallocateArray(nodeInfo, capacity);
    nodeInfo = nullptr;
}

void Graph::rebuild(const SkeletonMatrix& S, unsigned int firstConstraintIndex) {
    const unsigned int n = static_cast<unsigned int>(S.n);
    if (n > capacity) {
        releaseMemory();
        allocateMemory((n + 511u) / 512u * 512u);
    }
    numNodes = n;
    firstConstraint = firstConstraintIndex;
    const unsigned int* cp = S.colPointers;
    const unsigned int* rows = S.rowIndices;
    adjacency.resize(2 * static_cast<std::size_t>(S.numEntries()));

    unsigned int* count = fillCount.data();
    for (unsigned int v = 0; v < n; ++v) {
        nodeInfo[v].flags = v < firstConstraint ? bodyNode : constraintNode;
        nodeInfo[v].tag = 0;
        count[v] = 0;
    }
    // Degrees: one edge per off-diagonal entry of a constraint column (the diagonal is the last entry).
    for (unsigned int j = firstConstraint; j < n; ++j) {
        for (unsigned int e = cp[j]; e + 1 < cp[j + 1]; ++e) {
            ++count[j];
            ++count[rows[e]];
        }
    }
    unsigned int* ptr = adjPointers.data();
    ptr[0] = 0;
    for (unsigned int k = 0; k < n; ++k) ptr[k + 1] = ptr[k] + count[k];

    const unsigned int total = ptr[n];
    if (total > marks.markCapacity) marks.grow(total);
    marks.size = total;

    // Fill each list front to back; the counters return to zero.
    unsigned int* adj = adjacency.data();
    for (unsigned int j = firstConstraint; j < n; ++j) {
        for (unsigned int e = cp[j]; e + 1 < cp[j + 1]; ++e) {
            const unsigned int i = rows[e];
            adj[ptr[j + 1] - count[j]] = i;
            --count[j];
            adj[ptr[i + 1] - count[i]] = j;
            --count[i];
        }
    }
}

void Graph::tagNeighbors(unsigned int v, unsigned short tag) {
    const unsigned int* adj = adjacency.data();
    for (unsigned int e = adjPointers[v]; e < adjPointers[v + 1]; ++e) nodeInfo[adj[e]].tag = tag;
}

void Graph::breadthFirstSearch(unsigned int start, Tree& tree) {
    marks.clear();
    for (unsigned int v = 0; v < numNodes; ++v) nodeInfo[v].flags &= typeMask;

    if (tree.capacity < numNodes) {
        tree.releaseMemory();
        tree.allocateMemory(numNodes);
    }
    tree.numNodes = numNodes;
    tree.clear();
    unsigned int* parent = tree.parent;
    for (unsigned int v = 0; v < numNodes; ++v) parent[v] = Tree::noNode;

    const unsigned int* ptr = adjPointers.data();
    const unsigned int* adj = adjacency.data();
    // First-in first-out queue: every node enters at most once, so a flat array with a moving head serves.
    kiv::VectorPOD<unsigned int> queue;
    queue.reserve(numNodes);

    auto search = [&](unsigned int root) {
        // Kept: computeTreeStructure pushes each root again, so roots lists it twice; both post orders cope.
        tree.roots.push_back(root);
        parent[root] = root;
        queue.clear();
        queue.push_back(root);
        for (std::size_t head = 0; head < queue.size(); ++head) {
            const unsigned int u = queue[head];
            nodeInfo[u].flags = static_cast<unsigned short>((nodeInfo[u].flags & typeMask) | processed);
            for (unsigned int e = ptr[u]; e < ptr[u + 1]; ++e) {
                const unsigned int w = adj[e];
                if ((nodeInfo[w].flags & stateMask) != unvisited) continue;
                if (w >= firstConstraint) {
                    // Reached for the (degree - 1)-th time: only then is one neighbour left for w.
                    const unsigned short reached = ++nodeInfo[w].tag;
                    if (ptr[w + 1] - ptr[w] != static_cast<unsigned int>(reached) + 1u) continue;
                }
                nodeInfo[w].flags = static_cast<unsigned short>((nodeInfo[w].flags & typeMask) | discovered);
                marks.mark(e);
                queue.push_back(w);
                parent[w] = u;
            }
        }
    };

    search(start);
    for (unsigned int k = 0; k < numNodes; ++k) {
        if (parent[k] == Tree::noNode) search(k);
    }
}

// ---------------------------------------------------------------------------------------------------------
// EliminationTree

EliminationTree::EliminationTree() : colParent(nullptr), rank(nullptr) {}

EliminationTree::~EliminationTree() {
    EliminationTree::releaseMemory();
}

void EliminationTree::clear() {
    Tree::clear();
    for (unsigned int x = 0; x < capacity; ++x) colParent[x] = x;
    if (capacity > 0) std::memset(rank, 0, static_cast<std::size_t>(capacity) * sizeof(unsigned int));
}

void EliminationTree::print() {
    std::printf("Sets (%u):\n", numNodes);
    std::fflush(stdout);
    std::printf("Node\tParent\tCol.Prnt\tPostOrder\n");
    std::fflush(stdout);
    for (unsigned int x = 0; x < numNodes; ++x) {
        std::printf("%u\t%u\t%u\t%d\n", x, parent[x], colParent[x], static_cast<int>(postOrder[x]));
        std::fflush(stdout);
    }
    std::printf("Fill ins: %lu\n", static_cast<unsigned long>(fillIns.size()));
    std::fflush(stdout);
}

void EliminationTree::allocateMemory(unsigned int n) {
    colParent = kiv::allocateArray<unsigned int>(n);
    rank = kiv::allocateArray<unsigned int>(n);
    Tree::allocateMemory(n);
}

void EliminationTree::releaseMemory() {
    const unsigned int n = capacity;
    Tree::releaseMemory();
    kiv::deallocateArray(colParent, n);
    kiv::deallocateArray(rank, n);
    colParent = nullptr;
    rank = nullptr;
}

unsigned int EliminationTree::findRoot(unsigned int x) {
    // The result of the recursive definition, computed in two passes so that a long ancestor path (a chain
    // of a million blocks) cannot exhaust the stack: find the root, then point every node on the path at it.
    unsigned int r = x;
    while (parent[r] != r) r = colParent[r];
    const unsigned int root = colParent[r];
    while (parent[x] != x) {
        const unsigned int next = colParent[x];
        colParent[x] = root;  // path compression
        x = next;
    }
    return root;
}

EliminationTree& EliminationTree::operator=(const EliminationTree& other) {
    if (this == &other) return *this;
    Tree::operator=(other);
    const std::size_t bytes = static_cast<std::size_t>(numNodes) * sizeof(unsigned int);
    if (bytes > 0) {
        std::memcpy(colParent, other.colParent, bytes);
        std::memcpy(rank, other.rank, bytes);
    }
    auxList = other.auxList;
    fillIns = other.fillIns;
    return *this;
}

}  // namespace kivTamber
