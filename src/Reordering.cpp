#include "Reordering.h"

#include <ccolamd.h>
#include <colamd.h>
#include <kiv/ByteAllocator.h>
#include <kiv/VectorPOD.h>
#include <metis.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "ScratchSlots.h"
#include "TreeUpdate.h"

namespace kivTamber {
namespace Reordering {

namespace {

AllocateFunction gAllocate = &std::calloc;
ReleaseFunction gRelease = &std::free;

// An owned array released on every exit.
template <typename T>
class LocalArray {
public:
    explicit LocalArray(unsigned long count) : count_(count), data_(kiv::allocateArray<T>(count)) {}
    ~LocalArray() { kiv::deallocateArray(data_, count_); }
    LocalArray(const LocalArray&) = delete;
    LocalArray& operator=(const LocalArray&) = delete;
    T& operator[](unsigned long i) { return data_[i]; }
    T* data() { return data_; }

private:
    unsigned long count_;
    T* data_;
};

// The int arrays of the pad serve as unsigned arrays (same size and alignment; aliasing is allowed).
unsigned int* unsignedSlot(ScratchPad& pad, unsigned long slot, unsigned long count) {
    return reinterpret_cast<unsigned int*>(pad.getIntArray(slot, count));
}

template <typename V>
void grow(kiv::VectorPOD<V>& v, unsigned long n) {
    if (v.size() < n) v.resize(n);
}

void computeInverse(const unsigned int* forward, unsigned int n, kiv::VectorPOD<unsigned int>& inverse) {
    grow(inverse, n);
    for (unsigned int k = 0; k < n; ++k) inverse[forward[k]] = k;
}

}  // namespace

void setSymamdMemoryFunctions(AllocateFunction allocate, ReleaseFunction release) {
    if (allocate == nullptr || release == nullptr) {
        gAllocate = &std::calloc;
        gRelease = &std::free;
    } else {
        gAllocate = allocate;
        gRelease = release;
    }
}

bool computeSymamdPermutation(const SkeletonMatrix& S, Permutation& P, ScratchPad& pad) {
    const unsigned long n = S.n;
    const unsigned long nnz = n == 0 ? 0 : S.colPointers[n];
    int* p = pad.getIntArray(ScratchSlots::symamdPointers, n + 1);
    int* A = pad.getIntArray(ScratchSlots::symamdIndices,
                             nnz);  // sized for every stored entry, more than the strictly lower part

    // n + 8 entries of capacity in arrays of n + 9: symamd writes n + 1 entries of its output.
    P.reserve(n + 8, 1);
    P.size = n;

    unsigned int* count = P.forward;
    for (unsigned long k = 0; k < n; ++k) count[k] = 0;
    for (unsigned long k = 0; k <= n; ++k) p[k] = 0;

    // Column i of the strictly lower part lists the blocks j > i whose list holds i. Column 0 of S holds only
    // its diagonal and is not visited.
    for (unsigned long j = 1; j < n; ++j) {
        for (unsigned int k = S.colPointers[j]; k + 1 < S.colPointers[j + 1]; ++k) ++count[S.rowIndices[k]];
    }
    p[0] = 0;
    for (unsigned long k = 1; k <= n; ++k) p[k] = p[k - 1] + static_cast<int>(count[k - 1]);
    for (unsigned long k = 0; k < n; ++k) count[k] = 0;
    for (unsigned long j = 1; j < n; ++j) {
        for (unsigned int k = S.colPointers[j]; k + 1 < S.colPointers[j + 1]; ++k) {
            const unsigned int i = S.rowIndices[k];
            A[p[i] + static_cast<int>(count[i])] = static_cast<int>(j);  // ascending j within column i
            ++count[i];
        }
    }

    int stats[COLAMD_STATS];
    const int ok = symamd(static_cast<int>(n), A, p, reinterpret_cast<int*>(P.forward), nullptr, stats,
                          gAllocate, gRelease);
    if (ok) return true;

    std::fputs("symamd/colamd failed\n", stderr);
    P.setIdentity();
    return false;
}

void modifyPermutation(const SkeletonMatrix& S, unsigned long firstConstraint, Permutation& P) {
    const unsigned long n = P.size;
    LocalArray<unsigned char> placed(n);
    for (unsigned long k = 0; k < n; ++k) placed[k] = 0;
    unsigned int* forward = P.forward;
    const unsigned int* inverse = P.inverse;
    for (unsigned long k = 0; k < n; ++k) P.inverse[forward[k]] = static_cast<unsigned int>(k);

    const int threshold = static_cast<int>(firstConstraint);
    for (unsigned long k = 0; k < n; ++k) {
        const unsigned int x = forward[k];
        if (placed[x]) continue;
        if (static_cast<int>(x) < threshold) {
            placed[x] = 1;
            continue;
        }
        const unsigned int begin = S.colPointers[x];
        const unsigned int last = S.colPointers[x + 1] - 1;  // the diagonal
        bool neighbourPlaced = false;
        for (unsigned int e = begin; e < last && !neighbourPlaced; ++e)
            neighbourPlaced = placed[S.rowIndices[e]] != 0;
        if (neighbourPlaced) {
            placed[x] = 1;
            continue;
        }
        // The neighbour that came first in the input order; x's own input position without neighbours.
        int m = static_cast<int>(inverse[x]);
        for (unsigned int e = begin; e < last; ++e) {
            const int t = static_cast<int>(inverse[S.rowIndices[e]]);
            if (e == begin || t < m) m = t;
        }
        forward[k] = forward[m];
        forward[m] = x;
        placed[x] = 1;
    }
}

void computeModifiedAmdPermutation(const SkeletonMatrix&, Permutation&) {
    std::fputs("Not enabled\n", stderr);
    std::fflush(stderr);
    std::abort();
}

void computeTamberPermutation(const SkeletonMatrix&, Permutation&) {
    std::fputs("Not enabled\n", stderr);
    std::fflush(stderr);
    std::abort();
}

bool zeroLeafSwap(const SkeletonMatrix& S, SkeletonMatrix& T, EliminationTree& tree,
                  unsigned long firstConstraint, Permutation& P, ScratchPad& pad) {
    const unsigned long n = S.n;
    const unsigned long entries = n == 0 ? 0 : S.colPointers[n];
    unsigned int* forward = P.forward;
    unsigned int* inverse = P.inverse;

    // 1. Inverse of the incoming order.
    for (unsigned long k = 0; k < n; ++k) inverse[forward[k]] = static_cast<unsigned int>(k);

    // 2-4. T sized (kept when large enough), its counts and column pointers cleared.
    T.resize(n, entries, S.blockWords != nullptr);
    unsigned int* count = unsignedSlot(pad, ScratchSlots::zeroLeafCounts, n);
    unsigned int* cp = T.colPointers;
    if (entries > 0) std::memset(T.fillFlags, 0, entries);
    for (unsigned long k = 0; k < n; ++k) count[k] = 0;
    for (unsigned long k = 0; k <= n; ++k) cp[k] = 0;

    // 5. Count: entry (r, b) of S becomes (min(t, j), max(t, j)) of T with j = inverse[b], t = inverse[r].
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned int b = forward[j];
        for (unsigned int e = S.colPointers[b]; e < S.colPointers[b + 1]; ++e) {
            const unsigned long t = inverse[S.rowIndices[e]];
            ++count[t > j ? t : j];
        }
    }

