#include "Analysis.h"

#include <ccolamd.h>
#include <kiv/ByteAllocator.h>
#include <kiv/Timer.h>
#include <kiv/VectorPOD.h>
#include <metis.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "Reordering.h"
#include "TreeUpdate.h"

namespace kivTamber {
namespace Analysis {

namespace {

// Work arrays of computeFilledSkeleton: from the scratch pad (int slot `slot`) when one is given, else owned
// for the call.
class WorkArray {
public:
    WorkArray(ScratchPad* pad, unsigned long slot, unsigned long count) : count_(count) {
        if (pad) {
            data_ = reinterpret_cast<unsigned int*>(pad->getIntArray(slot, count));
        } else {
            owned_ = kiv::allocateArray<unsigned int>(count);
            data_ = owned_;
        }
    }
    ~WorkArray() {
        if (owned_) kiv::deallocateArray(owned_, count_);
    }
    WorkArray(const WorkArray&) = delete;
    WorkArray& operator=(const WorkArray&) = delete;

    unsigned int* data() { return data_; }

private:
    unsigned long count_;
    unsigned int* data_ = nullptr;
    unsigned int* owned_ = nullptr;
};

// Visits the row subtree of row i: every node reached from a column j < i of row i of A by walking up
// `parent` until a node already stamped for row i, a node >= i or a root. Calls visit(x) once per node.
template <typename Visit>
void walkRowSubtree(const SkeletonMatrix& S, const unsigned int* parent, unsigned int* stamp, unsigned int i,
                    Visit visit) {
    stamp[i] = i;
    for (unsigned int k = S.colPointers[i]; k < S.colPointers[i + 1]; ++k) {
        unsigned int x = S.rowIndices[k];
        if (x >= i) break;  // the diagonal and anything beyond it
        while (x < i && stamp[x] != i) {
            stamp[x] = i;
            visit(x);
            const unsigned int p = parent[x];
            if (p == x) break;  // a root below i: the tree does not reach i
            x = p;
        }
    }
}

constexpr unsigned int kNone = 0xFFFFFFFFu;

// How a user entry A(i, j) lands in its tile: as it is, transposed (its blocks' order swapped), or both (the
// two blocks share a merged group: the sub-block and its mirror image in the group's diagonal tile).
enum : unsigned char { kAsIs = 0, kTransposed = 1, kBoth = 2 };

std::string format(const char* fmt, ...) {
    char buffer[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

void setMessage(std::string* message, std::string text) {
    if (message) *message = std::move(text);
}

template <typename T>
unsigned long strideOf(unsigned long s) {
    return sizeof(T) == sizeof(double) ? (s + 1) & ~1ul : s;
}

template <typename V>
void grow(kiv::VectorPOD<V>& v, unsigned long n) {
    if (v.size() < n) v.resize(n);
}

double secondsSince(std::uint64_t start) {
    return kiv::Timer::seconds(start, kiv::Timer::ticks());
}

// ---------------------------------------------------------------------------------------------------------
// The block graph: full symmetric adjacency of the pattern without the diagonal, every list ascending.
// ---------------------------------------------------------------------------------------------------------

struct BlockGraph {
    unsigned int n = 0;
    unsigned int firstConstraint = 0;
    kiv::VectorPOD<unsigned int> ptr;  // [n + 1]
    kiv::VectorPOD<unsigned int> adj;  // [2 · off-diagonal entries]

    const unsigned int* begin(unsigned int v) const { return adj.data() + ptr[v]; }
    const unsigned int* end(unsigned int v) const { return adj.data() + ptr[v + 1]; }
    bool isBody(unsigned int v) const { return v < firstConstraint; }
    bool adjacent(unsigned int u, unsigned int v) const { return std::binary_search(begin(u), end(u), v); }
};

// Precondition: the problem is well formed. fill: workspace of n entries.
void buildGraph(const Problem& p, BlockGraph& g, kiv::VectorPOD<unsigned int>& fill) {
    const unsigned int n = p.numBlocks;
    g.n = n;
    g.firstConstraint = p.firstConstraint;
    g.ptr.resize(n + 1);
    grow(fill, n);
    unsigned int* count = fill.data();
    for (unsigned int v = 0; v < n; ++v) count[v] = 0;
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = p.colPointers[j]; e + 1 < p.colPointers[j + 1]; ++e) {
            ++count[j];
            ++count[p.rowIndices[e]];
        }
    }
    g.ptr[0] = 0;
    for (unsigned int v = 0; v < n; ++v) g.ptr[v + 1] = g.ptr[v] + count[v];
    g.adj.resize(n == 0 ? 0 : g.ptr[n]);
    for (unsigned int v = 0; v < n; ++v) count[v] = g.ptr[v];
    // Column j ascending: j's smaller neighbours are written at its own turn, its larger ones afterwards, in
    // ascending order, so every list comes out ascending.
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = p.colPointers[j]; e + 1 < p.colPointers[j + 1]; ++e) {
            const unsigned int i = p.rowIndices[e];
            g.adj[count[j]++] = i;
            g.adj[count[i]++] = j;
        }
    }
}

// ---------------------------------------------------------------------------------------------------------
// Problem checks.
// ---------------------------------------------------------------------------------------------------------

// Everything but the constraint coupling, which needs the graph.
bool checkForm(const Problem& p, std::string* message) {
    const unsigned int n = p.numBlocks;
    if (n == 0) return true;
    if (!p.colPointers || !p.rowIndices || !p.blockSizes) {
        setMessage(message, format("the problem's colPointers, rowIndices and blockSizes must not be null "
                                   "(numBlocks = %u)",
                                   n));
        return false;
    }
    if (p.firstConstraint > n) {
        setMessage(message,
                   format("firstConstraint %u exceeds the number of blocks %u", p.firstConstraint, n));
        return false;
    }
    unsigned long scalars = 0;
    for (unsigned int j = 0; j < n; ++j) {
        if (p.blockSizes[j] == 0) {
            setMessage(message, format("block %u has size 0; every block needs at least one scalar row", j));
            return false;
        }
        scalars += p.blockSizes[j];
        if (scalars > 0xFFFFFFFFul) {
            setMessage(message,
                       format("the block sizes add up to more than 4294967295 scalar rows (at block %u)", j));
            return false;
        }
    }
    if (p.colPointers[0] != 0) {
        setMessage(message, format("colPointers[0] is %u; it must be 0", p.colPointers[0]));
        return false;
    }
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int begin = p.colPointers[j], end = p.colPointers[j + 1];
        if (end < begin) {
            setMessage(
                message,
                format("colPointers decreases at block %u (colPointers[%u] = %u after colPointers[%u] = %u)",
                       j, j + 1, end, j, begin));
            return false;
        }
        if (end == begin) {
            setMessage(message, format("list of block %u is empty (it must end with its diagonal %u)", j, j));
            return false;
        }
        for (unsigned int e = begin; e < end; ++e) {
            const unsigned int i = p.rowIndices[e];
            if (i >= n) {
                setMessage(message,
                           format("list of block %u: entry %u names block %u, but the problem has %u "
                                  "blocks",
                                  j, e, i, n));
                return false;
            }
            if (i > j) {
                setMessage(message,
                           format("list of block %u: entry %u names block %u, which is larger than %u "
                                  "(a list holds the blocks i <= %u)",
                                  j, e, i, j, j));
                return false;
            }
            if (e > begin && i <= p.rowIndices[e - 1]) {
                setMessage(message,
                           format("list of block %u: entry %u names block %u after block %u (a list is "
                                  "strictly ascending)",
                                  j, e, i, p.rowIndices[e - 1]));
                return false;
            }
        }
        if (p.rowIndices[end - 1] != j) {
            setMessage(message, format("list of block %u: it ends with block %u instead of its diagonal %u",
                                       j, p.rowIndices[end - 1], j));
            return false;
        }
    }
    return true;
}

// Every constraint couples to at least one body. Precondition: checkForm passed and g is its graph.
bool checkCoupling(const BlockGraph& g, std::string* message) {
    for (unsigned int c = g.firstConstraint; c < g.n; ++c) {
        // The smallest neighbour comes first: a body if there is any.
        if (g.begin(c) == g.end(c) || !g.isBody(*g.begin(c))) {
            if (g.firstConstraint == 0) {
                setMessage(message, format("constraint block %u couples to no body block (the problem has no "
                                           "bodies: firstConstraint is 0); its pivot would be zero",
                                           c));
            } else {
                setMessage(message,
                           format("constraint block %u couples to no body block (bodies are blocks 0 .. "
                                  "%u); its pivot would be zero",
                                  c, g.firstConstraint - 1));
            }
            return false;
        }
    }
    return true;
}

