// Multifrontal block factorization on worker threads: the per-node wait object (WaitBlock), the front
// manager that holds every node's front and update matrix (MultifrontManager) and the worker body
// (MfWrapper). The driver entry points are Tamber::factorMF and Tamber::prepareMultifrontal (Tamber.h).
//
// The factorization is organised by the elimination tree of the filled pattern, one node per block column j.
// Node j's pattern is column j of L: the block rows r ≥ j with L(r, j) present, ascending, j first; its
// parent is the first off-diagonal row of that column. Node j owns a front F(r, j) over that pattern (the
// input values of column j plus the updates of its descendants); eliminating it yields L(·, j), D_j and
// LD(·, j) and the update −L(r, j)·D_j·L(s, j)ᵀ for every pair r ≥ s of its off-diagonal rows, which goes
// into the fronts of the ancestors s.
//
// The tree is split among the worker threads by estimated work: whole subtrees (the "parts") go to single
// threads and the nodes near the roots (the "top") to one thread that waits for the parts of the others. A
// part is factored by the serial row kernels in place in L, with no fronts and no copies: its rows ascending
// (every column of such a row lies in the part), then the entries of the top rows in the part's columns, and
// the part's contribution to the top, −Σ_k LD(r, k)·L(s, k)ᵀ over its columns k for the pairs r ≥ s of its
// root's off-diagonal rows. When the top belongs to another thread that contribution is gathered in the
// root's update list and published through its WaitBlock; otherwise it goes straight into the top's fronts.
// Only the top is factored by fronts. Its large nodes share their block solves and their update columns with
// the other threads, once these have finished their parts, through a job board (MfJobBoard): the chunks are
// fixed by the node and every tile gets its one product from the node in one chunk, so the results are the
// same bits whoever computes them.
//
// Choosing the thread count (Tamber::chooseThreads): with W the estimated work of the whole factorization
// (the flop units of the split below, block operations weighted as flops) and T_P the predicted length of the
// threaded one on P threads (predictedTime: the largest thread's parts, then the top, whose shared steps are
// divided by the threads that can run at once), P threads are chosen when W is at least `parallelMinWork`
// (a dispatch of the workers costs tens of microseconds; smaller systems stay serial) and the predicted gain
// W / (T_P + dispatchWork) is at least `parallelMinGain`; otherwise 1, the serial factorization.
//
// Every thread's sequence of operations is fixed by the split, and data passes between threads only through
// update lists that are complete before they are read, so a factorization gives the same bits from run to
// run for a fixed thread count (on a given machine: the split counts the processors).
#ifndef KIVTAMBER_MULTIFRONT_H
#define KIVTAMBER_MULTIFRONT_H

#include <apr_atomic.h>
#include <kiv/ThreadSync.h>
#include <kiv/VectorPOD.h>

#include <OpenThreads/Condition>
#include <OpenThreads/Mutex>
#include <atomic>
#include <cstdint>

#include "SkeletonMatrix.h"
#include "SparseTypes.h"
#include "TamberUtils.h"

#if defined(__SANITIZE_THREAD__)
#define KIVTAMBER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KIVTAMBER_TSAN 1
#endif
#endif
#ifdef KIVTAMBER_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace kivTamber {

class Tamber;
template <typename T>
class TamberData;

// ---------------------------------------------------------------------------------------------------------
// 32-bit atomics (sequentially consistent, from the portable runtime). The thread sanitizer cannot see
// inside the runtime's library, so in sanitizer builds each operation also tells it about the ordering it
// implies (release before, acquire after).
// ---------------------------------------------------------------------------------------------------------

// Makes the portable runtime ready for its atomics; called once per process before the first wait block is
// made (later calls return at once).
void initializeAtomics();

// *mem += value; returns the previous value.
inline apr_uint32_t atomicAdd32(volatile apr_uint32_t* mem, apr_uint32_t value) {
#ifdef KIVTAMBER_TSAN
    __tsan_release(const_cast<apr_uint32_t*>(mem));
    const apr_uint32_t previous = apr_atomic_add32(mem, value);
    __tsan_acquire(const_cast<apr_uint32_t*>(mem));
    return previous;
#else
    return apr_atomic_add32(mem, value);
#endif
}