    // 6. Column pointers.
    for (unsigned long k = 0; k < n; ++k) {
        cp[k + 1] = cp[k] + count[k];
        count[k] = 0;
    }

    // 7. Fill. Entries that land in a later column arrive in ascending j; those that land in the column being
    // filled are sifted into place by insertion.
    unsigned int* rows = T.rowIndices;
    unsigned char* flags = T.fillFlags;
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned int b = forward[j];
        for (unsigned int e = S.colPointers[b]; e < S.colPointers[b + 1]; ++e) {
            const unsigned long t = inverse[S.rowIndices[e]];
            const unsigned long c = t > j ? t : j;
            unsigned long at = cp[c] + count[c]++;
            rows[at] = static_cast<unsigned int>(t < j ? t : j);
            flags[at] = j < t ? 1 : 0;  // swapped across the diagonal
            if (c == j) {
                while (at > cp[c] && rows[at - 1] > rows[at]) {
                    const unsigned int r = rows[at - 1];
                    rows[at - 1] = rows[at];
                    rows[at] = r;
                    const unsigned char f = flags[at - 1];
                    flags[at - 1] = flags[at];
                    flags[at] = f;
                    --at;
                }
            }
        }
    }

    // 8. Per-block words travel with their blocks.
    if (S.blockWords) {
        for (unsigned long k = 0; k < n; ++k) T.blockWords[k] = S.blockWords[forward[k]];
    }

    // 9. Elimination tree of T (Liu's algorithm with every node active), child lists and post order.
    tree.clear();
    if (tree.capacity < n) {
        tree.releaseMemory();
        tree.allocateMemory(static_cast<unsigned int>(n));
    }
    tree.numNodes = static_cast<unsigned int>(n);
    tree.clear();
    tree.numNodes = static_cast<unsigned int>(n);
    for (unsigned long k = 0; k < n; ++k) count[k] = 1;  // every node active
    TreeUpdate::computeTree(&tree, T, count);
    tree.computeTreeStructure();
    tree.computePostOrder();

