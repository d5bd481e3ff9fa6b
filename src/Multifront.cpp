#include "Multifront.h"

#include <apr_general.h>
#include <kiv/Abort.h>
#include <kiv/ByteAllocator.h>
#include <kiv/ThreadTask.h>
#include <kiv/Timer.h>
#include <xmmintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <new>
#include <thread>

#include "FactorCommon.h"
#include "Kernels.h"
#include "Tamber.h"

namespace kivTamber {

namespace {

constexpr unsigned int noNode = 0xFFFFFFFFu;
// Scratch-pad slots of the per-thread reciprocal pivots (float or double arrays), one per thread from the
// base.
constexpr unsigned long reciprocalSlotBase = 0x100100;
// Int slots of the per-thread row maps and part-entry lists of the part kernel, one per thread from the base.
constexpr unsigned long mapSlotBase = 0x100200;
constexpr unsigned long segmentSlotBase = 0x100300;
inline float* reciprocalSlot(ScratchPad& pad, unsigned long slot, unsigned long count, const float*) {
    return pad.getFloatArray(slot, count);
}
inline double* reciprocalSlot(ScratchPad& pad, unsigned long slot, unsigned long count, const double*) {
    return pad.getDoubleArray(slot, count);
}

// Node owners are 8-bit thread indices.
constexpr unsigned int maxOwners = 256;
// Estimated cost of handing a subtree's update from one thread to another (lock, wait, cache misses), in
// the flop units of the work estimate; plus one flop per element of the update list.
constexpr double handOverCost = 1500.0;
// Estimated fixed cost of one block operation (call, loop set-up), in flops.
constexpr double blockOpCost = 30.0;

// The choice of the thread count (see Multifront.h): least work for threads, least predicted gain, and the
// cost of waking the workers and waiting for them, in the flop units of the split.
constexpr double parallelMinWork = 4e6;
constexpr double parallelMinGain = 1.2;
constexpr double dispatchWork = 2e5;

// Processors of the machine, read once.
unsigned int processorCount() {
    static const unsigned int count = std::thread::hardware_concurrency();
    return count;
}

// dst[0 .. count-1] += src[0 .. count-1] (whole padded rows: count is s_r·p_s).
template <typename T>
inline void addBlock(T* __restrict dst, const T* __restrict src, unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) dst[i] += src[i];
}

// C -= A·Bᵀ with the factorization's kernel: C is n×m (row stride ldc), A n×k and B m×k (row stride ld).
template <typename T>
inline void subtractProduct(const T* A, const T* B, unsigned int ld, T* C, unsigned int ldc, unsigned int n,
                            unsigned int m, unsigned int k) {
    tamber_MM_CM_ABt(A, static_cast<int>(ld), B, static_cast<int>(ld), C, static_cast<int>(ldc),
                     static_cast<int>(n), static_cast<int>(m), static_cast<int>(k));
}

}  // namespace

void initializeAtomics() {
    static std::once_flag once;
    std::call_once(once, [] { apr_initialize(); });
}

// ---------------------------------------------------------------------------------------------------------
// WaitBlock
// ---------------------------------------------------------------------------------------------------------

WaitBlock::WaitBlock(bool spin)
    : spinLock(spin ? 1u : 0u),
      lockWord(0u),
      mutex(OpenThreads::Mutex::MUTEX_RECURSIVE),
      waiters(0u),
      spinWait(spin ? 1u : 0u) {}

void WaitBlock::wait() {
    if (spinWait) {
        const apr_uint32_t ticket = atomicInc32(&waiters);
        unlock();
        // A signal counts the counter down (or resets it to 0). The yield now and then lets a thread that
        // shares this processor (another program's, when the machine is busy) run.
        for (unsigned int spins = 1; ticket < waiters; ++spins) {
            _mm_pause();
            if (spins % 256 == 0) std::this_thread::yield();
        }
        lock();
    } else {
        kiv::checkCondition(condition.wait(&mutex));
    }
}

void WaitBlock::signal() {
    if (spinWait) {
        const apr_uint32_t previous = atomicAdd32(&waiters, static_cast<apr_uint32_t>(-1));
        if (static_cast<int>(previous) <= 0) atomicXchg32(&waiters, 0u);
    } else {
        kiv::checkCondition(condition.signal());
    }
}

// ---------------------------------------------------------------------------------------------------------
// MultifrontManager
// ---------------------------------------------------------------------------------------------------------

template <typename T>
MultifrontManager<T>::~MultifrontManager() {
    for (unsigned long k = 0; k < waitBlockCapacity; ++k) waitBlocks[k].~WaitBlock();
    if (waitBlocks) kiv::ByteAllocator::deallocate(waitBlocks, waitBlockCapacity * sizeof(WaitBlock));
}

template <typename T>
void MultifrontManager<T>::growWaitBlocks(unsigned long count) {
    if (count <= waitBlockCapacity) return;
    for (unsigned long k = 0; k < waitBlockCapacity; ++k) waitBlocks[k].~WaitBlock();
    if (waitBlocks) kiv::ByteAllocator::deallocate(waitBlocks, waitBlockCapacity * sizeof(WaitBlock));
    waitBlocks = nullptr;
    waitBlockCapacity = 0;
    void* raw = kiv::ByteAllocator::allocate(count * sizeof(WaitBlock), alignof(WaitBlock));
    waitBlocks = static_cast<WaitBlock*>(raw);
    for (unsigned long k = 0; k < count; ++k) new (waitBlocks + k) WaitBlock(spinBlocks);
    waitBlockCapacity = count;
}

template <typename T>
bool MultifrontManager<T>::isPreparedFor(const SkeletonMatrix& pattern, const unsigned int* sizes,
                                         unsigned int numThreads) const {
    const unsigned int threads = numThreads == 0 ? 1u : numThreads;
    const unsigned long n = pattern.n;
    const unsigned long entries = pattern.numEntries();
    if (!isPrepared || n != preparedBlocks || entries != preparedEntries || threads != preparedThreads ||
        intraFrontSplit != preparedSplit || minSharedWork != preparedMinShared) {
        return false;
    }
    if (n == 0) return true;
    return std::memcmp(pattern.colPointers, preparedColPointers.data(), (n + 1) * sizeof(unsigned int)) ==
               0 &&
           std::memcmp(pattern.rowIndices, preparedRowIndices.data(), entries * sizeof(unsigned int)) == 0 &&
           std::memcmp(sizes, preparedSizes.data(), n * sizeof(unsigned int)) == 0;
}

template <typename T>
void MultifrontManager<T>::applyWaitMode(unsigned int numThreads) {
    const unsigned int threads = numThreads == 0 ? 1u : numThreads;
    bool spin = true;
    if (waitMode == MfWaitMode::condition) {
        spin = false;
    } else if (waitMode == MfWaitMode::automatic) {
        // A spinning waiter takes a processor from the thread it waits for once the threads outnumber the
        // processors: then wait on the condition.
        const unsigned int processors = processorCount();
        spin = processors == 0 || threads <= processors;
    }
    if (spin == spinBlocks) return;
    for (unsigned long k = 0; k < waitBlockCapacity; ++k) waitBlocks[k].setMode(spin);
    spinBlocks = spin;
}

