#include "Analysis.h"

#include <kiv/ByteAllocator.h>
#include <kiv/Timer.h>
#include <kiv/VectorPOD.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kernels.h"
#include "Reordering.h"
#include "Symbolic.h"
#include "TreeUpdate.h"

namespace kivTamber {
namespace Analysis {

namespace {

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

// Physical memory of the machine in bytes (infinite when unknown).
double physicalMemoryBytes() {
    const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return 1e300;
    return static_cast<double>(pages) * static_cast<double>(pageSize);
}

double secondsSince(std::uint64_t start) {
    return kiv::Timer::seconds(start, kiv::Timer::ticks());
}

using Reordering::BlockGraph;
using Reordering::firstRuleOffence;
using Reordering::lastBody;
using Reordering::lastOtherConstraint;

// Precondition: the problem is well formed. fill: workspace of n entries.
void buildGraph(const Problem& p, BlockGraph& g, kiv::VectorPOD<unsigned int>& fill) {
    Reordering::buildBlockGraph(p.numBlocks, p.firstConstraint, p.colPointers, p.rowIndices, g, fill);
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

// What is wrong with the constraint at position k, which breaks the rule.
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

void computeInverse(const unsigned int* forward, unsigned int n, kiv::VectorPOD<unsigned int>& inverse) {
    grow(inverse, n);
    for (unsigned int k = 0; k < n; ++k) inverse[forward[k]] = k;
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
    const unsigned int k = firstRuleOffence(g, forward, work.data(), allowRuleR);
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
    Reordering::RepairWork w;
    const unsigned long count = Reordering::repairRule(g, order, w, allowRuleR);
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
    return orderCost(g, forward, inverse.data(), problem.blockSizes, w, work);
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

// One entry of setBlocksAndFactor's column order: where its tile starts, the copy routine of its sizes
// (kernels::fast::blockCopy; null: writeEntry with its Destination, for a block beyond the routines' sizes,
// one copied to both triangles, or values of another type), its index (for its values' pointer and its
// Destination) and the tile's leading dimension.
struct ColumnCopy {
    unsigned long first;
    kernels::fast::BlockCopy routine;
    unsigned int entry;
    unsigned int ld;
};

// A slice of permuteVector: `size` scalars from the user's offset `user` to the permuted offset `permuted`.
struct CopyRun {
    unsigned int permuted, user, size;
};

// dst[0 … size) = src[0 … size) for slices that do not overlap. Most slices are a block or two of a few
// scalars: two overlapping fixed-size copies cover each size up to 16 without a call or a loop.
template <unsigned int W, typename T>
inline void copyEnds(T* __restrict dst, const T* __restrict src, unsigned int size) {  // W ≤ size ≤ 2W
    T head[W], tail[W];
    std::memcpy(head, src, sizeof(head));
    std::memcpy(tail, src + size - W, sizeof(tail));
    std::memcpy(dst, head, sizeof(head));
    std::memcpy(dst + size - W, tail, sizeof(tail));
}
template <typename T>
inline void copyEntries(T* __restrict dst, const T* __restrict src, unsigned int size) {
    if (size > 16) {
        std::memcpy(dst, src, size * sizeof(T));
    } else if (size > 8) {
        copyEnds<8>(dst, src, size);
    } else if (size >= 4) {
        copyEnds<4>(dst, src, size);
    } else if (size >= 2) {
        copyEnds<2>(dst, src, size);
    } else if (size == 1) {
        dst[0] = src[0];
    }
}

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
    // The entries by the block column of data.matrix they are written to (ascending entry within a column):
    // those of column c are columnCopies[columnStart[c] … columnStart[c + 1]) (setBlocksAndFactor writes a
    // column just before it is factored).
    unsigned int columns = 0;                        // block columns of data.matrix
    kiv::VectorPOD<unsigned int> columnStart;        // [columns + 1]
    kiv::VectorPOD<ColumnCopy> columnCopies;         // [entries]
    kiv::VectorPOD<unsigned int> entryMatrixColumn;  // [entries] the block column of data.matrix of each
    // permuteVector's copies: maximal runs of positions k whose user slices follow one another in the user's
    // numbering, in the order of k (as many as n when no two neighbours of the order are neighbours in the
    // user's numbering; one when the order is the identity).
    unsigned int numRuns = 0;
    kiv::VectorPOD<CopyRun> runs;  // [numRuns]

    // No structure: every entry and block count zero (the assembly functions then write nothing).
    void reset() noexcept {
        n = N = groups = numRuns = columns = 0;
        entries = 0;
    }

    void swap(Assembly& o) noexcept {
        std::swap(n, o.n);
        std::swap(N, o.N);
        std::swap(entries, o.entries);
        std::swap(groups, o.groups);
        std::swap(columns, o.columns);
        std::swap(numRuns, o.numRuns);
        runs.swap(o.runs);
        inverse.swap(o.inverse);
        groupStart.swap(o.groupStart);
        factorBlock.swap(o.factorBlock);
        factorOffset.swap(o.factorOffset);
        destinations.swap(o.destinations);
        columnStart.swap(o.columnStart);
        columnCopies.swap(o.columnCopies);
        entryMatrixColumn.swap(o.entryMatrixColumn);
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
    Reordering::SafeOrderWork safeWork;
    Reordering::SymamdWork symamdWork;
    kiv::VectorPOD<unsigned int> order, inverse, candidate;
    kiv::VectorPOD<unsigned int> work1, work2, work3, work4, work5;
    SkeletonMatrix permuted;
    SkeletonMatrix filled;
    EliminationTree tree;
    Permutation perm;
    ScratchPad pad;
    // Merging: the groups of the order, and the pattern, tree and filled pattern on them.
    bool merged = false;
    Groups groups;
    MergeWork mergeWork;
    kiv::VectorPOD<unsigned int>& groupOf = groups.groupOf;
    kiv::VectorPOD<unsigned int>& offsetInGroup = groups.offsetInGroup;
    kiv::VectorPOD<unsigned int>& groupStart = groups.groupStart;
    kiv::VectorPOD<unsigned int> mergedEntry, dataSizes;
    SkeletonMatrix mergedPermuted;
    SkeletonMatrix mergedFilled;
    EliminationTree mergedTree;
    Permutation groupPerm;

    // The non-template part of analyze: everything into the analyzer's own storage.
    bool prepare(const Problem& problem, const Options& options, Report& report);
    void orderStandard(const Problem& problem, const Options& options, Report& report);
    // orderStandard: blocks peeled, bodies left to minimum degree, and whether nested dissection may follow.
    unsigned int peeled = 0, remainingBodies = 0;
    bool mayDissect = false;
    void buildSymbolic(const Problem& problem, bool withTree = true, bool withFilled = true,
                       bool withFillFlags = true);
    ColumnCounts counts;
    CountWork countWork;
    void mergeStructure();
    // The minimum-degree order's tree, filled pattern and groups while the nested-dissection one is weighed.
    EliminationTree savedTree;
    SkeletonMatrix savedFilled;
    Groups savedGroups;
    void swapEvaluation();
    FactorCost evaluate(const Problem& problem, const Options& options, Report& report, double bound = 0.0,
                        bool* bounded = nullptr);
    void buildMerged();
    void finishAssembly();
};

Analyzer::Analyzer() : impl_(new Impl) {}

Analyzer::~Analyzer() {
    delete impl_;
}

// Standard ordering: peel, csymamd with bodies first (Reordering::peelAndMinimumDegree), and for a large
// remainder the nested-dissection candidate, weighed in prepare on the factor each order builds.
void Analyzer::Impl::orderStandard(const Problem& problem, const Options& options, Report& report) {
    (void)problem;
    const unsigned int n = graph.n;
    bool fallback = false;
    peeled =
        Reordering::peelAndMinimumDegree(graph, options.peel, order, safeWork, remainingBodies, fallback);
    report.peeledBlocks = peeled;
    report.orderingFallback = fallback;
    const unsigned int m = n - peeled;
    mayDissect = options.nestedDissection && remainingBodies > 0 && m - remainingBodies >= 2;
}

// Permuted pattern of A with the assembly map and the permutation, and (withTree) its elimination tree and
// the filled pattern of L, for `order`.
void Analyzer::Impl::buildSymbolic(const Problem& problem, bool withTree, bool withFilled,
                                   bool withFillFlags) {
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
    a.runs.resize(n);
    a.numRuns = 0;
    for (unsigned int k = 0; k < n; ++k) {
        const unsigned int b = forward[k];
        CopyRun* last = a.numRuns > 0 ? &a.runs[a.numRuns - 1] : nullptr;
        if (last != nullptr && last->user + last->size == a.userOffsets[b])
            last->size += a.sizes[b];
        else
            a.runs[a.numRuns++] = CopyRun{a.permutedOffsets[k], a.userOffsets[b], a.sizes[b]};
    }

    // The permutation handed to the data.
    perm.reserve(n == 0 ? 1 : n);
    perm.size = n;
    for (unsigned int k = 0; k < n; ++k) {
        perm.forward[k] = forward[k];
        perm.inverse[k] = inv[k];
    }
    if (!withTree) return;

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
    if (withFilled) computeFilledSkeleton(permuted, tree, filled, &pad, withFillFlags);
}

void Analyzer::Impl::swapEvaluation() {
    swapTree(tree, savedTree);
    swapSkeleton(filled, savedFilled);
    groupOf.swap(savedGroups.groupOf);
    offsetInGroup.swap(savedGroups.offsetInGroup);
    groupStart.swap(savedGroups.groupStart);
}

// Symbolic factorization of `order` (buildSymbolic), its groups (findGroups) and the cost of the factor that
// data would receive: the groups' factor with merging, the blocks' otherwise. Sets report.unmergedCost and
// report.explicitZeros; leaves work3 = the block size of each position.
FactorCost Analyzer::Impl::evaluate(const Problem& problem, const Options& options, Report& report,
                                    double bound, bool* bounded) {
    const unsigned int n = problem.numBlocks;
    buildSymbolic(problem, true, false);
    grow(work3, n);
    for (unsigned int k = 0; k < n; ++k) work3[k] = problem.blockSizes[order[k]];
    report.unmergedCost = countedCost(permuted, tree.parent, tree.postOrder, work3.data(), counts, countWork);
    // Merging only adds flops, so unmerged flops above the bound rule the order out without going further.
    if (bounded) *bounded = bound > 0.0 && report.unmergedCost.flops >= bound;
    if (bounded && *bounded) return report.unmergedCost;
    computeFilledSkeleton(permuted, tree, filled, &pad, !options.mergeBlocks);  // flags only for data
    report.explicitZeros = static_cast<unsigned long>(
        findGroups(filled, tree.parent, work3.data(), options.mergeBlocks, options.maxMergedSize,
                   options.mergeOperationFlops, groups, mergeWork, &counts));
    if (!options.mergeBlocks || groupStart.size() == n + 1ul) return report.unmergedCost;  // nothing merged
    return groupCost(filled, groups, work3.data(), costWork);
}

// The pattern of A on the groups (mergedPermuted, list form; mergedEntry[k] = its entry holding entry k of
// `permuted`), its elimination tree with child lists and post order, its filled pattern, the identity
// permutation of the groups and the group sizes (dataSizes).
void Analyzer::Impl::buildMerged() {
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    if (ng == permuted.n) {
        // No block merged: the groups' pattern is the blocks' pattern, and the filled pattern the one of the
        // evaluation (without its fill flags, set here).
        const unsigned int n = ng;
        const unsigned long entries = permuted.numEntries();
        mergedPermuted.resize(n, entries, false);
        std::memcpy(mergedPermuted.colPointers, permuted.colPointers, (n + 1ul) * sizeof(unsigned int));
        if (entries > 0) {
            std::memcpy(mergedPermuted.rowIndices, permuted.rowIndices, entries * sizeof(unsigned int));
            std::memset(mergedPermuted.fillFlags, 0, entries);
        }
        grow(mergedEntry, entries);
        for (unsigned long e = 0; e < entries; ++e) mergedEntry[e] = static_cast<unsigned int>(e);
        const unsigned int capacity = n == 0 ? 1 : n;
        if (mergedTree.parent == nullptr || mergedTree.capacity < capacity) {
            if (mergedTree.parent) mergedTree.releaseMemory();
            mergedTree.allocateMemory(capacity);
        }
        mergedTree.numNodes = n;
        grow(work1, n);
        for (unsigned int h = 0; h < n; ++h) work1[h] = 1;
        TreeUpdate::computeTree(&mergedTree, mergedPermuted, work1.data());
        mergedTree.computeTreeStructure();
        mergedTree.computePostOrder();
        dataSizes.resize(n);
        if (n > 0) std::memcpy(dataSizes.data(), work3.data(), n * sizeof(unsigned int));
        markFillIns(permuted, filled);
        swapSkeleton(mergedFilled, filled);
    } else {
        mergeStructure();
        computeFilledSkeleton(mergedPermuted, mergedTree, mergedFilled, &pad);
    }
    groupPerm.reserve(ng == 0 ? 1 : ng);
    groupPerm.size = ng;
    for (unsigned int h = 0; h < ng; ++h) {
        groupPerm.forward[h] = h;
        groupPerm.inverse[h] = h;
    }
}

// The pattern of A on the groups, its elimination tree with child lists and post order, and the group sizes
// (dataSizes). Precondition: buildSymbolic and the groups of the same order; work3 = sizes by position.
void Analyzer::Impl::mergeStructure() {
    const unsigned int n = static_cast<unsigned int>(permuted.n);
    const unsigned int ng = static_cast<unsigned int>(groupStart.size() - 1);
    mergedPattern(permuted, groups, mergedPermuted, mergedEntry, work4, work5);
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
    mayDissect = false;
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
            report.movedConstraints =
                Reordering::symamdSafeOrder(graph, problem.colPointers, problem.rowIndices, allowR, order,
                                            symamdWork, report.swapFailed, report.orderingFallback);
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
    const bool standardOrder = options.ordering == Ordering::standard ||
                               (options.ordering == Ordering::centroid && report.centroidFallback);
    if (standardOrder) {
        report.minimumDegreeCost = cost;
        report.minimumDegreeFlops = mayDissect ? report.unmergedCost.flops : 0.0;
    }
    if (standardOrder && mayDissect && report.unmergedCost.flops > options.nestedDissectionThreshold) {
        const std::uint64_t tNd = kiv::Timer::ticks();
        const bool haveCandidate = Reordering::constraintNestedDissection(
            graph, problem.blockSizes, order, peeled, remainingBodies, candidate, safeWork);
        report.orderSeconds += secondsSince(tNd);
        if (haveCandidate) {
            const FactorCost mdUnmerged = report.unmergedCost;
            const unsigned long mdZeros = report.explicitZeros;
            const double weight = options.mergeOperationFlops;
            swapEvaluation();  // keep the minimum-degree tree, filled pattern and groups aside
            order.swap(candidate);
            bool bounded = false;
            const FactorCost nd = evaluate(problem, options, report, cost.modelFlops(weight), &bounded);
            report.nestedDissectionCost = nd;
            report.nestedDissectionFlops = report.unmergedCost.flops;
            if (!bounded && nd.modelFlops(weight) < cost.modelFlops(weight)) {
                report.usedNestedDissection = true;
                cost = nd;
            } else {
                order.swap(candidate);
                report.unmergedCost = mdUnmerged;
                report.explicitZeros = mdZeros;
                swapEvaluation();
                buildSymbolic(problem, false);  // the permuted pattern and assembly map of the kept order
                for (unsigned int q = 0; q < n; ++q) work3[q] = problem.blockSizes[order[q]];
            }
        }
    }

    // Whatever produced it, the order must satisfy the rule.
    computeInverse(order.data(), n, inverse);
    const unsigned int k = firstRuleOffence(graph, order.data(), inverse.data(), allowR);
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
    try {
        if (!w.prepare(problem, options, report)) return report;
    } catch (const std::bad_alloc&) {
        report = Report();
        report.message =
            format("out of memory analysing the problem (%u blocks); nothing was changed", problem.numBlocks);
        return report;
    }

    // data.matrix in upper form on the pattern of A in data's blocks: its size, checked before data changes.
    const std::uint64_t t = kiv::Timer::ticks();
    const SkeletonMatrix& S = w.merged ? w.mergedPermuted : w.permuted;
    const unsigned int nb = static_cast<unsigned int>(S.n);
    const unsigned int* sizes = w.dataSizes.data();
    const unsigned long blocks = S.numEntries();
    unsigned long values = 0;
    bool representable = true;
    for (unsigned int c = 0; c < nb && representable; ++c) {
        const unsigned long pc = strideOf<T>(sizes[c]);
        for (unsigned int e = S.colPointers[c]; e < S.colPointers[c + 1]; ++e) {
            unsigned long tile = 0;
            if (__builtin_mul_overflow(pc, strideOf<T>(sizes[S.rowIndices[e]]), &tile) ||
                __builtin_add_overflow(values, tile, &values)) {
                representable = false;
                break;
            }
        }
    }
    const double bytes = static_cast<double>(values) * sizeof(T);
    if (!representable || bytes > physicalMemoryBytes()) {
        report = Report();
        report.message =
            representable ? format(
                                "the matrix of the problem needs %lu values (%.3g GB), more than the "
                                "memory of this machine (%.3g GB); nothing was changed",
                                values, 1e-9 * bytes, 1e-9 * physicalMemoryBytes())
                          : "the matrix of the problem needs more values than a 64-bit count holds; nothing "
                            "was changed";
        return report;
    }

    try {
        data.matrix.clear();
        data.matrix.setSize(nb, nb, blocks, values);
        w.staged.destinations.resize(w.staged.entries);
        w.staged.columnStart.resize(static_cast<unsigned long>(nb) + 1);
        w.staged.columnCopies.resize(w.staged.entries);
        w.staged.entryMatrixColumn.resize(w.staged.entries);
    } catch (const std::bad_alloc&) {
        // data.matrix lost its storage: the data object no longer matches the old structure either, so both
        // it and this analyzer's map are emptied.
        data.matrix.setSize(0, 0, 0, 0);
        data.isFactored = 0;
        w.committed.reset();
        report = Report();
        report.message = format(
            "out of memory laying out the matrix (%lu blocks, %lu values, %.3g GB); the "
            "data object was left without a matrix: analyse again",
            blocks, values, 1e-9 * bytes);
        return report;
    }
    swapPermutation(data.permutation, w.merged ? w.groupPerm : w.perm);
    swapSkeleton(data.skeleton, w.merged ? w.mergedFilled : w.filled);
    swapTree(data.etree, w.merged ? w.mergedTree : w.tree);
    data.isFactored = 0;
    for (unsigned int c = 0; c < nb; ++c) {
        for (unsigned int e = S.colPointers[c]; e < S.colPointers[c + 1]; ++e) {
            const unsigned int r = S.rowIndices[e];
            data.matrix.acquireBlock(c, r, sizes[c], sizes[r]);
        }
    }

    // Where setBlock writes each entry.
    Assembly& a = w.staged;
    const SparseMatrix<T>& A = data.matrix;
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
    // The entries by destination column: a counting sort on the column of each entry's block (block k of
    // data.matrix lies in the column c with S.colPointers[c] <= k < S.colPointers[c + 1]).
    auto columnOf = [&](unsigned long e) {
        return static_cast<unsigned int>(
            std::upper_bound(S.colPointers + 1, S.colPointers + nb + 1, a.entryBlock[e]) -
            (S.colPointers + 1));
    };
    a.columns = nb;
    unsigned int* const start = a.columnStart.data();
    std::fill(start, start + nb + 1, 0u);
    for (unsigned long e = 0; e < a.entries; ++e) {
        a.entryMatrixColumn[e] = columnOf(e);
        ++start[a.entryMatrixColumn[e]];
    }
    for (unsigned int c = 0, sum = 0; c < nb; ++c) {  // start[c]: the first place of column c
        const unsigned int count = start[c];
        start[c] = sum;
        sum += count;
    }
    for (unsigned long e = 0; e < a.entries; ++e) {
        const unsigned int q = start[a.entryMatrixColumn[e]]++;  // start[c] moves to the end of column c
        const Destination& d = a.destinations[e];
        ColumnCopy& copy = a.columnCopies[q];
        copy.first = d.first;
        copy.entry = static_cast<unsigned int>(e);
        copy.ld = d.ld;
        // Row-major double values into a double matrix: the routine of the entry's sizes.
        copy.routine = std::is_same<T, double>::value && d.mode != kBoth
                           ? kernels::fast::blockCopy(d.rows, d.cols, d.mode == kTransposed)
                           : nullptr;
    }
    for (unsigned int c = nb; c > 0; --c) start[c] = start[c - 1];
    start[0] = 0;
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
    if constexpr (std::is_same<T, double>::value && std::is_same<V, double>::value) {
        // Row-major A(i, j) (cs = 1) or row-major A(j, i) (rs = 1): the size-specialised copies.
        const bool rowMajor = cs == 1;
        if (d.mode != kTransposed) {
            rowMajor ? kernels::fast::copyBlock(v, d.rows, d.cols, values + d.first, d.ld)
                     : kernels::fast::copyBlockTransposed(v, d.cols, d.rows, values + d.first, d.ld);
        }
        if (d.mode != kAsIs) {
            double* const tile = values + (d.mode == kTransposed ? d.first : d.mirror);
            rowMajor ? kernels::fast::copyBlockTransposed(v, d.rows, d.cols, tile, d.ld)
                     : kernels::fast::copyBlock(v, d.cols, d.rows, tile, d.ld);
        }
        return;
    }
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

namespace {

// The source of Tamber::factorSerial(data, input): the entries of each block column of data.matrix.
template <typename T, typename V>
class ColumnWriter final : public InputColumns {
public:
    ColumnWriter(const Assembly& a, T* target, const V* values, const unsigned long* valuePointers)
        : a_(a), target_(target), values_(values), valuePointers_(valuePointers) {}

    void write(unsigned int first, unsigned int end) override {
        const ColumnCopy* const copies = a_.columnCopies.data();
        const unsigned int qEnd = a_.columnStart[end];
        for (unsigned int q = a_.columnStart[first]; q < qEnd; ++q) {
            const ColumnCopy& c = copies[q];
            const V* const v = values_ + valuePointers_[c.entry];
            if constexpr (std::is_same<T, double>::value && std::is_same<V, double>::value) {
                if (c.routine != nullptr) {
                    c.routine(v, target_ + c.first, c.ld);
                    continue;
                }
            }
            const Destination& d = a_.destinations[c.entry];
            writeEntry(target_, d, v, d.cols, 1);
        }
    }

private:
    const Assembly& a_;
    T* const target_;
    const V* const values_;
    const unsigned long* const valuePointers_;
};

}  // namespace

template <typename T, typename V>
void Analyzer::setBlocksAndFactor(Tamber& tamber, TamberData<T>& data, const V* values,
                                  const unsigned long* valuePointers) const {
    const Assembly& a = impl_->committed;
    data.isFactored = 0;
    if (a.entries == 0 || data.matrix.numBlockCols != a.columns) {
        setBlocks(data, values, valuePointers);
        tamber.factorSerial(data);
        return;
    }
    ColumnWriter<T, V> writer(a, data.matrix.values, values, valuePointers);
    tamber.factorSerial(data, writer);
}

unsigned int Analyzer::entryMatrixColumn(unsigned long entry) const {
    const Assembly& a = impl_->committed;
    return entry < a.entries ? a.entryMatrixColumn[entry] : ~0u;
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
    const CopyRun* runs = a.runs.data();
    for (unsigned int r = 0; r < a.numRuns; ++r)
        copyEntries(permuted + runs[r].permuted, user + runs[r].user, runs[r].size);
}

template <typename T>
void Analyzer::unpermuteVector(const T* permuted, T* user) const {
    const Assembly& a = impl_->committed;
    const CopyRun* runs = a.runs.data();
    for (unsigned int r = 0; r < a.numRuns; ++r)
        copyEntries(user + runs[r].user, permuted + runs[r].permuted, runs[r].size);
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
template void Analyzer::setBlocksAndFactor<float, float>(Tamber&, TamberData<float>&, const float*,
                                                         const unsigned long*) const;
template void Analyzer::setBlocksAndFactor<float, double>(Tamber&, TamberData<float>&, const double*,
                                                          const unsigned long*) const;
template void Analyzer::setBlocksAndFactor<double, float>(Tamber&, TamberData<double>&, const float*,
                                                          const unsigned long*) const;
template void Analyzer::setBlocksAndFactor<double, double>(Tamber&, TamberData<double>&, const double*,
                                                           const unsigned long*) const;
template void Analyzer::permuteVector<float>(const float*, float*) const;
template void Analyzer::permuteVector<double>(const double*, double*) const;
template void Analyzer::unpermuteVector<float>(const float*, float*) const;
template void Analyzer::unpermuteVector<double>(const double*, double*) const;

}  // namespace Analysis
}  // namespace kivTamber