    // 10. Classify: 1 = body not yet emitted, 2 = constraint not yet emitted, 4 = emitted.
    LocalArray<unsigned int> pos(n);
    LocalArray<unsigned char> state(n);
    const int threshold = static_cast<int>(firstConstraint);
    for (unsigned long k = 0; k < n; ++k) {
        pos[tree.postOrder[k]] = static_cast<unsigned int>(k);
        state[k] = static_cast<int>(forward[k]) >= threshold ? 2 : 1;
    }

    // 11. Emit in the incoming order; a body pulls its zero leaves (still unemitted children) right after it.
    kiv::VectorPOD<unsigned int> order;
    order.reserve(n);
    for (unsigned long k = 0; k < n; ++k) {
        if (state[k] == 2) {
            if (tree.firstChild[k] != Tree::noNode) {  // it has been updated: stays where it is
                order.push_back(static_cast<unsigned int>(k));
                state[k] = 4;
            }
        } else if (state[k] == 1) {
            order.push_back(static_cast<unsigned int>(k));
            state[k] = 4;
            for (unsigned int c = tree.firstChild[k]; c != Tree::noNode; c = tree.sibling[c]) {
                if (state[c] != 4) {
                    order.push_back(c);
                    state[c] = 4;
                }
            }
        }
    }

    // 12. Finish.
    if (order.size() == n) {
        for (unsigned long i = 0; i < n; ++i) inverse[i] = forward[order[i]];
        if (n > 0) std::memcpy(forward, inverse, n * sizeof(unsigned int));
        return true;
    }
    P.setIdentity();
    return false;
}

// ---------------------------------------------------------------------------------------------------------
// Centroid order of a body forest
// ---------------------------------------------------------------------------------------------------------

namespace {

// Centroid decomposition of a forest given as adjacency lists (start/adjacent), appending the vertices to
// `order` parts first, centroid last. Iterative over an explicit stack of component roots, so that deep
// forests cannot overflow the call stack; `removed` marks vertices already placed.
class CentroidDecomposition {
public:
    CentroidDecomposition(unsigned int n, const std::vector<unsigned int>& start,
                          const std::vector<unsigned int>& adjacent)
        : start_(start), adjacent_(adjacent), removed_(n, 0), parent_(n), size_(n), stamp_(n, 0) {}

    void run(std::vector<unsigned int>& order) {
        const unsigned int n = static_cast<unsigned int>(removed_.size());
        // Frame: a component root, and whether its centroid's parts have been pushed (then it is emitted).
        struct Frame {
            unsigned int root;
            unsigned int centroid;
        };
        std::vector<Frame> stack;
        for (unsigned int v = 0; v < n; ++v) {
            if (removed_[v]) continue;  // placed with an earlier component
            stack.push_back({v, noVertex});
            while (!stack.empty()) {
                Frame& top = stack.back();
                if (top.centroid != noVertex) {  // its parts are placed: the centroid follows them
                    order.push_back(top.centroid);
                    stack.pop_back();
                    continue;
                }
                const unsigned int c = centroidOf(top.root);
                top.centroid = c;
                removed_[c] = 1;
                // Parts in decreasing neighbour order on the stack, so that they are placed in increasing
                // order.
                for (unsigned int e = start_[c + 1]; e-- > start_[c];) {
                    const unsigned int w = adjacent_[e];
                    if (!removed_[w]) stack.push_back({w, noVertex});
                }
            }
        }
    }

private:
    static constexpr unsigned int noVertex = ~0u;

    // Breadth-first search of root's component among the vertices not removed, subtree sizes from the
    // back of the queue, then the vertex whose largest part (a child subtree or everything above it) is
    // smallest; the first such vertex in search order.
    unsigned int centroidOf(unsigned int root) {
        ++generation_;
        queue_.clear();
        queue_.push_back(root);
        parent_[root] = noVertex;
        stamp_[root] = generation_;
        for (std::size_t h = 0; h < queue_.size(); ++h) {
            const unsigned int v = queue_[h];
            for (unsigned int e = start_[v]; e < start_[v + 1]; ++e) {
                const unsigned int w = adjacent_[e];
                if (removed_[w] || stamp_[w] == generation_) continue;
                stamp_[w] = generation_;
                parent_[w] = v;
                queue_.push_back(w);
            }
        }
        const unsigned int total = static_cast<unsigned int>(queue_.size());
        for (unsigned int v : queue_) size_[v] = 1;
        for (std::size_t h = queue_.size(); h-- > 1;) {
            const unsigned int v = queue_[h];
            size_[parent_[v]] += size_[v];
        }
        unsigned int best = root, bestPart = total;
        for (std::size_t h = 0; h < queue_.size(); ++h) {
            const unsigned int v = queue_[h];
            unsigned int part = total - size_[v];  // everything outside v's subtree
            for (unsigned int e = start_[v]; e < start_[v + 1]; ++e) {
                const unsigned int w = adjacent_[e];
                if (!removed_[w] && parent_[w] == v && stamp_[w] == generation_ && w != root)
                    part = std::max(part, size_[w]);
            }
            if (part < bestPart) {
                bestPart = part;
                best = v;
            }
        }
        return best;
    }

