// Multifrontal against serial factorization on the scene systems (chain, ragdolls = a forest of small trees,
// cloth) at about 1,000, 10,000 and 50,000 blocks, with 1, 2, 4 and 8 worker threads; then unit solves
// against full solves.
//
// Orders: chain and ragdolls in the natural safe order (bodies in user order, each constraint right after its
// last body). The cloth in that order has a path for an elimination tree (a banded factor), which leaves
// nothing to share among threads, so it is ordered here by nested dissection of its particle grid: the
// rectangle of particles is halved across its longer side, both halves are ordered recursively, and the
// constraints that join the two halves follow them (each constraint after both of its particles, so every
// pivot exists).
//
// Usage: MultifrontBench [runs (default 9)] [largest block count (default 50000)] [scene name ...]
// Times are medians over `runs` factorizations (after one warm-up that also prepares the front manager), in
// milliseconds, the variants timed in turn within each repetition; speedups are serial time / multifrontal
// time. "allocs" counts the core allocator's
// allocations plus calls of the global operator new during the timed multifrontal factorizations of all
// thread counts (the warm-ups excluded): it must be 0.
#include <kiv/ByteAllocator.h>
#include <kiv/Timer.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "Tamber.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using namespace kivTamber::scenes;

// ---------------------------------------------------------------------------------------------------------
// Counting global operator new (only counted while `g_counting` is set).
// ---------------------------------------------------------------------------------------------------------

namespace {
std::atomic<unsigned long> g_newCalls{0};
std::atomic<bool> g_counting{false};
}  // namespace

// Not inlined, so that the compiler does not pair the malloc() and free() inside with new and delete calls.
__attribute__((noinline)) void* operator new(std::size_t bytes) {
    if (g_counting.load(std::memory_order_relaxed)) g_newCalls.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(bytes == 0 ? 1 : bytes)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
    std::free(p);
}
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

// ---------------------------------------------------------------------------------------------------------
// Nested dissection of the cloth's particle grid.
// ---------------------------------------------------------------------------------------------------------

struct ClothOrder {
    const BlockProblem& problem;
    unsigned int side;
    std::vector<unsigned int> bodyA, bodyB;  // per constraint (index c - firstConstraint)
    std::vector<unsigned int> forward;

    ClothOrder(const BlockProblem& p) : problem(p) {
        side = static_cast<unsigned int>(std::lround(std::sqrt(static_cast<double>(p.firstConstraint))));
        for (unsigned int c = p.firstConstraint; c < p.numBlocks; ++c) {
            unsigned int a = noBlock, b = noBlock;
            for (unsigned int e = p.colPointers[c]; e < p.colPointers[c + 1]; ++e) {
                const unsigned int i = p.rowIndices[e];
                if (i >= p.firstConstraint) continue;
                if (a == noBlock) {
                    a = i;
                } else {
                    b = i;
                }
            }
            bodyA.push_back(a);
            bodyB.push_back(b == noBlock ? a : b);
        }
    }

    // Rows r0 .. r1-1, columns c0 .. c1-1 of the grid; `inner` = the constraints with both particles inside.
    void dissect(unsigned int r0, unsigned int r1, unsigned int c0, unsigned int c1,
                 std::vector<unsigned int>& inner) {
        if ((r1 - r0) * (c1 - c0) <= 1) {
            for (unsigned int r = r0; r < r1; ++r)
                for (unsigned int c = c0; c < c1; ++c) forward.push_back(r * side + c);
            for (unsigned int k : inner) forward.push_back(problem.firstConstraint + k);
            return;
        }
        const bool byRows = r1 - r0 >= c1 - c0;
        const unsigned int cut = byRows ? (r0 + r1) / 2 : (c0 + c1) / 2;
        auto firstHalf = [&](unsigned int body) { return byRows ? body / side < cut : body % side < cut; };
        std::vector<unsigned int> first, second, across;
        for (unsigned int k : inner) {
            const bool a = firstHalf(bodyA[k]), b = firstHalf(bodyB[k]);
            (a && b ? first : (!a && !b ? second : across)).push_back(k);
        }
        inner.clear();
        inner.shrink_to_fit();
        if (byRows) {
            dissect(r0, cut, c0, c1, first);
            dissect(cut, r1, c0, c1, second);
        } else {
            dissect(r0, r1, c0, cut, first);
            dissect(r0, r1, cut, c1, second);
        }
        for (unsigned int k : across) forward.push_back(problem.firstConstraint + k);
    }

