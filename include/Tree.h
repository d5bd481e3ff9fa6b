// Rooted forests over block indices (Tree) and a cheaply cleared set of marked indices (Marks).
#pragma once

#include <kiv/VectorPOD.h>

namespace kivTamber {

class Graph;

// A set of marked indices below `size` that is cleared in time proportional to the number of marks.
//
// flags[i] != 0 means i is marked; list[0 .. count-1] holds the marked indices in marking order. Users that
// write flags[] directly (the tree's post order keeps node states there) clear them themselves.
// Non-copyable; Tree::operator= copies marks with `copyFrom`.
class Marks {
public:
    unsigned char* flags;       // [markCapacity] non-zero for a marked index
    unsigned int* list;         // [markCapacity] the marked indices in marking order
    unsigned int count;         // entries of list in use
    unsigned int size;          // indices in use
    unsigned int markCapacity;  // allocated length of flags and list

    // Empty: null arrays, all counts zero.
    Marks();
    // Frees both arrays.
    ~Marks();
    Marks(const Marks&) = delete;
    Marks& operator=(const Marks&) = delete;

    // Releases both arrays and allocates new ones of n entries: flags zeroed, count = 0, markCapacity = n.
    // `size` is not changed. Throws std::bad_alloc.
    void grow(unsigned int n);

    // Pops list and zeroes the flag of each popped index: cost O(count).
    void clear();

    // Marks index i (i < markCapacity): sets flags[i] = 1 and appends i to list unless i is already marked.
    void mark(unsigned int i) {
        if (flags[i] == 0) {
            flags[i] = 1;
            list[count++] = i;
        }
    }

    bool isMarked(unsigned int i) const { return flags[i] != 0; }

    // Copies `count`, `size` and `size` entries of flags and list from `other`, growing first when other's
    // size exceeds markCapacity.
    void copyFrom(const Marks& other);

    // Frees both arrays and sets them to null; markCapacity and count become 0.
    void releaseMemory();
};

// Rooted forest with parent, child and sibling links and a post order.
//
// Nodes are 0 .. numNodes-1; every node array has `capacity` entries. A node x is a root exactly when
// parent[x] == x; `noNode` (0xFFFFFFFF) stands for no node. Child lists are singly linked: firstChild[p] is
// the head of p's list, sibling[c] the next child of the same parent, noNode ends a list.
// postOrder[x] is the number of node x in the post order (0 .. numNodes-1).
//
// The owner sets numNodes after allocateMemory. Non-copyable except through operator=.
class Tree {
public:
    static constexpr unsigned int noNode = 0xFFFFFFFFu;

    Marks marks;
    unsigned int* parent;                // [capacity] parent of each node; a root is its own parent
    unsigned int* firstChild;            // [capacity] head of the child list, or noNode
    unsigned int* sibling;               // [capacity] next child of the same parent, or noNode
    unsigned int* postOrder;             // [capacity] post-order number of each node
    unsigned int numNodes;               // nodes in use
    unsigned int capacity;               // allocated length of the node arrays
    kiv::VectorPOD<unsigned int> roots;  // root indices, in the order they were found

    // Empty: null arrays, zero counts.
    Tree();
    // Releases the node arrays and the marks.
    virtual ~Tree();
    Tree(const Tree&) = delete;

    // Every node below `capacity` becomes a childless root with postOrder[x] = x; the marks are cleared and
    // `roots` is emptied.
    virtual void clear();

    // Writes "Sets (<numNodes>):", the header "Node\tParent\t1.chld\tSibl.\tPost Ordering" and one line per
    // node (index and parent unsigned; firstChild, sibling, postOrder as signed int, so no node prints -1),
    // each line flushed.
    virtual void print();

    // Allocates the four node arrays with n entries each (arrays already held are not freed: call
    // releaseMemory first), grows the marks to n when needed, sets marks.size = capacity = n and ends with
    // the virtual clear. numNodes is left to the owner. Throws std::bad_alloc.
    virtual void allocateMemory(unsigned int n);

    // Frees the four node arrays and sets them to null.
    virtual void releaseMemory();

    // Builds the child lists and `roots` from `parent` over nodes 0 .. numNodes-1: a non-root is appended at
    // the tail of its parent's list, a root is pushed onto `roots`, both in ascending node order, so every
    // list and `roots` come out ascending. Precondition: the lists are empty (as `clear` leaves them). O(n).
    void computeTreeStructure();

    // Numbers the nodes in a depth-first post order: every node after all its descendants, the children of a
    // node in reverse list order, the trees in `roots` order (a root listed twice, or a listed node that is
    // not a root, is skipped). Iterative with an explicit stack; marks.flags serves as the node state (0 new,
    // 1 on the stack, 2 finished) and is zeroed over markCapacity at the end. O(n) plus the flag reset.
    void computePostOrder();

    // Post order that keeps a constraint (zero-diagonal) node of `graph` from being numbered before a
    // neighbour that makes it non-singular: unsafe nodes are postponed after their parent, or numbered
    // directly after an only-child parent. Sets every postOrder entry to noNode, the graph tags to 1 (safe)
    // for body and 0 for constraint nodes, then runs dfsHandleNode on each root in `roots` order, ignoring
    // the results: a root whose walk fails stays noNode. Precondition: no unsafe root is childless (its own
    // child list would be read at noNode). Workspace grows to the tree height; no native recursion.
    void computeSafePostOrder(Graph& graph);

    // The step of computeSafePostOrder for the subtree of `node`; `counter` (in/out) is the next post-order
    // number. In order:
    //  1. every child in list order, without early stop, the results combined with "and";
    //  2. if one was false: tag node's neighbours safe, number node, then rerun every child still unnumbered;
    //  3. a numbered node returns true;
    //  4. an unsafe node (tag 0) returns false when its parent p has more than one child; else p and then the
    //     node get the next two numbers (an unsafe root with one child is numbered twice and keeps the
    //     second), p's neighbours are tagged safe, and a body node's own neighbours too; returns true;
    //  5. otherwise the node is numbered, a body node tags its neighbours safe, and it returns true.
    // Evaluated with an explicit stack (workspace of the tree height), in exactly the order of the recursive
    // definition, so that a deep tree does not exhaust the native stack.
    bool dfsHandleNode(unsigned int node, unsigned int& counter, Graph& graph);

    // Copies numNodes and the first numNodes entries of parent, postOrder, firstChild and sibling, then the
    // marks and roots. Grows through the virtual releaseMemory/allocateMemory when the source has more nodes
    // than this capacity. Self-assignment does nothing.
    Tree& operator=(const Tree& other);
};

}  // namespace kivTamber