    const std::vector<unsigned int>& start_;
    const std::vector<unsigned int>& adjacent_;
    std::vector<unsigned char> removed_;
    std::vector<unsigned int> parent_, size_, stamp_, queue_;
    unsigned int generation_ = 0;
};

// Union-find root with path halving.
unsigned int findSet(std::vector<unsigned int>& up, unsigned int v) {
    while (up[v] != v) {
        up[v] = up[up[v]];
        v = up[v];
    }
    return v;
}

}  // namespace

bool centroidOrder(unsigned int n, unsigned int firstConstraint, const unsigned int* colPointers,
                   const unsigned int* rowIndices, unsigned int* forward) {
    const unsigned int numBodies = firstConstraint;
    if (n == 0) return true;
    if (numBodies == 0) return false;
    // Body edges from the constraints, each pair once; a cycle (or a constraint on three bodies) fails.
    std::vector<std::pair<unsigned int, unsigned int>> edges;
    std::vector<unsigned int> up(numBodies);
    for (unsigned int v = 0; v < numBodies; ++v) up[v] = v;
    for (unsigned int c = firstConstraint; c < n; ++c) {
        unsigned int bodies[2], count = 0;
        for (unsigned int e = colPointers[c]; e < colPointers[c + 1]; ++e) {
            const unsigned int b = rowIndices[e];
            if (b >= numBodies) continue;
            if (count == 2) return false;
            bodies[count++] = b;
        }
        if (count < 2 || bodies[0] == bodies[1]) continue;
        edges.emplace_back(std::min(bodies[0], bodies[1]), std::max(bodies[0], bodies[1]));
    }
    std::sort(edges.begin(), edges.end());
    edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
    for (const auto& edge : edges) {
        const unsigned int a = findSet(up, edge.first), b = findSet(up, edge.second);
        if (a == b) return false;
        up[a] = b;
    }

    std::vector<unsigned int> start(numBodies + 1, 0), adjacent(2 * edges.size());
    for (const auto& edge : edges) {
        ++start[edge.first + 1];
        ++start[edge.second + 1];
    }
    for (unsigned int v = 0; v < numBodies; ++v) start[v + 1] += start[v];
    std::vector<unsigned int> fillAt(start.begin(), start.end() - 1);
    for (const auto& edge : edges) {  // ascending pairs: every list ends up ascending
        adjacent[fillAt[edge.first]++] = edge.second;
        adjacent[fillAt[edge.second]++] = edge.first;
    }
    for (unsigned int v = 0; v < numBodies; ++v)
        std::sort(adjacent.begin() + start[v], adjacent.begin() + start[v + 1]);

    std::vector<unsigned int> bodyOrder;
    bodyOrder.reserve(numBodies);
    CentroidDecomposition(numBodies, start, adjacent).run(bodyOrder);

    // Constraints after the last of their bodies, in increasing index.
    std::vector<unsigned int> position(numBodies);
    for (unsigned int k = 0; k < numBodies; ++k) position[bodyOrder[k]] = k;
    std::vector<unsigned int> head(numBodies + 1, 0), list(n - firstConstraint);
    for (unsigned int c = firstConstraint; c < n; ++c) {
        unsigned int last = 0;
        for (unsigned int e = colPointers[c]; e < colPointers[c + 1]; ++e)
            if (rowIndices[e] < numBodies) last = std::max(last, position[rowIndices[e]]);
        ++head[last + 1];
    }
    for (unsigned int k = 0; k < numBodies; ++k) head[k + 1] += head[k];
    for (unsigned int c = firstConstraint; c < n; ++c) {
        unsigned int last = 0;
        for (unsigned int e = colPointers[c]; e < colPointers[c + 1]; ++e)
            if (rowIndices[e] < numBodies) last = std::max(last, position[rowIndices[e]]);
        list[head[last]++] = c;
    }
    unsigned int k = 0, next = 0;
    for (unsigned int b = 0; b < numBodies; ++b) {
        forward[k++] = bodyOrder[b];
        const unsigned int end = head[b];  // after the fill pass head[b] is the end of b's list
        while (next < end) forward[k++] = list[next++];
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// The block graph, the safe-order rule and its repair.
// ---------------------------------------------------------------------------------------------------------

void buildBlockGraph(unsigned int n, unsigned int firstConstraint, const unsigned int* colPointers,
                     const unsigned int* rowIndices, BlockGraph& g, kiv::VectorPOD<unsigned int>& fill) {
    g.n = n;
    g.firstConstraint = firstConstraint;
    g.ptr.resize(n + 1);
    grow(fill, n);
    unsigned int* count = fill.data();
    for (unsigned int v = 0; v < n; ++v) count[v] = 0;
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = colPointers[j]; e + 1 < colPointers[j + 1]; ++e) {
            ++count[j];
            ++count[rowIndices[e]];
        }
    }
    g.ptr[0] = 0;
    for (unsigned int v = 0; v < n; ++v) g.ptr[v + 1] = g.ptr[v] + count[v];
    g.adj.resize(n == 0 ? 0 : g.ptr[n]);
    for (unsigned int v = 0; v < n; ++v) count[v] = g.ptr[v];
    // Column j ascending: j's smaller neighbours are written at its own turn, its larger ones afterwards, in
    // ascending order, so every list comes out ascending.
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = colPointers[j]; e + 1 < colPointers[j + 1]; ++e) {
            const unsigned int i = rowIndices[e];
            g.adj[count[j]++] = i;
            g.adj[count[i]++] = j;
        }
    }
}