    void build(Permutation& order) {
        std::vector<unsigned int> all(bodyA.size());
        for (unsigned int k = 0; k < all.size(); ++k) all[k] = k;
        forward.clear();
        dissect(0, side, 0, side, all);
        order.setSize(problem.numBlocks);
        std::memcpy(order.forward, forward.data(), forward.size() * sizeof(unsigned int));
        order.computeInverse();
    }
};

// ---------------------------------------------------------------------------------------------------------
// Timing
// ---------------------------------------------------------------------------------------------------------

struct Result {
    const char* scene;
    unsigned long blocks, N, entries;
    double serial;
    double mf[4];                  // 1, 2, 4, 8 threads
    double bestSerial, bestMf[4];  // the fastest of the runs
    unsigned long allocs;
    double maxDiff;
    double fullSolve, unitSolve;
};

const unsigned int kThreads[4] = {1, 2, 4, 8};

// Largest |a − b| / (1 + |a|) over the pivots and the L blocks of two factored data objects.
double factorDifference(const TamberData<double>& a, const TamberData<double>& b) {
    double worst = 0.0;
    for (unsigned long k = 0; k < a.diagonal.size; ++k) {
        worst = std::max(worst, std::fabs(a.diagonal.data[k] - b.diagonal.data[k]) /
                                    (1.0 + std::fabs(a.diagonal.data[k])));
    }
    const SkeletonMatrix& S = a.skeleton;
    for (unsigned int i = 0; i < S.n; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned long count =
                static_cast<unsigned long>(a.factor.blockSizes[i]) * a.factor.blockStrides[S.rowIndices[e]];
            for (unsigned long k = 0; k < count; ++k) {
                const double x = a.factor.blockPointers[e][k], y = b.factor.blockPointers[e][k];
                worst = std::max(worst, std::fabs(x - y) / (1.0 + std::fabs(x)));
            }
        }
    }
    return worst;
}

// The problem of a scene of about `blocks` blocks, loaded in its order into `data`.
void loadScene(SceneKind kind, unsigned long blocks, BlockProblem& problem, TamberData<double>& data) {
    std::unique_ptr<Scene> scene = makeScene(kind, sizeForBlockCount(kind, blocks));
    scene->build(problem);
    Permutation order;
    if (kind == SceneKind::cloth) {
        ClothOrder(problem).build(order);
    } else {
        naturalSafeOrder(problem, order);
    }
    loadIntoData(problem, order, data);
}

