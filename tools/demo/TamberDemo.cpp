// tamber-demo: a physics scene solved with kivTamber for some dozens of time steps the way a constraint
// solver uses the library, through one Solver kept from step to step, with a report of what every stage
// costs, which choices the Solver made, and proof that steady steps allocate nothing.
//
//   1. analysis, once per structure (run a few times here so that its figures are medians too): the scene's
//      bodies, constraints and Jacobian blocks go to Solver::analyze, which orders the blocks, merges them
//      where that pays and lays out the factor; its report names the ordering, the merge groups, the fill,
//      the flops and the predicted time of a factorization;
//   2. time steps: the scene moves and fills its arrays (body blocks, Jacobians J(c, b) as the physics holds
//      them), Solver::setValues copies them straight into the matrix the factorization reads, the box wall's
//      contacts switch with Solver::setActive, Solver::factor factors (serial or multifrontal as chosen) and
//      Solver::solve solves in the scene's numbering with one step of refinement against the true matrix;
//   3. switching: the pose is held while constraint equations switch off and on at every step. The Solver
//      decides by predicted cost whether to update its factor in place or to factor again; a second Solver
//      factors the same active set from scratch, and both solutions are checked against each other.
// Every timed figure is a median over the steps of its phase, printed with its minimum and maximum. The
// residuals are recomputed by the demo in the scene's numbering, independently of the Solver. The
// allocations of each step are counted twice: by the core allocator (kiv::ByteAllocator::allocationCount,
// which every library container uses) and by the global operator new of this program (the standard library).
#include <kiv/ByteAllocator.h>
#include <kiv/Timer.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Solver.h"
#include "demo/DemoSupport.h"
#include "demo/SceneSystem.h"
#include "scenes/Scenes.h"

// ---------------------------------------------------------------------------------------------------------
// Global operator new, counted (every thread, the library's threads included).
// ---------------------------------------------------------------------------------------------------------

