// Multifrontal factorization: equal to the serial factorization within rounding and to a dense reference on
// paths, stars, random trees, forests, dissection-like trees and random SPD and saddle-point systems, for
// 1 … 16 threads, both wait modes and both precisions; the same bits from run to run; the front manager
// prepared again exactly when the structure or the thread count changes; no allocation once prepared; the
// split of the tree; wait blocks handing a token between threads; the fatal lock messages. Runs under the
// thread sanitizer as well.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>
#include <kiv/ThreadSync.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Tamber.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

// Calls of the global operator new while `g_countNew` is set (the core allocator is counted separately).
namespace {
std::atomic<bool> g_countNew{false};
std::atomic<unsigned long> g_newCalls{0};
}  // namespace

// Not inlined, so that the compiler does not pair the malloc() and free() inside with new and delete calls.
__attribute__((noinline)) void* operator new(std::size_t bytes) {
    if (g_countNew.load(std::memory_order_relaxed)) g_newCalls.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(bytes == 0 ? 1 : bytes)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
    std::free(p);
}
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace kivTamber {
namespace {

using testing::BlockSystem;
using Pairs = std::vector<std::pair<unsigned int, unsigned int>>;

// ---------------------------------------------------------------------------------------------------------
// Systems of chosen tree shapes
// ---------------------------------------------------------------------------------------------------------

// n blocks of sizes 1 … 5 coupled at `pairs` (i > j) with values in [−1, 1], and strictly dominant diagonal
// blocks, negative for every third block: every leading principal submatrix is strictly diagonally
// dominant, so the unpivoted factorization exists, and the matrix is indefinite.
BlockSystem shaped(unsigned long seed, unsigned int n, const Pairs& pairs) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<unsigned int> sizes(n), at(n + 1, 0);
    for (unsigned int b = 0; b < n; ++b) at[b + 1] = at[b] + (sizes[b] = 1 + rng() % 5);
    testing::DenseSymmetric A(at[n]);
    for (const auto& p : pairs)
        for (unsigned int r = at[p.first]; r < at[p.first + 1]; ++r)
            for (unsigned int c = at[p.second]; c < at[p.second + 1]; ++c) A.setSymmetric(r, c, u(rng));
    for (unsigned int b = 0; b < n; ++b)
        for (unsigned int r = at[b]; r < at[b + 1]; ++r) {
            for (unsigned int c = at[b]; c < r; ++c) A.setSymmetric(r, c, 0.3 * u(rng));
            double sum = 1.0;
            for (unsigned int c = 0; c < A.n; ++c) sum += c == r ? 0.0 : std::fabs(A(r, c));
            A(r, r) = b % 3 == 2 ? -sum : sum;
        }
    return testing::makeFromDense(sizes, A);
}

// `count` groups of `size` blocks from `begin`, each a path with about half of its other pairs coupled.
void groups(Pairs& pairs, std::mt19937_64& rng, unsigned int begin, unsigned int count, unsigned int size) {
    for (unsigned int g = 0; g < count; ++g)
        for (unsigned int i = begin + g * size + 1; i < begin + (g + 1) * size; ++i) {
            pairs.push_back({i, i - 1});
            for (unsigned int j = begin + g * size; j + 1 < i; ++j)
                if (rng() % 2) pairs.push_back({i, j});
        }
}

// `parts` groups of `size` blocks, then a path of `top` blocks coupled to the last block of every group:
// a nested-dissection picture whose top has to wait for the groups.
BlockSystem partsAndTop(unsigned long seed, unsigned int parts, unsigned int size, unsigned int top) {
    std::mt19937_64 rng(seed);
    Pairs pairs;
    groups(pairs, rng, 0, parts, size);
    const unsigned int first = parts * size;
    groups(pairs, rng, first, 1, top);
    for (unsigned int g = 0; g < parts; ++g) pairs.push_back({first + g % top, (g + 1) * size - 1});
    return shaped(seed, first + top, pairs);
}

enum class Shape { chain, star, tree, forest, dissection, spd, saddle };
const char* const shapeNames[] = {"chain", "star", "tree", "forest", "dissection", "spd", "saddle"};

BlockSystem makeShape(Shape shape, unsigned long seed, unsigned int n) {
    std::mt19937_64 rng(seed);
    Pairs pairs;
    switch (shape) {
        case Shape::chain:  // a path
            for (unsigned int i = 1; i < n; ++i) pairs.push_back({i, i - 1});
            break;
        case Shape::star:  // every block a child of the last
            for (unsigned int i = 0; i + 1 < n; ++i) pairs.push_back({n - 1, i});
            break;
        case Shape::tree:  // parent(i) random among the next six blocks
            for (unsigned int i = 0; i + 1 < n; ++i)
                pairs.push_back({std::min(n - 1, i + 1 + unsigned(rng() % 6)), i});
            break;
        case Shape::forest:  // groups of five, no top
            groups(pairs, rng, 0, n / 5, 5);
            break;
        case Shape::dissection:
            return partsAndTop(seed, 4, std::max(1u, (n - 4) / 4), 4);
        case Shape::spd:
            return testing::makeSpdSystem(seed, n, 6, 4.0 / n);
        case Shape::saddle:
            return testing::makeSaddlePointSystem(seed, n / 2, n / 2, 6, 3.0 / n);
    }
    return shaped(seed, n, pairs);
}

// ---------------------------------------------------------------------------------------------------------
// Comparisons
// ---------------------------------------------------------------------------------------------------------

template <typename T>
double tolerance() {
    return sizeof(T) == sizeof(double) ? 1e-12 : 1e-4;  // measured worst: 1.1e-15 and 9e-7
}

// Elements of the tile of pattern entry e (row i), padding included.
template <typename T>
unsigned long tileSize(const TamberData<T>& d, unsigned int i, unsigned int e) {
    return static_cast<unsigned long>(d.factor.blockStrides[i]) *
           d.factor.blockStrides[d.skeleton.rowIndices[e]];
}

// Largest |a − b| / (1 + |a|) over D and every element of every tile of L and LD; the LD flags must agree.
template <typename T>
double difference(const TamberData<T>& a, const TamberData<T>& b) {
    double worst = 0.0;
    auto cmp = [&](double x, double y) { worst = std::max(worst, std::fabs(x - y) / (1.0 + std::fabs(x))); };
    EXPECT_EQ(a.diagonal.size, b.diagonal.size);
    for (unsigned long k = 0; k < a.diagonal.size; ++k) cmp(a.diagonal.data[k], b.diagonal.data[k]);
    for (unsigned int i = 0; i < a.skeleton.n; ++i)
        for (unsigned int e = a.skeleton.colPointers[i]; e < a.skeleton.colPointers[i + 1]; ++e) {
            EXPECT_EQ(a.scaledFactor.blockFlags[e], b.scaledFactor.blockFlags[e]) << "LD flag " << e;
            for (unsigned long k = 0; k < tileSize(a, i, e); ++k) {
                cmp(a.factor.blockPointers[e][k], b.factor.blockPointers[e][k]);
                cmp(a.scaledFactor.blockPointers[e][k], b.scaledFactor.blockPointers[e][k]);
            }
        }
    return worst;
}

// D and the tiles of L and LD, to compare bits between runs.
template <typename T>
std::vector<T> snapshot(const TamberData<T>& d) {
    std::vector<T> v(d.diagonal.data, d.diagonal.data + d.diagonal.size);
    for (unsigned int i = 0; i < d.skeleton.n; ++i)
        for (unsigned int e = d.skeleton.colPointers[i]; e < d.skeleton.colPointers[i + 1]; ++e) {
            v.insert(v.end(), d.factor.blockPointers[e], d.factor.blockPointers[e] + tileSize(d, i, e));
            v.insert(v.end(), d.scaledFactor.blockPointers[e],
                     d.scaledFactor.blockPointers[e] + tileSize(d, i, e));
        }
    return v;
}

double maxAbs(const std::vector<double>& v) {
    double m = 0.0;
    for (double x : v) m = std::max(m, std::fabs(x));
    return m;
}

// ---------------------------------------------------------------------------------------------------------
// Multifrontal equals serial
// ---------------------------------------------------------------------------------------------------------

struct Case {
    Shape shape;
    unsigned int blocks;
    unsigned long seed;
};

class MultifrontVsSerial : public ::testing::TestWithParam<Case> {};

template <typename T>
void compareAllThreadCounts(const BlockSystem& sys) {
    TamberData<T> serial, multi;
    sys.fillData(serial);
    sys.fillData(multi);
    Tamber tamber;
    tamber.factorSerial(serial);
    for (MfWaitMode mode : {MfWaitMode::spin, MfWaitMode::condition}) {
        multi.multifront.waitMode = mode;
        for (unsigned int threads : {1u, 2u, 3u, 4u, 8u, 16u}) {
            SCOPED_TRACE(std::to_string(threads) +
                         (mode == MfWaitMode::spin ? " threads, spin" : " threads, cond"));
            multi.numThreads = threads;
            multi.isFactored = 0;
            tamber.factorMF(multi);
            ASSERT_EQ(multi.isFactored, 1);
            ASSERT_EQ(multi.multifront.spinBlocks, mode == MfWaitMode::spin);
            EXPECT_LE(difference(serial, multi),
                      tolerance<T>());  // also: every LD flag as after factorSerial
        }
    }
    // The dense unpivoted factor of the same matrix is unique: the block factor must equal it.
    const testing::DenseLdlt ref = testing::denseLdlt(sys.dense);
    testing::DenseLdlt got;
    testing::extractFactor(multi, got);
    const double tol = 10 * tolerance<T>(), dScale = std::max(1.0, maxAbs(ref.d)),
                 lScale = std::max(1.0, maxAbs(ref.L));
    for (unsigned int r = 0; r < sys.N; ++r) ASSERT_NEAR(got.d[r], ref.d[r], tol * dScale) << "pivot " << r;
    for (std::size_t k = 0; k < ref.L.size(); ++k) ASSERT_NEAR(got.L[k], ref.L[k], tol * lScale) << "L " << k;
}

TEST_P(MultifrontVsSerial, EqualWithinRoundingForAllThreadCountsModesAndPrecisions) {
    const BlockSystem sys = makeShape(GetParam().shape, GetParam().seed, GetParam().blocks);
    SCOPED_TRACE(testing::describe(sys));
    compareAllThreadCounts<double>(sys);
    compareAllThreadCounts<float>(sys);
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (int s = 0; s < 7; ++s) {
        const Shape shape = static_cast<Shape>(s);
        cases.push_back({shape, shape == Shape::chain ? 1u : 5u, 1});
        for (unsigned long seed = 2; seed <= 3; ++seed) cases.push_back({shape, 40, seed});
        cases.push_back({shape, 120, 7});
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Shapes, MultifrontVsSerial, ::testing::ValuesIn(allCases()),
                         [](const ::testing::TestParamInfo<Case>& c) {
                             return std::string(shapeNames[static_cast<int>(c.param.shape)]) + "_" +
                                    std::to_string(c.param.blocks) + "_seed" + std::to_string(c.param.seed);
                         });

// ---------------------------------------------------------------------------------------------------------
// Threads: repeatability, waiting, independence
// ---------------------------------------------------------------------------------------------------------

class MultifrontThreads : public ::testing::TestWithParam<unsigned int> {};

TEST_P(MultifrontThreads, TopWaitsForOtherThreadsSameBitsEveryRunInBothModes) {
    const unsigned int threads = GetParam();
    for (unsigned long seed = 1; seed <= 2; ++seed) {
        const BlockSystem sys = partsAndTop(seed, std::max(2u, threads), 12, 4);
        SCOPED_TRACE(testing::describe(sys));
        TamberData<double> serial, multi;
        sys.fillData(serial);
        sys.fillData(multi);
        Tamber tamber;
        tamber.factorSerial(serial);
        multi.numThreads = threads;
        tamber.factorMF(multi);
        ASSERT_EQ(multi.multifront.numWaitBlocks > 0, threads > 1) << "the top must wait for others";
        EXPECT_LE(difference(serial, multi), tolerance<double>());
        const std::vector<double> first = snapshot(multi);
        for (int run = 0; run < 24; ++run) {
            multi.multifront.waitMode = run % 2 ? MfWaitMode::spin : MfWaitMode::condition;
            tamber.factorMF(multi);
            ASSERT_TRUE(snapshot(multi) == first) << "run " << run;
        }
        TamberData<float> single, singleSerial;  // float through the same path
        sys.fillData(single);
        sys.fillData(singleSerial);
        tamber.factorSerial(singleSerial);
        single.numThreads = threads;
        for (int run = 0; run < 4; ++run) tamber.factorMF(single);
        EXPECT_LE(difference(singleSerial, single), tolerance<float>());
    }
}

INSTANTIATE_TEST_SUITE_P(Counts, MultifrontThreads, ::testing::Values(1u, 2u, 3u, 4u, 8u, 16u));

TEST(MultifrontThreadsWaitBlock, TokenRingInBothModes) {
    initializeAtomics();
    const unsigned int processors = std::max(2u, std::thread::hardware_concurrency());
    for (bool spin : {true, false}) {
        for (unsigned int k : {2u, 3u, 5u}) {
            // Spinning threads that outnumber the processors starve the token holder (the reason why the
            // factorization waits on conditions then); not what this test is about.
            if (spin && k > processors) continue;
            SCOPED_TRACE(std::to_string(k) + (spin ? " threads, spin" : " threads, cond"));
            constexpr int rounds = 300;
            std::vector<WaitBlock*> ring;
            for (unsigned int t = 0; t < k; ++t) ring.push_back(new WaitBlock(spin));
            std::vector<int> go(k, 0), visits(k, 0);  // go[t], visits[t]: guarded by ring[t]
            go[0] = 1;
            std::vector<std::thread> threads;
            for (unsigned int t = 0; t < k; ++t)
                threads.emplace_back([&, t] {
                    for (int r = 0; r < rounds; ++r) {
                        ring[t]->lock();
                        while (!go[t]) ring[t]->wait();
                        go[t] = 0;
                        ++visits[t];
                        ring[t]->unlock();
                        WaitBlock* next = ring[(t + 1) % k];
                        next->lock();
                        go[(t + 1) % k] = 1;
                        next->signal();
                        next->unlock();
                    }
                });
            for (std::thread& th : threads) th.join();
            for (unsigned int t = 0; t < k; ++t) {
                EXPECT_EQ(visits[t], rounds);
                EXPECT_EQ(ring[t]->lockWord, 0u);
                delete ring[t];
            }
            EXPECT_EQ(go[0], 1);  // the token is back at the start
        }
    }
}

TEST(MultifrontThreads, TwoSystemsFromTwoThreadsAndConditionWaitingBeyondTheProcessors) {
    const BlockSystem a = partsAndTop(3, 4, 10, 3), b = partsAndTop(4, 3, 14, 5);
    TamberData<double> da, db, ra, rb;
    a.fillData(da);
    a.fillData(ra);
    b.fillData(db);
    b.fillData(rb);
    Tamber serial;
    serial.factorSerial(ra);
    serial.factorSerial(rb);
    da.numThreads = 3;
    db.numThreads = 2;
    auto factorMany = [](TamberData<double>* d) {
        Tamber tamber;
        for (int run = 0; run < 20; ++run) tamber.factorMF(*d);
    };
    std::thread first(factorMany, &da), second(factorMany, &db);
    first.join();
    second.join();
    EXPECT_LE(difference(ra, da), tolerance<double>());
    EXPECT_LE(difference(rb, db), tolerance<double>());

    const unsigned int processors = std::thread::hardware_concurrency();
    for (unsigned int threads : {1u, processors, processors + 1, 4 * processors}) {
        da.numThreads = threads;
        serial.factorMF(da);
        EXPECT_EQ(da.multifront.spinBlocks, processors == 0 || threads <= processors) << threads;
        EXPECT_LE(difference(ra, da), tolerance<double>());
    }
}

// Every top node shared out (no least work) or none: the same bits, since every tile gets the same
// products in the same order whoever computes them; equal to serial within rounding; the same bits on every
// repeat. Dense tops (a few large fronts over many parts) and the random shapes.
TEST(MultifrontThreads, SharedTopStepsGiveTheSameBitsAsUnsharedForEveryThreadCount) {
    std::vector<BlockSystem> systems;
    systems.push_back(partsAndTop(11, 6, 10, 12));
    systems.push_back(makeShape(Shape::dissection, 12, 120));
    systems.push_back(makeShape(Shape::saddle, 13, 120));
    systems.push_back(makeShape(Shape::spd, 14, 60));
    unsigned long sharedNodes = 0;
    for (const BlockSystem& sys : systems) {
        SCOPED_TRACE(testing::describe(sys));
        TamberData<double> serial, shared, unshared;
        sys.fillData(serial);
        sys.fillData(shared);
        sys.fillData(unshared);
        Tamber tamber;
        tamber.factorSerial(serial);
        shared.multifront.minSharedWork = 0.0;
        unshared.multifront.intraFrontSplit = false;
        for (unsigned int threads : {1u, 2u, 3u, 4u, 8u, 16u}) {
            SCOPED_TRACE(std::to_string(threads) + " threads");
            shared.numThreads = unshared.numThreads = threads;
            tamber.factorMF(unshared);
            tamber.factorMF(shared);
            if (threads == 1) {
                EXPECT_EQ(shared.multifront.numSplitNodes, 0u);
            }
            sharedNodes += shared.multifront.numSplitNodes;
            EXPECT_EQ(unshared.multifront.numSplitNodes, 0u);
            const std::vector<double> bits = snapshot(unshared);
            ASSERT_TRUE(snapshot(shared) == bits);
            EXPECT_LE(difference(serial, shared), tolerance<double>());
            for (int run = 0; run < 8; ++run) {
                tamber.factorMF(shared);
                ASSERT_TRUE(snapshot(shared) == bits) << "run " << run;
            }
        }
    }
    EXPECT_GT(sharedNodes, 20u);
}

// Four different systems factored from four threads at once, each with its own thread count, over and over:
// every result has the bits of the same factorization run alone.
TEST(MultifrontThreads, ConcurrentFactorizationsOfDifferentSystemsEqualOneAtATime) {
    const BlockSystem systems[4] = {partsAndTop(21, 4, 10, 6), makeShape(Shape::saddle, 22, 100),
                                    makeShape(Shape::dissection, 23, 90), partsAndTop(24, 3, 14, 8)};
    const unsigned int threads[4] = {2, 3, 1, 4};
    std::vector<std::vector<double>> alone(4);
    TamberData<double> data[4];
    for (int k = 0; k < 4; ++k) {
        systems[k].fillData(data[k]);
        data[k].numThreads = threads[k];
        data[k].multifront.minSharedWork = 0.0;  // the shared top steps too
        Tamber tamber;
        tamber.factorMF(data[k]);
        alone[k] = snapshot(data[k]);
    }
    std::atomic<unsigned int> mismatches{0};
    auto factorMany = [&](int k) {
        Tamber tamber;
        for (int run = 0; run < 25; ++run) {
            tamber.factorMF(data[k]);
            if (snapshot(data[k]) != alone[k]) ++mismatches;
        }
    };
    std::vector<std::thread> callers;
    for (int k = 0; k < 4; ++k) callers.emplace_back(factorMany, k);
    for (std::thread& c : callers) c.join();
    EXPECT_EQ(mismatches.load(), 0u);
}

// The automatic choice: serial for small systems and for a single chain, the processors (at most the asked
// number) for a wide tree with enough work; the manager is then prepared for that count, and asking again
// allocates nothing.
TEST(MultifrontChoice, SmallSystemsStaySerialLargeWideOnesGetThreads) {
    const unsigned int processors = std::thread::hardware_concurrency();
    Tamber tamber;
    TamberData<double> small, chain, wide;
    makeShape(Shape::dissection, 31, 40).fillData(small);
    EXPECT_EQ(tamber.chooseThreads(small, 8), 1u);
    makeShape(Shape::chain, 32, 600).fillData(chain);
    EXPECT_EQ(tamber.chooseThreads(chain, 8), 1u);
    partsAndTop(33, 8, 60, 6).fillData(wide);
    EXPECT_EQ(tamber.chooseThreads(wide, 1), 1u);
    const unsigned int chosen = tamber.chooseThreads(wide, 0);
    if (processors < 2) {
        EXPECT_EQ(chosen, 1u);
        return;
    }
    EXPECT_EQ(chosen, processors) << "work " << wide.multifront.totalWork << ", predicted "
                                  << wide.multifront.predictedTime;
    EXPECT_EQ(tamber.chooseThreads(wide, 2), 2u);
    EXPECT_TRUE(wide.multifront.isPreparedFor(wide.skeleton, wide.matrix.blockSizes, 2));
    const unsigned long preparations = wide.multifront.preparations;
    const std::uint64_t allocations = kiv::ByteAllocator::allocationCount();
    g_newCalls = 0;
    g_countNew = true;
    for (int step = 0; step < 5; ++step) EXPECT_EQ(tamber.chooseThreads(wide, 2), 2u);
    g_countNew = false;
    EXPECT_EQ(g_newCalls.load() + kiv::ByteAllocator::allocationCount() - allocations, 0u);
    EXPECT_EQ(wide.multifront.preparations, preparations);
}

// ---------------------------------------------------------------------------------------------------------
// The first bad pivot
// ---------------------------------------------------------------------------------------------------------

// Element (c, c) of the input's diagonal tile of block b.
template <typename T>
T& inputDiagonal(TamberData<T>& d, unsigned int b, unsigned int c) {
    const SparseMatrix<T>& A = d.matrix;
    return A.blockPointers[A.colPointers[b + 1] - 1][static_cast<unsigned long>(c) * A.blockStrides[b] + c];
}

// A zero pivot in a leaf of one part and non-finite ones in a later part and in the top: the smallest scalar
// index is reported, with or without stopping, for every thread count and every repeat; the nodes before it
// keep the bits of a clean factorization; stopping leaves the data unfactored.
TEST(MultifrontBadPivot, SmallestIndexFoundForEveryThreadCountStoppingOrNot) {
    const BlockSystem sys = partsAndTop(5, 4, 12, 4);
    SCOPED_TRACE(testing::describe(sys));
    const unsigned int zeroBlock = 12;  // the first leaf of the second part: its pivots are its input's
    const unsigned int nanBlock = 30, nanLocal = sys.sizes[nanBlock] - 1, topBlock = sys.nb - 1;
    const unsigned long expected = sys.offsets[zeroBlock];
    for (unsigned int threads : {1u, 2u, 3u, 4u, 8u, 16u}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        TamberData<double> clean, bad;
        sys.fillData(clean);
        sys.fillData(bad);
        for (unsigned int c = 0; c < sys.sizes[zeroBlock]; ++c)
            for (unsigned int r = 0; r < sys.sizes[zeroBlock]; ++r)
                bad.matrix
                    .blockPointers[bad.matrix.colPointers[zeroBlock + 1] - 1]
                                  [static_cast<unsigned long>(r) * bad.matrix.blockStrides[zeroBlock] + c] =
                    0.0;
        inputDiagonal(bad, nanBlock, nanLocal) = std::nan("");
        inputDiagonal(bad, topBlock, 0) = std::numeric_limits<double>::infinity();
        Tamber tamber;
        clean.numThreads = bad.numThreads = threads;
        tamber.factorMF(clean);
        EXPECT_EQ(clean.badPivot.scalar, TamberData<double>::BadPivot::noPivot);
        const std::vector<double> cleanBits(clean.diagonal.data, clean.diagonal.data + expected);
        for (unsigned char stop : {0, 1}) {
            bad.stopAtBadPivot = stop;
            for (int run = 0; run < 6; ++run) {
                bad.isFactored = 0;
                bad.badPivot.scalar = 0;
                tamber.factorMF(bad);
                ASSERT_EQ(bad.badPivot.scalar, expected) << "stop " << int(stop) << " run " << run;
                EXPECT_EQ(bad.badPivot.block, zeroBlock);
                EXPECT_EQ(bad.badPivot.local, 0u);
                EXPECT_EQ(bad.badPivot.value, 0.0);
                EXPECT_EQ(bad.isFactored, stop ? 0 : 1);
                EXPECT_TRUE(std::equal(cleanBits.begin(), cleanBits.end(), bad.diagonal.data));
            }
        }
        // Only the non-finite pivot of the later part: found inside its block, at its local index.
        sys.fillData(bad);
        inputDiagonal(bad, nanBlock, nanLocal) = std::nan("");
        bad.stopAtBadPivot = 1;
        tamber.factorMF(bad);
        EXPECT_EQ(bad.badPivot.scalar, sys.offsets[nanBlock] + nanLocal);
        EXPECT_EQ(bad.badPivot.block, nanBlock);
        EXPECT_EQ(bad.badPivot.local, nanLocal);
        EXPECT_TRUE(std::isnan(bad.badPivot.value));
        // Good values again: no bad pivot, factored.
        sys.fillData(bad);
        tamber.factorMF(bad);
        EXPECT_EQ(bad.badPivot.scalar, TamberData<double>::BadPivot::noPivot);
        EXPECT_EQ(bad.isFactored, 1);
    }
    TamberData<float> single;  // float through the same path
    sys.fillData(single);
    inputDiagonal(single, nanBlock, 0) = std::numeric_limits<float>::quiet_NaN();
    single.numThreads = 2;
    single.stopAtBadPivot = 1;
    Tamber tamber;
    tamber.factorMF(single);
    EXPECT_EQ(single.badPivot.scalar, sys.offsets[nanBlock]);
    EXPECT_EQ(single.isFactored, 0);
}

// ---------------------------------------------------------------------------------------------------------
// Preparation and allocation
// ---------------------------------------------------------------------------------------------------------

TEST(MultifrontPrepare, ReusedForTheSameStructurePreparedAgainWhenItChanges) {
    const BlockSystem a = makeShape(Shape::dissection, 3, 80), b = makeShape(Shape::saddle, 4, 60);
    TamberData<double> data, reference;
    Tamber tamber;
    a.fillData(data);
    a.fillData(reference);
    data.numThreads = 2;
    EXPECT_TRUE(tamber.prepareMultifrontal(data));
    EXPECT_FALSE(tamber.prepareMultifrontal(data));
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 1u);

    // New values, same structure: reused, and the factor follows the values.
    a.refillValues(data.matrix, 2.0);
    a.refillValues(reference.matrix, 2.0);
    tamber.factorSerial(reference);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 1u);
    EXPECT_LE(difference(reference, data), tolerance<double>());

    // Another thread count, another skeleton, the first one again: each change prepares once.
    data.numThreads = 3;
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 2u);
    EXPECT_LE(difference(reference, data), tolerance<double>());
    b.fillData(data);
    b.fillData(reference);
    tamber.factorSerial(reference);
    tamber.factorMF(data);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 3u);
    EXPECT_LE(difference(reference, data), tolerance<double>());

    // Only the block sizes differ (same pattern, another seed of the sizes): prepared again.
    Pairs pairs;
    for (unsigned int i = 0; i < b.nb; ++i)
        for (unsigned int j : b.lowerRows[i]) pairs.push_back({i, j});
    const BlockSystem c = shaped(99, b.nb, pairs);
    ASSERT_NE(c.sizes, b.sizes);
    c.fillData(data);
    c.fillData(reference);
    tamber.factorSerial(reference);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 4u);
    EXPECT_LE(difference(reference, data), tolerance<double>());
}

