#include "Analysis.h"

#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cstring>

namespace kivTamber {
namespace Analysis {

namespace {

// Work arrays of computeFilledSkeleton: from the scratch pad when one is given, else owned for the call.
class WorkArray {
public:
    WorkArray(ScratchPad* pad, unsigned long count) : count_(count) {
        if (pad) {
            data_ = reinterpret_cast<unsigned int*>(pad->getIntArray(0, count));
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

}  // namespace

bool computeFilledSkeleton(const SkeletonMatrix& permuted, const EliminationTree& etree,
                           SkeletonMatrix& filled, ScratchPad* scratchPad) {
    const unsigned long n = permuted.n;
    if (etree.numNodes < n) return false;

    // Work: stamp[n] (the row a node was last visited for) and count[n + 1] (entries per row of L).
    WorkArray work(scratchPad, 2 * n + 1);
    unsigned int* stamp = work.data();
    unsigned int* count = stamp + n;
    const unsigned int* parent = etree.parent;

    // Pass 1: sizes of the rows of L.
    for (unsigned long x = 0; x < n; ++x) stamp[x] = 0xFFFFFFFFu;
    unsigned long entries = 0;
    for (unsigned int i = 0; i < n; ++i) {
        unsigned int c = 1;  // the diagonal
        walkRowSubtree(permuted, parent, stamp, i, [&c](unsigned int) { ++c; });
        count[i] = c;
        entries += c;
    }

    const bool withWords = permuted.blockWords != nullptr;
    filled.resize(n, entries, withWords);
    if (withWords && n > 0) std::memcpy(filled.blockWords, permuted.blockWords, n * sizeof(unsigned int));

    unsigned int* cp = filled.colPointers;
    cp[0] = 0;
    for (unsigned long i = 0; i < n; ++i) cp[i + 1] = cp[i] + count[i];

    // Pass 2: the entries of each row, sorted, then the diagonal; flag the ones not in A.
    for (unsigned long x = 0; x < n; ++x) stamp[x] = 0xFFFFFFFFu;
    for (unsigned int i = 0; i < n; ++i) {
        unsigned int* row = filled.rowIndices + cp[i];
        unsigned int len = 0;
        walkRowSubtree(permuted, parent, stamp, i, [row, &len](unsigned int x) { row[len++] = x; });
        std::sort(row, row + len);
        row[len] = i;

        unsigned char* flags = filled.fillFlags + cp[i];
        unsigned int a = permuted.colPointers[i];
        const unsigned int aEnd = permuted.colPointers[i + 1];
        for (unsigned int k = 0; k < len; ++k) {
            while (a < aEnd && permuted.rowIndices[a] < row[k]) ++a;
            flags[k] = (a < aEnd && permuted.rowIndices[a] == row[k]) ? 0 : 1;  // fill unless in A
        }
        flags[len] = 0;
    }
    return true;
}

}  // namespace Analysis
}  // namespace kivTamber