// forward[0 .. n-1] is a permutation. mark: workspace of n entries.
bool checkPermutation(const unsigned int* forward, unsigned int n, kiv::VectorPOD<unsigned int>& mark,
                      std::string* message) {
    grow(mark, n);
    for (unsigned int v = 0; v < n; ++v) mark[v] = kNone;
    for (unsigned int k = 0; k < n; ++k) {
        const unsigned int v = forward[k];
        if (v >= n) {
            setMessage(message,
                       format("order: position %u holds block %u, but the problem has %u blocks", k, v, n));
            return false;
        }
        if (mark[v] != kNone) {
            setMessage(message,
                       format("order: block %u is placed twice (positions %u and %u)", v, mark[v], k));
            return false;
        }
        mark[v] = k;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// The safe-order rule.
// ---------------------------------------------------------------------------------------------------------

// The body of constraint c placed last (inverse: position of each block).
unsigned int lastBody(const BlockGraph& g, unsigned int c, const unsigned int* inverse) {
    unsigned int best = kNone;
    for (const unsigned int* u = g.begin(c); u != g.end(c) && g.isBody(*u); ++u) {
        if (best == kNone || inverse[*u] > inverse[best]) best = *u;
    }
    return best;
}

// The constraint of body b, other than c, placed last (kNone when none).
unsigned int lastOtherConstraint(const BlockGraph& g, unsigned int b, unsigned int c,
                                 const unsigned int* inverse) {
    unsigned int best = kNone;
    for (const unsigned int* u = g.end(b); u != g.begin(b) && !g.isBody(*(u - 1));) {
        --u;
        if (*u != c && (best == kNone || inverse[*u] > inverse[best])) best = *u;
    }
    return best;
}

// True when the constraint at position k satisfies the rule.
bool satisfiesRule(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                   unsigned int k, bool allowR) {
    const unsigned int c = forward[k];
    if (inverse[lastBody(g, c, inverse)] < k) return true;  // S
    if (!allowR || k == 0) return false;
    const unsigned int b = forward[k - 1];
    if (!g.isBody(b) || !g.adjacent(c, b)) return false;
    const unsigned int other = lastOtherConstraint(g, b, c, inverse);
    return other == kNone || inverse[other] < k;  // R
}

std::string ruleMessage(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                        unsigned int k, bool allowR) {
    const unsigned int c = forward[k];
    const unsigned int late = lastBody(g, c, inverse);
    if (!allowR) {
        return format(
            "order: constraint block %u (position %u) precedes its body block %u (position %u); with "
            "peeling switched off every constraint must follow all its bodies",
            c, k, late, inverse[late]);
    }
    const char* hint =
        "; place it after all its bodies, or directly after a body whose last constraint it is";
    if (k > 0) {
        const unsigned int b = forward[k - 1];
        if (g.isBody(b) && g.adjacent(c, b)) {
            const unsigned int other = lastOtherConstraint(g, b, c, inverse);
            return format(
                "order: constraint block %u (position %u) precedes its body block %u (position %u), "
                "and the body it directly follows, block %u, has another constraint, block %u, placed "
                "later (position %u)%s",
                c, k, late, inverse[late], b, other, inverse[other], hint);
        }
    }
    return format(
        "order: constraint block %u (position %u) precedes its body block %u (position %u) and does "
        "not directly follow one of its bodies%s",
        c, k, late, inverse[late], hint);
}

// First position that breaks the rule, or n.
unsigned int firstOffence(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                          bool allowR) {
    for (unsigned int k = 0; k < g.n; ++k) {
        if (!g.isBody(forward[k]) && !satisfiesRule(g, forward, inverse, k, allowR)) return k;
    }
    return g.n;
}

void computeInverse(const unsigned int* forward, unsigned int n, kiv::VectorPOD<unsigned int>& inverse) {
    grow(inverse, n);
    for (unsigned int k = 0; k < n; ++k) inverse[forward[k]] = k;
}

// ---------------------------------------------------------------------------------------------------------
// The repair of an order.
// ---------------------------------------------------------------------------------------------------------

struct RepairWork {
    kiv::VectorPOD<unsigned int> inverse, offenders, anchor, sorted, sortedAnchor, start, rebuilt;
    kiv::VectorPOD<unsigned char> isOffender;
};

// Moves every constraint that breaks the rule to the end of the run of constraints that follows its last body
// (rule S), round after round: a move can make another constraint of the same body break rule R. A moved
// constraint satisfies S for good, so there is at most one round per constraint (in practice a few). Bodies
// and the constraints that satisfy the rule keep their relative order. Returns the number of moves.
unsigned long repairInPlace(const BlockGraph& g, kiv::VectorPOD<unsigned int>& order, RepairWork& w,
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
// Factor cost by block-level symbolic factorization.
// ---------------------------------------------------------------------------------------------------------

struct CostWork {
    kiv::VectorPOD<unsigned int> parent, ancestor, stamp, count;
    kiv::VectorPOD<unsigned long> below;
};

// The cost of a factor from its block columns: sizes [n] of the block columns, below [n] the scalar rows and
// count [n] the blocks strictly below each diagonal block.
FactorCost costFromColumns(unsigned int n, const unsigned int* sizeOfPosition, const unsigned long* below,
                           const unsigned int* count) {
    FactorCost cost;
    cost.blocks = n;
    unsigned long blockEntries = n;
    double flops = 0.0, operations = 0.0;
    unsigned long scalars = 0;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned long s = sizeOfPosition[j];
        const double c = count[j];
        blockEntries += count[j];
        operations += c * (c + 1.0) / 2.0;
        for (unsigned long t = 0; t < s; ++t) {
            const double ck = static_cast<double>(s - 1 - t + below[j]);  // c_k of scalar column t of block j
            flops += ck * (ck + 2.0);
            scalars += s - t + below[j];
        }
    }
    cost.blockEntries = blockEntries;
    cost.flops = flops;
    cost.blockOperations = operations;
    cost.scalarEntries = scalars;
    return cost;
}

// factorCost with the work arrays of w.
FactorCost filledCost(const SkeletonMatrix& filled, const unsigned int* sizes, CostWork& w) {
    const unsigned int n = static_cast<unsigned int>(filled.n);
    grow(w.below, n);
    grow(w.count, n);
    for (unsigned int j = 0; j < n; ++j) {
        w.below[j] = 0;
        w.count[j] = 0;
    }
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
            w.below[filled.rowIndices[e]] += sizes[i];  // L(i, j): s_i rows below the diagonal of column j
            ++w.count[filled.rowIndices[e]];
        }
    }
    return costFromColumns(n, sizes, w.below.data(), w.count.data());
}

// Elimination tree (Liu, with path compression through `ancestor`) and row-subtree counts of the order,
// read straight off the user's graph. sizes: user numbering. sizeOfPosition: workspace, filled here.
FactorCost predict(const BlockGraph& g, const unsigned int* forward, const unsigned int* inverse,
                   const unsigned int* sizes, CostWork& w, kiv::VectorPOD<unsigned int>& sizeOfPosition) {
    const unsigned int n = g.n;
    grow(w.parent, n);
    grow(w.ancestor, n);
    grow(w.stamp, n);
    grow(w.below, n);
    grow(w.count, n);
    grow(sizeOfPosition, n);
    unsigned int* parent = w.parent.data();
    unsigned int* ancestor = w.ancestor.data();
    for (unsigned int k = 0; k < n; ++k) {
        parent[k] = kNone;
        ancestor[k] = kNone;
        const unsigned int b = forward[k];
        sizeOfPosition[k] = sizes[b];
        for (const unsigned int* u = g.begin(b); u != g.end(b); ++u) {
            unsigned int i = inverse[*u];
            while (i != kNone && i < k) {  // climb to the root, pointing the path at k
                const unsigned int next = ancestor[i];
                ancestor[i] = k;
                if (next == kNone) parent[i] = k;
                i = next;
            }
        }
    }
    for (unsigned int k = 0; k < n; ++k) {
        w.stamp[k] = kNone;
        w.below[k] = 0;
        w.count[k] = 0;
    }
    for (unsigned int k = 0; k < n; ++k) {
        w.stamp[k] = k;
        const unsigned long s = sizeOfPosition[k];
        const unsigned int b = forward[k];
        for (const unsigned int* u = g.begin(b); u != g.end(b); ++u) {
            for (unsigned int x = inverse[*u]; x < k && w.stamp[x] != k; x = parent[x]) {
                w.stamp[x] = k;  // L(k, x) is an entry
                w.below[x] += s;
                ++w.count[x];
            }
        }
    }
    return costFromColumns(n, sizeOfPosition.data(), w.below.data(), w.count.data());
}

// ---------------------------------------------------------------------------------------------------------
// Storage swaps for the commit.
// ---------------------------------------------------------------------------------------------------------