// Serial and multifrontal factorizations timed in turn within each repetition (serial, 1, 2, 4, 8 threads,
// each on its own data object), so that a change of the machine's background load hits every column alike.
Result run(SceneKind kind, unsigned long blocks, int runs) {
    BlockProblem problem;
    TamberData<double> serial, multi[4];
    loadScene(kind, blocks, problem, serial);
    Tamber tamber;
    tamber.estimateWork(serial, nullptr);
    tamber.factorSerial(serial);  // warm-up
    for (int t = 0; t < 4; ++t) {
        loadScene(kind, blocks, problem, multi[t]);
        multi[t].numThreads = kThreads[t];
        tamber.factorMF(multi[t]);  // warm-up: prepares the front manager
    }

    Result res{};
    res.scene = kind == SceneKind::chain ? "chain" : kind == SceneKind::ragdolls ? "ragdolls" : "cloth";
    res.blocks = serial.skeleton.n;
    res.N = problem.scalarSize();
    res.entries = serial.skeleton.numEntries();

    std::vector<double> times[5];
    for (std::vector<double>& t : times) t.reserve(runs);
    const std::uint64_t allocBefore = kiv::ByteAllocator::allocationCount();
    g_newCalls.store(0);
    for (int r = 0; r < runs; ++r) {
        std::uint64_t start = kiv::Timer::ticks();
        tamber.factorSerial(serial);
        times[0].push_back(kiv::Timer::seconds(start, kiv::Timer::ticks()));
        g_counting.store(true);
        for (int t = 0; t < 4; ++t) {
            start = kiv::Timer::ticks();
            tamber.factorMF(multi[t]);
            times[t + 1].push_back(kiv::Timer::seconds(start, kiv::Timer::ticks()));
        }
        g_counting.store(false);
    }
    // The serial factorization allocates nothing either once warm, so the count is the multifrontal one.
    res.allocs = kiv::ByteAllocator::allocationCount() - allocBefore + g_newCalls.load();
    res.serial = median(times[0]);
    res.bestSerial = *std::min_element(times[0].begin(), times[0].end());
    for (int t = 0; t < 4; ++t) {
        res.mf[t] = median(times[t + 1]);
        res.bestMf[t] = *std::min_element(times[t + 1].begin(), times[t + 1].end());
        res.maxDiff = std::max(res.maxDiff, factorDifference(serial, multi[t]));
    }

    // Full solve against unit solve (right-hand side e_k in the middle block; the unit solve touches only
    // that block's path to the root in the forward pass).
    std::vector<double> x(res.N);
    const unsigned int at = serial.factor.blockOffsets[serial.skeleton.n / 2];
    std::vector<double> full, unit;
    for (int r = 0; r < runs; ++r) {
        std::fill(x.begin(), x.end(), 0.0);
        x[at] = 1.0;
        std::uint64_t start = kiv::Timer::ticks();
        tamber.solve(serial, x.data());
        full.push_back(kiv::Timer::seconds(start, kiv::Timer::ticks()));
        std::fill(x.begin(), x.end(), 0.0);
        x[at] = 1.0;
        start = kiv::Timer::ticks();
        tamber.unitSolve(serial, x.data(), -1);
        unit.push_back(kiv::Timer::seconds(start, kiv::Timer::ticks()));
    }
    res.fullSolve = median(full);
    res.unitSolve = median(unit);
    return res;
}

// The 1-minute load average of the machine (other programs compete for the processors).
double loadAverage() {
    double load = -1.0;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(f, "%lf", &load) != 1) load = -1.0;
        std::fclose(f);
    }
    return load;
}