template <typename T>
void MultifrontManager<T>::prepare(const SkeletonMatrix& pattern, const unsigned int* sizes,
                                   unsigned int numThreads) {
    initializeAtomics();
    const unsigned int threads = numThreads == 0 ? 1u : numThreads;
    const unsigned int n = static_cast<unsigned int>(pattern.n);
    const unsigned long entries = pattern.numEntries();
    const unsigned int* rowStart = pattern.colPointers;
    const unsigned int* cols = pattern.rowIndices;
    const unsigned int owners = threads < maxOwners ? threads : maxOwners;
    numOwners = owners;
    isPrepared = false;

    // What we are prepared for.
    preparedColPointers.resize(n + 1ul);
    preparedRowIndices.resize(entries);
    preparedSizes.resize(n);
    if (n > 0) {
        std::memcpy(preparedColPointers.data(), rowStart, (n + 1ul) * sizeof(unsigned int));
        if (entries > 0) std::memcpy(preparedRowIndices.data(), cols, entries * sizeof(unsigned int));
        std::memcpy(preparedSizes.data(), sizes, n * sizeof(unsigned int));
    }

    // 1. Column form: column j lists the rows i with entry (i, j), ascending; rows are visited in ascending
    // order and row j is the first that holds column j, so j comes first.
    colPointers.resize(n + 1ul);
    std::fill(colPointers.begin(), colPointers.end(), 0u);
    for (unsigned long e = 0; e < entries; ++e) ++colPointers[cols[e] + 1ul];
    for (unsigned int j = 0; j < n; ++j) colPointers[j + 1ul] += colPointers[j];
    colRows.resize(entries);
    colEntries.resize(entries);
    order.resize(n);
    if (n > 0) std::memcpy(order.data(), colPointers.data(), n * sizeof(unsigned int));
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e) {
            const unsigned int pos = order[cols[e]]++;
            colRows[pos] = i;
            colEntries[pos] = e;
        }
    }

    nodes.resize(n);
    firstChild.resize(n);
    sibling.resize(n);
    for (unsigned int j = 0; j < n; ++j) {
        MfNode<T>& node = nodes[j];
        node.parent = colPointers[j + 1] - colPointers[j] > 1 ? colRows[colPointers[j] + 1] : j;
        node.owner = 0;
        node.done = 0;
        node.foreignChildren = 0;
        node.assembled = 0;
        node.updates = nullptr;
        node.waitBlock = nullptr;
        firstChild[j] = noNode;
        sibling[j] = noNode;
    }
    for (unsigned int j = n; j-- > 0;) {  // descending, so that every child list comes out ascending
        const unsigned int p = nodes[j].parent;
        if (p != j) {
            sibling[j] = firstChild[p];
            firstChild[p] = j;
        }
    }

    // 2. Work of each node and of each subtree (children have smaller indices than their parents).
    nodeWork.resize(n);
    subtreeWork.resize(n);
    totalWork = 0.0;
    for (unsigned int j = 0; j < n; ++j) {
        const double s = sizes[j];
        double sigma = 0.0, squares = 0.0;
        for (unsigned int k = colPointers[j] + 1; k < colPointers[j + 1]; ++k) {
            const double s_r = sizes[colRows[k]];
            sigma += s_r;
            squares += s_r * s_r;
        }
        const double m = colPointers[j + 1] - colPointers[j] - 1.0;
        nodeWork[j] = s * s * s / 3.0 + sigma * s * s + s * (sigma * sigma + squares) +
                      blockOpCost * (m * (m + 1.0) / 2.0 + 2.0 * m + 1.0);
        subtreeWork[j] = 0.0;
        totalWork += nodeWork[j];
    }
    for (unsigned int j = 0; j < n; ++j) {
        subtreeWork[j] += nodeWork[j];
        if (nodes[j].parent != j) subtreeWork[nodes[j].parent] += subtreeWork[j];
    }

    // Cost of handing node c's update list to another thread.
    auto handOver = [&](unsigned int c) {
        const double m = colPointers[c + 1] - colPointers[c] - 1.0;
        double sigma = 0.0;
        for (unsigned int k = colPointers[c] + 1; k < colPointers[c + 1]; ++k) sigma += sizes[colRows[k]];
        return handOverCost + sigma * sigma / 2.0 + blockOpCost * m * (m + 1.0) / 2.0;
    };

    // 3. The split: isTop[x] = 1 for the nodes cut off their subtrees.
    isTop.resize(n);
    std::fill(isTop.begin(), isTop.end(), static_cast<unsigned char>(0));
    order.clear();
    for (unsigned int j = 0; j < n; ++j) {
        if (nodes[j].parent == j) order.push_back(j);
    }
    const double* sub = subtreeWork.data();
    auto lighter = [sub](unsigned int a, unsigned int b) {
        return sub[a] < sub[b] || (sub[a] == sub[b] && a > b);
    };
    // Threads beyond the processors share them: the estimate divides the subtrees' work by the threads that
    // can run at once, so that more threads than processors do not cut deeper into the tree.
    const unsigned int processors = processorCount();
    const unsigned int parallel = processors == 0 || owners < processors ? owners : processors;
    unsigned long bestCuts = 0;
    topWork = 0.0;
    // Time of the subtrees in `order` (a heap) on `parallel` threads: while they are few, the greedy
    // assignment that the split makes below (largest first, each to the least loaded thread), simulated;
    // otherwise its lower bound max(largest, Σ / parallel), which many small subtrees come close to.
    threadLoads.resize(std::max(owners, parallel));
    auto makespan = [&]() {
        if (order.empty()) return 0.0;
        double total = 0.0;
        for (unsigned int x : order) total += sub[x];
        const double bound = std::max(sub[order[0]], total / parallel);
        if (order.size() > 64ul * parallel) return bound;
        sorted.resize(order.size());
        std::copy(order.begin(), order.end(), sorted.begin());
        std::sort(sorted.begin(), sorted.end(),
                  [sub](unsigned int a, unsigned int b) { return sub[a] > sub[b]; });
        double* bins = threadLoads.data();
        std::fill(bins, bins + parallel, 0.0);
        for (unsigned int x : sorted) *std::min_element(bins, bins + parallel) += sub[x];
        return *std::max_element(bins, bins + parallel);
    };
    if (owners > 1 && !order.empty()) {
        // Cut the heaviest subtree at its root as long as the estimate can still improve; remember the best
        // length of the cut sequence. A pass that records the sequence, then one that replays its best part.
        for (int pass = 0; pass < 2; ++pass) {
            std::make_heap(order.begin(), order.end(), lighter);
            double top = 0.0;
            double best = makespan();
            unsigned long cuts = 0;
            while (!order.empty()) {
                if (pass == 1 && cuts == bestCuts) break;
                const unsigned int x = order[0];
                if (firstChild[x] == noNode) break;
                double added = nodeWork[x];
                for (unsigned int c = firstChild[x]; c != noNode; c = sibling[c]) added += handOver(c);
                if (pass == 0 && top + added >= best) break;
                std::pop_heap(order.begin(), order.end(), lighter);
                order.pop_back();
                isTop[x] = 1;
                ++cuts;
                top += added;
                for (unsigned int c = firstChild[x]; c != noNode; c = sibling[c]) {
                    order.push_back(c);
                    std::push_heap(order.begin(), order.end(), lighter);
                }
                if (pass == 0) {
                    const double estimate = makespan() + top;
                    if (estimate < best) {
                        best = estimate;
                        bestCuts = cuts;
                    }
                }
            }
            if (pass == 0) {  // undo, replay the best prefix in the second pass
                std::fill(isTop.begin(), isTop.end(), static_cast<unsigned char>(0));
                order.clear();
                for (unsigned int j = 0; j < n; ++j) {
                    if (nodes[j].parent == j) order.push_back(j);
                }
            } else {
                topWork = top;
            }
        }
    }

    // The remaining subtrees (in `order`) go to the threads. Many small ones (a forest of small trees): in
    // index order, in contiguous runs of about equal work, so that the threads' data lie apart in memory and
    // they do not write to the same cache lines. Otherwise by decreasing work, each to the least loaded
    // thread. Either way no thread gets more than an even share plus the largest subtree.
    threadLoads.resize(owners);
    double* load = threadLoads.data();
    for (unsigned int t = 0; t < owners; ++t) load[t] = 0.0;
    double sum = 0.0, largest = 0.0;
    for (unsigned int x : order) {
        sum += sub[x];
        largest = std::max(largest, sub[x]);
    }
    if (largest * 8.0 * owners <= sum) {
        std::sort(order.begin(), order.end());
        double before = 0.0;
        for (unsigned int x : order) {
            const double middle = (before + 0.5 * sub[x]) / sum * owners;  // where x's work sits
            const unsigned int t = middle < owners ? static_cast<unsigned int>(middle) : owners - 1;
            before += sub[x];
            load[t] += sub[x];
            nodes[x].owner = static_cast<unsigned char>(t);
        }
    } else {
        std::sort(order.begin(), order.end(), [sub](unsigned int a, unsigned int b) {
            return sub[a] > sub[b] || (sub[a] == sub[b] && a < b);
        });
        for (unsigned int x : order) {
            unsigned int least = 0;
            for (unsigned int t = 1; t < owners; ++t) {
                if (load[t] < load[least]) least = t;
            }
            load[least] += sub[x];
            nodes[x].owner = static_cast<unsigned char>(least);
        }
    }
    topOwner = 0;
    maxThreadWork = 0.0;
    for (unsigned int t = 0; t < owners; ++t) {
        if (load[t] < load[topOwner]) topOwner = t;
        if (load[t] > maxThreadWork) maxThreadWork = load[t];
    }

    // 4. Owners: the top to topOwner; below a subtree root its owner (parents come first in descending
    // order).
    for (unsigned int j = n; j-- > 0;) {
        const unsigned int p = nodes[j].parent;
        if (isTop[j]) {
            nodes[j].owner = static_cast<unsigned char>(topOwner);
        } else if (p != j && !isTop[p]) {
            nodes[j].owner = nodes[p].owner;
        }
    }

    // Parts: the root of each non-top node's part (parents before children in descending order), the nodes
    // of every part ascending, the part roots of every thread ascending.
    part.resize(n);
    partBegin.resize(n);
    partEnd.resize(n);
    partNodes.resize(n);
    for (unsigned int j = n; j-- > 0;) {
        const unsigned int p = nodes[j].parent;
        part[j] = isTop[j] ? noNode : (p == j || isTop[p]) ? j : part[p];
        partBegin[j] = partEnd[j] = 0;
    }
    for (unsigned int j = 0; j < n; ++j) {
        if (part[j] != noNode) ++partEnd[part[j]];
    }
    threadPartBegin.resize(owners + 1ul);
    std::fill(threadPartBegin.begin(), threadPartBegin.end(), 0u);
    unsigned int placed = 0;
    for (unsigned int j = 0; j < n; ++j) {
        if (part[j] != j) continue;
        const unsigned int count = partEnd[j];
        partBegin[j] = partEnd[j] = placed;
        placed += count;
        ++threadPartBegin[nodes[j].owner + 1ul];
    }
    for (unsigned int j = 0; j < n; ++j) {
        if (part[j] != noNode) partNodes[partEnd[part[j]]++] = j;
    }
    for (unsigned int t = 0; t < owners; ++t) threadPartBegin[t + 1ul] += threadPartBegin[t];
    threadParts.resize(threadPartBegin[owners]);
    order.resize(owners);
    for (unsigned int t = 0; t < owners; ++t) order[t] = threadPartBegin[t];
    for (unsigned int j = 0; j < n; ++j) {
        if (part[j] == j) threadParts[order[nodes[j].owner]++] = j;
    }
    reciprocalOffsets.resize(n);
    unsigned long reciprocals = 0;
    for (unsigned int j = 0; j < n; ++j) {
        reciprocalOffsets[j] = reciprocals;
        reciprocals += factorCommon::padded<T>(sizes[j]);
    }
    reciprocalStore.resize(reciprocals + 2);

    // Top nodes worth sharing out: enough work to outweigh a hand-out and a wait (a few microseconds), and at
    // least two blocks to share.
    splitNode.resize(n);
    numSplitNodes = 0;
    for (unsigned int j = 0; j < n; ++j) {
        const bool share = intraFrontSplit && owners > 1 && isTop[j] && nodeWork[j] >= minSharedWork &&
                           colPointers[j + 1] - colPointers[j] >= 3;
        splitNode[j] = share ? 1 : 0;
        numSplitNodes += share ? 1 : 0;
    }

    // Boundaries (parent owned by another thread), foreign-children flags, (root, thread) pairs.
    unsigned long numBoundaries = 0, updateCount = 0, updateElements = 0;
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int p = nodes[j].parent;
        if (p == j || nodes[p].owner == nodes[j].owner) continue;
        nodes[p].foreignChildren = 1;
        ++numBoundaries;
        for (unsigned int a = colPointers[j] + 1; a < colPointers[j + 1]; ++a) {
            const unsigned long p_s = factorCommon::padded<T>(sizes[colRows[a]]);
            for (unsigned int c = a; c < colPointers[j + 1]; ++c) {
                ++updateCount;
                updateElements += factorCommon::padded<T>(sizes[colRows[c]]) * p_s;
            }
        }
    }
    order.resize(owners + 1ul);  // seeds per thread, then their start positions
    std::fill(order.begin(), order.end(), 0u);
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int p = nodes[j].parent;
        if (p == j || nodes[p].owner != nodes[j].owner) ++order[nodes[j].owner + 1ul];
    }
    for (unsigned int t = 0; t < owners; ++t) order[t + 1ul] += order[t];
    roots.resize(order[owners]);
    for (unsigned int j = n; j-- > 0;) {
        const unsigned int p = nodes[j].parent;
        if (p == j || nodes[p].owner != nodes[j].owner) {
            MfRoot& r = roots[order[nodes[j].owner]++];
            r.node = j;
            r.thread = nodes[j].owner;
        }
    }

    frontBlockPointers.resize(entries);
    updateStore.resize(updateElements);
    updateEntries.resize(updateCount);
    applyWaitMode(threads);
    growWaitBlocks(numBoundaries);
    numWaitBlocks = numBoundaries;

    T* update = updateStore.data();
    MfUpdateEntry<T>* entry = updateEntries.data();
    WaitBlock* waitBlock = waitBlocks;
    for (unsigned int j = 0; j < n; ++j) {
        MfNode<T>& node = nodes[j];
        node.frontBlocks = frontBlockPointers.data() + colPointers[j];
        const unsigned int p = node.parent;
        if (p == j || nodes[p].owner == node.owner) continue;
        node.updates = entry;
        node.waitBlock = waitBlock++;
        for (unsigned int a = colPointers[j] + 1; a < colPointers[j + 1]; ++a) {
            const unsigned int s = colRows[a];
            const unsigned int p_s = factorCommon::padded<T>(sizes[s]);
            for (unsigned int c = a; c < colPointers[j + 1]; ++c) {
                const unsigned int r = colRows[c];
                entry->block = update;
                entry->row = r;
                entry->col = s;
                ++entry;
                update += static_cast<unsigned long>(factorCommon::padded<T>(sizes[r])) * p_s;
            }
        }
    }

    // Value capacity of L and LD, scalar dimension.
    factorCapacity = 64;
    scalarSize = 0;
    maxColumn = 0;
    for (unsigned int j = 0; j < n; ++j) maxColumn = std::max(maxColumn, colPointers[j + 1] - colPointers[j]);
    for (unsigned int i = 0; i < n; ++i) {
        const unsigned long p_i = factorCommon::padded<T>(sizes[i]);
        for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e) {
            factorCapacity += p_i * factorCommon::padded<T>(sizes[cols[e]]);
        }
        scalarSize += sizes[i];
    }

    chunkBounds.resize(maxColumn + 2ul);

    // Predicted length: the largest thread's parts, then the top, whose shared steps (about all of a shared
    // node's work but its diagonal block) go at the speed of the threads that can run at once.
    double topTime = topWork;
    for (unsigned int j = 0; j < n; ++j) {
        if (!splitNode[j]) continue;
        const double s_j = sizes[j], diagonal = s_j * s_j * s_j / 3.0;
        topTime -= (nodeWork[j] - diagonal) * (1.0 - 1.0 / parallel);
    }
    predictedTime = (owners > 1 ? maxThreadWork : totalWork) + topTime;
    preparedSplit = intraFrontSplit;
    preparedMinShared = minSharedWork;
    preparedBlocks = n;
    preparedEntries = entries;
    preparedThreads = threads;
    isPrepared = true;
    ++preparations;
}