void swapSkeleton(SkeletonMatrix& a, SkeletonMatrix& b) noexcept {
    std::swap(a.rowIndices, b.rowIndices);
    std::swap(a.colPointers, b.colPointers);
    std::swap(a.blockWords, b.blockWords);
    std::swap(a.fillFlags, b.fillFlags);
    std::swap(a.n, b.n);
    std::swap(a.blockCapacity, b.blockCapacity);
    std::swap(a.entryCapacity, b.entryCapacity);
}

void swapPermutation(Permutation& a, Permutation& b) noexcept {
    std::swap(a.size, b.size);
    std::swap(a.capacity, b.capacity);
    std::swap(a.forward, b.forward);
    std::swap(a.inverse, b.inverse);
}

// Everything of the tree but auxList and fillIns, which belong to the factor-modification routines.
void swapTree(EliminationTree& a, EliminationTree& b) noexcept {
    std::swap(a.marks.flags, b.marks.flags);
    std::swap(a.marks.list, b.marks.list);
    std::swap(a.marks.count, b.marks.count);
    std::swap(a.marks.size, b.marks.size);
    std::swap(a.marks.markCapacity, b.marks.markCapacity);
    std::swap(a.parent, b.parent);
    std::swap(a.firstChild, b.firstChild);
    std::swap(a.sibling, b.sibling);
    std::swap(a.postOrder, b.postOrder);
    std::swap(a.numNodes, b.numNodes);
    std::swap(a.capacity, b.capacity);
    a.roots.swap(b.roots);
    std::swap(a.colParent, b.colParent);
    std::swap(a.rank, b.rank);
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------
// Symbolic factorization.
// ---------------------------------------------------------------------------------------------------------

bool computeFilledSkeleton(const SkeletonMatrix& permuted, const EliminationTree& etree,
                           SkeletonMatrix& filled, ScratchPad* scratchPad) {
    const unsigned long n = permuted.n;
    if (etree.numNodes < n) return false;

    // Work: stamp[n] (the row a node was last visited for), count[n] (entries per row of L), colPtr[n + 1]
    // and cursor[n] (the columns of L strictly below the diagonal).
    WorkArray work(scratchPad, 0, 4 * n + 1);
    unsigned int* stamp = work.data();
    unsigned int* count = stamp + n;
    unsigned int* colPtr = count + n;
    unsigned int* cursor = colPtr + n + 1;
    const unsigned int* parent = etree.parent;

    // Pass 1: sizes of the rows and of the columns of L.
    for (unsigned long x = 0; x < n; ++x) {
        stamp[x] = 0xFFFFFFFFu;
        colPtr[x + 1] = 0;
    }
    colPtr[0] = 0;
    unsigned long entries = 0;
    for (unsigned int i = 0; i < n; ++i) {
        unsigned int c = 1;  // the diagonal
        walkRowSubtree(permuted, parent, stamp, i, [&c, colPtr](unsigned int x) {
            ++c;
            ++colPtr[x + 1];
        });
        count[i] = c;
        entries += c;
    }
    for (unsigned long x = 0; x < n; ++x) {
        colPtr[x + 1] += colPtr[x];
        cursor[x] = colPtr[x];
    }

    // Pass 2: the columns of L, each ascending because the rows are walked in ascending order.
    WorkArray columns(scratchPad, 1, entries - n + 1);
    unsigned int* colRows = columns.data();
    for (unsigned long x = 0; x < n; ++x) stamp[x] = 0xFFFFFFFFu;
    for (unsigned int i = 0; i < n; ++i)
        walkRowSubtree(permuted, parent, stamp, i,
                       [i, colRows, cursor](unsigned int x) { colRows[cursor[x]++] = i; });

    const bool withWords = permuted.blockWords != nullptr;
    filled.resize(n, entries, withWords);
    if (withWords && n > 0) std::memcpy(filled.blockWords, permuted.blockWords, n * sizeof(unsigned int));
    unsigned int* cp = filled.colPointers;
    cp[0] = 0;
    for (unsigned long i = 0; i < n; ++i) cp[i + 1] = cp[i] + count[i];

    // Pass 3: transpose the columns into rows (ascending, since the columns are taken in ascending order),
    // the diagonal last; flag the entries that are not in A.
    unsigned int* rows = filled.rowIndices;
    for (unsigned long i = 0; i < n; ++i) count[i] = cp[i];
    for (unsigned int x = 0; x < n; ++x) {
        for (unsigned int q = colPtr[x]; q < colPtr[x + 1]; ++q) rows[count[colRows[q]]++] = x;
    }
    for (unsigned int i = 0; i < n; ++i) {
        const unsigned int end = cp[i + 1] - 1;
        rows[end] = i;
        unsigned char* flags = filled.fillFlags;
        unsigned int a = permuted.colPointers[i];
        const unsigned int aEnd = permuted.colPointers[i + 1];
        for (unsigned int k = cp[i]; k < end; ++k) {
            while (a < aEnd && permuted.rowIndices[a] < rows[k]) ++a;
            flags[k] = (a < aEnd && permuted.rowIndices[a] == rows[k]) ? 0 : 1;  // fill unless in A
        }
        flags[end] = 0;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// Public checks and counts.
// ---------------------------------------------------------------------------------------------------------

Problem Problem::fromSkeleton(const SkeletonMatrix& pattern, unsigned int firstConstraint,
                              const unsigned int* blockSizes) {
    Problem p;
    p.numBlocks = static_cast<unsigned int>(pattern.n);
    p.firstConstraint = firstConstraint;
    p.colPointers = pattern.colPointers;
    p.rowIndices = pattern.rowIndices;
    p.blockSizes = blockSizes;
    return p;
}

bool checkProblem(const Problem& problem, std::string* message) {
    if (!checkForm(problem, message)) return false;
    BlockGraph g;
    kiv::VectorPOD<unsigned int> work;
    buildGraph(problem, g, work);
    return checkCoupling(g, message);
}

namespace {

// The checks shared by checkOrder and repairOrder: a well-formed problem (g receives its graph) and a
// permutation.
bool checkProblemAndOrder(const Problem& problem, const unsigned int* forward, BlockGraph& g,
                          kiv::VectorPOD<unsigned int>& work, std::string* message) {
    if (!checkForm(problem, message)) return false;
    buildGraph(problem, g, work);
    if (!checkCoupling(g, message)) return false;
    if (problem.numBlocks > 0 && forward == nullptr) {
        setMessage(message, "order: the order array must not be null");
        return false;
    }
    return checkPermutation(forward, problem.numBlocks, work, message);
}

}  // namespace

bool checkOrder(const Problem& problem, const unsigned int* forward, std::string* message, bool allowRuleR) {
    BlockGraph g;
    kiv::VectorPOD<unsigned int> work;
    if (!checkProblemAndOrder(problem, forward, g, work, message)) return false;
    computeInverse(forward, problem.numBlocks, work);
    const unsigned int k = firstOffence(g, forward, work.data(), allowRuleR);
    if (k < problem.numBlocks) {
        setMessage(message, ruleMessage(g, forward, work.data(), k, allowRuleR));
        return false;
    }
    return true;
}

bool repairOrder(const Problem& problem, unsigned int* forward, unsigned long* moved, std::string* message,
                 bool allowRuleR) {
    BlockGraph g;
    kiv::VectorPOD<unsigned int> work;
    if (!checkProblemAndOrder(problem, forward, g, work, message)) return false;
    const unsigned int n = problem.numBlocks;
    kiv::VectorPOD<unsigned int> order(n);
    if (n > 0) std::memcpy(order.data(), forward, n * sizeof(unsigned int));
    RepairWork w;
    const unsigned long count = repairInPlace(g, order, w, allowRuleR);
    if (n > 0) std::memcpy(forward, order.data(), n * sizeof(unsigned int));
    if (moved) *moved = count;
    return true;
}

FactorCost predictCost(const Problem& problem, const unsigned int* forward) {
    BlockGraph g;
    kiv::VectorPOD<unsigned int> work, inverse;
    buildGraph(problem, g, work);
    computeInverse(forward, problem.numBlocks, inverse);
    CostWork w;
    return predict(g, forward, inverse.data(), problem.blockSizes, w, work);
}

FactorCost factorCost(const SkeletonMatrix& filled, const unsigned int* sizes) {
    CostWork w;
    return filledCost(filled, sizes, w);
}

// ---------------------------------------------------------------------------------------------------------
// The analyzer.
// ---------------------------------------------------------------------------------------------------------

namespace {

// Where setBlock writes entry A(i, j) (s_i × s_j, row-major v): element (a, b) goes to
// values[first + b·ld + a] (kAsIs) or values[first + a·ld + b] (kTransposed); kBoth writes the first and
// also values[mirror + a·ld + b]. Offsets count elements of data.matrix.values.
struct Destination {
    unsigned long first;
    unsigned long mirror;
    unsigned int ld;
    unsigned int rows;
    unsigned int cols;
    unsigned int mode;
};

// What the assembly functions need, for one analysed structure.
struct Assembly {
    unsigned int n = 0;
    unsigned int N = 0;
    unsigned long entries = 0;
    kiv::VectorPOD<unsigned int> forward;          // [n]
    kiv::VectorPOD<unsigned int> sizes;            // [n] user numbering
    kiv::VectorPOD<unsigned int> userOffsets;      // [n + 1]
    kiv::VectorPOD<unsigned int> permutedOffsets;  // [n + 1]
    kiv::VectorPOD<unsigned int> colPointers;      // [n + 1] the user's pattern
    kiv::VectorPOD<unsigned int> rowIndices;       // [entries]
    kiv::VectorPOD<unsigned int> entryColumn;      // [entries] the block j of entry (i, j)
    kiv::VectorPOD<unsigned int> entryBlock;       // [entries] block index in data.matrix
    kiv::VectorPOD<unsigned char> entryMode;       // [entries] kAsIs, kTransposed or kBoth
    // The blocks of data: groups of consecutive positions of the order (one position each without merging).
    unsigned int groups = 0;
    kiv::VectorPOD<unsigned int> inverse;       // [n] position of each user block
    kiv::VectorPOD<unsigned int> groupStart;    // [groups + 1] first position of each group
    kiv::VectorPOD<unsigned int> factorBlock;   // [n] data block of each user block
    kiv::VectorPOD<unsigned int> factorOffset;  // [n] scalar offset of each user block inside it
    kiv::VectorPOD<Destination> destinations;   // [entries] where setBlock writes, for the analysed T

    void swap(Assembly& o) noexcept {
        std::swap(n, o.n);
        std::swap(N, o.N);
        std::swap(entries, o.entries);
        std::swap(groups, o.groups);
        inverse.swap(o.inverse);
        groupStart.swap(o.groupStart);
        factorBlock.swap(o.factorBlock);
        factorOffset.swap(o.factorOffset);
        destinations.swap(o.destinations);
        entryMode.swap(o.entryMode);
        forward.swap(o.forward);
        sizes.swap(o.sizes);
        userOffsets.swap(o.userOffsets);
        permutedOffsets.swap(o.permutedOffsets);
        colPointers.swap(o.colPointers);
        rowIndices.swap(o.rowIndices);
        entryColumn.swap(o.entryColumn);
        entryBlock.swap(o.entryBlock);
    }
};

}  // namespace

struct Analyzer::Impl {
    Assembly committed;
    Assembly staged;

    BlockGraph graph;
    CostWork costWork;
    RepairWork repairWork;
    kiv::VectorPOD<unsigned int> order, inverse, candidate, candidateInverse, saved;
    kiv::VectorPOD<unsigned int> work1, work2, work3, work4, work5;
    kiv::VectorPOD<unsigned char> flags;
    kiv::VectorPOD<int> ip, iA, iperm, imember;
    kiv::VectorPOD<idx_t> xadj, adjncy, vwgt, mperm, miperm;
    SkeletonMatrix userSkeleton;
    SkeletonMatrix permuted;
    SkeletonMatrix filled;
    EliminationTree tree;
    Permutation perm;
    ScratchPad pad;
    // Merging: the groups of the order, and the pattern, tree and filled pattern on them.
    bool merged = false;
    kiv::VectorPOD<unsigned int> groupOf, offsetInGroup, groupStart, mergedEntry, dataSizes;
    kiv::VectorPOD<double> below;
    SkeletonMatrix mergedPermuted;
    SkeletonMatrix mergedFilled;
    EliminationTree mergedTree;
    Permutation groupPerm;

    // The non-template part of analyze: everything into the analyzer's own storage.
    bool prepare(const Problem& problem, const Options& options, Report& report);
    void orderStandard(const Problem& problem, const Options& options, Report& report);
    bool nestedDissection(unsigned int placed, unsigned int remainingBodies);
    void orderSymamdSwap(const Problem& problem, Report& report, bool allowR);
    bool haveCandidate = false;  // orderStandard left a nested-dissection order in `candidate`
    void buildSymbolic(const Problem& problem);
    FactorCost evaluate(const Problem& problem, const Options& options, Report& report);
    FactorCost groupCost(const unsigned int* sizes);
    double findGroups(const Options& options, const unsigned int* sizes);
    void buildMerged();
    void finishAssembly();
};

Analyzer::Analyzer() : impl_(new Impl) {}

Analyzer::~Analyzer() {
    delete impl_;
}

// Standard ordering: peel, csymamd with bodies first, nested dissection for a large remainder.
void Analyzer::Impl::orderStandard(const Problem& problem, const Options& options, Report& report) {
    const BlockGraph& g = graph;
    const unsigned int n = g.n;
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
    if (options.peel) {
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
            return kNone;
        };
        while (!stack.empty()) {
            const unsigned int b = stack.back();
            stack.pop_back();
            if (placed[b]) continue;
            placed[b] = 1;
            order[pos++] = b;
            const unsigned int w = firstUnplaced(b, kNone);
            if (w == kNone) continue;
            if (g.isBody(w) || degree[w] > 2) {  // b alone; w loses a neighbour
                release(w);
                continue;
            }
            placed[w] = 1;  // the constraint right after its body (R)
            order[pos++] = w;
            const unsigned int x = firstUnplaced(w, b);
            if (x != kNone) release(x);
        }
    }
    report.peeledBlocks = pos;

    // 2. The rest, bodies first (constraint sets 0 and 1 of csymamd).
    const unsigned int m = n - pos;
    if (m == 0) return;
    grow(work3, n);
    unsigned int* local = work3.data();
    kiv::VectorPOD<unsigned int>& rest = work4;
    rest.clear();
    unsigned int remainingBodies = 0;
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
        report.orderingFallback = true;
        for (unsigned int k = 0; k < m; ++k) order[pos + k] = rest[k];
    }

    // 3. Nested dissection of the constraint graph for a large remainder: a candidate, weighed in prepare on
    // the factor each order builds.
    if (!options.nestedDissection || remainingBodies == 0 || m - remainingBodies < 2) return;
    computeInverse(order.data(), n, inverse);
    const FactorCost md = predict(g, order.data(), inverse.data(), problem.blockSizes, costWork, work5);
    report.minimumDegreeFlops = md.flops;
    if (md.flops <= options.nestedDissectionThreshold) return;
    haveCandidate = nestedDissection(pos, remainingBodies);
}

// candidate = order[0 .. placed) + the remaining bodies in their current order + the remaining constraints in
// METIS nested-dissection order of their graph. False when METIS fails (candidate unusable).
bool Analyzer::Impl::nestedDissection(unsigned int placedCount, unsigned int remainingBodies) {
    const BlockGraph& g = graph;
    const unsigned int n = g.n;
    const unsigned char* placed = flags.data();
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
    for (unsigned int v = 0; v < n; ++v) stamp[v] = kNone;
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
        stamp[v] = kNone;
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
    for (unsigned int v = 0; v < n; ++v) stamp[v] = kNone;
    for (unsigned int k = 0; k < mc; ++k) {
        const unsigned int c = order[placedCount + remainingBodies + k];
        xadj[k] = static_cast<idx_t>(adjncy.size());
        vwgt[k] = static_cast<idx_t>(staged.sizes[c]);
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

// symamd, the zero-leaf swap, then the repair.
void Analyzer::Impl::orderSymamdSwap(const Problem& problem, Report& report, bool allowR) {
    const unsigned int n = problem.numBlocks;
    const unsigned long entries = n == 0 ? 0 : problem.colPointers[n];
    userSkeleton.resize(n, entries, false);
    userSkeleton.colPointers[0] = 0;
    if (n > 0) std::memcpy(userSkeleton.colPointers, problem.colPointers, (n + 1ul) * sizeof(unsigned int));
    if (entries > 0) {
        std::memcpy(userSkeleton.rowIndices, problem.rowIndices, entries * sizeof(unsigned int));
        std::memset(userSkeleton.fillFlags, 0, entries);
    }
    if (!Reordering::computeSymamdPermutation(userSkeleton, perm, pad)) report.orderingFallback = true;
    saved.resize(n);
    if (n > 0) std::memcpy(saved.data(), perm.forward, n * sizeof(unsigned int));
    order.resize(n);
    if (Reordering::zeroLeafSwap(userSkeleton, permuted, tree, problem.firstConstraint, perm, pad)) {
        if (n > 0) std::memcpy(order.data(), perm.forward, n * sizeof(unsigned int));
    } else {
        report.swapFailed = true;
        order.swap(saved);
    }
    report.movedConstraints = repairInPlace(graph, order, repairWork, allowR);
}

// Permuted pattern of A with the assembly map, its elimination tree and the filled pattern of L, for `order`.
void Analyzer::Impl::buildSymbolic(const Problem& problem) {
    const unsigned int n = problem.numBlocks;
    const unsigned long entries = n == 0 ? 0 : problem.colPointers[n];
    const unsigned int* forward = order.data();
    computeInverse(forward, n, inverse);
    const unsigned int* inv = inverse.data();

    // Permuted pattern: entry (r, b) of the user's list b becomes (min(t, j), max(t, j)) with j = inv[b],
    // t = inv[r]; one counting pass, one filling pass, insertion for the entries of the column being filled.
    permuted.resize(n, entries, false);
    grow(work1, n);
    unsigned int* count = work1.data();
    grow(work2, entries);
    unsigned int* origin = work2.data();  // user entry of each permuted entry
    unsigned int* cp = permuted.colPointers;
    for (unsigned int k = 0; k < n; ++k) count[k] = 0;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int b = forward[j];
        for (unsigned int e = problem.colPointers[b]; e < problem.colPointers[b + 1]; ++e) {
            const unsigned int t = inv[problem.rowIndices[e]];
            ++count[t > j ? t : j];
        }
    }
    cp[0] = 0;
    for (unsigned int k = 0; k < n; ++k) {
        cp[k + 1] = cp[k] + count[k];
        count[k] = 0;
    }
    unsigned int* rows = permuted.rowIndices;
    unsigned char* swapped = permuted.fillFlags;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int b = forward[j];
        for (unsigned int e = problem.colPointers[b]; e < problem.colPointers[b + 1]; ++e) {
            const unsigned int t = inv[problem.rowIndices[e]];
            const unsigned int c = t > j ? t : j;
            unsigned int at = cp[c] + count[c]++;
            rows[at] = t < j ? t : j;
            swapped[at] = j < t ? 1 : 0;
            origin[at] = e;
            if (c == j) {
                for (; at > cp[c] && rows[at - 1] > rows[at]; --at) {
                    std::swap(rows[at - 1], rows[at]);
                    std::swap(swapped[at - 1], swapped[at]);
                    std::swap(origin[at - 1], origin[at]);
                }
            }
        }
    }

    // Assembly map (staged until the commit).
    Assembly& a = staged;
    a.n = n;
    a.entries = entries;
    a.forward.resize(n);
    a.colPointers.resize(n + 1);
    a.rowIndices.resize(entries);
    a.entryColumn.resize(entries);
    a.entryBlock.resize(entries);
    a.userOffsets.resize(n + 1);
    a.permutedOffsets.resize(n + 1);
    if (n > 0) {
        std::memcpy(a.forward.data(), forward, n * sizeof(unsigned int));
        std::memcpy(a.colPointers.data(), problem.colPointers, (n + 1ul) * sizeof(unsigned int));
    }
    if (entries > 0) std::memcpy(a.rowIndices.data(), problem.rowIndices, entries * sizeof(unsigned int));
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e)
            a.entryColumn[e] = j;
    }
    a.userOffsets[0] = 0;
    a.permutedOffsets[0] = 0;
    for (unsigned int k = 0; k < n; ++k) {
        a.userOffsets[k + 1] = a.userOffsets[k] + a.sizes[k];
        a.permutedOffsets[k + 1] = a.permutedOffsets[k] + a.sizes[forward[k]];
    }
    a.N = n == 0 ? 0 : a.userOffsets[n];

    // Elimination tree (every block active), child lists and post order; then the filled pattern.
    const unsigned int capacity = n == 0 ? 1 : n;
    if (tree.parent == nullptr || tree.capacity < capacity) {
        if (tree.parent) tree.releaseMemory();
        tree.allocateMemory(capacity);
    }
    tree.numNodes = n;
    for (unsigned int k = 0; k < n; ++k) count[k] = 1;
    TreeUpdate::computeTree(&tree, permuted, count);
    tree.computeTreeStructure();
    tree.computePostOrder();
    computeFilledSkeleton(permuted, tree, filled, &pad);

    // The permutation handed to the data.
    perm.reserve(n == 0 ? 1 : n);
    perm.size = n;
    for (unsigned int k = 0; k < n; ++k) {
        perm.forward[k] = forward[k];
        perm.inverse[k] = inv[k];
    }
}