// Median multifrontal times with 2 and 8 threads in spin and in condition mode, timed in turn.
void timeWaitModes(SceneKind kind, unsigned long blocks, int runs, double* medians) {
    BlockProblem problem;
    TamberData<double> data[4];
    Tamber tamber;
    for (int k = 0; k < 4; ++k) {
        loadScene(kind, blocks, problem, data[k]);
        data[k].numThreads = k < 2 ? 2 : 8;
        data[k].multifront.waitMode = k % 2 ? MfWaitMode::condition : MfWaitMode::spin;
        tamber.factorMF(data[k]);
    }
    std::vector<double> times[4];
    for (int r = 0; r < runs; ++r) {
        for (int k = 0; k < 4; ++k) {
            const std::uint64_t start = kiv::Timer::ticks();
            tamber.factorMF(data[k]);
            times[k].push_back(kiv::Timer::seconds(start, kiv::Timer::ticks()));
        }
    }
    for (int k = 0; k < 4; ++k) medians[k] = median(times[k]);
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
    const unsigned long largest = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 50000;
    std::vector<SceneKind> kinds;
    for (int a = 3; a < argc; ++a) {
        if (!std::strcmp(argv[a], "chain")) kinds.push_back(SceneKind::chain);
        if (!std::strcmp(argv[a], "ragdolls")) kinds.push_back(SceneKind::ragdolls);
        if (!std::strcmp(argv[a], "cloth")) kinds.push_back(SceneKind::cloth);
    }
    if (kinds.empty()) kinds = {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth};

    std::printf(
        "Multifrontal factorization, double, %d runs per figure (medians), %u processors, load "
        "average %.2f\n(load: the machine's 1-minute load average after each row; figures taken while "
        "other programs ran are not comparable)\n",
        runs, std::thread::hardware_concurrency(), loadAverage());
    std::printf("%-9s %7s %8s %9s | %9s | %9s %9s %9s %9s | %6s %6s %6s %6s | %6s %9s | %9s %9s | %5s\n",
                "scene", "blocks", "N", "entries", "serial ms", "mf1 ms", "mf2 ms", "mf4 ms", "mf8 ms", "x1",
                "x2", "x4", "x8", "allocs", "max diff", "solve ms", "unit ms", "load");
    std::vector<Result> results;
    for (SceneKind kind : kinds) {
        for (unsigned long blocks : {1000ul, 10000ul, 50000ul}) {
            if (blocks > largest) continue;
            const Result r = run(kind, blocks, runs);
            results.push_back(r);
            std::printf(
                "%-9s %7lu %8lu %9lu | %9.3f | %9.3f %9.3f %9.3f %9.3f | %6.2f %6.2f %6.2f %6.2f | %6lu "
                "%9.2e | %9.4f %9.4f | %5.2f\n",
                r.scene, r.blocks, r.N, r.entries, 1e3 * r.serial, 1e3 * r.mf[0], 1e3 * r.mf[1],
                1e3 * r.mf[2], 1e3 * r.mf[3], r.serial / r.mf[0], r.serial / r.mf[1], r.serial / r.mf[2],
                r.serial / r.mf[3], r.allocs, r.maxDiff, 1e3 * r.fullSolve, 1e3 * r.unitSolve, loadAverage());
            std::fflush(stdout);
        }
    }

    // The same from the fastest run of each variant, which background load disturbs least.
    std::printf(
        "\nFastest of the runs (ms) and speedups\n%-9s %7s | %9s | %9s %9s %9s %9s | %6s %6s %6s %6s\n",
        "scene", "blocks", "serial", "mf1", "mf2", "mf4", "mf8", "x1", "x2", "x4", "x8");
    for (const Result& r : results) {
        std::printf("%-9s %7lu | %9.3f | %9.3f %9.3f %9.3f %9.3f | %6.2f %6.2f %6.2f %6.2f\n", r.scene,
                    r.blocks, 1e3 * r.bestSerial, 1e3 * r.bestMf[0], 1e3 * r.bestMf[1], 1e3 * r.bestMf[2],
                    1e3 * r.bestMf[3], r.bestSerial / r.bestMf[0], r.bestSerial / r.bestMf[1],
                    r.bestSerial / r.bestMf[2], r.bestSerial / r.bestMf[3]);
    }

    // Wait modes: spin against condition waiting, for as many threads as processors and for more.
    std::printf("\nWait modes (largest systems; medians in ms)\n%-9s %7s | %9s %9s | %9s %9s\n", "scene",
                "blocks", "2 spin", "2 cond", "8 spin", "8 cond");
    for (SceneKind kind : kinds) {
        if (kind == SceneKind::chain) continue;
        const unsigned long blocks = std::min(largest, 50000ul);
        double t[4];
        timeWaitModes(kind, blocks, runs, t);
        std::printf("%-9s %7lu | %9.3f %9.3f | %9.3f %9.3f\n",
                    kind == SceneKind::cloth ? "cloth" : "ragdolls", blocks, 1e3 * t[0], 1e3 * t[1],
                    1e3 * t[2], 1e3 * t[3]);
        std::fflush(stdout);
    }

    // The targets (for a 2-processor machine).
    std::printf("\nTargets\n");
    for (const Result& r : results) {
        const bool big = r.blocks >= 40000;
        const double x2 = r.serial / r.mf[1];
        const double one = r.mf[0] / r.serial;
        const double eight = r.mf[3] / r.mf[1];
        const bool chain = !std::strcmp(r.scene, "chain");
        if (big) {
            std::printf("%-9s %6lu: 2 threads %.2fx serial (target >= 1.60%s): %s\n", r.scene, r.blocks, x2,
                        chain ? ", report only" : "", chain ? "-" : (x2 >= 1.6 ? "met" : "MISSED"));
        }
        std::printf(
            "%-9s %6lu: 1 thread %.2f x serial time (target <= 1.15): %s; 8 threads %.2f x 2-thread time "
            "(target <= 1.10): %s; allocations %lu (target 0): %s\n",
            r.scene, r.blocks, one, one <= 1.15 ? "met" : "MISSED", eight, eight <= 1.10 ? "met" : "MISSED",
            r.allocs, r.allocs == 0 ? "met" : "MISSED");
    }
    return 0;
}