// ++*mem; returns the previous value.
inline apr_uint32_t atomicInc32(volatile apr_uint32_t* mem) {
#ifdef KIVTAMBER_TSAN
    __tsan_release(const_cast<apr_uint32_t*>(mem));
    const apr_uint32_t previous = apr_atomic_inc32(mem);
    __tsan_acquire(const_cast<apr_uint32_t*>(mem));
    return previous;
#else
    return apr_atomic_inc32(mem);
#endif
}

// *mem = value; returns the previous value.
inline apr_uint32_t atomicXchg32(volatile apr_uint32_t* mem, apr_uint32_t value) {
#ifdef KIVTAMBER_TSAN
    __tsan_release(const_cast<apr_uint32_t*>(mem));
    const apr_uint32_t previous = apr_atomic_xchg32(mem, value);
    __tsan_acquire(const_cast<apr_uint32_t*>(mem));
    return previous;
#else
    return apr_atomic_xchg32(mem, value);
#endif
}

// ---------------------------------------------------------------------------------------------------------
// WaitBlock
// ---------------------------------------------------------------------------------------------------------

// A lock with a way to wait under it until another thread signals: the object through which a thread waits
// for a node of another thread to be finished. Two modes, fixed by the front manager when it makes the
// blocks:
//  - spin mode (spinLock and spinWait nonzero): the lock is an exchange loop on lockWord (no back-off);
//    wait() takes a ticket from the waiter counter, releases the lock and spins until a signal has counted
//    the counter below the ticket;
//  - condition mode (both zero): the lock is the mutex, wait() is a condition wait on it.
// The two flags may also be mixed (a mutex lock with spin waiting). Every failing mutex or condition call
// ends the process with the messages of <kiv/ThreadSync.h>.
//
// The mutex is of the recursive type: on Linux that is the OpenThreads type whose unlock checks ownership,
// so that an unlock by a thread that does not hold the lock fails (EPERM) instead of passing unnoticed. No
// thread ever takes a wait block's lock twice.
//
// Aligned to a cache line so that blocks of different nodes do not share one. Not copyable.
class alignas(64) WaitBlock {
public:
    // Nonzero: lock() and unlock() use the spin-lock word; zero: the mutex.
    unsigned int spinLock;
    // The spin lock: 1 held, 0 free.
    volatile apr_uint32_t lockWord;
    OpenThreads::Mutex mutex;
    OpenThreads::Condition condition;
    // Spin waiting: number of tickets handed out and not yet signalled.
    volatile apr_uint32_t waiters;
    // Nonzero: wait() spins on the waiter counter; zero: it waits on the condition.
    unsigned int spinWait;

    // A free block in spin mode (spin = true) or condition mode.
    explicit WaitBlock(bool spin = true);
    WaitBlock(const WaitBlock&) = delete;
    WaitBlock& operator=(const WaitBlock&) = delete;

    // Both flags at once: spin mode or condition mode. Only while no thread uses the block.
    void setMode(bool spin) {
        spinLock = spin ? 1u : 0u;
        spinWait = spin ? 1u : 0u;
    }

    // Takes the lock: spin mode exchanges lockWord with 1 until the old value is 0; mutex mode locks the
    // mutex (fatal on failure).
    void lock() {
        if (spinLock) {
            while (atomicXchg32(&lockWord, 1u) != 0u) {
            }
        } else {
            kiv::checkMutexLock(mutex.lock());
        }
    }

    // Releases the lock: exchanges lockWord with 0, or unlocks the mutex (fatal on failure, e.g. when the
    // calling thread does not hold it).
    void unlock() {
        if (spinLock) {
            atomicXchg32(&lockWord, 0u);
        } else {
            kiv::checkMutexUnlock(mutex.unlock());
        }
    }

    // Called with the lock held; returns with it held again once another thread has called signal() (or,
    // in condition mode, after a spurious wake-up: callers wait in a loop on their own condition).
    void wait();