// Groups of consecutive positions (Options::mergeBlocks); without merging every position is its own group.
// sizes: [n] block size of each position. Reads tree.parent and the filled pattern; returns the explicit
// zeros of L the merging adds.
//
// The factorization time is modelled as (block operations)·w + flops, w = Options::mergeOperationFlops,
// with block operations = Σ over block columns of c·(c + 1)/2 (c its off-diagonal blocks: one solve per
// block and one product per pair) and flops = Σ over scalar columns of c·(c + 2) (c its scalars below the
// diagonal). The positions are scanned in order and block k joins the open group H (positions start .. k-1,
// S scalars) when the join lowers the modelled time, counted on the groups closed so far and, for the
// blocks after k, on the groups of the previous pass (the first pass counts the blocks themselves and
// lowers a group's count as tiles unite; blocks counted unmerged overrate every join, so that pass merges
// too much, the second too little, and the third, kept, lies between):
//  - H's columns: S + s columns above the R_k scalar rows below block k replace S columns above R_{k-1}
//    and s columns above R_k (R_x = scalar rows below x in L; the structure of a column minus its parent
//    lies in the parent's, so the structure below a chain is that of its last block), and block column k
//    disappears: c_{k-1}·(c_{k-1} + 1)/2 operations fewer;
//  - an earlier group G whose columns reach both H and k: its tiles (H, G) and (k, G) become one, so its
//    column loses a block (c_G operations fewer) and no scalar;
//  - an earlier group G that reaches k only gets S more rows, one that reaches H only s more: each of its
//    S_G columns, c scalars below the diagonal, costs (c + d)·(c + d + 2) − c·(c + 2) = d·(2c + d + 2)
//    more flops for d rows more.
// Per group G the rows below it are kept as base[G] + (the size of the group its columns reached last),
// base[G] = R of its last block − the rows of reached blocks + the sizes of the closed groups reached, so
// the groups reaching H but not k are counted through sums over all groups reaching H.
//
// Scalars of L a group H adds beyond the separate blocks:
//  - in its own columns: S·(S + 1)/2 + S·R_k against Σ s_x·(s_x + 1)/2 + s_x·R_x over its blocks;
//  - in its rows: every earlier group G whose columns reach a member gets the full tile (H, G), S_G·S
//    scalars, against S_G·(the rows of the members it reaches).
// Counted group by group, these add up to the difference of the merged and the unmerged factor's scalars.
double Analyzer::Impl::findGroups(const Options& options, const unsigned int* sizes) {
    const unsigned int n = tree.numNodes;
    groupOf.resize(n);
    offsetInGroup.resize(n);
    groupStart.clear();
    if (!options.mergeBlocks) {
        for (unsigned int k = 0; k < n; ++k) {
            groupOf[k] = k;
            offsetInGroup[k] = 0;
            groupStart.push_back(k);
        }
        groupStart.push_back(n);
        return 0.0;
    }
    below.resize(4ul * n);
    double* R = below.data();  // scalar rows below each position
    double* C = R + n;         // blocks below each position (in groups of the previous pass, if any)
    double* Cg = C + n;        // by group: blocks below it
    double* base = Cg + n;     // by group: rows below it without the group it reached last
    for (unsigned long k = 0; k < 2ul * n; ++k) R[k] = 0.0;
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
            R[filled.rowIndices[e]] += sizes[i];  // L(i, j): s_i rows below block j
            C[filled.rowIndices[e]] += 1.0;
        }
    }
    grow(work4, n);
    grow(work5, n);
    unsigned int* groupSize = work4.data();  // S_G of the closed groups
    unsigned int* touched = work5.data();    // the last group that reached G's columns, by G
    const double w = options.mergeOperationFlops;
    // Σ_{m < M} m·(m + 2): the flops of M dense columns above no further rows.
    auto Q = [](double M) { return (M - 1.0) * M * (2.0 * M - 1.0) / 6.0 + (M - 1.0) * M; };
    auto columnFlops = [&](double cols, double rows) { return Q(rows + cols) - Q(rows); };

    // The open group H = positions start .. k-1 (group g): S, the scalars of its columns unmerged, T = Σ S_G
    // over the earlier groups that reach it, Σ S_G·(its rows they reach), and P = Σ over those groups of
    // S_G·(S_G − 1)/2 + S_G·base[G] (their columns hold P + S·T scalars below the diagonal).
    double S = 0.0, ownCols = 0.0, T = 0.0, rowsReached = 0.0, P = 0.0, zeros = 0.0, totalZeros = 0.0;
    unsigned int g = 0, start = 0;
    bool firstPass = true;
    // Over the closed groups in row k (before `limit`): the rows below each as they are now, its tiles
    // reached by H and k (set B) or by k only (set F).
    struct RowSums {
        double all = 0.0, fresh = 0.0;          // Σ S_G over B ∪ F and over F
        double scalarsB = 0.0, scalarsF = 0.0;  // Σ over B and F of the scalars below G's columns
        double blocksB = 0.0;                   // Σ over B of the blocks below G
    };
    auto scanRow = [&](unsigned int k, unsigned int limit, RowSums& r) {
        r = RowSums();
        unsigned int last = kNone;
        for (unsigned int e = filled.colPointers[k]; e + 1 < filled.colPointers[k + 1]; ++e) {
            const unsigned int x = filled.rowIndices[e];
            if (x >= limit) break;
            const unsigned int G = groupOf[x];
            if (G == last) continue;  // a group's columns are consecutive in the ascending row
            last = G;
            const double SG = groupSize[G];
            r.all += SG;
            if (touched[G] == g) {
                r.scalarsB += SG * (SG - 1.0) / 2.0 + SG * (base[G] + S);
                r.blocksB += Cg[G];
            } else {
                const double rows = base[G] + (touched[G] == kNone ? 0.0 : groupSize[touched[G]]);
                r.fresh += SG;
                r.scalarsF += SG * (SG - 1.0) / 2.0 + SG * rows;
            }
        }
    };
    // Block k becomes a member of group g: the closed groups in row k reach it.
    auto markRow = [&](unsigned int k, unsigned int limit, double s) {
        unsigned int last = kNone;
        for (unsigned int e = filled.colPointers[k]; e + 1 < filled.colPointers[k + 1]; ++e) {
            const unsigned int x = filled.rowIndices[e];
            if (x >= limit) break;
            const unsigned int G = groupOf[x];
            if (G == last) continue;
            last = G;
            const double SG = groupSize[G];
            if (touched[G] == g) {
                if (firstPass) Cg[G] -= 1.0;
                base[G] -= s;
                P -= SG * s;
            } else {
                if (touched[G] != kNone) base[G] += groupSize[touched[G]];
                touched[G] = g;
                base[G] -= s;
                P += SG * (SG - 1.0) / 2.0 + SG * base[G];
            }
        }
    };
    for (int pass = 0; pass < 3; ++pass) {
        firstPass = pass == 0;
        if (!firstPass) {
            // Blocks below each position counted in the groups of the previous pass.
            for (unsigned int k = 0; k < n; ++k) {
                C[k] = 0.0;
                touched[k] = kNone;
            }
            for (unsigned int i = 0; i < n; ++i) {
                for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
                    const unsigned int j = filled.rowIndices[e];
                    if (touched[j] != groupOf[i] && groupOf[j] != groupOf[i]) {
                        touched[j] = groupOf[i];
                        C[j] += 1.0;
                    }
                }
            }
        }
        for (unsigned int G = 0; G < n; ++G) touched[G] = kNone;
        groupStart.clear();
        S = ownCols = T = rowsReached = P = zeros = totalZeros = 0.0;
        g = start = 0;
        for (unsigned int k = 0; k < n; ++k) {
            const double s = sizes[k];
            const double own = s * (s + 1.0) / 2.0 + s * R[k];
            RowSums r;
            bool join =
                k > 0 && tree.parent[k - 1] == k && S + s <= static_cast<double>(options.maxMergedSize);
            if (join) {
                scanRow(k, start, r);
                const double S2 = S + s, T2 = T + r.fresh, reached2 = rowsReached + s * r.all;
                const double cols = S2 * (S2 + 1.0) / 2.0 + S2 * R[k];
                const double cH = std::max(C[k - 1], 1.0);
                const double opsSaved = cH * (cH + 1.0) / 2.0 + r.blocksB;
                const double onlyH = T - (r.all - r.fresh), scalarsOnlyH = P + S * T - r.scalarsB;
                const double flopsAdded = columnFlops(S2, R[k]) - columnFlops(S, R[k - 1]) -
                                          columnFlops(s, R[k]) +
                                          S * (2.0 * r.scalarsF + r.fresh * (S + 2.0)) +
                                          s * (2.0 * scalarsOnlyH + onlyH * (s + 2.0));
                join = flopsAdded <= w * opsSaved;
                if (join) {
                    S = S2;
                    ownCols += own;
                    T = T2;
                    rowsReached = reached2;
                    zeros = (cols - ownCols) + (S2 * T2 - reached2);
                }
            }
            if (!join) {
                if (k > 0) {
                    groupSize[g] = static_cast<unsigned int>(S);
                    base[g] = R[k - 1];
                    Cg[g] = C[k - 1];
                    totalZeros += zeros;
                    ++g;
                }
                groupStart.push_back(k);
                start = k;
                scanRow(k, k, r);
                S = s;
                ownCols = own;
                T = r.all;
                rowsReached = s * r.all;
                P = 0.0;
                zeros = 0.0;
            }
            markRow(k, start, s);
            groupOf[k] = g;
            offsetInGroup[k] = static_cast<unsigned int>(S - s);
        }
    }
    totalZeros += zeros;
    groupStart.push_back(n);
    return totalZeros;
}

