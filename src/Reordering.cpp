#include "Reordering.h"

#include <colamd.h>
#include <kiv/ByteAllocator.h>
#include <kiv/VectorPOD.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

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
    int* p = pad.getIntArray(0, n + 1);
    int* A = pad.getIntArray(1, nnz);  // sized for every stored entry, more than the strictly lower part

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
    unsigned int* count = unsignedSlot(pad, 0, n);
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

}  // namespace Reordering
}  // namespace kivTamber