template <typename T>
void MultifrontManager<T>::assembleNode(unsigned int x) {
    MfNode<T>& node = nodes[x];
    const unsigned int k0 = colPointers[x], k1 = colPointers[x + 1];
    const unsigned long p_x = factorCommon::padded<T>(preparedSizes[x]);
    for (unsigned int k = k0; k < k1; ++k) {
        const unsigned int e = colEntries[k];
        T* const F = factorTiles[e];
        frontBlockPointers[k] = F;
        const unsigned long bytes = factorCommon::padded<T>(preparedSizes[colRows[k]]) * p_x * sizeof(T);
        const unsigned int a = inputBlocks[e];
        if (a != noNode) {
            factorCommon::copyTile(F, inputTiles[a],
                                   bytes / sizeof(T));  // p_r·p_x: the tile with its padding
        } else {
            std::memset(static_cast<void*>(F), 0, bytes);
        }
    }
    if (node.updates) {
        // m·(m+1)/2 entries; the last one, (r_m, r_m), is p_{r_m}² elements long.
        const unsigned long m = k1 - k0 - 1;
        const MfUpdateEntry<T>& last = node.updates[m * (m + 1) / 2 - 1];
        const unsigned long p = factorCommon::padded<T>(preparedSizes[last.row]);
        const unsigned long count = static_cast<unsigned long>(last.block - node.updates[0].block) + p * p;
        std::memset(static_cast<void*>(node.updates[0].block), 0, count * sizeof(T));
    }
    node.assembled = 1;
}