    // Called with the lock held: wakes the waiter. Spin waiting counts the waiter counter down and resets it
    // to 0 when it was not positive before; condition waiting signals the condition (fatal on failure).
    void signal();
};

// ---------------------------------------------------------------------------------------------------------
// Front manager
// ---------------------------------------------------------------------------------------------------------

// One entry of a node's update list: the block U(row, col) of its update matrix, s_row rows of p_col
// elements (row stride p_col; p_row·p_col elements reserved, padding zero), holding the negated sum of the
// contributions −L(row, k)·D_k·L(col, k)ᵀ gathered so far.
template <typename T>
struct MfUpdateEntry {
    T* block;
    unsigned int row;
    unsigned int col;
};

// The record of node j (block column j).
template <typename T>
struct MfNode {
    // F(r, j) for the entries of column j in pattern order, diagonal first: s_r rows of p_j elements each
    // (row stride p_j, p_r·p_j reserved). They are the tiles of L(r, j), set when the owner assembles j.
    T** frontBlocks;
    // The update list: one entry per pair r ≥ s of j's off-diagonal rows r_1 < … < r_m, ordered by s, then
    // r (m·(m+1)/2 entries); null unless j's parent is owned by another thread.
    MfUpdateEntry<T>* updates;
    // Lock and wait object of a node with an update list; null otherwise.
    WaitBlock* waitBlock;
    // First off-diagonal row of column j; j itself for a root.
    unsigned int parent;
    // Index of the worker thread that eliminates j.
    unsigned char owner;
    // 1 once j is eliminated and its update list is complete.
    unsigned char done;
    // Nonzero when a child of j is owned by another thread.
    unsigned char foreignChildren;
    // 1 once the owner has assembled j's front in this factorization (the input blocks of column j copied
    // in, the fill blocks zero) and zeroed its update list. That happens when the owner first writes to
    // them, so that this pass over the stores is shared among the threads and done close to the use, and the
    // updates are then subtracted from the input in the order of the serial factorization.
    unsigned char assembled;
};

// A (subtree root, thread) pair: a topmost node of the part that `thread` owns.
struct MfRoot {
    unsigned int node;
    unsigned int thread;
};

// The board on which the owner of the top shares the steps of a large node with the other threads, once
// these have finished their parts: the owner splits the step into chunks (fixed by the node), posts them, and
// every thread claims chunks until none is left; the owner then waits until all are finished. state holds the
// job's generation (bits 32-63), its chunk count (bits 16-31) and the next unclaimed chunk (bits 0-15) in one
// word, so that a claim is checked against the job it belongs to and a claim of a job that has ended fails.
struct MfJobBoard {
    enum : unsigned int { finish = 0, update = 1 };
    alignas(64) std::atomic<std::uint64_t> state{0};
    std::atomic<unsigned int> kind{0};
    std::atomic<unsigned int> node{0};
    alignas(64) std::atomic<unsigned int> finished{0};
    // 1 once the top is done: the helpers return.
    alignas(64) std::atomic<unsigned int> closed{0};
};

// Which WaitBlock mode the manager gives its blocks.
enum class MfWaitMode : unsigned int {
    automatic = 0,  // spin mode while the thread count does not exceed the processors, else condition mode
    spin = 1,
    condition = 2
};

// The workspace of the multifrontal factorization of one TamberData<T>: node records over the column form of
// the filled pattern, the element store of the update lists (the fronts live in the tiles of L), the wait
// blocks and the split of the tree among the threads.
//
// Prepared for one (filled pattern, block sizes, thread count): prepare() builds everything;
// isPreparedFor() tells whether a prepared state still fits. Tamber::factorMF checks and prepares by itself,
// so a caller never has to. Every array is grown, never shrunk: preparing the same or a smaller structure
// again, and every factorization after the preparation, allocate nothing. Not copyable.
template <typename T>
class MultifrontManager {
public:
    static constexpr unsigned int noNode = 0xFFFFFFFFu;