TEST(MultifrontPrepare, RepeatedFactorizationsAllocateNothing) {
    const BlockSystem sys = makeShape(Shape::dissection, 9, 120);
    for (unsigned int threads : {1u, 2u, 4u}) {
        SCOPED_TRACE("threads " + std::to_string(threads));
        TamberData<double> data;
        TamberData<float> single;
        sys.fillData(data);
        sys.fillData(single);
        data.numThreads = single.numThreads = threads;
        Tamber tamber;
        tamber.factorMF(data);
        tamber.factorMF(single);
        const std::uint64_t before = kiv::ByteAllocator::allocationCount();
        g_newCalls.store(0);
        g_countNew.store(true);
        for (int run = 0; run < 3; ++run) {
            sys.refillValues(data.matrix, 1.0 + run);
            tamber.factorMF(data);
            tamber.factorMF(single);
        }
        g_countNew.store(false);
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        EXPECT_EQ(g_newCalls.load(), 0u);
    }
}

// ---------------------------------------------------------------------------------------------------------
// The split among the threads
// ---------------------------------------------------------------------------------------------------------

// One owner per node below the thread count; a (root, thread) pair exactly for the roots and the nodes whose
// parent has another owner, which are also exactly the nodes with an update list and a wait block; the
// foreign-children flags match.
template <typename T>
void checkSplit(const MultifrontManager<T>& M, unsigned int threads) {
    unsigned long roots = 0;
    for (unsigned int j = 0; j < M.nodes.size(); ++j) {
        const MfNode<T>& node = M.nodes[j];
        ASSERT_LT(node.owner, threads);
        const bool foreignParent = node.parent != j && M.nodes[node.parent].owner != node.owner;
        EXPECT_EQ(node.updates != nullptr, foreignParent) << j;
        EXPECT_EQ(node.waitBlock != nullptr, foreignParent) << j;
        roots += node.parent == j || foreignParent;
        bool foreignChild = false;
        for (unsigned int c = M.firstChild[j]; c != MultifrontManager<T>::noNode; c = M.sibling[c])
            foreignChild = foreignChild || M.nodes[c].owner != node.owner;
        EXPECT_EQ(node.foreignChildren != 0, foreignChild) << j;
    }
    ASSERT_EQ(M.roots.size(), roots);
    for (const MfRoot& r : M.roots) EXPECT_EQ(M.nodes[r.node].owner, r.thread);
}

