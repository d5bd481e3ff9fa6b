#include "Tree.h"

#include <kiv/ByteAllocator.h>

#include <cstdio>
#include <cstring>

#include "EliminationTree.h"

namespace kivTamber {

// ---------------------------------------------------------------------------------------------------------
// Marks

Marks::Marks() : flags(nullptr), list(nullptr), count(0), size(0), markCapacity(0) {}

Marks::~Marks() {
    releaseMemory();
}

void Marks::grow(unsigned int n) {
    releaseMemory();
    flags = kiv::allocateArray<unsigned char>(n);
    list = kiv::allocateArray<unsigned int>(n);
    std::memset(flags, 0, n);
    count = 0;
    markCapacity = n;
}

void Marks::clear() {
    while (count > 0) flags[list[--count]] = 0;
}

void Marks::copyFrom(const Marks& other) {
    if (other.size > markCapacity) grow(other.size);
    count = other.count;
    size = other.size;
    if (other.size > 0) {
        std::memcpy(flags, other.flags, other.size);
        std::memcpy(list, other.list, other.size * sizeof(unsigned int));
    }
}

void Marks::releaseMemory() {
    kiv::deallocateArray(flags, markCapacity);
    kiv::deallocateArray(list, markCapacity);
    flags = nullptr;
    list = nullptr;
    count = 0;
    markCapacity = 0;
}

// ---------------------------------------------------------------------------------------------------------
// Tree

Tree::Tree()
    : parent(nullptr), firstChild(nullptr), sibling(nullptr), postOrder(nullptr), numNodes(0), capacity(0) {}

Tree::~Tree() {
    // A virtual call here would reach Tree's own version anyway; the derived part has released itself.
    Tree::releaseMemory();
}

void Tree::clear() {
    for (unsigned int x = 0; x < capacity; ++x) {
        parent[x] = x;
        postOrder[x] = x;
        firstChild[x] = noNode;
        sibling[x] = noNode;
    }
    marks.clear();
    roots.clear();
}

void Tree::print() {
    std::printf("Sets (%u):\n", numNodes);
    std::fflush(stdout);
    std::printf("Node\tParent\t1.chld\tSibl.\tPost Ordering\n");
    std::fflush(stdout);
    for (unsigned int x = 0; x < numNodes; ++x) {
        std::printf("%u\t%u\t%d\t%d\t%d\n", x, parent[x], static_cast<int>(firstChild[x]),
                    static_cast<int>(sibling[x]), static_cast<int>(postOrder[x]));
        std::fflush(stdout);
    }
}

void Tree::allocateMemory(unsigned int n) {
    parent = kiv::allocateArray<unsigned int>(n);
    firstChild = kiv::allocateArray<unsigned int>(n);
    sibling = kiv::allocateArray<unsigned int>(n);
    postOrder = kiv::allocateArray<unsigned int>(n);
    if (n > marks.markCapacity) marks.grow(n);
    marks.size = n;
    capacity = n;
    clear();
}

void Tree::releaseMemory() {
    kiv::deallocateArray(parent, capacity);
    kiv::deallocateArray(firstChild, capacity);
    kiv::deallocateArray(sibling, capacity);
    kiv::deallocateArray(postOrder, capacity);
    parent = nullptr;
    firstChild = nullptr;
    sibling = nullptr;
    postOrder = nullptr;
}

void Tree::computeTreeStructure() {
    // Head insertion in descending order yields the same ascending lists as tail appends in ascending order
    // (the lists start empty), without walking to the tail of a long list.
    for (unsigned int x = numNodes; x-- > 0;) {
        const unsigned int p = parent[x];
        if (p != x) {
            sibling[x] = firstChild[p];
            firstChild[p] = x;
        }
    }
    for (unsigned int x = 0; x < numNodes; ++x) {
        if (parent[x] == x) roots.push_back(x);
    }
}

void Tree::computePostOrder() {
    enum : unsigned char { fresh = 0, onStack = 1, finished = 2 };
    unsigned char* state = marks.flags;
    // Every node is pushed at most once (with its parent's whole child list), so the
    // marks' index list, which holds markCapacity >= numNodes entries, serves as the
    // stack and the walk allocates nothing. Its contents are dropped below.
    kiv::VectorPOD<unsigned int> fallback;
    unsigned int* stack = marks.list;
    if (marks.markCapacity < numNodes || stack == nullptr) {
        fallback.resize(numNodes);
        stack = fallback.data();
    }
    unsigned long top = 0;  // number of entries on the stack
    unsigned int counter = 0;
    for (unsigned long r = 0; r < roots.size(); ++r) {
        const unsigned int root = roots[r];
        if (state[root] != fresh || parent[root] != root) continue;
        state[root] = onStack;
        stack[top++] = root;
        while (top > 0) {
            const unsigned int t = stack[top - 1];
            const unsigned int head = firstChild[t];
            if (head != noNode && state[head] != finished) {
                // Push the whole list; its last child ends on top and is numbered first.
                for (unsigned int c = head; c != noNode; c = sibling[c]) {
                    state[c] = onStack;
                    stack[top++] = c;
                }
            } else {
                postOrder[t] = counter++;
                state[t] = finished;
                --top;
            }
        }
    }
    if (marks.markCapacity > 0) std::memset(marks.flags, 0, marks.markCapacity);
    marks.count = 0;
}

namespace {

// One level of the safe post-order walk: the node, the child the walk is at (noNode once the list is done),
// whether the list is being walked for the second time, and the "and" of the children's results so far.
struct SafeFrame {
    unsigned int node;
    unsigned int child;
    bool secondPass;
    bool childrenSafe;
};

// Steps after the children of v are done: returns v's result.
bool finishSafeNode(Tree& t, unsigned int v, unsigned int& counter, Graph& g) {
    if (t.postOrder[v] != Tree::noNode) return true;
    const bool isBody = (g.nodeInfo[v].flags & Graph::typeMask) == Graph::bodyNode;
    if (g.nodeInfo[v].tag == 0) {
        const unsigned int p = t.parent[v];
        if (t.sibling[t.firstChild[p]] != Tree::noNode) return false;  // postponed until p is numbered
        // Only child: the parent precedes its unsafe child.
        t.postOrder[p] = counter;
        t.postOrder[v] = counter + 1;
        counter += 2;
        g.tagNeighbors(p, 1);
        if (isBody) g.tagNeighbors(v, 1);
        return true;
    }
    t.postOrder[v] = counter++;
    if (isBody) g.tagNeighbors(v, 1);
    return true;
}

// dfsHandleNode(root) with an explicit stack instead of one native frame per tree level, so that deep trees
// (the spanning tree of a long chain) do not exhaust the thread's stack. Same visits, same order, same
// results. `stack` is workspace; it grows to the depth of the tree and keeps its storage.
bool safeWalk(Tree& t, unsigned int root, unsigned int& counter, Graph& g, kiv::VectorPOD<SafeFrame>& stack) {
    const unsigned int none = Tree::noNode;
    stack.clear();
    stack.push_back(SafeFrame{root, t.firstChild[root], false, true});
    for (;;) {
        SafeFrame& f = stack.back();
        if (f.child != none) {
            const unsigned int c = f.child;
            if (f.secondPass && t.postOrder[c] != none) {
                f.child = t.sibling[c];  // the second walk only revisits unnumbered children
                continue;
            }
            stack.push_back(SafeFrame{c, t.firstChild[c], false, true});  // descend: f is not used again
            continue;
        }
        if (!f.secondPass && !f.childrenSafe) {
            // A postponed child waits for this node: make its neighbours safe, number it, retry the children.
            g.tagNeighbors(f.node, 1);
            t.postOrder[f.node] = counter++;
            f.secondPass = true;
            f.child = t.firstChild[f.node];
            continue;
        }
        const unsigned int v = f.node;
        stack.pop_back();
        const bool result = finishSafeNode(t, v, counter, g);
        if (stack.empty()) return result;
        SafeFrame& up = stack.back();
        if (!up.secondPass) up.childrenSafe = result && up.childrenSafe;  // every child, no early stop
        up.child = t.sibling[v];
    }
}

}  // namespace

void Tree::computeSafePostOrder(Graph& graph) {
    for (unsigned int x = 0; x < numNodes; ++x) postOrder[x] = noNode;
    for (unsigned int v = 0; v < graph.numNodes; ++v) {
        Graph::NodeInfo& info = graph.nodeInfo[v];
        info.tag = (info.flags & Graph::typeMask) == Graph::bodyNode ? 1 : 0;
    }
    unsigned int counter = 0;
    kiv::VectorPOD<SafeFrame> stack;
    for (unsigned long r = 0; r < roots.size(); ++r) safeWalk(*this, roots[r], counter, graph, stack);
}

bool Tree::dfsHandleNode(unsigned int node, unsigned int& counter, Graph& graph) {
    kiv::VectorPOD<SafeFrame> stack;
    return safeWalk(*this, node, counter, graph, stack);
}

Tree& Tree::operator=(const Tree& other) {
    if (this == &other) return *this;
    if (other.numNodes > capacity) {
        releaseMemory();
        allocateMemory(other.numNodes);
    }
    numNodes = other.numNodes;
    const std::size_t bytes = static_cast<std::size_t>(numNodes) * sizeof(unsigned int);
    if (bytes > 0) {
        std::memcpy(parent, other.parent, bytes);
        std::memcpy(postOrder, other.postOrder, bytes);
        std::memcpy(firstChild, other.firstChild, bytes);
        std::memcpy(sibling, other.sibling, bytes);
    }
    marks.copyFrom(other.marks);
    roots = other.roots;
    return *this;
}

}  // namespace kivTamber