    // Node records, one per block column [n].
    kiv::VectorPOD<MfNode<T>> nodes;
    // The element store of the update lists (Σ over the update lists of p_r·p_s, node by node). The fronts
    // need no store of their own: front block F(r, j) is the tile of L(r, j) itself, which ends up holding
    // L(r, j) after the elimination of j (the same traffic over memory as the serial factorization, no copy
    // from front to factor). A node's front and update list are set up by its owner in every factorization
    // before the first write to them (MfNode::assembled).
    kiv::VectorPOD<T> updateStore;
    // (subtree root, thread) pairs, grouped by thread; within a thread the node indices descend, so that the
    // lowest-numbered root, pushed last, is started first.
    kiv::VectorPOD<MfRoot> roots;

    // Column form of the filled pattern: column j is colRows[colPointers[j] .. colPointers[j+1]-1] (j first,
    // then ascending); colEntries gives the entry index of (r, j) in the row form, which is also the index of
    // block (r, j) in L and LD. frontBlockPointers backs MfNode::frontBlocks [entries]; the owner of node j
    // points its entries at the tiles of L when it assembles j.
    kiv::VectorPOD<unsigned int> colPointers;
    kiv::VectorPOD<unsigned int> colRows;
    kiv::VectorPOD<unsigned int> colEntries;
    kiv::VectorPOD<T*> frontBlockPointers;
    // Backing store of MfNode::updates.
    kiv::VectorPOD<MfUpdateEntry<T>> updateEntries;
    // Child lists of the tree (ascending): first child and next sibling, noNode ending a list [n].
    kiv::VectorPOD<unsigned int> firstChild;
    kiv::VectorPOD<unsigned int> sibling;
    // Per row-form entry e = (i, j): index of block (i, j) in the input matrix, noNode for a fill block.
    // Rebuilt by every factorization (the input's own pattern may change under a fixed filled pattern).
    kiv::VectorPOD<unsigned int> inputBlocks;
    // The block pointers of the input matrix and of L during a factorization.
    T* const* inputTiles = nullptr;
    T* const* factorTiles = nullptr;

    // Wait blocks of the nodes with an update list (constructed in place; grown only).
    WaitBlock* waitBlocks = nullptr;
    unsigned long numWaitBlocks = 0;
    unsigned long waitBlockCapacity = 0;

    // Per-thread work arrays for the next factorization (scratch-pad slot t): nb marks, and a stack of nb+1
    // node indices followed by maxColumn cursors.
    kiv::VectorPOD<unsigned char*> threadMarks;
    kiv::VectorPOD<int*> threadStacks;
    // Per thread: the reciprocal pivots of the node being solved (largest padded block size), scratch pad.
    kiv::VectorPOD<T*> threadReciprocals;

    // Length of the longest column of the pattern.
    unsigned int maxColumn = 0;
    // Value capacity of L and LD (64 + Σ over the pattern of p_i·p_j) and the scalar dimension N.
    unsigned long factorCapacity = 0;
    unsigned long scalarSize = 0;

    // Threads that own nodes (at most numThreads and 256); the owner of the top part; estimated work of the
    // whole factorization and of the top part, in flops; the largest subtree work of any one thread;
    // predictedTime: the estimated length of the threaded factorization in the same units, the largest
    // thread's parts, then the top with the shared steps of its large nodes divided among the threads that
    // can run at once.
    unsigned int numOwners = 0;
    unsigned int topOwner = 0;
    double totalWork = 0.0;
    double topWork = 0.0;
    double maxThreadWork = 0.0;
    double predictedTime = 0.0;

    // Wanted mode of the wait blocks; applied by the next factorization (no new preparation needed).
    MfWaitMode waitMode = MfWaitMode::automatic;
    // Mode the blocks have now: true spin, false condition.
    bool spinBlocks = true;

    // How many times prepare() ran (for callers that want to see the reuse).
    unsigned long preparations = 0;

    // What the manager was prepared for: block count, entry count, thread count and copies of the pattern's
    // arrays and of the block sizes.
    bool isPrepared = false;
    unsigned long preparedBlocks = 0;
    unsigned long preparedEntries = 0;
    unsigned int preparedThreads = 0;
    kiv::VectorPOD<unsigned int> preparedColPointers;
    kiv::VectorPOD<unsigned int> preparedRowIndices;
    kiv::VectorPOD<unsigned int> preparedSizes;