TEST(MultifrontSplit, WideTreesAreSharedAndHeavyTopsGoToOneWaitingThread) {
    // 40 trees: list scheduling keeps the busiest thread within one tree of an even share (about half each
    // for two); nobody waits.
    TamberData<double> data;
    Tamber tamber;
    std::mt19937_64 rng(5);
    Pairs pairs;
    groups(pairs, rng, 0, 40, 5);
    shaped(5, 200, pairs).fillData(data);
    for (unsigned int threads : {1u, 2u, 3u, 8u, 16u, 300u}) {
        data.numThreads = threads;
        tamber.prepareMultifrontal(data);
        const MultifrontManager<double>& M = data.multifront;
        checkSplit(M, std::min(threads, 256u));
        EXPECT_EQ(M.numWaitBlocks, 0u);
        double heaviest = 0.0;
        for (unsigned int t = 0; t < 40; ++t) heaviest = std::max(heaviest, M.subtreeWork[5 * t + 4]);
        EXPECT_LE(M.maxThreadWork, M.totalWork / std::min(threads, 40u) + heaviest) << threads;
    }

    // A dissection-like tree: the top goes to one thread, which alone waits; the parts are shared.
    const BlockSystem dissection = partsAndTop(2, 4, 40, 4);
    dissection.fillData(data);
    for (unsigned int threads : {2u, 4u}) {
        data.numThreads = threads;
        tamber.prepareMultifrontal(data);
        const MultifrontManager<double>& M = data.multifront;
        checkSplit(M, threads);
        EXPECT_GT(M.numWaitBlocks, 0u);
        EXPECT_LT(M.maxThreadWork + M.topWork, 0.7 * M.totalWork) << threads;
        EXPECT_EQ(M.nodes[dissection.nb - 1].owner, M.topOwner);
        for (const MfNode<double>& node : M.nodes)
            if (node.foreignChildren) {
                EXPECT_EQ(node.owner, M.topOwner);
            }
    }

    // A path cannot be shared.
    makeShape(Shape::chain, 2, 100).fillData(data);
    data.numThreads = 4;
    tamber.prepareMultifrontal(data);
    checkSplit(data.multifront, 4);
    EXPECT_EQ(data.multifront.numWaitBlocks, 0u);

    // A root has no update list: as a source it adds nothing.
    tamber.factorMF(data);
    const std::vector<double> before = snapshot(data);
    data.multifront.addUpdateToNode(data.skeleton, data.factor, 99, 99);
    EXPECT_TRUE(snapshot(data) == before);
}