unsigned int lastBody(const BlockGraph& g, unsigned int c, const unsigned int* inverse) {
    unsigned int best = kNoBlock;
    for (const unsigned int* u = g.begin(c); u != g.end(c) && g.isBody(*u); ++u) {
        if (best == kNoBlock || inverse[*u] > inverse[best]) best = *u;
    }
    return best;
}

unsigned int lastOtherConstraint(const BlockGraph& g, unsigned int b, unsigned int c,
                                 const unsigned int* inverse) {
    unsigned int best = kNoBlock;
    for (const unsigned int* u = g.end(b); u != g.begin(b) && !g.isBody(*(u - 1));) {
        --u;
        if (*u != c && (best == kNoBlock || inverse[*u] > inverse[best])) best = *u;
    }
    return best;
}

bool satisfiesRule(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                   unsigned int k, bool allowR) {
    const unsigned int c = forward[k];
    if (inverse[lastBody(g, c, inverse)] < k) return true;  // S
    if (!allowR || k == 0) return false;
    const unsigned int b = forward[k - 1];
    if (!g.isBody(b) || !g.adjacent(c, b)) return false;
    const unsigned int other = lastOtherConstraint(g, b, c, inverse);
    return other == kNoBlock || inverse[other] < k;  // R
}

unsigned int firstRuleOffence(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                              bool allowR) {
    for (unsigned int k = 0; k < g.n; ++k) {
        if (!g.isBody(forward[k]) && !satisfiesRule(g, forward, inverse, k, allowR)) return k;
    }
    return g.n;
}

unsigned long repairRule(const BlockGraph& g, kiv::VectorPOD<unsigned int>& order, RepairWork& w,
                         bool allowR) {
    const unsigned int n = g.n;
    unsigned long moved = 0;
    grow(w.anchor, n);
    grow(w.sorted, n);
    grow(w.sortedAnchor, n);
    grow(w.start, n + 1);
    w.isOffender.resize(n);
    unsigned char* isOffender = w.isOffender.data();
    for (unsigned int v = 0; v < n; ++v) isOffender[v] = 0;
    for (;;) {
        computeInverse(order.data(), n, w.inverse);
        const unsigned int* inverse = w.inverse.data();
        w.offenders.clear();
        for (unsigned int k = 0; k < n; ++k) {
            if (!g.isBody(order[k]) && !satisfiesRule(g, order.data(), inverse, k, allowR)) {
                w.anchor[w.offenders.size()] = inverse[lastBody(g, order[k], inverse)];
                w.offenders.push_back(order[k]);
            }
        }
        const unsigned long count = w.offenders.size();
        if (count == 0) return moved;
        moved += count;
        // Offenders by anchor position (counting sort, stable: equal anchors keep their current order).
        unsigned int* start = w.start.data();
        for (unsigned int k = 0; k <= n; ++k) start[k] = 0;
        for (unsigned long q = 0; q < count; ++q) ++start[w.anchor[q] + 1];
        for (unsigned int k = 0; k < n; ++k) start[k + 1] += start[k];
        for (unsigned long q = 0; q < count; ++q) {
            const unsigned int at = start[w.anchor[q]]++;
            w.sorted[at] = w.offenders[q];
            w.sortedAnchor[at] = w.anchor[q];
            isOffender[w.offenders[q]] = 1;
        }
        // Rebuild: before each body (and at the end) come the offenders anchored at an earlier body, behind
        // the constraints that already follow that body.
        w.rebuilt.resize(n);
        unsigned long next = 0, out = 0;
        for (unsigned int k = 0; k < n; ++k) {
            const unsigned int v = order[k];
            if (isOffender[v]) continue;
            if (g.isBody(v)) {
                while (next < count && w.sortedAnchor[next] < k) w.rebuilt[out++] = w.sorted[next++];
            }
            w.rebuilt[out++] = v;
        }
        while (next < count) w.rebuilt[out++] = w.sorted[next++];
        for (unsigned long q = 0; q < count; ++q) isOffender[w.offenders[q]] = 0;
        order.swap(w.rebuilt);
    }
}