// Symbolic factorization of `order` (buildSymbolic), its groups (findGroups) and the cost of the factor that
// data would receive: the groups' factor with merging, the blocks' otherwise. Sets report.unmergedCost and
// report.explicitZeros; leaves work3 = the block size of each position.
FactorCost Analyzer::Impl::evaluate(const Problem& problem, const Options& options, Report& report) {
    const unsigned int n = problem.numBlocks;
    buildSymbolic(problem);
    grow(work3, n);
    for (unsigned int k = 0; k < n; ++k) work3[k] = problem.blockSizes[order[k]];
    report.unmergedCost = filledCost(filled, work3.data(), costWork);
    report.explicitZeros = static_cast<unsigned long>(findGroups(options, work3.data()));
    return options.mergeBlocks ? groupCost(work3.data()) : report.unmergedCost;
}

// The cost of the factor on the groups (groupOf, groupStart) of the filled pattern, sizes [n] by position.
// Block column G of the merged factor holds group H > G exactly when some block of H has an entry of L in a
// column of G: eliminating the blocks of a group one after the other, each column's structure below the
// group lies in the structure of the next (the group is a path of the elimination tree), so the merged
// elimination makes no fill beyond the groups the blocks' factor already reaches. Every such tile is dense.
FactorCost Analyzer::Impl::groupCost(const unsigned int* sizes) {
    const unsigned int n = static_cast<unsigned int>(filled.n);
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    CostWork& w = costWork;
    grow(w.stamp, ng);
    grow(w.count, ng);
    grow(w.below, ng);
    grow(w.parent, ng);  // the group sizes
    unsigned int* groupSize = w.parent.data();
    for (unsigned int G = 0; G < ng; ++G) {
        w.stamp[G] = kNone;
        w.count[G] = 0;
        w.below[G] = 0;
        groupSize[G] = 0;
    }
    for (unsigned int k = 0; k < n; ++k) groupSize[groupOf[k]] += sizes[k];
    for (unsigned int H = 0; H < ng; ++H) {
        for (unsigned int i = groupStart[H]; i < groupStart[H + 1]; ++i) {
            for (unsigned int e = filled.colPointers[i]; e + 1 < filled.colPointers[i + 1]; ++e) {
                const unsigned int G = groupOf[filled.rowIndices[e]];
                if (G == H || w.stamp[G] == H) continue;
                w.stamp[G] = H;  // tile (H, G)
                ++w.count[G];
                w.below[G] += groupSize[H];
            }
        }
    }
    return costFromColumns(ng, groupSize, w.below.data(), w.count.data());
}