template <typename T>
void MultifrontManager<T>::addUpdateToNode(const SkeletonMatrix& /*pattern*/, const SparseMatrix<T>& factor,
                                           unsigned long target, unsigned long source) {
    const unsigned int* R = colRows.data() + colPointers[source] + 1;  // r_1 < … < r_m
    const unsigned int m = colPointers[source + 1] - colPointers[source] - 1;
    if (m == 0) return;
    const unsigned int* sizes = factor.blockSizes;
    const MfUpdateEntry<T>* U = nodes[source].updates;
    const unsigned long numEntries = static_cast<unsigned long>(m) * (m + 1) / 2;
    const unsigned char owner = nodes[target].owner;

    // F_s(r, s) += U(r, s) for r = R[a] … R[m-1]: the entries of column a, from U[u] on.
    auto addColumn = [&](unsigned int s, unsigned int a, unsigned long u) {
        const unsigned int* rows = colRows.data() + colPointers[s];
        T* const* F = front(s);
        const unsigned long p_s = factorCommon::padded<T>(sizes[s]);
        unsigned int pos = 0;
        for (unsigned int c = a; c < m; ++c, ++u) {
            const unsigned int r = R[c];
            while (rows[pos] != r) ++pos;  // forward scan: both lists ascend
            addBlock(F[pos], U[u].block, sizes[r] * p_s);
        }
    };

    addColumn(static_cast<unsigned int>(target), 0, 0);
    unsigned long u = m;
    unsigned int reached = static_cast<unsigned int>(target);
    for (unsigned int a = 1; a < m; ++a) {
        const unsigned int s = R[a];
        while (reached != s) {
            const unsigned int next = nodes[reached].parent;
            if (nodes[next].owner != owner) break;
            reached = next;
        }
        if (reached == s) {
            addColumn(s, a, u);
            u += m - a;
            continue;
        }
        // The path leaves the owner's part above `reached`: the rest goes into reached's update list.
        front(reached);
        const MfUpdateEntry<T>* B = nodes[reached].updates;
        unsigned long q = 0;
        for (; u < numEntries; ++u) {
            const unsigned int r = U[u].row, col = U[u].col;
            while (B[q].row != r || B[q].col != col) ++q;  // continues from the previous match
            addBlock(B[q].block, U[u].block,
                     sizes[r] * static_cast<unsigned long>(factorCommon::padded<T>(sizes[col])));
        }
        return;
    }
}

template class MultifrontManager<float>;
template class MultifrontManager<double>;

// ---------------------------------------------------------------------------------------------------------
// Worker
// ---------------------------------------------------------------------------------------------------------

namespace {

namespace fc = factorCommon;

// What a worker needs to eliminate its nodes.
template <typename T>
struct Worker {
    MultifrontManager<T>& M;
    const SkeletonMatrix& S;
    const SparseMatrix<T>& A;
    SparseMatrix<T>& L;
    SparseMatrix<T>& LD;
    const unsigned int* sizes;
    const unsigned int* offsets;
    T* d;
    unsigned int* cursors;  // [maxColumn] work array of the update step
    T* reciprocals;         // [largest padded block size] the reciprocal pivots of the node being solved
    unsigned char t;
    // Smallest node index whose block holds a zero or non-finite pivot, noNode while none was met; shared by
    // the workers of one factorization.
    std::atomic<unsigned int>* badBlock;
    // Nodes beyond badBlock are skipped (only published, so that no waiter is left behind).
    bool stopAtBadPivot;

    // The part kernel's row map: rowOf[k] = i when row i holds a finished entry in column k, at entry
    // entryOf[k] (both [nb]; rowOf[k] is emptied when row k starts). segments: the entries
    // of the part in the rows above it.
    unsigned int* rowOf;
    unsigned int* entryOf;
    unsigned int* segments;

    // The board of the shared steps of the top's large nodes; null when they are not shared.
    MfJobBoard* jobs;

