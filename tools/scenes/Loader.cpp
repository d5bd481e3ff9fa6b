// The natural safe order and the loading of a BlockProblem into TamberData.
#include <cstring>

#include "Analysis.h"
#include "TreeUpdate.h"
#include "scenes/Scenes.h"

namespace kivTamber {
namespace scenes {

namespace {

constexpr unsigned int kSwapped = 0x80000000u;  // tag of a bucketed entry that crossed the diagonal

// The leading dimension SparseMatrix<T> uses for a block row of size s.
template <typename T>
unsigned long strideOf(unsigned long s) {
    return sizeof(T) == sizeof(double) ? (s + 1) & ~1ul : s;
}

// A SkeletonMatrix whose arrays live in a scratch pad: it must not free them.
struct BorrowedSkeleton {
    SkeletonMatrix skeleton;
    ~BorrowedSkeleton() {
        skeleton.rowIndices = nullptr;
        skeleton.colPointers = nullptr;
        skeleton.blockWords = nullptr;
        skeleton.fillFlags = nullptr;
        skeleton.blockCapacity = skeleton.entryCapacity = 0;
    }
};

unsigned int* intSlot(ScratchPad& pad, unsigned long slot, unsigned long count) {
    // The int arrays of the pad serve as unsigned arrays (same size and alignment; aliasing allowed).
    return reinterpret_cast<unsigned int*>(pad.getIntArray(slot, count == 0 ? 1 : count));
}

// Index of block (row, col) in `matrix`, whose columns hold ascending rows; noBlock when it is not there.
template <typename T>
unsigned int findBlock(const SparseMatrix<T>& matrix, unsigned int row, unsigned int col) {
    unsigned int lo = matrix.colPointers[col], hi = matrix.colPointers[col + 1];
    while (lo < hi) {
        const unsigned int mid = lo + (hi - lo) / 2;
        if (matrix.rowIndices[mid] < row)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < matrix.colPointers[col + 1] && matrix.rowIndices[lo] == row ? lo : noBlock;
}

// Writes (check = false) or checks (check = true) the values of every problem entry (i, j) into the block
// (min, max) of the permuted matrix, transposed when inverse[i] > inverse[j]. A check fails when a block is
// missing or its sizes differ.
template <typename T>
bool transferValues(const BlockProblem& problem, const unsigned int* inverse, SparseMatrix<T>& matrix,
                    bool check) {
    for (unsigned int j = 0; j < problem.numBlocks; ++j) {
        const unsigned int pj = inverse[j];
        const unsigned long sj = problem.blockSizes[j];
        for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
            const unsigned int i = problem.rowIndices[e], pi = inverse[i];
            const unsigned long si = problem.blockSizes[i];
            const bool swapped = pi > pj;
            const unsigned int lo = swapped ? pj : pi, hi = swapped ? pi : pj;
            const unsigned int k = findBlock(matrix, lo, hi);
            if (check) {
                if (k == noBlock || matrix.blockSizes[pi] != si || matrix.blockSizes[pj] != sj) return false;
                continue;
            }
            T* tile = matrix.blockPointers[k];
            const unsigned long ld = matrix.blockStrides[lo];
            const double* a = problem.entryValues(e);  // A(i, j), s_i × s_j row-major
            if (!swapped) {
                for (unsigned long c = 0; c < sj; ++c)
                    for (unsigned long r = 0; r < si; ++r) tile[c * ld + r] = static_cast<T>(a[r * sj + c]);
            } else {  // the tile is A(j, i) = A(i, j)ᵀ, s_j × s_i
                for (unsigned long c = 0; c < si; ++c)
                    for (unsigned long r = 0; r < sj; ++r) tile[c * ld + r] = static_cast<T>(a[c * sj + r]);
            }
        }
    }
    return true;
}

// The last (highest) body block that constraint c couples to, or noBlock.
unsigned int lastBody(const BlockProblem& problem, unsigned int c) {
    for (unsigned int e = problem.colPointers[c + 1]; e-- > problem.colPointers[c];) {
        const unsigned int i = problem.rowIndices[e];
        if (i < problem.firstConstraint) return i;
    }
    return noBlock;
}

}  // namespace

void naturalSafeOrder(const BlockProblem& problem, Permutation& order) {
    const unsigned int n = problem.numBlocks, bodies = problem.firstConstraint;
    order.setSize(n);
    if (bodies >= n) {  // no constraint
        for (unsigned int k = 0; k < n; ++k) order.forward[k] = k;
        order.computeInverse();
        return;
    }
    // Bucket the constraints by their last body (bucket `bodies` for none), using `inverse` as counters.
    unsigned int* start = order.inverse;
    for (unsigned int b = 0; b <= bodies; ++b) start[b] = 0;
    for (unsigned int c = bodies; c < n; ++c) {
        const unsigned int last = lastBody(problem, c);
        ++start[last == noBlock ? bodies : last];
    }
    unsigned int place = 0;
    for (unsigned int b = 0; b < bodies; ++b) {
        order.forward[place++] = b;
        const unsigned int count = start[b];
        start[b] = place;  // the constraints after body b go here
        place += count;
    }
    start[bodies] = place;
    for (unsigned int c = bodies; c < n; ++c) {
        const unsigned int last = lastBody(problem, c);
        order.forward[start[last == noBlock ? bodies : last]++] = c;
    }
    order.computeInverse();
}

template <typename T>
bool loadIntoData(const BlockProblem& problem, const Permutation& order, TamberData<T>& data) {
    const unsigned int n = problem.numBlocks;
    if (order.size != n) return false;
    const unsigned long entries = problem.numEntries();

    Permutation& permutation = data.permutation;
    permutation.setSize(n);
    if (n > 0) std::memcpy(permutation.forward, order.forward, n * sizeof(unsigned int));
    permutation.computeInverse();
    const unsigned int* inverse = permutation.inverse;
    unsigned int* blockSize = intSlot(data.scratchPad, loaderSlot + 5, n);  // s of the k-th placed block
    for (unsigned int k = 0; k < n; ++k) blockSize[k] = problem.blockSizes[permutation.forward[k]];

    // Permuted pattern: entry (i, j) becomes (lo, hi) = the sorted pair (inverse[i], inverse[j]), stored in
    // list hi. Two bucket passes (by lo, then scattered by hi with lo ascending) leave every list ascending
    // with its diagonal last.
    unsigned int* colPointers = intSlot(data.scratchPad, loaderSlot, n + 1);
    unsigned int* rowIndices = intSlot(data.scratchPad, loaderSlot + 1, entries);
    unsigned int* byLo = intSlot(data.scratchPad, loaderSlot + 2, entries);
    unsigned int* loStart = intSlot(data.scratchPad, loaderSlot + 3, n + 1);
    unsigned int* next = intSlot(data.scratchPad, loaderSlot + 4, n + 1);
    unsigned char* fillFlags = data.scratchPad.getUCharArray(loaderSlot, entries == 0 ? 1 : entries);
    std::memset(colPointers, 0, (n + 1ul) * sizeof(unsigned int));
    std::memset(loStart, 0, (n + 1ul) * sizeof(unsigned int));
    for (unsigned int j = 0; j < n; ++j)
        for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
            const unsigned int a = inverse[problem.rowIndices[e]], b = inverse[j];
            ++loStart[(a < b ? a : b) + 1];
            ++colPointers[(a < b ? b : a) + 1];
        }
    for (unsigned int k = 0; k < n; ++k) {
        loStart[k + 1] += loStart[k];
        colPointers[k + 1] += colPointers[k];
    }
    std::memcpy(next, loStart, (n + 1ul) * sizeof(unsigned int));
    for (unsigned int j = 0; j < n; ++j)
        for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
            const unsigned int a = inverse[problem.rowIndices[e]], b = inverse[j];
            byLo[next[a < b ? a : b]++] = a > b ? (a | kSwapped) : b;
        }
    std::memcpy(next, colPointers, (n + 1ul) * sizeof(unsigned int));
    for (unsigned int lo = 0; lo < n; ++lo)
        for (unsigned int q = loStart[lo]; q < loStart[lo + 1]; ++q) {
            const unsigned int hi = byLo[q] & ~kSwapped;
            const unsigned int place = next[hi]++;
            rowIndices[place] = lo;
            fillFlags[place] = (byLo[q] & kSwapped) ? 1 : 0;  // moved across the diagonal
        }
    BorrowedSkeleton permuted;
    permuted.skeleton.rowIndices = rowIndices;
    permuted.skeleton.colPointers = colPointers;
    permuted.skeleton.fillFlags = fillFlags;
    permuted.skeleton.n = n;
    permuted.skeleton.blockCapacity = n;
    permuted.skeleton.entryCapacity = entries;