// The pattern of A on the groups (mergedPermuted, list form; mergedEntry[k] = its entry holding entry k of
// `permuted`), its elimination tree with child lists and post order, its filled pattern, the identity
// permutation of the groups and the group sizes (dataSizes).
void Analyzer::Impl::buildMerged() {
    const unsigned int n = static_cast<unsigned int>(permuted.n);
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    const unsigned long entries = permuted.numEntries();
    mergedPermuted.resize(ng, entries, false);
    grow(mergedEntry, entries);
    grow(work4, ng);
    grow(work5, ng);
    unsigned int* stamp = work4.data();
    unsigned int* slot = work5.data();
    for (unsigned int h = 0; h < ng; ++h) stamp[h] = kNone;
    unsigned int* mcp = mergedPermuted.colPointers;
    unsigned int* mrows = mergedPermuted.rowIndices;
    mcp[0] = 0;
    unsigned int at = 0;
    for (unsigned int G = 0; G < ng; ++G) {
        const unsigned int begin = at;
        for (unsigned int c = groupStart[G]; c < groupStart[G + 1]; ++c) {
            for (unsigned int k = permuted.colPointers[c]; k < permuted.colPointers[c + 1]; ++k) {
                const unsigned int h = groupOf[permuted.rowIndices[k]];
                if (stamp[h] != G) {
                    stamp[h] = G;
                    mrows[at++] = h;
                }
            }
        }
        std::sort(mrows + begin, mrows + at);  // G itself, the largest, comes last
        for (unsigned int q = begin; q < at; ++q) slot[mrows[q]] = q;
        for (unsigned int c = groupStart[G]; c < groupStart[G + 1]; ++c) {
            for (unsigned int k = permuted.colPointers[c]; k < permuted.colPointers[c + 1]; ++k)
                mergedEntry[k] = slot[groupOf[permuted.rowIndices[k]]];
        }
        mcp[G + 1] = at;
    }
    if (at > 0) std::memset(mergedPermuted.fillFlags, 0, at);

    const unsigned int capacity = ng == 0 ? 1 : ng;
    if (mergedTree.parent == nullptr || mergedTree.capacity < capacity) {
        if (mergedTree.parent) mergedTree.releaseMemory();
        mergedTree.allocateMemory(capacity);
    }
    mergedTree.numNodes = ng;
    grow(work1, ng);
    for (unsigned int h = 0; h < ng; ++h) work1[h] = 1;
    TreeUpdate::computeTree(&mergedTree, mergedPermuted, work1.data());
    mergedTree.computeTreeStructure();
    mergedTree.computePostOrder();
    computeFilledSkeleton(mergedPermuted, mergedTree, mergedFilled, &pad);

    groupPerm.reserve(capacity);
    groupPerm.size = ng;
    for (unsigned int h = 0; h < ng; ++h) {
        groupPerm.forward[h] = h;
        groupPerm.inverse[h] = h;
    }
    dataSizes.resize(ng);
    for (unsigned int h = 0; h < ng; ++h) dataSizes[h] = 0;
    for (unsigned int k = 0; k < n; ++k) dataSizes[groupOf[k]] += work3[k];
}

