// Multifrontal factorization: equal to the serial factorization within rounding (and to a dense reference)
// on chains, wide trees, random trees, forests, dissection-like trees and random SPD and saddle-point
// systems, for 1 … 16 threads, both wait modes and both precisions; the same bits from run to run; the
// front manager re-prepared exactly when the structure or the thread count changes; no allocation once
// prepared; the split of the tree; the fatal lock messages.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>
#include <kiv/ThreadSync.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
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
using testing::DenseSymmetric;

// ---------------------------------------------------------------------------------------------------------
// Systems of chosen tree shapes
// ---------------------------------------------------------------------------------------------------------

// A symmetric matrix with the block couplings `pairs` (i > j), random values in [−1, 1] there, and strictly
// dominant diagonal blocks whose sign is negative for the blocks in `negative`: every leading principal
// submatrix is then strictly diagonally dominant, so the unpivoted factorization exists, and the matrix is
// indefinite when some sign is negative.
BlockSystem shapedSystem(unsigned long seed, const std::vector<unsigned int>& sizes,
                         const std::vector<std::pair<unsigned int, unsigned int>>& pairs,
                         const std::vector<unsigned char>& negative = {}) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<unsigned int> offsets(sizes.size() + 1, 0);
    for (std::size_t b = 0; b < sizes.size(); ++b) offsets[b + 1] = offsets[b] + sizes[b];
    DenseSymmetric A(offsets.back());
    for (const auto& p : pairs) {
        for (unsigned int r = offsets[p.first]; r < offsets[p.first + 1]; ++r)
            for (unsigned int c = offsets[p.second]; c < offsets[p.second + 1]; ++c) {
                double v = u(rng);
                if (v == 0.0) v = 0.5;
                A.setSymmetric(r, c, v);
            }
    }
    for (std::size_t b = 0; b < sizes.size(); ++b) {
        for (unsigned int r = offsets[b]; r < offsets[b + 1]; ++r)
            for (unsigned int c = offsets[b]; c < r; ++c) A.setSymmetric(r, c, 0.3 * u(rng));
    }
    for (std::size_t b = 0; b < sizes.size(); ++b) {
        const double sign = b < negative.size() && negative[b] ? -1.0 : 1.0;
        for (unsigned int r = offsets[b]; r < offsets[b + 1]; ++r) {
            double sum = 0.0;
            for (unsigned int c = 0; c < A.n; ++c) sum += c == r ? 0.0 : std::fabs(A(r, c));
            A(r, r) = sign * (sum + 1.0 + std::fabs(u(rng)));
        }
    }
    return testing::makeFromDense(sizes, A);
}

std::vector<unsigned int> randomSizes(std::mt19937_64& rng, unsigned int n, unsigned int maxSize) {
    std::uniform_int_distribution<unsigned int> size(1, maxSize);
    std::vector<unsigned int> sizes(n);
    for (unsigned int& s : sizes) s = size(rng);
    return sizes;
}

enum class Shape { chain, star, randomTree, forest, dissection, randomSpd, saddlePoint };

const char* shapeName(Shape s) {
    switch (s) {
        case Shape::chain: return "chain";
        case Shape::star: return "star";
        case Shape::randomTree: return "randomTree";
        case Shape::forest: return "forest";
        case Shape::dissection: return "dissection";
        case Shape::randomSpd: return "randomSpd";
        case Shape::saddlePoint: return "saddlePoint";
    }
    return "?";
}

// Dense groups [begin, end) coupled all to all (their elimination tree is a path).
void clique(std::vector<std::pair<unsigned int, unsigned int>>& pairs, unsigned int begin, unsigned int end,
            std::mt19937_64& rng, double density = 1.0) {
    std::bernoulli_distribution keep(density);
    for (unsigned int i = begin + 1; i < end; ++i) {
        pairs.push_back({i, i - 1});
        for (unsigned int j = begin; j + 1 < i; ++j)
            if (keep(rng)) pairs.push_back({i, j});
    }
}