// ---------------------------------------------------------------------------------------------------------
// Driver
// ---------------------------------------------------------------------------------------------------------

TEST(MultifrontEdge, EmptyAndOneBlockSystemsAndTimers) {
    TamberData<double> empty;
    Tamber tamber;
    tamber.solveTime = 5.0;
    tamber.factorMF(empty);
    EXPECT_EQ(empty.isFactored, 1);
    EXPECT_EQ(empty.factor.numBlocks, 0u);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);

    const BlockSystem one = shaped(1, 1, {});  // d = a, L = [1], LD = [d]; zero threads count as one
    TamberData<float> data;
    one.fillData(data);
    data.numThreads = 0;
    tamber.solveTime = 1.0;
    tamber.factorMF(data);
    EXPECT_EQ(data.diagonal.data[0], static_cast<float>(one.dense(0, 0)));
    EXPECT_EQ(data.factor.blockPointers[0][0], 1.0f);
    EXPECT_EQ(data.scaledFactor.blockPointers[0][0], data.diagonal.data[0]);
    EXPECT_EQ(data.scaledFactor.blockFlags[0], 1u);
    EXPECT_GT(tamber.getFactorTime(), 0.0);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);
}

TEST(MultifrontEdge, NoTraceLeftForOrFromTheSerialFactorization) {
    // The multifrontal path does not zero L and LD beforehand: padding and all must still come out right
    // after a work estimate or a serial factorization, and leave nothing behind for the next one.
    const BlockSystem sys = makeShape(Shape::saddle, 21, 90);
    TamberData<double> data, reference;
    sys.fillData(data);
    sys.fillData(reference);
    data.numThreads = 2;
    Tamber tamber;
    tamber.factorSerial(reference);
    tamber.estimateWork(data, nullptr);
    tamber.factorMF(data);
    EXPECT_LE(difference(reference, data), tolerance<double>());
    tamber.factorSerial(data);
    EXPECT_TRUE(snapshot(reference) == snapshot(data));
    tamber.factorMF(data);
    EXPECT_LE(difference(reference, data), tolerance<double>());
}

