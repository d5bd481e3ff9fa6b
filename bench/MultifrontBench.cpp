// Multifrontal against serial factorization on the scenes of tamber-bench (chain, ragdolls, cloth, box wall),
// analysed as tamber-bench analyses them (standard order, block merging), at about 1,000, 10,000 and 50,000
// blocks: the serial factorization, the multifrontal one on 1 and on 2 threads, and the automatic choice
// (Tamber::chooseThreads with at most 2 threads: serial or multifrontal); then two systems factored from two
// calling threads at once against one after the other.
//
// The machine may be shared: every repetition times all variants in turn (the order rotating), each on its
// own copy of the system, and the speedups are medians of the per-repetition ratios serial / variant, so that
// a change of load hits all variants alike. The load average (1 minute) is printed beside every scene.
// "allocs" counts the core allocator's allocations plus calls of the global operator new during the timed
// factorizations (after a warm-up that prepares everything): it must be 0; "threads" counts the OS threads
// the task runtime started during them: it must be 0 as well.
//
// Usage: MultifrontBench [repetitions (default 9)] [largest block count (default 50000)] [scene ...]
// Environment: MFBENCH_SPLIT=1 prints where the work of the 2-thread split lies (top nodes, shared nodes,
// thread loads); MFBENCH_ONLY=v runs only the serial factorization and variant v (1: MF 1 thread, 2: MF 2
// threads, 3: auto) and skips the two-system part, for instruction counts under callgrind (valgrind
// --tool=callgrind --collect-atstart=no with --toggle-collect on Tamber::factorMF<double>, then on
// Tamber::factorSerial<double>).
#include <kiv/ByteAllocator.h>
#include <kiv/ThreadTask.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Analysis.h"
#include "Tamber.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using namespace kivTamber::scenes;

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

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const std::size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

// Processor time of the calling thread, in seconds (the time it ran, whatever else the machine did).
double threadCpuTime() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double loadAverage() {
    double load = -1.0;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(f, "%lf", &load) != 1) load = -1.0;
        std::fclose(f);
    }
    return load;
}

const char* sceneName(SceneKind kind) {
    switch (kind) {
        case SceneKind::chain:
            return "chain";
        case SceneKind::ragdolls:
            return "ragdolls";
        case SceneKind::cloth:
            return "cloth";
        case SceneKind::boxWall:
            return "boxwall";
    }
    return "?";
}

// One system ready to factor: the scene's matrix analysed with block merging, its values set.
struct System {
    BlockProblem problem;
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;

    bool load(SceneKind kind, unsigned long blocks) {
        auto scene = makeScene(kind, sizeForBlockCount(kind, blocks));
        scene->step(0.01);
        scene->build(problem);
        const Analysis::Problem p = problem.pattern();
        Analysis::Options options;
        options.mergeBlocks = true;
        if (!analyzer.analyze(p, options, data).ok) return false;
        tamber.estimateWork(data, nullptr);
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
        return true;
    }
};

// The variants: 0 serial, 1 multifrontal on 1 thread, 2 on 2 threads, 3 the automatic choice.
constexpr int numVariants = 4;
const char* const variantNames[numVariants] = {"serial", "MF 1", "MF 2", "auto"};

void factor(System& s, int variant, unsigned int autoThreads) {
    s.data.isFactored = 0;
    switch (variant) {
        case 0:
            s.tamber.factorSerial(s.data);
            break;
        case 1:
        case 2:
            s.data.numThreads = static_cast<unsigned int>(variant);
            s.tamber.factorMF(s.data);
            break;
        default:
            if (autoThreads <= 1) {
                s.tamber.factorSerial(s.data);
            } else {
                s.data.numThreads = autoThreads;
                s.tamber.factorMF(s.data);
            }
    }
}

struct Result {
    const char* scene;
    unsigned int blocks;
    double serialMs;
    double speedup[numVariants];  // serial time / variant time, median of the per-repetition ratios
    unsigned int autoThreads;
    double topShare;
    double work, predicted;  // estimated work and predicted 2-thread time, flop units
    double cpuRatio;         // MF 1 thread / serial in the calling thread's processor time (median ratio)
    unsigned int sharedNodes;
    double loadBefore, loadAfter;
};