namespace {
std::atomic<std::uint64_t> gNewCount{0};

void* countedAllocate(std::size_t bytes, std::size_t alignment) {
    gNewCount.fetch_add(1, std::memory_order_relaxed);
    if (bytes == 0) bytes = 1;
    void* p = nullptr;
    if (alignment <= alignof(std::max_align_t)) {
        p = std::malloc(bytes);
    } else {
        bytes = (bytes + alignment - 1) / alignment * alignment;  // aligned_alloc wants a multiple
        p = std::aligned_alloc(alignment, bytes);
    }
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
}  // namespace

void* operator new(std::size_t bytes) {
    return countedAllocate(bytes, 0);
}
void* operator new[](std::size_t bytes) {
    return countedAllocate(bytes, 0);
}
void* operator new(std::size_t bytes, std::align_val_t a) {
    return countedAllocate(bytes, std::size_t(a));
}
void* operator new[](std::size_t bytes, std::align_val_t a) {
    return countedAllocate(bytes, std::size_t(a));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    try {
        return countedAllocate(bytes, 0);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    try {
        return countedAllocate(bytes, 0);
    } catch (...) {
        return nullptr;
    }
}
void* operator new(std::size_t bytes, std::align_val_t a, const std::nothrow_t&) noexcept {
    try {
        return countedAllocate(bytes, std::size_t(a));
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t bytes, std::align_val_t a, const std::nothrow_t&) noexcept {
    try {
        return countedAllocate(bytes, std::size_t(a));
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}

using namespace kivTamber;
using namespace kivTamber::demo;

namespace {

constexpr double kTimeStep = 1.0 / 60.0;
constexpr unsigned int kAnalysisRuns = 5;
constexpr int kLabelWidth = 40;
// Limits above which the demo reports a failure: scaled residuals after refinement (of both factors in phase
// 3), and the relative difference between the switched and the new factor's solutions.
constexpr double kResidualLimitDouble = 1e-9;
constexpr double kResidualLimitFloat = 1e-5;
constexpr double kDifferenceLimit = 1e-6;

double secondsBetween(std::uint64_t start, std::uint64_t end) {
    return kiv::Timer::seconds(start, end);
}

// ---- allocation tally

struct Counters {
    std::uint64_t library;
    std::uint64_t news;
};

Counters readCounters() {
    return {kiv::ByteAllocator::allocationCount(), gNewCount.load(std::memory_order_relaxed)};
}

// Allocations of the steps of one phase: the first step apart (it may size storage), then the others.
class AllocationTally {
public:
    void record(unsigned int step, const Counters& before, const Counters& after) {
        const std::uint64_t lib = after.library - before.library, nw = after.news - before.news;
        if (step == 0) {
            first_ = lib + nw;
            return;
        }
        library_ += lib;
        news_ += nw;
        if (lib + nw > 0) ++stepsWith_;
        if (lib + nw > max_) max_ = lib + nw;
    }
    std::uint64_t later() const { return library_ + news_; }
    void print(unsigned int steps) const {
        char mean[32] = "0";
        if (later() > 0)
            std::snprintf(mean, sizeof(mean), "%.1f", static_cast<double>(later()) / (steps - 1));
        std::printf("  %-*s %12s   (max %s; kiv allocator %s, operator new %s; first step %s)\n", kLabelWidth,
                    "allocations per step after the first", mean, withSeparators(max_).c_str(),
                    withSeparators(library_).c_str(), withSeparators(news_).c_str(),
                    withSeparators(first_).c_str());
        if (later() > 0)
            std::printf("  !! %s of the %u steps after the first allocated: storage is not being reused\n",
                        withSeparators(stepsWith_).c_str(), steps - 1);
    }

private:
    std::uint64_t first_ = 0, library_ = 0, news_ = 0, max_ = 0, stepsWith_ = 0;
};

// ---- progress line (a terminal only)

class Progress {
public:
    explicit Progress(bool enabled) : enabled_(enabled) {}
    // "  phase 2: step 12 of 40", overwriting the previous line.
    void show(const char* phase, const char* what, unsigned int k, unsigned int count) {
        if (!enabled_) return;
        std::printf("\r%*s\r  %s: %s %u of %u", kWidth, "", phase, what, k + 1, count);
        std::fflush(stdout);
    }
    void note(const char* text) {
        if (!enabled_) return;
        std::printf("\r%*s\r  %s", kWidth, "", text);
        std::fflush(stdout);
    }
    void done() {
        if (!enabled_) return;
        std::printf("\r%*s\r", kWidth, "");
        std::fflush(stdout);
    }

private:
    static constexpr int kWidth = 100;
    bool enabled_;
};

// ---- failures found by the demo's own checks

class Failures {
public:
    // Records `what` when ok is false (a string is made only then, so that a passing check allocates
    // nothing).
    void check(bool ok, const char* what) {
        if (ok) return;
        if (messages_.size() < 8) messages_.push_back(what);
        ++count_;
    }
    bool any() const { return count_ > 0; }
    void print() const {
        for (const std::string& m : messages_) std::fprintf(stderr, "tamber-demo: FAILED: %s\n", m.c_str());
        if (count_ > messages_.size())
            std::fprintf(stderr, "tamber-demo: FAILED: ... and %lu more\n", count_ - messages_.size());
    }

private:
    std::vector<std::string> messages_;
    unsigned long count_ = 0;
};

// A failed Solver call of a step, with its status message (made only on failure).
void checkStatus(Failures& failures, const Status& st, const char* phase, unsigned int step,
                 const char* call) {
    if (st.ok()) return;
    const std::string text = std::string(phase) + ", step " + std::to_string(step + 1) + ": " + call + ": " +
                             statusCodeName(st.code) + ": " + st.message;
    failures.check(false, text.c_str());
}

// The figures of the closing summary line.
struct Summary {
    double stepSeconds = 0.0;
    double residual = 0.0;
    bool switching = false;
    double switched = 0.0;
    double speedup = 0.0;
    unsigned long updates = 0, switchSteps = 0;
    std::uint64_t allocations = 0;
};

// What --threads asks of the Solver, for the first line.
std::string threadsDescription(unsigned int threads) {
    if (threads == 0) return "serial or multifrontal as the Solver decides";
    if (threads == 1) return "serial factorization";
    return "multifrontal factorization on " + std::to_string(threads) + " threads";
}

// The path of the Solver's last factorization: "serial" or "multifrontal, 2 threads".
std::string pathName(const SolverReport& report) {
    if (report.path != "multifrontal") return "serial";
    return "multifrontal, " + std::to_string(report.threads) + (report.threads == 1 ? " thread" : " threads");
}

std::string sceneDescription(const scenes::Scene& scene, const Options& options,
                             const scenes::BlockProblem& p) {
    const unsigned int n = options.size;
    const std::string constraints = withSeparators(p.numBlocks - p.firstConstraint);
    switch (options.scene) {
        case scenes::SceneKind::boxWall:
            return "a wall of " + std::to_string(n) + "×" + std::to_string(n) + " boxes with " + constraints +
                   " potential contacts";
        case scenes::SceneKind::chain:
            return "a hanging chain of " + withSeparators(n) + " links and " + constraints + " ball joints";
        case scenes::SceneKind::ragdolls:
            return withSeparators(n) + " ragdolls: " + withSeparators(scene.numBodies()) + " bodies and " +
                   constraints + " joints";
        case scenes::SceneKind::cloth:
            return "a cloth of " + std::to_string(n) + "×" + std::to_string(n) + " particles and " +
                   constraints + " distance constraints";
    }
    return "";
}

// The Solver's options: its defaults (standard ordering with block merging where it pays, one refinement
// step, switching by predicted cost), and the threads of the command line (0: the Solver decides).
SolverOptions solverOptions(const Options& options) {
    SolverOptions o;
    o.threads = options.threads;
    return o;
}

// The active rows of the Solver's constraints from the mask (constraint c is block firstConstraint + c).
// setActive only marks what changed; the Solver applies it at the next factor() or solve().
template <typename T>
void setActiveRows(Solver<T>& solver, const scenes::BlockProblem& p, const EquationMask& mask) {
    for (unsigned int blk = p.firstConstraint; blk < p.numBlocks; ++blk)
        for (unsigned int k = 0; k < p.blockSizes[blk]; ++k)
            solver.setActive(blk - p.firstConstraint, k, mask.isActive(p.blockOffsets[blk] + k));
}

// A right-hand side of the active system: pseudo-random values, 0 on the switched-off equations (whose
// solution the Solver sets to 0, as the unit equations of the demo's masked matrix then give too).
void activeRightHandSide(std::uint64_t seed, const EquationMask& mask, double* b, unsigned long N) {
    randomVector(seed, b, N);
    for (unsigned long k = 0; k < N; ++k)
        if (!mask.isActive(k)) b[k] = 0.0;
}

// ---------------------------------------------------------------------------------------------------------
// Phases 1 and 2 in the precision T
// ---------------------------------------------------------------------------------------------------------

template <typename T>
int runTimeSteps(const Options& options, scenes::Scene& scene, Failures& failures, Summary& summary) {
    scenes::BoxWall* wall = dynamic_cast<scenes::BoxWall*>(&scene);
    const bool isFloat = sizeof(T) == sizeof(float);
    Progress progress(!options.quiet && isatty(STDOUT_FILENO));

    // ---- Phase 1: analysis, once.
    scenes::BlockProblem problem;
    scene.build(problem);
    EquationMask mask;
    mask.reset(problem);
    const unsigned long N = problem.scalarSize();
    SceneSystem<T> system;
    system.describe(problem);

    std::printf("tamber-demo: %s (%s blocks, N = %s); %u steps, %s, %s\n\n",
                sceneDescription(scene, options, problem).c_str(), withSeparators(problem.numBlocks).c_str(),
                withSeparators(N).c_str(), options.steps, isFloat ? "float" : "double",
                threadsDescription(options.threads).c_str());

    Solver<T> solver;
    Status st = solver.setOptions(solverOptions(options));
    if (!st) {
        std::fprintf(stderr, "tamber-demo: %s\n", st.message.c_str());
        return 1;
    }
    // The analysis runs kAnalysisRuns times on the same structure, so that its figure is a median too.
    Series analyze;
    analyze.reserve(kAnalysisRuns);
    Counters laterRuns{0, 0};
    for (unsigned int run = 0; run < kAnalysisRuns; ++run) {
        progress.show("phase 1", "analysis", run, kAnalysisRuns);
        const Counters c0 = readCounters();
        const std::uint64_t a0 = kiv::Timer::ticks();
        st = system.analyze(solver, problem);
        const std::uint64_t a1 = kiv::Timer::ticks();
        const Counters c1 = readCounters();
        if (!st) {
            progress.done();
            std::fprintf(stderr, "tamber-demo: the analysis failed: %s\n", st.message.c_str());
            return 1;
        }
        if (run >= 2) {
            laterRuns.library += c1.library - c0.library;
            laterRuns.news += c1.news - c0.news;
        }
        analyze.add(secondsBetween(a0, a1));
    }
    progress.done();

    const SolverReport& report = solver.report();
    std::printf("Phase 1 · analysis, once per structure: Solver::analyze (%u runs)\n", kAnalysisRuns);
    if (system.general())
        std::printf(
            "  system        %s bodies and %s constraints in %s pattern entries (a general pattern)\n",
            withSeparators(report.bodies).c_str(), withSeparators(report.constraints).c_str(),
            withSeparators(problem.numEntries()).c_str());
    else
        std::printf("  system        %s bodies, %s constraints, %s Jacobian blocks%s%s\n",
                    withSeparators(report.bodies).c_str(), withSeparators(report.constraints).c_str(),
                    withSeparators(system.jacobianBlocks()).c_str(),
                    system.couplingBlocks() > 0 ? ", body couplings " : "",
                    system.couplingBlocks() > 0 ? withSeparators(system.couplingBlocks()).c_str() : "");
    std::printf("  ordering      %s\n", report.ordering.c_str());
    if (report.factorBlocks < report.blocks)
        std::printf("  merging       %s blocks in %s groups (%s explicit zeros in their dense tiles)\n",
                    withSeparators(report.blocks).c_str(), withSeparators(report.factorBlocks).c_str(),
                    withSeparators(report.explicitZeros).c_str());
    else
        std::printf("  merging       none: no group of blocks is predicted to factor faster\n");
    std::printf("  factor L      %s scalar entries, %.3g flops per factorization, predicted %.3f ms\n",
                withSeparators(report.factorEntries).c_str(), report.flops,
                1e3 * report.predictedFactorSeconds);
    std::printf("  %-*s %12s  %12s  %12s\n", kLabelWidth, "", "median", "min", "max");
    std::printf("%s\n", timeRow("analyze (Solver::analyze)", analyze, kLabelWidth).c_str());
    std::printf(
        "  allocations in runs 3 to %u: %s (kiv allocator %s, operator new %s; the ordering libraries'\n"
        "  own calloc is not counted)\n\n",
        kAnalysisRuns, withSeparators(laterRuns.library + laterRuns.news).c_str(),
        withSeparators(laterRuns.library).c_str(), withSeparators(laterRuns.news).c_str());

    // ---- Phase 2: time steps.
    kiv::VectorPOD<double> bUser(N), xUser(N), r(N), rowSums(N);
    kiv::VectorPOD<T> b(N), x(N);
    Series build, set, factorTime, solve, refineTime, refineSteps, step, reported, after, active;
    for (Series* s :
         {&build, &set, &factorTime, &solve, &refineTime, &refineSteps, &step, &reported, &after, &active})
        s->reserve(options.steps);
    AllocationTally allocations;
    const double limit = isFloat ? kResidualLimitFloat : kResidualLimitDouble;
    std::string path;

    for (unsigned int s = 0; s < options.steps; ++s) {
        progress.show("phase 2", "step", s, options.steps);
        const Counters c0 = readCounters();
        scene.step(kTimeStep);  // the scene moves (the box wall also switches contacts)
        if (wall) mask.fromContacts(problem, *wall);
        activeRightHandSide(1000 + s, mask, bUser.data(), N);
        for (unsigned long k = 0; k < N; ++k) {
            b[k] = static_cast<T>(bUser[k]);
            bUser[k] = static_cast<double>(b[k]);  // the residual is checked for the b that was solved
        }

        // The engine's part: the scene's matrix of this step in the arrays it hands over.
        const std::uint64_t t0 = kiv::Timer::ticks();
        scene.build(problem);
        system.gather(problem);
        // The Solver's part: values and active rows, factor, solve with refinement.
        const std::uint64_t t1 = kiv::Timer::ticks();
        const Status stSet = system.setValues(solver, problem);
        setActiveRows(solver, problem, mask);
        const std::uint64_t t2 = kiv::Timer::ticks();
        Status stFactor, stSolve;
        if (stSet) stFactor = solver.factor();
        const std::uint64_t t3 = kiv::Timer::ticks();
        if (stSet && stFactor) stSolve = solver.solve(b.data(), x.data());
        const std::uint64_t t4 = kiv::Timer::ticks();
        checkStatus(failures, stSet, "phase 2", s, "setValues");
        checkStatus(failures, stFactor, "phase 2", s, "factor");
        checkStatus(failures, stSolve, "phase 2", s, "solve");
        const bool solved = stSet && stFactor && stSolve;

        // The check: the scene's matrix with the switched-off equations as unit equations, in double.
        for (unsigned long k = 0; k < N; ++k) xUser[k] = static_cast<double>(x[k]);
        mask.apply(problem);
        const double residual = scaledResidual(problem, xUser.data(), bUser.data(), r.data(), rowSums.data());
        const Counters c1 = readCounters();

        if (s == 0) path = pathName(report);
        build.add(secondsBetween(t0, t1));
        set.add(secondsBetween(t1, t2));
        factorTime.add(secondsBetween(t2, t3));
        solve.add(report.solveSeconds);
        refineTime.add(report.refineSeconds);
        refineSteps.add(report.refinementSteps);
        step.add(secondsBetween(t1, t4));
        reported.add(report.residual);
        after.add(residual);
        active.add(static_cast<double>(mask.activeConstraintEquations(problem)));
        allocations.record(s, c0, c1);
        if (solved && !(residual <= limit)) {
            char text[160];
            std::snprintf(text, sizeof(text),
                          "phase 2, step %u: scaled residual %.3g after refinement (limit %.0e)", s + 1,
                          residual, limit);
            failures.check(false, text);
        }
    }
    progress.done();

    const std::string factorLabel = "factor (" + path + ")";
    const std::string refineLabel = "refine (residual check, ≤ " +
                                    std::to_string(solver.options().refinementSteps) +
                                    (solver.options().refinementSteps == 1 ? " step)" : " steps)");
    std::printf(
        "Phase 2 · time steps: set values → factor → solve → refine, through the Solver (%u steps, %s)\n",
        options.steps, isFloat ? "float" : "double");
    std::printf("  %-*s %12s  %12s  %12s\n", kLabelWidth, "", "median", "min", "max");
    std::printf("%s\n", timeRow("scene: build, fill the engine's arrays", build, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("set values (setValues, setActive)", set, kLabelWidth).c_str());
    std::printf("%s\n", timeRow(factorLabel.c_str(), factorTime, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("solve (Solver::solve)", solve, kLabelWidth).c_str());
    std::printf("%s\n", timeRow(refineLabel.c_str(), refineTime, kLabelWidth).c_str());
    std::printf("%s\n", countRow("  refinement steps run", refineSteps, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("step (set values, factor, solve)", step, kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual, the Solver's report", reported, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual, recomputed by the demo", after, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", countRow("active constraint equations", active, kLabelWidth).c_str());
    allocations.print(options.steps);
    std::printf(
        "  (residual: ‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) of the active system; the demo recomputes it in double "
        "in\n"
        "  the scene's numbering)\n\n");
    failures.check(allocations.later() == 0, "phase 2 allocated after its first step");
    summary.stepSeconds = step.median();
    summary.residual = after.max();
    summary.allocations += allocations.later();
    return 0;
}

// ---------------------------------------------------------------------------------------------------------
// Phase 3: the Solver switching equations against a second Solver that factors again
// ---------------------------------------------------------------------------------------------------------

std::uint64_t mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

int runSwitching(const Options& options, scenes::Scene& scene, Failures& failures, Summary& summary) {
    scenes::BoxWall* wall = dynamic_cast<scenes::BoxWall*>(&scene);
    Progress progress(!options.quiet && isatty(STDOUT_FILENO));

    // The pose stays where phase 2 left it: the values are set once, only the active set changes.
    scenes::BlockProblem full, masked;
    scene.build(full);
    EquationMask mask;
    mask.reset(full);
    if (wall) mask.fromContacts(full, *wall);
    const unsigned long N = full.scalarSize();
    const unsigned int n = full.numBlocks, firstConstraint = full.firstConstraint;
    if (n == firstConstraint) {
        std::printf("Phase 3 · skipped: the scene has no constraint to switch\n\n");
        return 0;
    }

    progress.note("phase 3: analysis, and a factorization with every equation active");
    SceneSystem<double> system;
    system.describe(full);
    system.gather(full);
    // switching: the Solver that keeps its factor across switches and chooses how to follow them; fresh: the
    // reference, factored again with each new active set.
    Solver<double> switching, fresh;
    Status st = switching.setOptions(solverOptions(options));
    if (st) st = fresh.setOptions(solverOptions(options));
    if (st) st = system.analyze(switching, full);
    if (st) st = system.analyze(fresh, full);
    if (st) st = system.setValues(switching, full);
    if (st) st = system.setValues(fresh, full);
    if (st) st = switching.factor();
    if (!st) {
        progress.done();
        std::fprintf(stderr, "tamber-demo: the switching phase could not start: %s\n", st.message.c_str());
        return 1;
    }
    const SolverReport& reportS = switching.report();
    const SolverReport& reportF = fresh.report();

    // The equations that are inactive now (the wall's inactive contacts) go off once, before the steps: the
    // first solve applies them.
    kiv::VectorPOD<double> bUser(N), xS(N), xF(N), r(N), rowSums(N);
    setActiveRows(switching, full, mask);
    setActiveRows(fresh, full, mask);
    activeRightHandSide(4999, mask, bUser.data(), N);
    progress.note("phase 3: switching off the equations of the inactive contacts");
    st = switching.solve(bUser.data(), xS.data());
    failures.check(st.ok(), "phase 3: the solve that switches off the inactive contacts failed");
    const unsigned long initiallyOff = reportS.switchedOff;
    const std::string initialPath = reportS.switchPath;
    const double initialSeconds = reportS.switchSeconds;

    kiv::VectorPOD<unsigned char> picked(n);
    kiv::VectorPOD<unsigned int> pickedList;
    pickedList.reserve(options.switchEquations + 1);
    Series switchTime, solveS, factorF, solveF, speedup, switched, activeEq, residualS, residualF, difference;
    for (Series* s : {&switchTime, &solveS, &factorF, &solveF, &speedup, &switched, &activeEq, &residualS,
                      &residualF, &difference})
        s->reserve(options.steps);
    AllocationTally allocations;
    const unsigned int numConstraints = n - firstConstraint;
    unsigned long updates = 0;
    std::string path;

    for (unsigned int s = 0; s < options.steps; ++s) {
        progress.show("phase 3", "step", s, options.steps);
        const Counters c0 = readCounters();

        // Pick constraints at random and switch their equations (off when on, on when off) until
        // switchEquations equations have changed; the last one picked may change only in part.
        unsigned long count = 0, tries = 0;
        pickedList.clear();
        while (count < options.switchEquations && tries < 4ul * numConstraints + 64) {
            const unsigned int blk =
                firstConstraint +
                static_cast<unsigned int>(mix(0xC0FFEEull * (s + 1) + tries++) % numConstraints);
            if (picked[blk]) continue;
            picked[blk] = 1;
            pickedList.push_back(blk);
            for (unsigned int k = 0; k < full.blockSizes[blk] && count < options.switchEquations;
                 ++k, ++count) {
                const unsigned long q = full.blockOffsets[blk] + k;
                const bool nowOn = !mask.isActive(q);
                mask.set(q, nowOn);
                switching.setActive(blk - firstConstraint, k, nowOn);
                fresh.setActive(blk - firstConstraint, k, nowOn);
            }
        }
        for (unsigned int blk : pickedList) picked[blk] = 0;
        activeRightHandSide(5000 + s, mask, bUser.data(), N);

        // The Solver follows the switch (update in place or factor again, its choice) inside the solve.
        const Status stS = switching.solve(bUser.data(), xS.data());
        // The reference: the second Solver factors the same active set again, then solves.
        const std::uint64_t t0 = kiv::Timer::ticks();
        const Status stF = fresh.factor();
        const std::uint64_t t1 = kiv::Timer::ticks();
        const Status stFS = stF ? fresh.solve(bUser.data(), xF.data()) : stF;
        checkStatus(failures, stS, "phase 3", s, "solve after the switch");
        checkStatus(failures, stFS, "phase 3", s, "factor and solve again");

        scene.build(masked);
        mask.apply(masked);
        const double resS = scaledResidual(masked, xS.data(), bUser.data(), r.data(), rowSums.data());
        const double resF = scaledResidual(masked, xF.data(), bUser.data(), r.data(), rowSums.data());
        const double diff = relativeDifference(xS.data(), xF.data(), N);
        const Counters c1 = readCounters();

        if (reportS.switchPath == "update") ++updates;
        if (s == 0) path = pathName(reportF);
        switchTime.add(reportS.switchSeconds);
        solveS.add(reportS.solveSeconds + reportS.refineSeconds);
        factorF.add(secondsBetween(t0, t1));
        solveF.add(reportF.solveSeconds + reportF.refineSeconds);
        speedup.add(secondsBetween(t0, t1) / std::max(reportS.switchSeconds, 1e-9));
        switched.add(static_cast<double>(reportS.switchedOff + reportS.switchedOn));
        activeEq.add(static_cast<double>(mask.activeConstraintEquations(full)));
        residualS.add(resS);
        residualF.add(resF);
        difference.add(diff);
        allocations.record(s, c0, c1);
        char text[200];
        std::snprintf(
            text, sizeof(text),
            "phase 3, step %u: scaled residual %.3g with the switched factor, %.3g with the new one, "
            "solutions differ by %.3g",
            s + 1, resS, resF, diff);
        failures.check(
            resS <= kResidualLimitDouble && resF <= kResidualLimitDouble && diff <= kDifferenceLimit, text);
    }
    progress.done();

    std::printf(
        "Phase 3 · switching: the Solver follows the switches (update or refactor) vs a second Solver that "
        "factors again (%u steps, double)\n",
        options.steps);
    if (initiallyOff > 0)
        std::printf(
            "  %s equations of inactive contacts switched off once before the steps: %s, %.3f ms, the time "
            "of "
            "%.1f factorizations\n",
            withSeparators(initiallyOff).c_str(), initialPath.c_str(), 1e3 * initialSeconds,
            initialSeconds / std::max(factorF.median(), 1e-12));
    std::printf("  %-*s %12s  %12s  %12s\n", kLabelWidth, "", "median", "min", "max");
    std::printf("%s\n", countRow("equations switched per step", switched, kLabelWidth).c_str());
    std::printf("%s\n", countRow("active constraint equations", activeEq, kLabelWidth).c_str());
    const std::string switchLabel =
        "switch (update in " + std::to_string(updates) + " of " + std::to_string(options.steps) + " steps)";
    std::printf("%s\n", timeRow(switchLabel.c_str(), switchTime, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("solve and refine, switched factor", solveS, kLabelWidth).c_str());
    const std::string factorLabel = "factor again (" + path + ")";
    std::printf("%s\n", timeRow(factorLabel.c_str(), factorF, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("solve and refine, new factor", solveF, kLabelWidth).c_str());
    std::printf("%s\n", valueRow("speedup: factor again / switch", speedup, "%.1f×", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual, switched factor", residualS, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual, new factor", residualF, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("‖x_switched − x_new‖ / ‖x_new‖", difference, "%.1e", kLabelWidth).c_str());
    allocations.print(options.steps);
    failures.check(allocations.later() == 0, "phase 3 allocated after its first step");
    std::printf("\n");
    summary.switching = true;
    summary.switched = switched.median();
    summary.speedup = speedup.median();
    summary.updates = updates;
    summary.switchSteps = options.steps;
    summary.allocations += allocations.later();
    summary.residual = std::max(summary.residual, std::max(residualS.max(), residualF.max()));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    kiv::Timer::clockSpeed();  // calibrates the tick counter (about 20 ms) before anything is timed
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return badUsage;
    }
    if (options.help) {
        std::fputs(helpText().c_str(), stdout);
        return 0;
    }

    std::unique_ptr<scenes::Scene> scene = scenes::makeScene(options.scene, options.size);
    if (scenes::BoxWall* wall = dynamic_cast<scenes::BoxWall*>(scene.get())) wall->includeInactive = true;
    Failures failures;
    Summary summary;
    const int status = options.useFloat ? runTimeSteps<float>(options, *scene, failures, summary)
                                        : runTimeSteps<double>(options, *scene, failures, summary);
    if (status != 0) return status;
    if (options.switchEquations > 0) {
        const int s = runSwitching(options, *scene, failures, summary);
        if (s != 0) return s;
    }
    std::printf("Summary (medians): a time step (set values, factor, solve, refine) takes %.3f ms",
                1e3 * summary.stepSeconds);
    if (summary.switching && summary.updates == 0) {
        std::printf("; the Solver follows a switch of %.0f equations by factoring again (its prediction)",
                    summary.switched);
    } else if (summary.switching) {
        const std::string how = summary.updates == summary.switchSteps
                                    ? "by updating the factor"
                                    : "by updating the factor in " + std::to_string(summary.updates) +
                                          " of " + std::to_string(summary.switchSteps) + " steps";
        if (summary.speedup >= 1.0)
            std::printf("; the Solver switches %.0f equations %s, %.1f× faster than factoring again",
                        summary.switched, how.c_str(), summary.speedup);
        else
            std::printf("; the Solver switches %.0f equations %s, %.1f× slower than factoring again",
                        summary.switched, how.c_str(), 1.0 / std::max(summary.speedup, 1e-9));
    }
    std::printf("; largest residual %.1e; %s allocations in the steps after the first.\n", summary.residual,
                withSeparators(summary.allocations).c_str());
    if (failures.any()) {
        failures.print();
        return 1;
    }
    return 0;
}