    // Elimination tree of the permuted pattern, every block active.
    EliminationTree& tree = data.etree;
    if (tree.capacity < n) {
        tree.releaseMemory();
        tree.allocateMemory(n);
    }
    tree.numNodes = n;
    unsigned int* active = next;  // reused: n ones
    for (unsigned int k = 0; k < n; ++k) active[k] = 1;
    TreeUpdate::computeTree(&tree, permuted.skeleton, active);
    tree.computeTreeStructure();
    tree.computePostOrder();

    // Cannot fail: the tree has n nodes.
    (void)Analysis::computeFilledSkeleton(permuted.skeleton, tree, data.skeleton, &data.scratchPad);

    // The input matrix on the permuted pattern, upper form.
    SparseMatrix<T>& matrix = data.matrix;
    unsigned long valueCount = 0;
    for (unsigned int k = 0; k < n; ++k)
        for (unsigned int q = colPointers[k]; q < colPointers[k + 1]; ++q)
            valueCount += strideOf<T>(blockSize[rowIndices[q]]) * strideOf<T>(blockSize[k]);
    matrix.clear();
    matrix.setSize(n, n, entries, valueCount);
    for (unsigned int k = 0; k < n; ++k)
        for (unsigned int q = colPointers[k]; q < colPointers[k + 1]; ++q)
            matrix.acquireBlock(k, rowIndices[q], blockSize[k], blockSize[rowIndices[q]]);
    transferValues(problem, inverse, matrix, false);
    data.isFactored = 0;
    return true;
}