TEST(MultifrontEdge, SolvesFactorWithTheMultifrontalMethodOnce) {
    const BlockSystem sys = makeShape(Shape::saddle, 12, 80);
    TamberData<float> data;
    sys.fillData(data);
    data.useMultifrontal = 1;
    data.numThreads = 2;
    Tamber tamber;
    const std::vector<double> b = testing::randomVector(sys.N, 3);
    const std::vector<float> bf(b.begin(), b.end());
    std::vector<float> x(sys.N), y(sys.N);
    ASSERT_TRUE(tamber.solve(data, bf.data(), x.data()));
    EXPECT_EQ(data.multifront.preparations, 1u);  // the multifrontal path ran
    EXPECT_LT(testing::scaledResidual(sys.dense, x.data(), bf.data()), 1e-5);

    // New values without clearing isFactored: the factor is reused.
    const double factorTime = tamber.getFactorTime();
    sys.refillValues(data.matrix, 3.0);
    ASSERT_TRUE(tamber.solve(data, bf.data(), y.data()));
    EXPECT_EQ(x, y);
    EXPECT_EQ(tamber.getFactorTime(), factorTime);

    // Cleared: the unit solve factors again (same structure, no new preparation).
    data.isFactored = 0;
    std::vector<float> unit(sys.N, 0.0f);
    unit[sys.offsets[sys.nb - 1]] = 1.0f;
    tamber.unitSolve(data, unit.data(), -1);
    EXPECT_EQ(data.isFactored, 1);
    EXPECT_EQ(data.multifront.preparations, 1u);
    EXPECT_NE(tamber.getFactorTime(), factorTime);
}