// A system of the given shape and about n blocks.
BlockSystem makeShape(Shape shape, unsigned long seed, unsigned int n) {
    std::mt19937_64 rng(seed);
    std::vector<std::pair<unsigned int, unsigned int>> pairs;
    std::vector<unsigned int> sizes = randomSizes(rng, n, 6);
    std::vector<unsigned char> negative(n, 0);
    std::bernoulli_distribution flip(0.3);
    for (auto& x : negative) x = flip(rng) ? 1 : 0;
    switch (shape) {
        case Shape::chain:  // path: parent(i) = i + 1
            for (unsigned int i = 1; i < n; ++i) pairs.push_back({i, i - 1});
            break;
        case Shape::star:  // every block a child of the last
            for (unsigned int i = 0; i + 1 < n; ++i) pairs.push_back({n - 1, i});
            break;
        case Shape::randomTree: {  // parent(i) random above i, plus some couplings along the tree (fill)
            for (unsigned int i = 0; i + 1 < n; ++i) {
                const unsigned int p = std::uniform_int_distribution<unsigned int>(i + 1, std::min(n - 1, i + 6))(rng);
                pairs.push_back({p, i});
            }
            break;
        }
        case Shape::forest: {  // independent groups: chains, stars and cliques
            unsigned int begin = 0, kind = 0;
            while (begin < n) {
                const unsigned int len = std::min(n - begin, std::uniform_int_distribution<unsigned int>(1, 9)(rng));
                if (kind % 3 == 0) {
                    for (unsigned int i = begin + 1; i < begin + len; ++i) pairs.push_back({i, i - 1});
                } else if (kind % 3 == 1) {
                    for (unsigned int i = begin; i + 1 < begin + len; ++i) pairs.push_back({begin + len - 1, i});
                } else {
                    clique(pairs, begin, begin + len, rng, 0.6);
                }
                begin += len;
                ++kind;
            }
            break;
        }
        case Shape::dissection: {  // four heavy parts, two separators joining pairs of them, a top separator
            const unsigned int part = n >= 10 ? (n - 6) / 4 : 1;
            for (unsigned int k = 0; k < 4; ++k) clique(pairs, k * part, (k + 1) * part, rng, 0.5);
            const unsigned int s1 = 4 * part, s2 = s1 + 2, top = s1 + 4, end = s1 + 6;
            sizes.resize(end, 3);
            negative.resize(end, 0);
            for (unsigned int s = s1; s < end; ++s) negative[s] = s % 2;
            clique(pairs, s1, s1 + 2, rng);
            clique(pairs, s2, s2 + 2, rng);
            clique(pairs, top, end, rng);
            for (unsigned int k = 0; k < 4; ++k) {
                const unsigned int last = (k + 1) * part - 1;
                const unsigned int sep = k < 2 ? s1 : s2;
                pairs.push_back({sep + k % 2, last});
                pairs.push_back({top + k % 2, last - (part > 1 ? 1 : 0)});
            }
            for (unsigned int s = s1; s < top; ++s) pairs.push_back({top + (s % 2), s});
            break;
        }
        case Shape::randomSpd:
            return testing::makeSpdSystem(seed, n, 6, 4.0 / n);
        case Shape::saddlePoint:
            return testing::makeSaddlePointSystem(seed, n / 2, n / 2, 6, 3.0 / n);
    }
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
    return shapedSystem(seed, sizes, pairs, negative);
}

// ---------------------------------------------------------------------------------------------------------
// Comparisons
// ---------------------------------------------------------------------------------------------------------

template <typename T>
double tolerance();
template <>
double tolerance<double>() {
    return 1e-12;  // measured worst: 1.1e-15
}
template <>
double tolerance<float>() {
    return 1e-4;  // measured worst: 9e-7
}

// Largest |a − b| / (1 + |a|) over D, every element of every tile of L and LD (padding included), with the
// structure and the LD flags required equal.
template <typename T>
double factorDifference(const TamberData<T>& a, const TamberData<T>& b) {
    EXPECT_EQ(a.factor.numBlocks, b.factor.numBlocks);
    EXPECT_EQ(a.diagonal.size, b.diagonal.size);
    double worst = 0.0;
    for (unsigned long k = 0; k < a.diagonal.size; ++k) {
        worst = std::max(worst, std::fabs(double(a.diagonal.data[k]) - b.diagonal.data[k]) /
                                    (1.0 + std::fabs(double(a.diagonal.data[k]))));
    }
    const SkeletonMatrix& S = a.skeleton;
    for (unsigned int i = 0; i < S.n; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e];
            EXPECT_EQ(a.factor.rowIndices[e], b.factor.rowIndices[e]);
            EXPECT_EQ(a.scaledFactor.blockFlags[e], b.scaledFactor.blockFlags[e]) << "LD flag of entry " << e;
            const unsigned long count = static_cast<unsigned long>(a.factor.blockStrides[i]) * a.factor.blockStrides[j];
            for (const SparseMatrix<T>* m : {&a.factor, &a.scaledFactor}) {
                const SparseMatrix<T>& other = m == &a.factor ? b.factor : b.scaledFactor;
                for (unsigned long k = 0; k < count; ++k) {
                    const double x = m->blockPointers[e][k], y = other.blockPointers[e][k];
                    worst = std::max(worst, std::fabs(x - y) / (1.0 + std::fabs(x)));
                }
            }
        }
    }
    return worst;
}