    // The parts that single threads factor by the serial row kernels, in place in L (no fronts): every node
    // below the top belongs to the part of its topmost non-top ancestor x (its "part root"): part[j] = x,
    // noNode for a top node. partNodes[partBegin[x] .. partEnd[x]-1] lists the nodes of part x ascending (a
    // valid order: descendants have smaller indices). threadParts[threadPartBegin[t] ..
    // threadPartBegin[t+1]-1] are the part roots of thread t, ascending.
    kiv::VectorPOD<unsigned int> part;
    kiv::VectorPOD<unsigned int> partNodes;
    kiv::VectorPOD<unsigned int> partBegin;
    kiv::VectorPOD<unsigned int> partEnd;
    kiv::VectorPOD<unsigned int> threadParts;
    kiv::VectorPOD<unsigned int> threadPartBegin;
    // Reciprocal pivots of the part nodes, block j at reciprocalOffsets[j] with p_j entries (padding 0);
    // written by the owner of j when it factors j's diagonal block, read by the same thread afterwards.
    kiv::VectorPOD<unsigned long> reciprocalOffsets;
    kiv::VectorPOD<T> reciprocalStore;
    // Per-thread work arrays of the part kernel (scratch-pad slots, reserved before the workers start): the
    // row map (2·nb) and the lists of the part's entries in the rows above the part (entries + maxColumn +
    // 1).
    kiv::VectorPOD<unsigned int*> threadMaps;
    kiv::VectorPOD<unsigned int*> threadSegments;

    // Shared steps of the top: splitNode[j] = 1 for the top nodes large enough to share out (see
    // intraFrontSplit); chunkBounds holds the chunks of the current job (maxColumn + 1 entries); jobs is the
    // board. intraFrontSplit: whether large top nodes are shared at all (the results are the same bits either
    // way); applied by the next preparation.
    kiv::VectorPOD<unsigned char> splitNode;
    kiv::VectorPOD<unsigned int> chunkBounds;
    MfJobBoard jobs;
    bool intraFrontSplit = true;
    bool preparedSplit = true;
    // Least estimated work of a shared top node, in the flop units of the split (a hand-out and a wait cost
    // a few microseconds); applied by the next preparation.
    double minSharedWork = 40000.0;
    double preparedMinShared = 0.0;
    // Number of nodes with splitNode = 1.
    unsigned int numSplitNodes = 0;

    // Work arrays of the preparation.
    kiv::VectorPOD<double> nodeWork;
    kiv::VectorPOD<double> subtreeWork;
    kiv::VectorPOD<unsigned int> order;
    kiv::VectorPOD<unsigned int> sorted;
    kiv::VectorPOD<unsigned char> isTop;
    kiv::VectorPOD<double> threadLoads;

    MultifrontManager() = default;
    ~MultifrontManager();
    MultifrontManager(const MultifrontManager&) = delete;
    MultifrontManager& operator=(const MultifrontManager&) = delete;

    // True when the manager was prepared for this filled pattern (same n, entry count, colPointers and
    // rowIndices), these block sizes (sizes[0 .. n-1]) and this thread count. Cost O(n + entries), no
    // allocation.
    // The settings of the intra-front split must also be the ones prepared for.
    bool isPreparedFor(const SkeletonMatrix& pattern, const unsigned int* sizes,
                       unsigned int numThreads) const;