// ---------------------------------------------------------------------------------------------------------
// The standard ordering's steps and the symamd path.
// ---------------------------------------------------------------------------------------------------------

struct SafeOrderWork::Arrays {
    kiv::VectorPOD<unsigned int> work1, work2, work3, work4, work5, saved;
    kiv::VectorPOD<unsigned char> flags;
    kiv::VectorPOD<int> ip, iA, iperm, imember;
    kiv::VectorPOD<idx_t> xadj, adjncy, vwgt, mperm, miperm;
};

SafeOrderWork::SafeOrderWork() : arrays(new Arrays) {}

SafeOrderWork::~SafeOrderWork() {
    delete arrays;
}

unsigned int peelAndMinimumDegree(const BlockGraph& g, bool peel, kiv::VectorPOD<unsigned int>& order,
                                  SafeOrderWork& work, unsigned int& remainingBodies, bool& fallback) {
    SafeOrderWork::Arrays& A = *work.arrays;
    auto& flags = A.flags;
    auto& work1 = A.work1;
    auto& work2 = A.work2;
    auto& work3 = A.work3;
    auto& work4 = A.work4;
    auto& ip = A.ip;
    auto& iA = A.iA;
    auto& iperm = A.iperm;
    auto& imember = A.imember;
    const unsigned int n = g.n;
    remainingBodies = 0;
    fallback = false;
    order.resize(n);
    flags.resize(n);
    unsigned char* placed = flags.data();
    for (unsigned int v = 0; v < n; ++v) placed[v] = 0;
    unsigned int pos = 0;

    // 1. Peel. A body with at most one unplaced neighbour is eliminated without fill. When that neighbour is
    // a constraint with at most one other unplaced neighbour, the constraint follows at once (rule R: it is
    // the body's last constraint, and the body's others were placed the same way), again without fill;
    // otherwise the body goes alone and the constraint stays for step 2. No step makes fill, so the unplaced
    // part of the graph stays the elimination graph and the degrees stay exact.
    if (peel) {
        grow(work1, n);
        unsigned int* degree = work1.data();  // unplaced neighbours
        kiv::VectorPOD<unsigned int>& stack = work2;
        stack.clear();
        for (unsigned int v = n; v-- > 0;) {
            degree[v] = static_cast<unsigned int>(g.end(v) - g.begin(v));
            if (g.isBody(v) && degree[v] <= 1) stack.push_back(v);  // popped in ascending order
        }
        auto release = [&](unsigned int v) {
            if (--degree[v] == 1 && g.isBody(v)) stack.push_back(v);
        };
        auto firstUnplaced = [&](unsigned int v, unsigned int skip) {
            for (const unsigned int* u = g.begin(v); u != g.end(v); ++u) {
                if (!placed[*u] && *u != skip) return *u;
            }
            return kNoBlock;
        };
        while (!stack.empty()) {
            const unsigned int b = stack.back();
            stack.pop_back();
            if (placed[b]) continue;
            placed[b] = 1;
            order[pos++] = b;
            const unsigned int w = firstUnplaced(b, kNoBlock);
            if (w == kNoBlock) continue;
            if (g.isBody(w) || degree[w] > 2) {  // b alone; w loses a neighbour
                release(w);
                continue;
            }
            placed[w] = 1;  // the constraint right after its body (R)
            order[pos++] = w;
            const unsigned int x = firstUnplaced(w, b);
            if (x != kNoBlock) release(x);
        }
    }
    const unsigned int peeled = pos;

    // 2. The rest, bodies first (constraint sets 0 and 1 of csymamd).
    const unsigned int m = n - pos;
    if (m == 0) return peeled;
    grow(work3, n);
    unsigned int* local = work3.data();
    kiv::VectorPOD<unsigned int>& rest = work4;
    rest.clear();
    for (unsigned int v = 0; v < n; ++v) {
        if (placed[v]) continue;
        local[v] = static_cast<unsigned int>(rest.size());
        rest.push_back(v);
        if (g.isBody(v)) ++remainingBodies;
    }
    // Strictly lower part of the remaining graph: column l lists the remaining neighbours of larger index.
    ip.resize(m + 1);
    unsigned long lower = 0;
    for (unsigned int l = 0; l < m; ++l) {
        const unsigned int v = rest[l];
        for (const unsigned int* u = g.begin(v); u != g.end(v); ++u) lower += (*u > v && !placed[*u]) ? 1 : 0;
    }
    iA.resize(lower == 0 ? 1 : lower);
    imember.resize(m);
    iperm.resize(m + 1);
    ip[0] = 0;
    unsigned long at = 0;
    for (unsigned int l = 0; l < m; ++l) {
        const unsigned int v = rest[l];
        for (const unsigned int* u = g.begin(v); u != g.end(v); ++u) {
            if (*u > v && !placed[*u]) iA[at++] = static_cast<int>(local[*u]);
        }
        ip[l + 1] = static_cast<int>(at);
        imember[l] = g.isBody(v) ? 0 : 1;
    }
    int stats[CCOLAMD_STATS];
    const int ok = csymamd(static_cast<int>(m), iA.data(), ip.data(), iperm.data(), nullptr, stats,
                           &std::calloc, &std::free, imember.data(), -1);
    if (ok) {
        for (unsigned int k = 0; k < m; ++k) order[pos + k] = rest[static_cast<unsigned int>(iperm[k])];
    } else {
        // Out of memory in csymamd: the remainder in the user's numbering, bodies first (rule S).
        fallback = true;
        for (unsigned int k = 0; k < m; ++k) order[pos + k] = rest[k];
    }
    return peeled;
}

