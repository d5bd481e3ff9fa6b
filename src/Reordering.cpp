#include "Reordering.h"

#include <colamd.h>
#include <kiv/ByteAllocator.h>
#include <kiv/VectorPOD.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

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

}  // namespace Reordering
}  // namespace kivTamber