    void process(unsigned int j);
    void publish(MfNode<T>& node);
    void finishBlocks(unsigned int j, unsigned int kBegin, unsigned int kEnd);
    void updateColumns(unsigned int j, unsigned int aBegin, unsigned int aEnd);
    void runChunk(unsigned int kind, unsigned int j, unsigned int c);
    bool helpOnce();
    void shareOut(unsigned int kind, unsigned int j, unsigned int m);
    void helpUntilClosed();
    void runPart(unsigned int x);
    void offDiagonalEntry(unsigned int i, unsigned int e, unsigned int j);
    void diagonalRow(unsigned int i);
    bool skipped(unsigned int i) const {
        return stopAtBadPivot && i > badBlock->load(std::memory_order_relaxed);
    }
};

// X ← the first count elements of the tile of input block a, or zero for a fill block (a = noNode).
template <typename T>
inline void loadTile(T* X, const T* const* inputTiles, unsigned int a, unsigned long count) {
    fc::loadTile(X, a != noNode ? inputTiles[a] : nullptr, count);
}

// True for a zero or non-finite pivot.
template <typename T>
inline bool isBadPivot(T d) {
    return !(std::isfinite(d) && d != T(0));
}

// badBlock ← min(badBlock, j).
inline void lowerBadBlock(std::atomic<unsigned int>& badBlock, unsigned int j) {
    unsigned int seen = badBlock.load(std::memory_order_relaxed);
    while (j < seen && !badBlock.compare_exchange_weak(seen, j, std::memory_order_relaxed)) {
    }
}

template <typename T>
void Worker<T>::publish(MfNode<T>& node) {
    if (!node.waitBlock) {
        node.done = 1;
    } else {
        node.waitBlock->lock();
        node.done = 1;
        node.waitBlock->signal();
        node.waitBlock->unlock();
    }
}

template <typename T>
void Worker<T>::process(unsigned int j) {
    MfNode<T>* const nodes = M.nodes.data();
    MfNode<T>& node = nodes[j];
    // A bad pivot met in an earlier node ends the work above it: nodes of lower index never depend on it (its
    // descendants precede it), so whatever is skipped, every node up to the first bad one is factored in full
    // and that one is found, whatever the timing.
    if (stopAtBadPivot && j > badBlock->load(std::memory_order_relaxed)) {
        publish(node);
        return;
    }
    const unsigned int k0 = M.colPointers[j];
    const unsigned int m = M.colPointers[j + 1] - k0 - 1;   // off-diagonal rows
    const unsigned int* rows = M.colRows.data() + k0;       // rows[0] = j, rows[1 .. m] = r_1 < … < r_m
    const unsigned int* blocks = M.colEntries.data() + k0;  // index of block (rows[k], j) in L and LD
    T* const* F = M.front(j);
    const unsigned int s_j = sizes[j], p_j = fc::padded<T>(s_j);

    // 1. Children of other threads: wait until each is done, then add its update list.
    if (node.foreignChildren) {
        for (unsigned int c = M.firstChild[j]; c != noNode; c = M.sibling[c]) {
            if (nodes[c].owner == t) continue;
            WaitBlock* wb = nodes[c].waitBlock;
            wb->lock();
            while (!nodes[c].done) wb->wait();
            M.addUpdateToNode(S, L, j, c);
            wb->unlock();
        }
    }

    // 2. Diagonal block: F(j, j) = L_jj·D_j·L_jjᵀ in place (F(j, j) is the tile of L(j, j)), then
    // LD(j, j) = L_jj·D_j. LD is not zeroed beforehand: every element of its tiles, padding included, is
    // written here (the padding of L's tiles is zero since the assembly).
    T* const Ljj = F[0];
    T* const LDjj = LD.blockPointers[blocks[0]];
    T* const dj = d + offsets[j];
    __builtin_prefetch(LDjj, 1);
    __builtin_prefetch(dj, 1);
    fc::factorDiagonalBlock(Ljj, p_j, s_j, dj);
    for (unsigned int c = 0; c < s_j; ++c) {
        if (isBadPivot(dj[c])) {
            lowerBadBlock(*badBlock, j);
            break;
        }
    }
    for (unsigned int r = 0; r < s_j; ++r) {
        const unsigned long row = static_cast<unsigned long>(r) * p_j;
        for (unsigned int c = 0; c < s_j; ++c) LDjj[row + c] = Ljj[row + c] * dj[c];  // l_rc·d_c
        for (unsigned int c = s_j; c < p_j; ++c) LDjj[row + c] = T(0);
    }
    if (p_j > s_j) {
        std::memset(static_cast<void*>(LDjj + static_cast<unsigned long>(s_j) * p_j), 0,
                    static_cast<unsigned long>(p_j - s_j) * p_j * sizeof(T));
    }
    LD.blockFlags[blocks[0]] = 1;

    // 3. Off-diagonal blocks, in place in L(r, j): W = F(r, j)·L_jj⁻ᵀ is LD(r, j); L(r, j) = W·D_j⁻¹.
    // The reciprocal pivots once per node (padding 0): the same quotients for every block.
    T* const recip = M.reciprocalStore.data() + M.reciprocalOffsets[j];
    for (unsigned int c = 0; c < s_j; ++c) recip[c] = T(1) / dj[c];
    for (unsigned int c = s_j; c < p_j; ++c) recip[c] = T(0);
    const bool split = M.splitNode[j] != 0 && jobs != nullptr;
    if (split) {
        shareOut(MfJobBoard::finish, j, m);
    } else {
        finishBlocks(j, 1, m + 1);
    }

    // 4. Update: −L(r, j)·D_j·L(s, j)ᵀ for r ≥ s, into the front of s while the path from j to s stays in
    // this thread, otherwise into the update list of the boundary node (the last of this thread on the path).
    // The rows s = r_1 … r_direct reached along this thread's path are a prefix.
    unsigned int reached = j, direct = 0;
    for (unsigned int a = 1; a <= m; ++a) {
        while (reached != rows[a] && nodes[nodes[reached].parent].owner == t) reached = nodes[reached].parent;
        if (reached != rows[a]) break;
        direct = a;
        M.front(rows[a]);  // assembled before the first update
    }
    // Straight into the fronts. Every tile receives exactly one product from j, so neither the order of the
    // loops nor the share of the workers changes any result.
    if (split && direct == m) {
        shareOut(MfJobBoard::update, j, m);
    } else {
        updateColumns(j, 1, direct + 1);
    }
    // The rest into the boundary node's update list, entry (r, s) found by a search that continues from the
    // previous match (the list is ordered by s, then r).
    if (direct < m) {
        M.front(reached);  // zeroes its update list on first use
        const MfUpdateEntry<T>* B = nodes[reached].updates;
        unsigned long q = 0;
        for (unsigned int a = direct + 1; a <= m; ++a) {
            const unsigned int s = rows[a], s_s = sizes[s], p_s = fc::padded<T>(s_s);
            for (unsigned int c = a; c <= m; ++c) {
                const unsigned int r = rows[c];
                while (B[q].row != r || B[q].col != s) ++q;
                if (c == a) {
                    subtractProduct(F[a], LD.blockPointers[blocks[a]], p_j, B[q].block, p_s, s_s, s_s, s_j);
                } else {
                    subtractProduct(LD.blockPointers[blocks[c]], F[a], p_j, B[q].block, p_s, sizes[r], s_s,
                                    s_j);
                }
            }
        }
    }

    // 5. Publish.
    publish(node);
}

// Step 3 of node j for its off-diagonal blocks k in [kBegin, kEnd) (1 ≤ k ≤ m): LD(r, j) = F(r, j)·L_jj⁻ᵀ and
// L(r, j) = LD(r, j)·D_j⁻¹ in place, with the reciprocal pivots of j in the manager's store.
template <typename T>
void Worker<T>::finishBlocks(unsigned int j, unsigned int kBegin, unsigned int kEnd) {
    const unsigned int k0 = M.colPointers[j];
    const unsigned int* rows = M.colRows.data() + k0;
    const unsigned int* blocks = M.colEntries.data() + k0;
    T* const* F = M.nodes[j].frontBlocks;
    const unsigned int s_j = sizes[j], p_j = fc::padded<T>(s_j);
    const T* const Ljj = F[0];
    const T* const recip = M.reciprocalStore.data() + M.reciprocalOffsets[j];
    for (unsigned int k = kBegin; k < kEnd; ++k) {
        T* const W = F[k];
        const unsigned int s_r = sizes[rows[k]];
        const char* line = reinterpret_cast<const char*>(W);
        __builtin_prefetch(line, 1);
        __builtin_prefetch(line + 64, 1);
        __builtin_prefetch(line + 128, 1);
        __builtin_prefetch(line + 192, 1);
        LD.blockFlags[blocks[k]] = 1;
        if (kernels::finishFrontBlock(Ljj, W, LD.blockPointers[blocks[k]], s_r, s_j, recip)) continue;
        fc::solveUnitDiagonal(Ljj, p_j, W, s_r, s_j);
        fc::copyTile(LD.blockPointers[blocks[k]], W,
                     static_cast<unsigned long>(fc::padded<T>(s_r)) * p_j);  // with its zero padding
        for (unsigned int c = 0; c < s_j; ++c) {
            const T q = recip[c];
            for (unsigned int r = 0; r < s_r; ++r)
                W[static_cast<unsigned long>(r) * p_j + c] *= q;  // l = w / d_c
        }
    }
}

// Step 4 of node j into the fronts of its rows s = r_a, a in [aBegin, aEnd) (the fronts assembled):
// F_s(r, s) −= LD(r, j)·L(s, j)ᵀ for the rows r ≥ s of j, located in s's pattern by a forward scan; the
// diagonal tile F_s(s, s) on its lower triangle only (its factorization reads nothing else).
template <typename T>
void Worker<T>::updateColumns(unsigned int j, unsigned int aBegin, unsigned int aEnd) {
    MfNode<T>* const nodes = M.nodes.data();
    const unsigned int k0 = M.colPointers[j];
    const unsigned int m = M.colPointers[j + 1] - k0 - 1;
    const unsigned int* rows = M.colRows.data() + k0;
    const unsigned int* blocks = M.colEntries.data() + k0;
    T* const* F = nodes[j].frontBlocks;
    const unsigned int s_j = sizes[j], p_j = fc::padded<T>(s_j);
    for (unsigned int a = aBegin; a < aEnd; ++a) {
        const unsigned int s = rows[a], s_s = sizes[s], p_s = fc::padded<T>(s_s);
        const unsigned int* sRows = M.colRows.data() + M.colPointers[s];
        T* const* Fs = nodes[s].frontBlocks;
        fc::subtractABtLower(F[a], static_cast<int>(p_j), LD.blockPointers[blocks[a]], static_cast<int>(p_j),
                             Fs[0], static_cast<int>(p_s), static_cast<int>(s_s), static_cast<int>(s_j));
        unsigned int pos = 1;
        for (unsigned int c = a + 1; c <= m; ++c) {
            const unsigned int r = rows[c];
            while (sRows[pos] != r) ++pos;  // forward scan: r ascends
            subtractProduct(LD.blockPointers[blocks[c]], F[a], p_j, Fs[pos], p_s, sizes[r], s_s, s_j);
        }
    }
}

// Chunk c of the current job on the board: the blocks or columns [chunkBounds[c], chunkBounds[c+1]).
template <typename T>
void Worker<T>::runChunk(unsigned int kind, unsigned int j, unsigned int c) {
    const unsigned int begin = M.chunkBounds[c], end = M.chunkBounds[c + 1];
    if (kind == MfJobBoard::finish) {
        finishBlocks(j, begin, end);
    } else {
        updateColumns(j, begin, end);
    }
}

// Claims and runs chunks of the board's current job while any is left; true when it ran one.
template <typename T>
bool Worker<T>::helpOnce() {
    std::uint64_t state = jobs->state.load(std::memory_order_acquire);
    bool ran = false;
    for (;;) {
        const unsigned int next = static_cast<unsigned int>(state & 0xFFFFu);
        const unsigned int count = static_cast<unsigned int>((state >> 16) & 0xFFFFu);
        if (next >= count) return ran;
        if (!jobs->state.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel,
                                               std::memory_order_acquire)) {
            continue;
        }
        // The chunk is claimed and unfinished, so the owner is still at this job: kind and node are its.
        runChunk(jobs->kind.load(std::memory_order_relaxed), jobs->node.load(std::memory_order_relaxed),
                 next);
        jobs->finished.fetch_add(1, std::memory_order_release);
        ran = true;
        state = jobs->state.load(std::memory_order_acquire);
    }
}

// Splits step `kind` of node j (m blocks or columns) into chunks of about equal work, posts them, works on
// them with whoever helps and returns when all are done. The chunks are fixed by the node alone and every
// tile is written by exactly one chunk, so the results do not depend on who runs which.
template <typename T>
void Worker<T>::shareOut(unsigned int kind, unsigned int j, unsigned int m) {
    const unsigned int k0 = M.colPointers[j];
    const unsigned int* rows = M.colRows.data() + k0;
    unsigned int* const bounds = M.chunkBounds.data();
    // Work of item a: s_r for a block to solve; s_s·Σ_{c ≥ a} s_{r_c} for a column of updates.
    double total = 0.0, tail = 0.0;
    for (unsigned int a = m; a >= 1; --a) {
        tail += sizes[rows[a]];
        total += kind == MfJobBoard::finish ? sizes[rows[a]] : sizes[rows[a]] * tail;
    }
    const unsigned int wanted = std::min(m, 4u * M.numOwners);  // at most 1024: 16 bits of the state
    unsigned int chunks = 0;
    bounds[0] = 1;
    double sum = 0.0;
    tail = 0.0;
    for (unsigned int a = m; a >= 1; --a) tail += sizes[rows[a]];
    for (unsigned int a = 1; a <= m; ++a) {
        sum += kind == MfJobBoard::finish ? sizes[rows[a]] : sizes[rows[a]] * tail;
        tail -= sizes[rows[a]];
        if (a == m || sum >= total * (chunks + 1) / wanted) bounds[++chunks] = a + 1;
    }
    jobs->kind.store(kind, std::memory_order_relaxed);
    jobs->node.store(j, std::memory_order_relaxed);
    jobs->finished.store(0, std::memory_order_relaxed);
    const std::uint64_t generation = (jobs->state.load(std::memory_order_relaxed) >> 32) + 1;
    jobs->state.store(generation << 32 | static_cast<std::uint64_t>(chunks) << 16, std::memory_order_release);
    helpOnce();
    for (unsigned int spins = 1; jobs->finished.load(std::memory_order_acquire) < chunks; ++spins) {
        _mm_pause();
        if (spins % 64 == 0) std::this_thread::yield();
    }
}