// ---------------------------------------------------------------------------------------------------------
// Fatal lock and condition errors
// ---------------------------------------------------------------------------------------------------------

TEST(MultifrontDeathTest, LockAndConditionFailuresNameTheSyncHeaderAndLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(kiv::checkMutexLock(35), "^\\[ThreadSync\\.h:271\\] kivAbort: Deadlock detected!\n");
    EXPECT_DEATH(kiv::checkMutexLock(22), "^\\[ThreadSync\\.h:274\\] kivAbort: Mutex memory is corrupted!\n");
    EXPECT_DEATH(kiv::checkMutexLock(11), "^\\[ThreadSync\\.h:283\\] kivAbort: Unknown mutex error!\n");
    EXPECT_DEATH(
        kiv::checkMutexUnlock(1),
        "^\\[ThreadSync\\.h:310\\] kivAbort: Trying to unlock mutex which the current thread does not "
        "own!\n");
    EXPECT_DEATH(kiv::checkMutexUnlock(22),
                 "^\\[ThreadSync\\.h:313\\] kivAbort: Mutex memory is corrupted!\n");
    EXPECT_DEATH(kiv::checkMutexUnlock(16), "^\\[ThreadSync\\.h:322\\] kivAbort: Unknown mutex error!\n");
    EXPECT_DEATH(kiv::checkCondition(22),
                 "^\\[ThreadSync\\.h:650\\] kivAbort: Condition memory is corrupted!\n");
    EXPECT_DEATH(kiv::checkCondition(110), "^\\[ThreadSync\\.h:659\\] kivAbort: Unknown condition error!\n");
    kiv::checkMutexLock(0);
    kiv::checkMutexUnlock(0);
    kiv::checkCondition(0);
}

TEST(MultifrontDeathTest, UnlockingAWaitBlockThatIsNotHeldIsFatal) {
#ifdef KIVTAMBER_TSAN
    GTEST_SKIP() << "the thread sanitizer reports the faulty unlock itself, before the library can";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    initializeAtomics();
    WaitBlock block(false);  // mutex mode: the mutex checks its owner
    EXPECT_DEATH(
        block.unlock(),
        "\\[ThreadSync\\.h:310\\] kivAbort: Trying to unlock mutex which the current thread does not own!");
    block.lock();
    block.unlock();
#endif
}

}  // namespace
}  // namespace kivTamber