// True when every tile of L and LD and every pivot of the two objects agree bit for bit.
template <typename T>
bool sameBits(const TamberData<T>& a, const TamberData<T>& b) {
    if (a.diagonal.size != b.diagonal.size || a.factor.numBlocks != b.factor.numBlocks) return false;
    if (a.diagonal.size && std::memcmp(a.diagonal.data, b.diagonal.data, a.diagonal.size * sizeof(T))) return false;
    const SkeletonMatrix& S = a.skeleton;
    for (unsigned int i = 0; i < S.n; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned long bytes = static_cast<unsigned long>(a.factor.blockStrides[i]) *
                                        a.factor.blockStrides[S.rowIndices[e]] * sizeof(T);
            if (std::memcmp(a.factor.blockPointers[e], b.factor.blockPointers[e], bytes) ||
                std::memcmp(a.scaledFactor.blockPointers[e], b.scaledFactor.blockPointers[e], bytes)) {
                return false;
            }
        }
    }
    return true;
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

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (Shape s : {Shape::chain, Shape::star, Shape::randomTree, Shape::forest, Shape::dissection,
                    Shape::randomSpd, Shape::saddlePoint}) {
        cases.push_back({s, s == Shape::chain ? 1u : 5u, 1});
        cases.push_back({s, 40, 2});
        cases.push_back({s, 40, 3});
        cases.push_back({s, 120, 7});
    }
    return cases;
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
    return std::string(shapeName(info.param.shape)) + "_" + std::to_string(info.param.blocks) + "_seed" +
           std::to_string(info.param.seed);
}

class MultifrontVsSerial : public ::testing::TestWithParam<Case> {};

template <typename T>
void compareAllThreadCounts(const BlockSystem& sys) {
    TamberData<T> serial, multi;
    sys.fillData(serial);
    sys.fillData(multi);
    Tamber tamber;
    tamber.factorSerial(serial);
    const double tol = tolerance<T>();
    for (MfWaitMode mode : {MfWaitMode::spin, MfWaitMode::condition}) {
        multi.multifront.waitMode = mode;
        for (unsigned int threads : {1u, 2u, 3u, 4u, 8u, 16u}) {
            SCOPED_TRACE("threads " + std::to_string(threads) + (mode == MfWaitMode::spin ? " spin" : " condition"));
            multi.numThreads = threads;
            multi.isFactored = 0;
            tamber.factorMF(multi);
            ASSERT_EQ(multi.isFactored, 1);
            ASSERT_EQ(multi.multifront.spinBlocks, mode == MfWaitMode::spin);
            EXPECT_LE(factorDifference(serial, multi), tol);
            for (unsigned long e = 0; e < multi.scaledFactor.numBlocks; ++e) {
                ASSERT_EQ(multi.scaledFactor.blockFlags[e], 1u) << "entry " << e;
            }
        }
    }
    // Against the dense unpivoted factor of the same matrix (unique, so the block factor must equal it).
    const testing::DenseLdlt ref = testing::denseLdlt(sys.dense);
    testing::DenseLdlt got;
    testing::extractFactor(multi, got);
    const double dScale = std::max(1.0, maxAbs(ref.d)), lScale = std::max(1.0, maxAbs(ref.L));
    for (unsigned int r = 0; r < sys.N; ++r) ASSERT_NEAR(got.d[r], ref.d[r], 10 * tol * dScale) << "pivot " << r;
    for (std::size_t k = 0; k < ref.L.size(); ++k) ASSERT_NEAR(got.L[k], ref.L[k], 10 * tol * lScale) << "L " << k;
    EXPECT_LE(testing::reconstructionError(multi, sys.dense), 10 * tol * std::max(1.0, maxAbs(sys.dense.a)));
}

TEST_P(MultifrontVsSerial, EqualWithinRoundingForAllThreadCountsModesAndPrecisions) {
    const Case c = GetParam();
    const BlockSystem sys = makeShape(c.shape, c.seed, c.blocks);
    SCOPED_TRACE(testing::describe(sys));
    compareAllThreadCounts<double>(sys);
    compareAllThreadCounts<float>(sys);
}