// The rest of the staged assembly map: groups, the data block of each user block and the tile and mode of
// each user entry. Precondition: buildSymbolic, findGroups and (when merging) buildMerged ran; work2 holds
// the user entry of each permuted entry and permuted.fillFlags whether it was swapped.
void Analyzer::Impl::finishAssembly() {
    Assembly& a = staged;
    const unsigned int n = a.n;
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    a.groups = ng;
    a.groupStart.resize(ng + 1);
    std::memcpy(a.groupStart.data(), groupStart.data(), (ng + 1ul) * sizeof(unsigned int));
    a.inverse.resize(n);
    a.factorBlock.resize(n);
    a.factorOffset.resize(n);
    for (unsigned int k = 0; k < n; ++k) {
        const unsigned int b = a.forward[k];
        a.inverse[b] = k;
        a.factorBlock[b] = groupOf[k];
        a.factorOffset[b] = offsetInGroup[k];
    }
    a.entryMode.resize(a.entries);
    const unsigned int* origin = work2.data();
    const unsigned char* swapped = permuted.fillFlags;
    for (unsigned int c = 0; c < n; ++c) {
        for (unsigned int k = permuted.colPointers[c]; k < permuted.colPointers[c + 1]; ++k) {
            const unsigned int r = permuted.rowIndices[k];
            const unsigned int e = origin[k];
            a.entryBlock[e] = merged ? mergedEntry[k] : k;
            if (groupOf[r] == groupOf[c])
                a.entryMode[e] = r == c ? kAsIs : kBoth;
            else
                a.entryMode[e] = swapped[k] ? kTransposed : kAsIs;
        }
    }
    if (!merged) {
        dataSizes.resize(n);
        if (n > 0) std::memcpy(dataSizes.data(), work3.data(), n * sizeof(unsigned int));
    }
}

bool Analyzer::Impl::prepare(const Problem& problem, const Options& options, Report& report) {
    std::uint64_t t = kiv::Timer::ticks();
    const unsigned int n = problem.numBlocks;
    const bool allowR = options.peel;
    haveCandidate = false;
    if (!checkForm(problem, &report.message)) return false;
    buildGraph(problem, graph, work1);
    if (!checkCoupling(graph, &report.message)) return false;
    staged.sizes.resize(n);
    if (n > 0) std::memcpy(staged.sizes.data(), problem.blockSizes, n * sizeof(unsigned int));
    report.checkSeconds = secondsSince(t);

    t = kiv::Timer::ticks();
    switch (options.ordering) {
        case Ordering::standard:
            orderStandard(problem, options, report);
            break;
        case Ordering::symamdSwap:
            orderSymamdSwap(problem, report, allowR);
            break;
        case Ordering::centroid:
            order.resize(n);
            if (!Reordering::centroidOrder(n, problem.firstConstraint, problem.colPointers,
                                           problem.rowIndices, order.data())) {
                report.centroidFallback = true;
                orderStandard(problem, options, report);
            }
            break;
        case Ordering::natural:
            order.resize(n);
            for (unsigned int k = 0; k < n; ++k) order[k] = k;
            break;
        case Ordering::user:
            if (n > 0 && options.userOrder == nullptr) {
                report.message = "ordering 'user' needs Options::userOrder";
                return false;
            }
            if (!checkPermutation(options.userOrder, n, work1, &report.message)) return false;
            order.resize(n);
            if (n > 0) std::memcpy(order.data(), options.userOrder, n * sizeof(unsigned int));
            break;
        default:
            report.message = format("unknown ordering %u", static_cast<unsigned int>(options.ordering));
            return false;
    }
    report.orderSeconds = secondsSince(t);

    // The factor of the order, and for the standard ordering the decision between its candidates on the
    // factors they build (merged, explicit zeros included).
    t = kiv::Timer::ticks();
    FactorCost cost = evaluate(problem, options, report);
    if (haveCandidate) {
        report.minimumDegreeCost = cost;
        const FactorCost mdUnmerged = report.unmergedCost;
        const unsigned long mdZeros = report.explicitZeros;
        order.swap(candidate);
        const FactorCost nd = evaluate(problem, options, report);
        report.nestedDissectionCost = nd;
        report.nestedDissectionFlops = report.unmergedCost.flops;
        const double weight = options.mergeOperationFlops;
        if (nd.modelFlops(weight) < cost.modelFlops(weight)) {
            report.usedNestedDissection = true;
            cost = nd;
        } else {
            order.swap(candidate);
            report.unmergedCost = mdUnmerged;
            report.explicitZeros = mdZeros;
            evaluate(problem, options, report);
        }
    } else if (options.ordering == Ordering::standard ||
               (options.ordering == Ordering::centroid && report.centroidFallback)) {
        report.minimumDegreeCost = cost;
    }

    // Whatever produced it, the order must satisfy the rule.
    computeInverse(order.data(), n, inverse);
    const unsigned int k = firstOffence(graph, order.data(), inverse.data(), allowR);
    if (k < n) {
        report.message = ruleMessage(graph, order.data(), inverse.data(), k, allowR);
        if (options.ordering != Ordering::user) report.message = "internal error: " + report.message;
        return false;
    }

    merged = options.mergeBlocks;
    if (merged) buildMerged();
    finishAssembly();
    report.mergedBlocks = staged.groups;
    for (unsigned int G = 0; G < staged.groups; ++G) {
        if (groupStart[G + 1] - groupStart[G] > 1) ++report.multiBlockGroups;
        unsigned int rows = 0;
        for (unsigned int q = groupStart[G]; q < groupStart[G + 1]; ++q) rows += work3[q];
        report.largestGroup = std::max(report.largestGroup, rows);
    }
    report.cost = cost;
    report.symbolicSeconds = secondsSince(t);
    return true;
}

template <typename T>
Report Analyzer::analyze(const Problem& problem, const Options& options, TamberData<T>& data) {
    Report report;
    Impl& w = *impl_;
    if (!w.prepare(problem, options, report)) return report;

    const std::uint64_t t = kiv::Timer::ticks();
    swapPermutation(data.permutation, w.merged ? w.groupPerm : w.perm);
    swapSkeleton(data.skeleton, w.merged ? w.mergedFilled : w.filled);
    swapTree(data.etree, w.merged ? w.mergedTree : w.tree);
    data.isFactored = 0;

    // data.matrix in upper form on the pattern of A in data's blocks.
    const SkeletonMatrix& S = w.merged ? w.mergedPermuted : w.permuted;
    const unsigned int nb = static_cast<unsigned int>(S.n);
    const unsigned int* sizes = w.dataSizes.data();
    const unsigned long blocks = S.numEntries();
    unsigned long values = 0;
    for (unsigned int c = 0; c < nb; ++c) {
        const unsigned long pc = strideOf<T>(sizes[c]);
        for (unsigned int e = S.colPointers[c]; e < S.colPointers[c + 1]; ++e)
            values += pc * strideOf<T>(sizes[S.rowIndices[e]]);
    }
    data.matrix.clear();
    data.matrix.setSize(nb, nb, blocks, values);
    for (unsigned int c = 0; c < nb; ++c) {
        for (unsigned int e = S.colPointers[c]; e < S.colPointers[c + 1]; ++e) {
            const unsigned int r = S.rowIndices[e];
            data.matrix.acquireBlock(c, r, sizes[c], sizes[r]);
        }
    }

    // Where setBlock writes each entry.
    Assembly& a = w.staged;
    const SparseMatrix<T>& A = data.matrix;
    a.destinations.resize(a.entries);
    for (unsigned long e = 0; e < a.entries; ++e) {
        const unsigned int i = a.rowIndices[e], j = a.entryColumn[e];
        const unsigned int k = a.entryBlock[e];
        const unsigned long ld = A.blockStrides[A.rowIndices[k]];
        const unsigned long base = static_cast<unsigned long>(A.blockPointers[k] - A.values);
        const unsigned long oi = a.factorOffset[i], oj = a.factorOffset[j];
        Destination& d = a.destinations[e];
        d.mode = a.entryMode[e];
        d.ld = static_cast<unsigned int>(ld);
        d.rows = a.sizes[i];
        d.cols = a.sizes[j];
        d.first = d.mode == kTransposed ? base + oi * ld + oj : base + oj * ld + oi;
        d.mirror = base + oi * ld + oj;
    }
    w.committed.swap(w.staged);
    report.layoutSeconds = secondsSince(t);
    report.ok = true;
    return report;
}