bool constraintNestedDissection(const BlockGraph& g, const unsigned int* sizes,
                                const kiv::VectorPOD<unsigned int>& order, unsigned int placedCount,
                                unsigned int remainingBodies, kiv::VectorPOD<unsigned int>& candidate,
                                SafeOrderWork& work) {
    SafeOrderWork::Arrays& A = *work.arrays;
    auto& work1 = A.work1;
    auto& work2 = A.work2;
    auto& work3 = A.work3;
    auto& work4 = A.work4;
    auto& work5 = A.work5;
    auto& saved = A.saved;
    auto& xadj = A.xadj;
    auto& adjncy = A.adjncy;
    auto& vwgt = A.vwgt;
    auto& mperm = A.mperm;
    auto& miperm = A.miperm;
    const unsigned int n = g.n;
    const unsigned char* placed = A.flags.data();
    candidate.resize(n);
    for (unsigned int k = 0; k < placedCount + remainingBodies; ++k) candidate[k] = order[k];

    // Groups of remaining bodies coupled among themselves (union-find); eliminating a group joins all the
    // constraints that touch it.
    grow(work1, n);
    unsigned int* root = work1.data();
    auto find = [root](unsigned int v) {
        unsigned int r = v;
        while (root[r] != r) r = root[r];
        while (root[v] != r) {
            const unsigned int next = root[v];
            root[v] = r;
            v = next;
        }
        return r;
    };
    for (unsigned int v = 0; v < g.firstConstraint; ++v) root[v] = v;
    for (unsigned int v = 0; v < g.firstConstraint; ++v) {
        if (placed[v]) continue;
        for (const unsigned int* u = g.begin(v); u != g.end(v) && g.isBody(*u); ++u) {
            if (!placed[*u]) {
                const unsigned int a = find(v), b = find(*u);
                if (a != b) root[a] = b;
            }
        }
    }

    // Local numbering of the remaining constraints, in the order csymamd left them.
    const unsigned int mc = n - placedCount - remainingBodies;
    grow(work3, n);
    unsigned int* local = work3.data();
    for (unsigned int k = 0; k < mc; ++k) local[order[placedCount + remainingBodies + k]] = k;

    // Group → constraints (CSR over the group roots), each constraint once per group.
    grow(work2, n + 1);
    unsigned int* groupPtr = work2.data();
    grow(work4, n);
    unsigned int* stamp = work4.data();
    for (unsigned int v = 0; v <= n; ++v) groupPtr[v] = 0;
    for (unsigned int v = 0; v < n; ++v) stamp[v] = kNoBlock;
    for (unsigned int k = 0; k < mc; ++k) {
        const unsigned int c = order[placedCount + remainingBodies + k];
        for (const unsigned int* u = g.begin(c); u != g.end(c) && g.isBody(*u); ++u) {
            const unsigned int r = find(*u);
            if (stamp[r] != c) {
                stamp[r] = c;
                ++groupPtr[r + 1];
            }
        }
    }
    for (unsigned int v = 0; v < n; ++v) groupPtr[v + 1] += groupPtr[v];
    grow(work5, groupPtr[n]);
    unsigned int* groupList = work5.data();
    kiv::VectorPOD<unsigned int>& cursor = saved;
    grow(cursor, n);
    for (unsigned int v = 0; v < n; ++v) {
        cursor[v] = groupPtr[v];
        stamp[v] = kNoBlock;
    }
    for (unsigned int k = 0; k < mc; ++k) {
        const unsigned int c = order[placedCount + remainingBodies + k];
        for (const unsigned int* u = g.begin(c); u != g.end(c) && g.isBody(*u); ++u) {
            const unsigned int r = find(*u);
            if (stamp[r] != c) {
                stamp[r] = c;
                groupList[cursor[r]++] = c;
            }
        }
    }

    // The constraint graph: neighbours through a shared group, and direct constraint couplings.
    xadj.resize(mc + 1);
    adjncy.clear();
    vwgt.resize(mc);
    for (unsigned int v = 0; v < n; ++v) stamp[v] = kNoBlock;
    for (unsigned int k = 0; k < mc; ++k) {
        const unsigned int c = order[placedCount + remainingBodies + k];
        xadj[k] = static_cast<idx_t>(adjncy.size());
        vwgt[k] = static_cast<idx_t>(sizes[c]);
        stamp[c] = c;
        for (const unsigned int* u = g.begin(c); u != g.end(c); ++u) {
            if (g.isBody(*u)) {
                const unsigned int r = find(*u);
                for (unsigned int q = groupPtr[r]; q < groupPtr[r + 1]; ++q) {
                    const unsigned int d = groupList[q];
                    if (stamp[d] != c) {
                        stamp[d] = c;
                        adjncy.push_back(static_cast<idx_t>(local[d]));
                    }
                }
            } else if (!placed[*u] && stamp[*u] != c) {
                stamp[*u] = c;
                adjncy.push_back(static_cast<idx_t>(local[*u]));
            }
        }
    }
    xadj[mc] = static_cast<idx_t>(adjncy.size());
    if (adjncy.empty()) adjncy.push_back(0);  // METIS wants a valid pointer
    mperm.resize(mc);
    miperm.resize(mc);
    idx_t metisOptions[METIS_NOPTIONS];
    METIS_SetDefaultOptions(metisOptions);
    metisOptions[METIS_OPTION_NUMBERING] = 0;
    idx_t nv = static_cast<idx_t>(mc);
    if (METIS_NodeND(&nv, xadj.data(), adjncy.data(), vwgt.data(), metisOptions, mperm.data(),
                     miperm.data()) != METIS_OK)
        return false;
    for (unsigned int k = 0; k < mc; ++k)
        candidate[placedCount + remainingBodies + k] =
            order[placedCount + remainingBodies + static_cast<unsigned int>(mperm[k])];
    return true;
}