INSTANTIATE_TEST_SUITE_P(Shapes, MultifrontVsSerial, ::testing::ValuesIn(allCases()), caseName);

// ---------------------------------------------------------------------------------------------------------
// Repeatability, re-preparation, allocation
// ---------------------------------------------------------------------------------------------------------

TEST(MultifrontRepeat, SameBitsFromRunToRunAndAcrossWaitModes) {
    for (Shape shape : {Shape::dissection, Shape::saddlePoint, Shape::randomTree}) {
        const BlockSystem sys = makeShape(shape, 11, 150);
        SCOPED_TRACE(shapeName(shape));
        for (unsigned int threads : {1u, 2u, 3u, 8u}) {
            SCOPED_TRACE("threads " + std::to_string(threads));
            TamberData<double> first, second;
            sys.fillData(first);
            sys.fillData(second);
            first.numThreads = second.numThreads = threads;
            second.multifront.waitMode = MfWaitMode::condition;
            Tamber tamber;
            tamber.factorMF(first);
            for (int run = 0; run < 4; ++run) {
                tamber.factorMF(second);
                ASSERT_TRUE(sameBits(first, second)) << "run " << run;
                second.multifront.waitMode = run % 2 ? MfWaitMode::condition : MfWaitMode::spin;
            }
        }
    }
}

TEST(MultifrontPrepare, ReusedForTheSameStructurePreparedAgainWhenItChanges) {
    const BlockSystem a = makeShape(Shape::dissection, 3, 80);
    const BlockSystem b = makeShape(Shape::saddlePoint, 4, 60);
    TamberData<double> data, reference;
    Tamber tamber;
    a.fillData(data);
    data.numThreads = 2;

    EXPECT_TRUE(tamber.prepareMultifrontal(data));
    EXPECT_FALSE(tamber.prepareMultifrontal(data));
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 1u);

    // New values, same structure: reused, and the factor follows the values.
    a.refillValues(data.matrix, 2.0);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 1u);
    a.fillData(reference);
    a.refillValues(reference.matrix, 2.0);
    tamber.factorSerial(reference);
    EXPECT_LE(factorDifference(reference, data), tolerance<double>());

    // Another thread count, then another skeleton, then back: each change prepares once.
    data.numThreads = 3;
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 2u);
    EXPECT_LE(factorDifference(reference, data), tolerance<double>());

    b.fillData(data);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 3u);
    TamberData<double> referenceB;
    b.fillData(referenceB);
    tamber.factorSerial(referenceB);
    EXPECT_LE(factorDifference(referenceB, data), tolerance<double>());

    a.fillData(data);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 4u);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 4u);

    // Only the block sizes change (same pattern): prepared again.
    std::vector<unsigned int> sizes = a.sizes;
    for (unsigned int& s : sizes) s = s % 6 + 1;
    std::vector<std::pair<unsigned int, unsigned int>> pairs;
    for (unsigned int i = 0; i < a.nb; ++i)
        for (unsigned int j : a.lowerRows[i]) pairs.push_back({i, j});
    const BlockSystem cs = shapedSystem(5, sizes, pairs);
    cs.fillData(data);
    tamber.factorMF(data);
    EXPECT_EQ(data.multifront.preparations, 5u);
    TamberData<double> referenceC;
    cs.fillData(referenceC);
    tamber.factorSerial(referenceC);
    EXPECT_LE(factorDifference(referenceC, data), tolerance<double>());
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
            data.isFactored = 0;
            tamber.factorMF(data);
            tamber.factorMF(single);
            sys.refillValues(data.matrix, 1.0 + run);
        }
        g_countNew.store(false);
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        EXPECT_EQ(g_newCalls.load(), 0u);
    }
}

// ---------------------------------------------------------------------------------------------------------
// The split among the threads
// ---------------------------------------------------------------------------------------------------------