// A thread without top nodes, once its parts are done: helps with the shared steps of the top's nodes until
// the top owner closes the board.
template <typename T>
void Worker<T>::helpUntilClosed() {
    const bool crowded = M.numOwners > processorCount();
    for (unsigned int idle = 1;; ++idle) {
        if (helpOnce()) {
            idle = 0;
            continue;
        }
        if (jobs->closed.load(std::memory_order_acquire)) return;
        _mm_pause();
        if (crowded || idle % 64 == 0) std::this_thread::yield();
    }
}

}  // namespace

// L(i, j) for pattern entry e = (i, j) of a part column j, in place in its tile: the input block, minus
// LD(i, k)·L(j, k)ᵀ for the columns k < j common to rows i and j (row j's entries looked up in row i's map,
// in ascending k: the order of the serial factorization), then solved with L_jj: LD(i, j) = W·L_jj⁻ᵀ and L(i,
// j) = LD(i, j)·D_j⁻¹, by the serial factorization's kernels (an input block that nothing updates is read in
// place). Row i's earlier entries in the columns of j's part must be finished and mapped. The padding rows of
// L(i, j) and LD(i, j) are written zero: a layout made here is not cleared beforehand.
template <typename T>
void Worker<T>::offDiagonalEntry(unsigned int i, unsigned int e, unsigned int j) {
    const unsigned int s_i = sizes[i], p_i = fc::padded<T>(s_i), s_j = sizes[j], p_j = fc::padded<T>(s_j);
    T* const Lij = L.blockPointers[e];
    const unsigned long count = static_cast<unsigned long>(s_i) * p_j;
    const unsigned int a = M.inputBlocks[e];
    const T* X = a != noNode ? M.inputTiles[a] : nullptr;  // the block's values so far
    const unsigned int* cols = S.rowIndices;
    const unsigned int jDiag = S.colPointers[j + 1] - 1;
    unsigned int q = S.colPointers[j];
    while (q < jDiag && rowOf[cols[q]] != i) ++q;
    if (q < jDiag || X == nullptr) {  // worked on in place (a fill block starts from zero)
        loadTile(Lij, M.inputTiles, a, count);
        X = Lij;
    }
    for (; q < jDiag; ++q) {
        const unsigned int k = cols[q];
        if (rowOf[k] != i) continue;
        const unsigned int p_k = fc::padded<T>(sizes[k]);
        subtractProduct(LD.blockPointers[entryOf[k]], L.blockPointers[q], p_k, Lij, p_j, s_i, s_j, sizes[k]);
    }
    rowOf[j] = i;
    entryOf[j] = e;
    // The serial factorization's end of the block, so that a part gets the serial factor's bits.
    const T* const recip = M.reciprocalStore.data() + M.reciprocalOffsets[j];
    const T* const dj = d + offsets[j];
    const T* const Ljj = L.blockPointers[jDiag];
    T* const LDij = LD.blockPointers[e];
    LD.blockFlags[e] = 1;
    fc::finishOffDiagonal(Ljj, X, Lij, LDij, s_i, s_j, p_j, count, recip, dj);
    if (p_i > s_i) {
        std::memset(static_cast<void*>(Lij + count), 0, p_j * sizeof(T));
        std::memset(static_cast<void*>(LDij + count), 0, p_j * sizeof(T));
    }
}

// The diagonal block of part row i (every off-diagonal entry of the row finished): L_ii·D_i·L_iiᵀ =
// A(i, i) − Σ_k L(i, k)·LD(i, k)ᵀ (on the lower triangle), factored in place, LD(i, i) = L_ii·D_i and the
// reciprocal pivots of block i, by the serial factorization's kernels (one update of a small block fused with
// the factorization, the first update read straight from the input tile); padding rows zero.
template <typename T>
void Worker<T>::diagonalRow(unsigned int i) {
    const unsigned int s_i = sizes[i], p_i = fc::padded<T>(s_i);
    const unsigned int iBegin = S.colPointers[i], iDiag = S.colPointers[i + 1] - 1;
    T* const Lii = L.blockPointers[iDiag];
    T* const di = d + offsets[i];
    __builtin_prefetch(di, 1);
    const unsigned int a = M.inputBlocks[iDiag];
    const T* X = a != noNode ? M.inputTiles[a] : nullptr;
    T* const recip = M.reciprocalStore.data() + M.reciprocalOffsets[i];
    T* const LDii = LD.blockPointers[iDiag];
    bool good = false;
    if (X != nullptr && iDiag == iBegin + 1 &&
        kernels::factorDiagonalUpdated(L.blockPointers[iBegin], LD.blockPointers[iBegin],
                                       sizes[S.rowIndices[iBegin]], X, Lii, p_i, s_i, di, LDii, recip,
                                       good)) {
        // One update of a small block, fused with the factorization: the bits of the two steps below.
    } else {
        if (X == nullptr) {
            std::memset(static_cast<void*>(Lii), 0, static_cast<unsigned long>(s_i) * p_i * sizeof(T));
            X = Lii;
        }
        for (unsigned int e = iBegin; e < iDiag; ++e) {
            const int p_k = static_cast<int>(fc::padded<T>(sizes[S.rowIndices[e]]));
            const int s_k = static_cast<int>(sizes[S.rowIndices[e]]);
            if (X != Lii) {
                fc::subtractABtLowerFrom(L.blockPointers[e], p_k, LD.blockPointers[e], p_k, X, Lii,
                                         static_cast<int>(p_i), static_cast<int>(s_i), s_k);
                X = Lii;
            } else {
                fc::subtractABtLower(L.blockPointers[e], p_k, LD.blockPointers[e], p_k, Lii,
                                     static_cast<int>(p_i), static_cast<int>(s_i), s_k);
            }
        }
        good = fc::factorDiagonalBlock(Lii, p_i, s_i, di, LDii, X == Lii ? nullptr : X, recip);
    }
    if (!good) lowerBadBlock(*badBlock, i);
    if (p_i > s_i) {
        const unsigned long count = static_cast<unsigned long>(s_i) * p_i;
        const unsigned long pad = static_cast<unsigned long>(p_i - s_i) * p_i;
        std::memset(static_cast<void*>(Lii + count), 0, pad * sizeof(T));
        std::memset(static_cast<void*>(LDii + count), 0, pad * sizeof(T));
    }
    LD.blockFlags[iDiag] = 1;
}