template <typename T>
bool refreshValues(const BlockProblem& problem, TamberData<T>& data) {
    const SparseMatrix<T>& matrix = data.matrix;
    if (data.permutation.size != problem.numBlocks || matrix.numBlockCols != problem.numBlocks ||
        matrix.numBlocks != problem.numEntries())
        return false;
    if (!transferValues(problem, data.permutation.inverse, data.matrix, true)) return false;
    transferValues(problem, data.permutation.inverse, data.matrix, false);
    data.isFactored = 0;
    return true;
}

template <typename T>
void permuteVector(const BlockProblem& problem, const Permutation& order, const T* user, T* permuted) {
    T* out = permuted;
    for (unsigned int k = 0; k < problem.numBlocks; ++k) {
        const unsigned int b = order.forward[k];
        std::memcpy(out, user + problem.blockOffsets[b], problem.blockSizes[b] * sizeof(T));
        out += problem.blockSizes[b];
    }
}

template <typename T>
void unpermuteVector(const BlockProblem& problem, const Permutation& order, const T* permuted, T* user) {
    const T* in = permuted;
    for (unsigned int k = 0; k < problem.numBlocks; ++k) {
        const unsigned int b = order.forward[k];
        std::memcpy(user + problem.blockOffsets[b], in, problem.blockSizes[b] * sizeof(T));
        in += problem.blockSizes[b];
    }
}

template bool loadIntoData<float>(const BlockProblem&, const Permutation&, TamberData<float>&);
template bool loadIntoData<double>(const BlockProblem&, const Permutation&, TamberData<double>&);
template bool refreshValues<float>(const BlockProblem&, TamberData<float>&);
template bool refreshValues<double>(const BlockProblem&, TamberData<double>&);
template void permuteVector<float>(const BlockProblem&, const Permutation&, const float*, float*);
template void permuteVector<double>(const BlockProblem&, const Permutation&, const double*, double*);
template void unpermuteVector<float>(const BlockProblem&, const Permutation&, const float*, float*);
template void unpermuteVector<double>(const BlockProblem&, const Permutation&, const double*, double*);

}  // namespace scenes
}  // namespace kivTamber