unsigned long symamdSafeOrder(const BlockGraph& g, const unsigned int* colPointers,
                              const unsigned int* rowIndices, bool allowR,
                              kiv::VectorPOD<unsigned int>& order, SymamdWork& w, bool& swapFailed,
                              bool& fallback) {
    const unsigned int n = g.n;
    const unsigned long entries = n == 0 ? 0 : colPointers[n];
    SkeletonMatrix& userSkeleton = w.userPattern;
    Permutation& perm = w.permutation;
    kiv::VectorPOD<unsigned int>& saved = w.saved;
    swapFailed = false;
    userSkeleton.resize(n, entries, false);
    userSkeleton.colPointers[0] = 0;
    if (n > 0) std::memcpy(userSkeleton.colPointers, colPointers, (n + 1ul) * sizeof(unsigned int));
    if (entries > 0) {
        std::memcpy(userSkeleton.rowIndices, rowIndices, entries * sizeof(unsigned int));
        std::memset(userSkeleton.fillFlags, 0, entries);
    }
    fallback = !computeSymamdPermutation(userSkeleton, perm, w.pad);
    saved.resize(n);
    if (n > 0) std::memcpy(saved.data(), perm.forward, n * sizeof(unsigned int));
    order.resize(n);
    if (zeroLeafSwap(userSkeleton, w.permuted, w.tree, g.firstConstraint, perm, w.pad)) {
        if (n > 0) std::memcpy(order.data(), perm.forward, n * sizeof(unsigned int));
    } else {
        swapFailed = true;
        order.swap(saved);
    }
    return repairRule(g, order, w.repair, allowR);
}

}  // namespace Reordering
}  // namespace kivTamber