// Part x, by the serial row kernels in place in L (no fronts, no copies):
//  1. its rows ascending: every entry of such a row lies in the part (the columns of a row are descendants
//     of the row);
//  2. the rows above the part that reach into it (x's off-diagonal rows r_1 < … < r_m, all top nodes): their
//     entries in the part's columns, then the part's contribution to the pairs r_a ≥ r_b,
//     −Σ_k LD(r_a, k)·L(r_b, k)ᵀ over the part's columns k, subtracted into x's update list when the top
//     belongs to another thread, otherwise straight into the fronts of the top nodes r_b;
//  3. publishes x.
template <typename T>
void Worker<T>::runPart(unsigned int x) {
    MfNode<T>* const nodes = M.nodes.data();
    const unsigned int* cols = S.rowIndices;
    const unsigned int* const part = M.part.data();
    for (unsigned int u = M.partBegin[x]; u < M.partEnd[x]; ++u) {
        const unsigned int i = M.partNodes[u];
        if (skipped(i)) break;  // ascending: the rest are skipped too
        rowOf[i] = noNode;      // column i is looked up only by later rows: emptied when its row starts
        const unsigned int iDiag = S.colPointers[i + 1] - 1;
        for (unsigned int e = S.colPointers[i]; e < iDiag; ++e) offDiagonalEntry(i, e, cols[e]);
        diagonalRow(i);
    }

    const unsigned int k0 = M.colPointers[x];
    const unsigned int m = M.colPointers[x + 1] - k0 - 1;
    const unsigned int* rows = M.colRows.data() + k0;  // rows[1 .. m]
    MfNode<T>& node = nodes[x];
    if (m > 0 && !skipped(rows[1])) {
        MfUpdateEntry<T>* const U = node.updates;
        if (U) {
            const MfUpdateEntry<T>& last = U[static_cast<unsigned long>(m) * (m + 1) / 2 - 1];
            const unsigned long p = fc::padded<T>(sizes[last.row]);
            std::memset(static_cast<void*>(U[0].block), 0,
                        (static_cast<unsigned long>(last.block - U[0].block) + p * p) * sizeof(T));
        } else {
            for (unsigned int b = 1; b <= m; ++b) {
                M.front(rows[b]);  // assembled before the first update
                cursors[b] = 0;
            }
        }
        unsigned int* const segBegin = segments;  // [m + 2]: row r_a's part entries from segBegin[a]
        unsigned int* const seg = segments + m + 2;
        unsigned int used = 0;
        for (unsigned int a = 1; a <= m; ++a) {
            const unsigned int i = rows[a], s_i = sizes[i], p_i = fc::padded<T>(s_i);
            if (skipped(i)) break;
            segBegin[a] = used;
            const unsigned int iDiag = S.colPointers[i + 1] - 1;
            for (unsigned int e = S.colPointers[i]; e < iDiag; ++e) {
                const unsigned int j = cols[e];
                if (part[j] != x) continue;
                offDiagonalEntry(i, e, j);
                seg[used++] = e;
            }
            segBegin[a + 1] = used;
            // The pairs (r_a, r_b), b ≤ a: the list entry of (r_a, r_b) is at Σ_{b' < b} (m − b' + 1) + a −
            // b.
            unsigned long column = 0;
            for (unsigned int b = 1; b <= a; column += m - b + 1, ++b) {
                const unsigned int s = rows[b], s_s = sizes[s], p_s = fc::padded<T>(s_s);
                T* C;
                if (U) {
                    C = U[column + a - b].block;
                } else {
                    const unsigned int* sRows = M.colRows.data() + M.colPointers[s];
                    unsigned int pos = cursors[b];
                    while (sRows[pos] != i) ++pos;  // forward scan: i ascends
                    cursors[b] = pos;
                    C = nodes[s].frontBlocks[pos];
                }
                if (b == a) {
                    for (unsigned int q = segBegin[a]; q < segBegin[a + 1]; ++q) {
                        const unsigned int e = seg[q];
                        const int p_k = static_cast<int>(fc::padded<T>(sizes[cols[e]]));
                        fc::subtractABtLower(L.blockPointers[e], p_k, LD.blockPointers[e], p_k, C,
                                             static_cast<int>(p_i), static_cast<int>(s_i),
                                             static_cast<int>(sizes[cols[e]]));
                    }
                } else {
                    for (unsigned int q = segBegin[b]; q < segBegin[b + 1]; ++q) {
                        const unsigned int k = cols[seg[q]];
                        if (rowOf[k] != i) continue;
                        const unsigned int p_k = fc::padded<T>(sizes[k]);
                        subtractProduct(LD.blockPointers[entryOf[k]], L.blockPointers[seg[q]], p_k, C, p_s,
                                        s_i, s_s, sizes[k]);
                    }
                }
            }
        }
    }
    publish(node);
}

// ---------------------------------------------------------------------------------------------------------
// Factorization driver
// ---------------------------------------------------------------------------------------------------------

namespace {

// True when X holds the layout that factorCommon::layoutFactor gives the filled pattern S with these block
// sizes, in at least `capacity` values: the same counts, block rows, columns and sizes, and its tiles back to
// back from the start of the values (the places follow from the structure). O(nb + entries) comparisons.
template <typename T>
bool hasLayout(const SparseMatrix<T>& X, const SkeletonMatrix& S, const unsigned int* sizes,
               unsigned long capacity) {
    const unsigned long nb = S.n, entries = S.numEntries();
    if (nb == 0 || entries == 0 || X.colPointers == nullptr || X.blockPointers == nullptr ||
        X.numBlockCols != nb || X.numBlocks != entries || X.valueCapacity < capacity) {
        return false;
    }
    const unsigned long last = factorCommon::padded<T>(sizes[nb - 1]);
    return X.blockPointers[0] == X.values &&
           X.blockPointers[entries - 1] + last * last == X.values + capacity - 64 &&
           std::memcmp(X.colPointers, S.colPointers, (nb + 1) * sizeof(unsigned int)) == 0 &&
           std::memcmp(X.rowIndices, S.rowIndices, entries * sizeof(unsigned int)) == 0 &&
           std::memcmp(X.blockSizes, sizes, nb * sizeof(unsigned int)) == 0;
}

// data.badPivot from the first bad pivot of block `bad` (noNode: none). That block was factored in full, so
// its pivots are in data.diagonal.
template <typename T>
void recordBadPivot(TamberData<T>& data, unsigned int bad) {
    typename TamberData<T>::BadPivot& record = data.badPivot;
    record = typename TamberData<T>::BadPivot();
    if (bad == noNode) return;
    const unsigned long offset = data.factor.blockOffsets[bad];
    const unsigned int size = data.matrix.blockSizes[bad];
    for (unsigned int c = 0; c < size; ++c) {
        const T value = data.diagonal.data[offset + c];
        if (!isBadPivot(value)) continue;
        record.scalar = offset + c;
        record.block = bad;
        record.local = c;
        record.value = static_cast<double>(value);
        return;
    }
}

}  // namespace

template <typename T>
bool Tamber::prepareMultifrontal(TamberData<T>& data) {
    MultifrontManager<T>& M = data.multifront;
    if (M.isPreparedFor(data.skeleton, data.matrix.blockSizes, data.numThreads)) return false;
    M.prepare(data.skeleton, data.matrix.blockSizes, data.numThreads);
    return true;
}

