// Elimination tree of a block factorization (EliminationTree) and the constraint graph of a block pattern
// with its breadth-first spanning forest (Graph).
#pragma once

#include <kiv/VectorPOD.h>

#include "SkeletonMatrix.h"
#include "Tree.h"

namespace kivTamber {

// Adjacency structure of a block pattern that joins every constraint block (index >= firstConstraint) to the
// smaller-index blocks it couples to. Body/constraint type, search state and a 16-bit tag per node.
//
// The neighbours of v are adjacency[adjPointers[v]] .. adjacency[adjPointers[v+1]-1].
// Storage grows in steps of 512 nodes and is never shrunk. Non-copyable.
class Graph {
public:
    // Per-node record: the flag word (type in bits 8-11, search state in bits 0-3) and the tag word (reach
    // counter of the breadth-first search, safe flag of the safe post order).
    struct NodeInfo {
        unsigned short flags;
        unsigned short tag;
    };

    static constexpr unsigned short bodyNode = 0x100;
    static constexpr unsigned short constraintNode = 0x200;
    static constexpr unsigned short typeMask = 0xF00;
    static constexpr unsigned short stateMask = 0x00F;
    static constexpr unsigned short unvisited = 0;
    static constexpr unsigned short discovered = 1;
    static constexpr unsigned short processed = 2;

    unsigned int firstConstraint;              // nodes at or above it are constraints
    unsigned int numNodes;                     // nodes in use
    unsigned int capacity;                     // allocated length of nodeInfo
    NodeInfo* nodeInfo;                        // [capacity]
    kiv::VectorPOD<unsigned int> adjacency;    // neighbour lists, back to back
    Marks marks;                               // adjacency positions through which the search found a node
    kiv::VectorPOD<unsigned int> adjPointers;  // [numNodes + 1] start of each neighbour list
    kiv::VectorPOD<unsigned int> fillCount;    // [numNodes] per-node counters used while building

    // Zeroes everything, then allocateMemory(1024).
    Graph();
    // Releases nodeInfo and the marks (the vectors free themselves).
    ~Graph();
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    // capacity = n; allocates nodeInfo (n entries of flag 0x100, tag 0; the old array is not freed), sizes
    // adjPointers to n+1 and fillCount to n and reserves 3n adjacency entries. Throws std::bad_alloc.
    void allocateMemory(unsigned int n);

    // Frees nodeInfo and sets it to null.
    void releaseMemory();

    // Builds the graph of skeleton S (lists of blocks i <= j, ascending, diagonal last): an edge (i, j) for
    // every stored off-diagonal entry i of a constraint column j >= firstConstraint. Regrows to S.n rounded
    // up to a multiple of 512 when S.n > capacity. Every node gets its type, state 0 and tag 0. O(n +
    // entries).
    void rebuild(const SkeletonMatrix& S, unsigned int firstConstraint);

    // Sets the tag word of every neighbour of v to `tag`.
    void tagNeighbors(unsigned int v, unsigned short tag);

    // Breadth-first spanning forest of the graph in `tree`: the first tree grows from `start`, every node
    // left undiscovered afterwards starts a further tree, in ascending index order. A constraint node is
    // discovered only through the neighbour that reaches it for the (degree - 1)-th time, counting arrivals
    // in its tag (which starts from whatever rebuild or tagNeighbors left there). Sets tree.numNodes, clears
    // the tree (reallocating it when its capacity is too small), and writes `parent` and `roots` only; child
    // lists and post order are left to computeTreeStructure and a post order (after which `roots` lists
    // every root twice). The discovering adjacency positions are marked in `marks`. start < numNodes.
    void breadthFirstSearch(unsigned int start, Tree& tree);

    // Prints nothing.
    void print() const {}
};

// Elimination tree of a block factorization: node j is block j in the factor's (permuted) order and the
// parent of j is the first block column that receives an update from column j (Liu's elimination tree).
// Adds to Tree the disjoint-set forest used while building it.
class EliminationTree : public Tree {
public:
    unsigned int* colParent;  // [capacity] path-compressed ancestor link; a root points to itself
    unsigned int* rank;       // [capacity] disjoint-set rank
    kiv::VectorPOD<unsigned int> auxList;  // node list of the tree's users; copied by operator=
    kiv::VectorPOD<unsigned int> fillIns;  // fill-in list; print reports its length

    // Empty: null arrays, zero counts.
    EliminationTree();
    // Releases all memory.
    ~EliminationTree() override;
    EliminationTree(const EliminationTree&) = delete;

    // Tree::clear, then colParent[x] = x and rank[x] = 0 for every x below capacity. auxList and fillIns are
    // left unchanged.
    void clear() override;

    // Writes "Sets (<numNodes>):", the header "Node\tParent\tCol.Prnt\tPostOrder", one line per node (index,
    // parent, colParent unsigned; postOrder as signed int) and "Fill ins: <fillIns size>", each line flushed.
    void print() override;

    // Allocates colParent and rank with n entries, then Tree::allocateMemory(n) (which ends in clear).
    // Arrays already held are not freed. Throws std::bad_alloc.
    void allocateMemory(unsigned int n) override;

    // Tree::releaseMemory, then frees colParent and rank and sets them to null.
    void releaseMemory() override;

    // Root of x's set in the disjoint-set forest, defined recursively: colParent[x] when parent[x] == x,
    // otherwise colParent[x] = findRoot(colParent[x]), returned. Full path compression: every node on the
    // path from x ends up pointing straight at the root. Evaluated iteratively (two passes over the path), so
    // the depth of the forest does not bound the usable stack. Precondition: colParent leads from x to a
    // node that is its own parent (true for every tree built by TreeUpdate::computeTree).
    unsigned int findRoot(unsigned int x);

    // Tree::operator=, then numNodes entries of colParent and rank, auxList and fillIns. Self-assignment does
    // nothing.
    EliminationTree& operator=(const EliminationTree& other);
};

}  // namespace kivTamber