    // Builds the manager for the filled pattern (rows i, ascending columns j ≤ i, diagonal last; closed under
    // elimination, as the symbolic factorization produces it), the block sizes sizes[0 .. n-1] and
    // numThreads workers (0 counts as 1):
    //  1. the column form, the parents (first off-diagonal row of each column) and the child lists;
    //  2. the work of each node, w_j = s_j³/3 + σ·s_j² + s_j·(σ² + Σ s_r²) + per-block overhead (σ = Σ s_r
    //     over the off-diagonal rows), and of each subtree;
    //  3. the split: starting from the tree roots, the heaviest remaining subtree is cut at its root (it
    //     joins the top, its children become subtrees that may hand their updates to another thread) as
    //     long as that can lower the estimated time max(largest subtree, Σ subtrees / P) + top work + hand-
    //     over costs, P being the threads that can run at once (at most the processors); the best cut
    //     sequence is kept. The subtrees then go to the threads: when each is below 1/8 of an even share,
    //     in index order in contiguous runs of about equal work (the threads' data then lie apart in
    //     memory); otherwise by decreasing work, each to the least loaded thread (ties: lowest index). The
    //     top goes to the least loaded thread. One thread cuts nothing;
    //  4. the owners, the foreign-children flags, the (root, thread) pairs and, for every node whose parent
    //     has another owner, its update list over the update store and a wait block in the mode of
    //     `waitMode`.
    // Allocates only when the structure outgrows what the manager held before.
    void prepare(const SkeletonMatrix& pattern, const unsigned int* sizes, unsigned int numThreads);

    // Sets every wait block to the mode that `waitMode` asks for with `numThreads` workers, if it differs.
    void applyWaitMode(unsigned int numThreads);

    // Adds the update list of the finished node `source` into the front of `target` (its parent) and of the
    // ancestors of target that target's owner also owns:
    //   F_s(r, s) += U_source(r, s) for every entry of the list,
    // over whole padded rows (s_r rows of p_s elements). Entries whose column lies beyond the first node on
    // the path that another thread owns go instead into the update list of the last node of target's owner
    // on that path (matched by (row, column)). A source without off-diagonal rows adds nothing.
    // pattern: the filled pattern the manager was prepared from (the manager reads its own column form of
    // it); factor: supplies the block sizes. Called only by target's owner, holding source's lock, after
    // source is done.
    void addUpdateToNode(const SkeletonMatrix& pattern, const SparseMatrix<T>& factor, unsigned long target,
                         unsigned long source);

    // Node x's front blocks, after assembling them and zeroing x's update list if this factorization has not
    // done so yet. Only x's owner calls it while the workers run.
    T* const* front(unsigned int x) {
        if (!nodes[x].assembled) assembleNode(x);
        return nodes[x].frontBlocks;
    }

    // F(r, x) = A(r, x) for the entries of column x, in the tiles of L (whole tiles, padding included; zero
    // for a fill block), x's front block pointers set, its update list zeroed, `assembled` set. Reads the
    // input through inputTiles and inputBlocks, L through factorTiles.
    void assembleNode(unsigned int x);

private:
    void growWaitBlocks(unsigned long count);
};

extern template class MultifrontManager<float>;
extern template class MultifrontManager<double>;

}  // namespace kivTamber

// The worker of the multifrontal factorization: built by Tamber::factorMF on its stack, shared read-only by
// all threads of the "MultiFront factor" task, each of which runs doThreadedFactor() once.
template <typename T>
class MfWrapper {
public:
    // The driver that called factorMF.
    kivTamber::Tamber* driver;
    // Tick count when factorMF started.
    std::uint64_t startTime;
    // Scratch pad of the data (the per-thread slots were reserved before the task started).
    kivTamber::ScratchPad* scratchPad;
    // Number of block columns nb.
    unsigned long numBlocks;
    // Duration of factorMF's set-up, in seconds.
    double setupTime;
    // The system being factored.
    kivTamber::TamberData<T>* data;
    // Smallest block index whose diagonal block gave a zero or non-finite pivot; ~0u while none did. With
    // data->stopAtBadPivot the workers skip the nodes above it.
    std::atomic<unsigned int> badBlock{~0u};

    // Processes the nodes that the calling worker thread owns (its index from kiv::ThreadTask), depth-first
    // from its (root, thread) pairs: for each node, assemble the input column, pull the update lists of the
    // children of other threads (waiting for them), eliminate the node into L, D and LD, subtract its update
    // into its own thread's ancestors (or its thread's boundary node's update list) and publish it. Returns
    // when the thread's nodes are done.
    void doThreadedFactor();
};

extern template class MfWrapper<float>;
extern template class MfWrapper<double>;

#endif  // KIVTAMBER_MULTIFRONT_H