template <typename T>
void Tamber::factorMF(TamberData<T>& data) {
    const std::uint64_t start = kiv::Timer::ticks();

    const SkeletonMatrix& S = data.skeleton;
    const SparseMatrix<T>& A = data.matrix;
    SparseMatrix<T>& L = data.factor;
    SparseMatrix<T>& LD = data.scaledFactor;
    MultifrontManager<T>& M = data.multifront;
    const unsigned long nb = S.n;
    const unsigned long numEntries = S.numEntries();
    const unsigned int* rowStart = S.colPointers;
    const unsigned int* cols = S.rowIndices;
    const unsigned int* sizes = A.blockSizes;
    const unsigned int threads = data.numThreads == 0 ? 1u : data.numThreads;

    const bool preparedNow = prepareMultifrontal(data);
    M.applyWaitMode(threads);

    // L and LD emptied and sized for nb block rows, the pattern's blocks and C = 64 + Σ p_i·p_j values,
    // unless they hold that layout already (the last factorization's, or estimateWork's). The values are not
    // zeroed here (unlike SparseMatrix::clear): the workers write every element of every tile, padding
    // included, so that this pass over 2·C values is not made serially.
    const bool laidOut =
        hasLayout(L, S, sizes, M.factorCapacity) && hasLayout(LD, S, sizes, M.factorCapacity);
    for (SparseMatrix<T>* X : {&L, &LD}) {
        if (laidOut) break;
        if (X->colPointers) {
            const unsigned long bytes = (X->colCapacity + 1) * sizeof(unsigned int);
            std::memset(X->colPointers, 0, bytes);
            std::memset(X->blockSizes, 0, bytes);
            std::memset(X->blockStrides, 0, bytes);
            std::memset(X->blockOffsets, 0, bytes);
        }
        X->numBlocks = 0;
        X->numBlockCols = 0;
        X->numBlockRows = 0;
        X->setSize(nb, nb, numEntries, M.factorCapacity);
    }

    // Every block of L and LD in pattern order (block index = pattern entry, LD flags 0), with the capacity
    // check of SparseMatrix::acquireBlock; no values are copied: the input enters through the fronts. Note
    // where each input block is.
    if (!laidOut) {
        data.solvePlan.clear();  // the solves' steps point into the layout made here
        factorCommon::layoutFactor(L, S, sizes, false);
        factorCommon::layoutFactor(LD, S, sizes, false);
    }
    // The map is kept while the input's pattern stays what it was mapped from (the usual case from step to
    // step); the comparison is a pass over the input's pattern arrays.
    const unsigned long inputEntries = nb > 0 ? A.colPointers[nb] : 0;
    const bool sameInput =
        M.inputBlocks.size() == numEntries && M.inputColPointers.size() == nb + 1 &&
        M.inputRowIndices.size() == inputEntries && nb > 0 && !preparedNow &&
        std::memcmp(M.inputColPointers.data(), A.colPointers, (nb + 1) * sizeof(unsigned int)) == 0 &&
        std::memcmp(M.inputRowIndices.data(), A.rowIndices, inputEntries * sizeof(unsigned int)) == 0;
    if (!sameInput && nb > 0) {
        M.inputColPointers.resize(nb + 1);
        M.inputRowIndices.resize(inputEntries);
        std::memcpy(M.inputColPointers.data(), A.colPointers, (nb + 1) * sizeof(unsigned int));
        if (inputEntries > 0)
            std::memcpy(M.inputRowIndices.data(), A.rowIndices, inputEntries * sizeof(unsigned int));
    }
    M.inputBlocks.resize(numEntries);
    for (unsigned int i = sameInput ? static_cast<unsigned int>(nb) : 0u; i < nb; ++i) {
        unsigned int a = A.colPointers[i];
        const unsigned int aEnd = A.colPointers[i + 1];
        for (unsigned int e = rowStart[i]; e < rowStart[i + 1]; ++e) {
            if (a < aEnd && A.rowIndices[a] == cols[e]) {
                M.inputBlocks[e] = a++;
            } else {
                M.inputBlocks[e] = MultifrontManager<T>::noNode;
            }
        }
    }

    data.diagonal.resize(M.scalarSize);
    M.inputTiles = A.blockPointers;
    M.factorTiles = L.blockPointers;

    // Nothing done or assembled (each owner sets up its nodes' parts of the two stores on first use);
    // per-thread marks and stacks from the scratch pad.
    for (unsigned long j = 0; j < nb; ++j) {
        M.nodes[j].done = 0;
        M.nodes[j].assembled = 0;
    }

    unsigned int bad = noNode;
    if (nb > 0) {
        M.threadMarks.resize(M.numOwners);
        M.threadStacks.resize(M.numOwners);
        M.threadReciprocals.resize(M.numOwners);
        M.threadMaps.resize(M.numOwners);
        M.threadSegments.resize(M.numOwners);
        unsigned long largest = 2;
        for (unsigned long j = 0; j < nb; ++j)
            largest = std::max<unsigned long>(largest, factorCommon::padded<T>(sizes[j]));
        for (unsigned int t = 0; t < M.numOwners; ++t) {
            M.threadMarks[t] = data.scratchPad.getUCharArray(t, nb);
            M.threadStacks[t] = data.scratchPad.getIntArray(t, nb + 1 + M.maxColumn);
            M.threadReciprocals[t] = reciprocalSlot(data.scratchPad, reciprocalSlotBase + t, largest,
                                                    static_cast<const T*>(nullptr));
            M.threadMaps[t] =
                reinterpret_cast<unsigned int*>(data.scratchPad.getIntArray(mapSlotBase + t, 2 * nb));
            M.threadSegments[t] = reinterpret_cast<unsigned int*>(
                data.scratchPad.getIntArray(segmentSlotBase + t, numEntries + M.maxColumn + 2));
        }

        M.jobs.closed.store(0, std::memory_order_relaxed);
        M.jobs.state.store(M.jobs.state.load(std::memory_order_relaxed) & ~0xFFFFFFFFull,
                           std::memory_order_relaxed);

        // The task lives on this frame for the length of the call, so that a factorization allocates
        // nothing; its one reference is the creator's and ends with the frame.
        MfWrapper<T> wrapper{this, start, &data.scratchPad, nb, 0.0, &data};
        kiv::ThreadTask task("MultiFront factor",
                             &kiv::ThreadTask::member<MfWrapper<T>, &MfWrapper<T>::doThreadedFactor>,
                             &wrapper, threads);
        task.setNumThreads(threads);
        const std::uint64_t now = kiv::Timer::ticks();
        wrapper.setupTime = static_cast<double>(now - start) * kiv::Timer::clockSpeed();
        const std::uint64_t threadedStart = kiv::Timer::ticks();
        task.execute();
        const std::uint64_t end = kiv::Timer::ticks();
        factorTime = wrapper.setupTime + static_cast<double>(end - threadedStart) * kiv::Timer::clockSpeed();
        bad = wrapper.badBlock.load(std::memory_order_relaxed);
    } else {
        factorTime = static_cast<double>(kiv::Timer::ticks() - start) * kiv::Timer::clockSpeed();
    }
    recordBadPivot(data, bad);
    if (bad != noNode) factorCommon::clearPaddingRows(L, LD);
    data.isFactored = bad != noNode && data.stopAtBadPivot ? 0 : 1;
    solveTime = 0.0;
}

template <typename T>
unsigned int Tamber::chooseThreads(TamberData<T>& data, unsigned int maxThreads) {
    const unsigned int processors = std::max(1u, processorCount());
    const unsigned int threads = std::min({maxThreads == 0 ? processors : maxThreads, processors, maxOwners});
    if (threads <= 1 || data.skeleton.n == 0) return 1;
    MultifrontManager<T>& M = data.multifront;
    if (!M.isPreparedFor(data.skeleton, data.matrix.blockSizes, threads)) {
        M.prepare(data.skeleton, data.matrix.blockSizes, threads);
    }
    if (M.totalWork < parallelMinWork) return 1;
    return M.totalWork >= parallelMinGain * (M.predictedTime + dispatchWork) ? threads : 1;
}

template unsigned int Tamber::chooseThreads<float>(TamberData<float>&, unsigned int);
template unsigned int Tamber::chooseThreads<double>(TamberData<double>&, unsigned int);
template bool Tamber::prepareMultifrontal<float>(TamberData<float>&);
template bool Tamber::prepareMultifrontal<double>(TamberData<double>&);
template void Tamber::factorMF<float>(TamberData<float>&);
template void Tamber::factorMF<double>(TamberData<double>&);

}  // namespace kivTamber

using kivTamber::MfNode;
using kivTamber::MultifrontManager;

template <typename T>
void MfWrapper<T>::doThreadedFactor() {
    kivTamber::TamberData<T>& D = *data;
    MultifrontManager<T>& M = D.multifront;
    const unsigned int t = kiv::ThreadTask::currentThreadIndex();
    if (t >= M.numOwners) return;  // owns no node

    unsigned char* const marks = M.threadMarks[t];  // 0 unseen, 1 pushed, 2 being processed
    int* const stack = M.threadStacks[t];

    constexpr unsigned int noNode = MultifrontManager<T>::noNode;

    kivTamber::Worker<T> worker{M,
                                D.skeleton,
                                D.matrix,
                                D.factor,
                                D.scaledFactor,
                                D.factor.blockSizes,
                                D.factor.blockOffsets,
                                D.diagonal.data,
                                reinterpret_cast<unsigned int*>(stack + numBlocks + 1),
                                M.threadReciprocals[t],
                                static_cast<unsigned char>(t),
                                &badBlock,
                                D.stopAtBadPivot != 0,
                                M.threadMaps[t],
                                M.threadMaps[t] + numBlocks,
                                M.threadSegments[t],
                                M.numSplitNodes > 0 ? &M.jobs : nullptr};

    // The parts of this thread by the serial kernels, then its top nodes (those of the top owner) by fronts.
    for (unsigned int u = M.threadPartBegin[t]; u < M.threadPartBegin[t + 1]; ++u)
        worker.runPart(M.threadParts[u]);
    if (worker.jobs && t != M.topOwner) {
        worker.helpUntilClosed();
        return;
    }
    std::memset(marks, 0, numBlocks);
    unsigned long top = 0;
    for (const kivTamber::MfRoot& root : M.roots) {
        if (root.thread != t || M.part[root.node] != noNode) continue;
        marks[root.node] = 1;
        stack[top++] = static_cast<int>(root.node);
    }

    const MfNode<T>* const nodes = M.nodes.data();
    const unsigned int* const firstChild = M.firstChild.data();
    const unsigned int* const sibling = M.sibling.data();

    while (top > 0) {
        // Descend to the first unfinished child of this thread, as deep as it goes.
        unsigned int c = firstChild[stack[top - 1]];
        while (c != noNode) {
            if (nodes[c].owner == t && !nodes[c].done) {
                if (marks[c] == 0) {
                    marks[c] = 1;
                    stack[top++] = static_cast<int>(c);
                }
                c = firstChild[c];
            } else {
                c = sibling[c];
            }
        }
        const unsigned int j = static_cast<unsigned int>(stack[top - 1]);
        marks[j] = 2;
        worker.process(j);

        // Pop; continue with the next unmarked sibling of this thread.
        if (--top == 0) break;
        for (unsigned int y = sibling[j]; y != noNode; y = sibling[y]) {
            if (nodes[y].owner == t && marks[y] == 0 && !nodes[y].done) {
                marks[y] = 1;
                stack[top++] = static_cast<int>(y);
                break;
            }
        }
    }
    if (worker.jobs) M.jobs.closed.store(1, std::memory_order_release);
}

template class MfWrapper<float>;
template class MfWrapper<double>;