bool timeScene(SceneKind kind, unsigned long blocks, int runs, Result& result, unsigned long& allocs,
               unsigned long& threads) {
    std::vector<std::unique_ptr<System>> systems;
    for (int v = 0; v < numVariants; ++v) {
        systems.push_back(std::make_unique<System>());
        if (!systems.back()->load(kind, blocks)) return false;
    }
    result.loadBefore = loadAverage();
    const unsigned int autoThreads = systems[3]->tamber.chooseThreads(systems[3]->data, 2);
    // MFBENCH_ONLY=v: only serial and variant v run (for instruction counts of the two).
    const int only = std::getenv("MFBENCH_ONLY") ? std::atoi(std::getenv("MFBENCH_ONLY")) : -1;
    for (int round = 0; round < 2; ++round) {  // warm-up, preparations
        for (int v = 0; v < numVariants; ++v) {
            if (only < 0 || v == 0 || v == only) factor(*systems[v], v, autoThreads);
        }
    }
    const MultifrontManager<double>& M = systems[2]->data.multifront;
    result.scene = sceneName(kind);
    result.blocks = systems[0]->problem.numBlocks;
    result.autoThreads = autoThreads;
    result.topShare = M.totalWork > 0.0 ? M.topWork / M.totalWork : 0.0;
    result.work = M.totalWork;
    result.predicted = M.predictedTime;
    result.sharedNodes = M.numSplitNodes;
    if (std::getenv("MFBENCH_SPLIT")) {  // where the work of the 2-thread split lies
        double top = 0.0, diagonal = 0.0, shared = 0.0;
        unsigned int topNodes = 0, largest = 0;
        const unsigned int* sizes = systems[2]->data.matrix.blockSizes;
        for (unsigned int j = 0; j < M.nodes.size(); ++j) {
            largest = std::max(largest, sizes[j]);
            if (M.part[j] != MultifrontManager<double>::noNode) continue;
            ++topNodes;
            top += M.nodeWork[j];
            diagonal += sizes[j] * double(sizes[j]) * sizes[j] / 3.0;
            if (M.splitNode[j]) shared += M.nodeWork[j];
        }
        std::printf(
            "  split: %u top nodes, largest block %u, top node work %.3g (diagonal blocks %.3g, shared "
            "nodes %.3g), thread loads %.3g / %.3g, top owner %u, total %.3g\n",
            topNodes, largest, top, diagonal, shared, M.threadLoads[0], M.threadLoads[1], M.topOwner,
            M.totalWork);
    }

    std::vector<double> times[numVariants], ratios[numVariants];
    std::vector<double> cpuRatios;
    cpuRatios.reserve(runs);
    for (int v = 0; v < numVariants; ++v) {
        times[v].reserve(runs);
        ratios[v].reserve(runs);
    }
    const std::uint64_t allocBefore = kiv::ByteAllocator::allocationCount();
    const std::uint64_t threadsBefore = kiv::ThreadTask::threadsCreated();
    g_newCalls = 0;
    g_counting = true;
    for (int r = 0; r < runs; ++r) {
        double t[numVariants], cpu[numVariants];
        for (int k = 0; k < numVariants; ++k) {
            const int v = (k + r) % numVariants;
            if (only >= 0 && v != 0 &&
                v != only) {  // MFBENCH_ONLY=v: serial and variant v (instruction counts)
                t[v] = cpu[v] = 1.0;
                continue;
            }
            if (v == 3)
                systems[3]->tamber.chooseThreads(systems[3]->data, 2);  // as a caller would, each step
            const double cpuStart = threadCpuTime();
            const Clock::time_point start = Clock::now();
            factor(*systems[v], v, autoThreads);
            t[v] = since(start);
            cpu[v] = threadCpuTime() - cpuStart;
        }
        for (int v = 0; v < numVariants; ++v) {
            times[v].push_back(t[v]);
            ratios[v].push_back(t[0] / t[v]);
        }
        cpuRatios.push_back(cpu[1] / cpu[0]);
    }
    g_counting = false;
    allocs += kiv::ByteAllocator::allocationCount() - allocBefore + g_newCalls.load();
    threads += kiv::ThreadTask::threadsCreated() - threadsBefore;
    result.serialMs = 1e3 * median(times[0]);
    for (int v = 0; v < numVariants; ++v) result.speedup[v] = median(ratios[v]);
    result.cpuRatio = median(cpuRatios);
    result.loadAfter = loadAverage();
    return true;
}