unsigned int Analyzer::numBlocks() const {
    return impl_->committed.n;
}

unsigned int Analyzer::scalarSize() const {
    return impl_->committed.N;
}

unsigned long Analyzer::numEntries() const {
    return impl_->committed.entries;
}

unsigned int Analyzer::numFactorBlocks() const {
    return impl_->committed.groups;
}

bool Analyzer::factorPosition(unsigned int userBlock, unsigned int local, unsigned int& block,
                              unsigned int& localInBlock) const {
    const Assembly& a = impl_->committed;
    if (userBlock >= a.n || local >= a.sizes[userBlock]) return false;
    block = a.factorBlock[userBlock];
    localInBlock = a.factorOffset[userBlock] + local;
    return true;
}

bool Analyzer::userPosition(unsigned int block, unsigned int localInBlock, unsigned int& userBlock,
                            unsigned int& local) const {
    const Assembly& a = impl_->committed;
    if (block >= a.groups) return false;
    // Scalar offsets of the group's positions ascend: the last position starting at or before localInBlock.
    const unsigned int first = a.groupStart[block], last = a.groupStart[block + 1];
    const unsigned int* offsets = a.permutedOffsets.data();
    const unsigned int target = offsets[first] + localInBlock;
    if (localInBlock >= offsets[last] - offsets[first]) return false;
    const unsigned int k =
        static_cast<unsigned int>(std::upper_bound(offsets + first, offsets + last, target) - offsets - 1);
    userBlock = a.forward[k];
    local = target - offsets[k];
    return true;
}

const unsigned int* Analyzer::groupStarts() const {
    return impl_->committed.groupStart.data();
}

const unsigned int* Analyzer::order() const {
    return impl_->committed.forward.data();
}

unsigned long Analyzer::findEntry(unsigned int i, unsigned int j) const {
    const Assembly& a = impl_->committed;
    if (j >= a.n || i > j) return noEntry;
    const unsigned int* begin = a.rowIndices.data() + a.colPointers[j];
    const unsigned int* end = a.rowIndices.data() + a.colPointers[j + 1];
    const unsigned int* it = std::lower_bound(begin, end, i);
    return it != end && *it == i ? static_cast<unsigned long>(it - a.rowIndices.data()) : noEntry;
}

namespace {

// One entry into data.matrix.values (see Destination): element (a, b) of A(i, j) (d.rows × d.cols) is
// v[a·rs + b·cs]; rs = d.cols, cs = 1 for row-major A(i, j), rs = 1, cs = d.rows for row-major A(j, i).
template <typename T, typename V>
inline void writeEntry(T* values, const Destination& d, const V* v, unsigned long rs, unsigned long cs) {
    const unsigned long ld = d.ld, rows = d.rows, cols = d.cols;
    if (d.mode != kTransposed) {
        T* tile = values + d.first;
        for (unsigned long b = 0; b < cols; ++b, tile += ld) {
            for (unsigned long a = 0; a < rows; ++a)
                tile[a] = static_cast<T>(v[a * rs + b * cs]);  // (a, b) = A_ab
        }
        if (d.mode == kAsIs) return;
    }
    T* tile = values + (d.mode == kTransposed ? d.first : d.mirror);
    for (unsigned long a = 0; a < rows; ++a, tile += ld) {
        for (unsigned long b = 0; b < cols; ++b)
            tile[b] = static_cast<T>(v[a * rs + b * cs]);  // (b, a) = A_ab
    }
}

}  // namespace

template <typename T, typename V>
bool Analyzer::setBlock(TamberData<T>& data, unsigned long entry, const V* values) const {
    const Assembly& a = impl_->committed;
    if (entry >= a.entries || values == nullptr) return false;
    const Destination& d = a.destinations[entry];
    writeEntry(data.matrix.values, d, values, d.cols, 1);
    data.isFactored = 0;
    return true;
}

template <typename T, typename V>
bool Analyzer::setBlockTransposed(TamberData<T>& data, unsigned long entry, const V* values) const {
    const Assembly& a = impl_->committed;
    if (entry >= a.entries || values == nullptr) return false;
    const Destination& d = a.destinations[entry];
    writeEntry(data.matrix.values, d, values, 1, d.rows);
    data.isFactored = 0;
    return true;
}

template <typename T, typename V>
void Analyzer::setBlocks(TamberData<T>& data, const V* values, const unsigned long* valuePointers) const {
    const Assembly& a = impl_->committed;
    const Destination* d = a.destinations.data();
    T* const target = data.matrix.values;
    for (unsigned long e = 0; e < a.entries; ++e)
        writeEntry(target, d[e], values + valuePointers[e], d[e].cols, 1);
    data.isFactored = 0;
}

unsigned int Analyzer::entryRows(unsigned long entry) const {
    const Assembly& a = impl_->committed;
    return entry < a.entries ? a.sizes[a.rowIndices[entry]] : 0;
}

unsigned int Analyzer::entryCols(unsigned long entry) const {
    const Assembly& a = impl_->committed;
    return entry < a.entries ? a.sizes[a.entryColumn[entry]] : 0;
}

template <typename T>
void Analyzer::permuteVector(const T* user, T* permuted) const {
    const Assembly& a = impl_->committed;
    for (unsigned int k = 0; k < a.n; ++k) {
        const unsigned int b = a.forward[k];
        std::memcpy(permuted + a.permutedOffsets[k], user + a.userOffsets[b], a.sizes[b] * sizeof(T));
    }
}

template <typename T>
void Analyzer::unpermuteVector(const T* permuted, T* user) const {
    const Assembly& a = impl_->committed;
    for (unsigned int k = 0; k < a.n; ++k) {
        const unsigned int b = a.forward[k];
        std::memcpy(user + a.userOffsets[b], permuted + a.permutedOffsets[k], a.sizes[b] * sizeof(T));
    }
}

template Report Analyzer::analyze<float>(const Problem&, const Options&, TamberData<float>&);
template Report Analyzer::analyze<double>(const Problem&, const Options&, TamberData<double>&);
template bool Analyzer::setBlock<float, float>(TamberData<float>&, unsigned long, const float*) const;
template bool Analyzer::setBlockTransposed<float, float>(TamberData<float>&, unsigned long,
                                                         const float*) const;
template bool Analyzer::setBlock<float, double>(TamberData<float>&, unsigned long, const double*) const;
template bool Analyzer::setBlockTransposed<float, double>(TamberData<float>&, unsigned long,
                                                          const double*) const;
template bool Analyzer::setBlock<double, float>(TamberData<double>&, unsigned long, const float*) const;
template bool Analyzer::setBlockTransposed<double, float>(TamberData<double>&, unsigned long,
                                                          const float*) const;
template bool Analyzer::setBlock<double, double>(TamberData<double>&, unsigned long, const double*) const;
template bool Analyzer::setBlockTransposed<double, double>(TamberData<double>&, unsigned long,
                                                           const double*) const;
template void Analyzer::setBlocks<float, float>(TamberData<float>&, const float*, const unsigned long*) const;
template void Analyzer::setBlocks<float, double>(TamberData<float>&, const double*,
                                                 const unsigned long*) const;
template void Analyzer::setBlocks<double, float>(TamberData<double>&, const float*,
                                                 const unsigned long*) const;
template void Analyzer::setBlocks<double, double>(TamberData<double>&, const double*,
                                                  const unsigned long*) const;
template void Analyzer::permuteVector<float>(const float*, float*) const;
template void Analyzer::permuteVector<double>(const double*, double*) const;
template void Analyzer::unpermuteVector<float>(const float*, float*) const;
template void Analyzer::unpermuteVector<double>(const double*, double*) const;

}  // namespace Analysis
}  // namespace kivTamber