// Every node has one owner below the thread count; a (root, thread) pair exists exactly for the nodes whose
// parent has another owner or that are roots; update lists and wait blocks exactly for the nodes with a
// foreign parent, and the foreign-children flags match.
template <typename T>
void checkSplit(const MultifrontManager<T>& M, unsigned int threads) {
    const unsigned long n = M.nodes.size();
    unsigned long roots = 0;
    for (unsigned long j = 0; j < n; ++j) {
        const MfNode<T>& node = M.nodes[j];
        ASSERT_LT(node.owner, threads);
        const bool foreignParent = node.parent != j && M.nodes[node.parent].owner != node.owner;
        EXPECT_EQ(node.updates != nullptr, foreignParent) << j;
        EXPECT_EQ(node.waitBlock != nullptr, foreignParent) << j;
        if (node.parent == j || foreignParent) ++roots;
        bool foreignChild = false;
        for (unsigned int c = M.firstChild[j]; c != MultifrontManager<T>::noNode; c = M.sibling[c]) {
            EXPECT_EQ(M.nodes[c].parent, j);
            foreignChild = foreignChild || M.nodes[c].owner != node.owner;
        }
        EXPECT_EQ(node.foreignChildren != 0, foreignChild) << j;
    }
    ASSERT_EQ(M.roots.size(), roots);
    for (const MfRoot& r : M.roots) {
        const MfNode<T>& node = M.nodes[r.node];
        EXPECT_EQ(node.owner, r.thread);
        EXPECT_TRUE(node.parent == r.node || M.nodes[node.parent].owner != node.owner);
    }
}

TEST(MultifrontSplit, WideTreesAreHalvedAndHeavyTopsGoToOneWaitingThread) {
    // A forest of many equal trees: two threads each get about half, no thread waits.
    std::vector<std::pair<unsigned int, unsigned int>> pairs;
    std::mt19937_64 rng(5);
    for (unsigned int t = 0; t < 40; ++t) clique(pairs, 5 * t, 5 * t + 5, rng);
    const BlockSystem forest = shapedSystem(5, std::vector<unsigned int>(200, 4), pairs);
    TamberData<double> data;
    forest.fillData(data);
    Tamber tamber;
    for (unsigned int threads : {1u, 2u, 3u, 8u, 16u, 300u}) {
        data.numThreads = threads;
        tamber.prepareMultifrontal(data);
        const MultifrontManager<double>& M = data.multifront;
        checkSplit(M, std::min(threads, 256u));
        EXPECT_EQ(M.numWaitBlocks, 0u);
        // LPT over 40 equal trees: ⌈40 / threads⌉ trees for the busiest thread (about half each for two).
        const unsigned int perThread = (40 + std::min(threads, 40u) - 1) / std::min(threads, 40u);
        EXPECT_LE(M.maxThreadWork, 1.0001 * perThread * M.totalWork / 40) << threads;
    }

    // A dissection-like tree: the separators go to one thread, the four parts are shared, and the owner of
    // the separators waits for the parts of the others.
    const BlockSystem dissection = makeShape(Shape::dissection, 2, 200);
    dissection.fillData(data);
    for (unsigned int threads : {2u, 4u}) {
        data.numThreads = threads;
        tamber.prepareMultifrontal(data);
        const MultifrontManager<double>& M = data.multifront;
        checkSplit(M, threads);
        EXPECT_GT(M.numWaitBlocks, 0u);
        EXPECT_GT(M.topWork, 0.0);
        EXPECT_LT(M.maxThreadWork + M.topWork, 0.7 * M.totalWork) << threads;
        const unsigned int top = M.nodes[dissection.nb - 1].owner;
        EXPECT_EQ(top, M.topOwner);
        for (unsigned long j = 0; j < M.nodes.size(); ++j) {
            if (M.nodes[j].foreignChildren) {
                EXPECT_EQ(M.nodes[j].owner, M.topOwner) << "only the top waits";
            }
        }
    }

    // A path cannot be shared: one thread owns it all.
    const BlockSystem chain = makeShape(Shape::chain, 2, 100);
    chain.fillData(data);
    data.numThreads = 4;
    tamber.prepareMultifrontal(data);
    checkSplit(data.multifront, 4);
    EXPECT_EQ(data.multifront.numWaitBlocks, 0u);
}

TEST(MultifrontSplit, RootSourceAddsNothing) {
    const BlockSystem sys = makeShape(Shape::star, 3, 10);
    TamberData<double> data;
    sys.fillData(data);
    Tamber tamber;
    tamber.factorMF(data);
    MultifrontManager<double>& M = data.multifront;
    const unsigned int root = sys.nb - 1;
    ASSERT_EQ(M.nodes[root].parent, root);
    std::vector<double> before(M.frontStore.begin(), M.frontStore.end());
    M.addUpdateToNode(data.skeleton, data.factor, root, root);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), M.frontStore.begin()));
}