// Two systems factored `count` times each, one after the other, then at once from two threads (each on its
// own data and driver); returns the throughput ratio (time one after the other / time at once), median of
// `runs` interleaved repetitions. threadsEach: 1 (serial factorization) or the multifrontal thread count.
double concurrentRatio(System& a, System& b, unsigned int threadsEach, int count, int runs) {
    auto work = [threadsEach, count](System* s) {
        for (int k = 0; k < count; ++k) factor(*s, threadsEach == 1 ? 0 : 2, 0);
    };
    work(&a);
    work(&b);
    std::vector<double> ratios;
    for (int r = 0; r < runs; ++r) {
        Clock::time_point start = Clock::now();
        work(&a);
        work(&b);
        const double sequential = since(start);
        start = Clock::now();
        std::thread other(work, &b);
        work(&a);
        other.join();
        const double together = since(start);
        ratios.push_back(sequential / together);
    }
    return median(ratios);
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
    const unsigned long largest = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 50000ul;
    std::vector<SceneKind> kinds;
    for (int a = 3; a < argc; ++a) {
        for (SceneKind k : {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall}) {
            if (std::strcmp(argv[a], sceneName(k)) == 0) kinds.push_back(k);
        }
    }
    if (kinds.empty()) kinds = {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall};
    std::printf(
        "Multifrontal vs serial, %d interleaved repetitions, %u processors; speedup = serial / variant "
        "(median of per-repetition ratios)\n\n",
        runs, std::thread::hardware_concurrency());
    std::printf("%-9s %7s | %9s | %7s %7s %7s %7s | %4s | %6s %6s %8s %6s | %s\n", "scene", "blocks",
                "serial ms", variantNames[0], variantNames[1], variantNames[2], variantNames[3], "auto",
                "top %", "shared", "Mwork", "pred.", "load before/after");
    unsigned long allocs = 0, threads = 0;
    std::vector<Result> results;
    for (SceneKind kind : kinds) {
        for (unsigned long blocks : {1000ul, 10000ul, 50000ul}) {
            if (blocks > largest) continue;
            Result r;
            if (!timeScene(kind, blocks, runs, r, allocs, threads)) {
                std::printf("%-9s %7lu | analysis failed\n", sceneName(kind), blocks);
                continue;
            }
            std::printf(
                "%-9s %7u | %9.3f | %7.2f %7.2f %7.2f %7.2f | %4u | %6.1f %6u %8.2f %6.2f | %8.2f | %.2f / "
                "%.2f\n",
                r.scene, r.blocks, r.serialMs, r.speedup[0], r.speedup[1], r.speedup[2], r.speedup[3],
                r.autoThreads, 100.0 * r.topShare, r.sharedNodes, 1e-6 * r.work,
                r.predicted > 0.0 ? r.work / r.predicted : 0.0, r.cpuRatio, r.loadBefore, r.loadAfter);
            std::fflush(stdout);
            results.push_back(r);
        }
    }
    std::printf("\nallocations during the timed factorizations: %lu; OS threads started during them: %lu\n",
                allocs, threads);

    std::printf("\nTargets\n");
    for (const Result& r : results) {
        std::printf("%-9s %7u: MF 1 thread %.2fx serial time, %.2fx its processor time (<= 1.10: %s)",
                    r.scene, r.blocks, 1.0 / r.speedup[1], r.cpuRatio,
                    1.0 / r.speedup[1] <= 1.10 ? "met" : "NOT met");
        std::printf("; auto %.2fx faster (>= 1.00: %s)", r.speedup[3],
                    r.speedup[3] >= 1.0 ? "met" : "NOT met");
        if (r.blocks > 30000 &&
            (std::strcmp(r.scene, "cloth") == 0 || std::strcmp(r.scene, "boxwall") == 0)) {
            std::printf("; MF 2 threads %.2fx faster (>= 1.60: %s)", r.speedup[2],
                        r.speedup[2] >= 1.6 ? "met" : "NOT met");
        }
        std::printf("\n");
    }

    if (std::getenv("MFBENCH_ONLY")) return 0;
    // Two systems at once: the same scene twice (cloth and box wall at about 10,000 blocks).
    std::printf("\nTwo systems from two threads at once (throughput / one after the other)\n");
    for (SceneKind kind : {SceneKind::cloth, SceneKind::boxWall}) {
        System a, b;
        if (!a.load(kind, 10000) || !b.load(kind, 10000)) continue;
        const double load = loadAverage();
        const double serialEach = concurrentRatio(a, b, 1, 5, runs);
        const double twoEach = concurrentRatio(a, b, 2, 5, runs);
        std::printf("%-9s %7u: serial each %.2fx (>= 1.80: %s), 2 threads each %.2fx | load %.2f\n",
                    sceneName(kind), a.problem.numBlocks, serialEach, serialEach >= 1.8 ? "met" : "NOT met",
                    twoEach, load);
    }
    return 0;
}