// ---------------------------------------------------------------------------------------------------------
// Edge cases of the driver
// ---------------------------------------------------------------------------------------------------------

TEST(MultifrontEdge, EmptySystemOneBlockAndTimers) {
    TamberData<double> empty;
    Tamber tamber;
    tamber.solveTime = 5.0;
    tamber.factorMF(empty);
    EXPECT_EQ(empty.isFactored, 1);
    EXPECT_EQ(empty.factor.numBlocks, 0u);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);
    EXPECT_GE(tamber.getFactorTime(), 0.0);

    // One 1×1 block: d = a, L = [1], LD = [d]; zero threads count as one.
    const BlockSystem one = shapedSystem(1, {1}, {});
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

TEST(MultifrontEdge, FactorAfterSerialAndSerialAfterFactorAgree) {
    // The multifrontal path does not zero L and LD beforehand; a serial factorization before or after it
    // on the same object must see no trace of that.
    const BlockSystem sys = makeShape(Shape::saddlePoint, 21, 90);
    TamberData<double> data, reference;
    sys.fillData(data);
    sys.fillData(reference);
    data.numThreads = 2;
    Tamber tamber;
    tamber.factorSerial(reference);
    unsigned int work = 0;
    tamber.estimateWork(data, &work);
    tamber.factorMF(data);
    EXPECT_LE(factorDifference(reference, data), tolerance<double>());
    tamber.factorSerial(data);
    EXPECT_TRUE(sameBits(reference, data));
    tamber.factorMF(data);
    EXPECT_LE(factorDifference(reference, data), tolerance<double>());
}

TEST(MultifrontEdge, SolveWithTheMultifrontalFactor) {
    const BlockSystem sys = makeShape(Shape::dissection, 8, 100);
    TamberData<double> data;
    sys.fillData(data);
    data.numThreads = 3;
    Tamber tamber;
    tamber.factorMF(data);
    const std::vector<double> b = testing::randomVector(sys.N, 8);
    std::vector<double> x(sys.N);
    ASSERT_TRUE(tamber.solve(data, b.data(), x.data()));
    EXPECT_LT(testing::scaledResidual(sys.dense, x.data(), b.data()), 1e-14);
}

// ---------------------------------------------------------------------------------------------------------
// Fatal lock and condition errors
// ---------------------------------------------------------------------------------------------------------

TEST(MultifrontDeathTest, LockAndConditionFailuresNameTheSyncHeaderAndLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(kiv::checkMutexLock(35), "^\\[ThreadSync\\.h:271\\] kivAbort: Deadlock detected!\n");
    EXPECT_DEATH(kiv::checkMutexLock(22), "^\\[ThreadSync\\.h:274\\] kivAbort: Mutex memory is corrupted!\n");
    EXPECT_DEATH(kiv::checkMutexLock(11), "^\\[ThreadSync\\.h:283\\] kivAbort: Unknown mutex error!\n");
    EXPECT_DEATH(kiv::checkMutexUnlock(1),
                 "^\\[ThreadSync\\.h:310\\] kivAbort: Trying to unlock mutex which the current thread does not "
                 "own!\n");
    EXPECT_DEATH(kiv::checkMutexUnlock(22), "^\\[ThreadSync\\.h:313\\] kivAbort: Mutex memory is corrupted!\n");
    EXPECT_DEATH(kiv::checkMutexUnlock(16), "^\\[ThreadSync\\.h:322\\] kivAbort: Unknown mutex error!\n");
    EXPECT_DEATH(kiv::checkCondition(22), "^\\[ThreadSync\\.h:650\\] kivAbort: Condition memory is corrupted!\n");
    EXPECT_DEATH(kiv::checkCondition(110), "^\\[ThreadSync\\.h:659\\] kivAbort: Unknown condition error!\n");
    kiv::checkMutexLock(0);
    kiv::checkMutexUnlock(0);
    kiv::checkCondition(0);
}

TEST(MultifrontDeathTest, UnlockingAWaitBlockThatIsNotHeldIsFatal) {
#ifdef KIVTAMBER_TSAN
    GTEST_SKIP() << "the thread sanitizer reports the faulty unlock itself before the library can";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    initializeAtomics();
    WaitBlock block(false);  // mutex mode
    EXPECT_DEATH(block.unlock(),
                 "\\[ThreadSync\\.h:310\\] kivAbort: Trying to unlock mutex which the current thread does not own!");
    block.lock();
    block.unlock();
#endif
}

}  // namespace
}  // namespace kivTamber
