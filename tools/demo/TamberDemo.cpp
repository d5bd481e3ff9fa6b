// tamber-demo: a physics scene solved with kivTamber for some dozens of time steps, the way a constraint
// solver uses the library, with a report of what every stage costs and proof that steady steps allocate
// nothing.
//
//   1. analysis, needed once per structure and run a few times here so that its figures are medians too:
//      Analysis::Analyzer orders the blocks, builds the filled pattern and the elimination tree and lays out
//      data.matrix; Tamber::estimateWork lays out the factor; the multifrontal workspace is prepared;
//   2. time steps: the scene moves, its matrix is assembled into data.matrix (Analyzer::setBlocks), factored
//      (Tamber::factorSerial or Tamber::factorMF), solved (Tamber::solve) and refined
//      (Tamber::iterativeRefinement). The order is the caller's duty: Tamber::solve<double> never factors, so
//      the factorization comes first, then the solve, then the refinement;
//   3. switching: the pose is held while constraint equations switch off and on at every step. RankMod
//      modifies the factor in place; for comparison the masked matrix (inactive equations replaced by unit
//      equations) is assembled and factored again, and both solutions are checked.
// Every timed figure is a median over the steps of its phase, printed with its minimum and maximum. The
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

#include "Analysis.h"
#include "RankMod.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "demo/DemoSupport.h"
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

// The analysis every phase uses: the standard ordering with block merging, which makes systems of tiny blocks
// (cloth) several times faster and changes nothing where no blocks merge. With merging the data's blocks are
// groups of the user's blocks: equations are found through Analyzer::factorPosition.
Analysis::Options demoAnalysisOptions() {
    Analysis::Options options;
    options.mergeBlocks = true;
    return options;
}

// Equation `local` of the user's block `block` in the factor's numbering.
RankMod::Equation factorEquation(const Analysis::Analyzer& analyzer, unsigned int block, unsigned int local) {
    // In range: block and local come from the scene the analyzer analysed.
    unsigned int factorBlock = 0, inBlock = 0;
    analyzer.factorPosition(block, local, factorBlock, inBlock);
    return RankMod::Equation(factorBlock, inBlock);
}

// The user's block of an equation in the factor's numbering.
unsigned int userBlockOf(const Analysis::Analyzer& analyzer, const RankMod::Equation& eq) {
    unsigned int block = 0, local = 0;
    analyzer.userPosition(eq.first, eq.second, block, local);
    return block;
}

constexpr double kTimeStep = 1.0 / 60.0;
constexpr int kRefinementIterations = 2;
constexpr unsigned int kAnalysisRuns = 5;
constexpr int kLabelWidth = 40;
// Limits above which the demo reports a failure: scaled residuals after refinement (and of the updated
// factor), and the relative difference between the updated and the new factor's solutions.
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

// The figures of the closing summary line.
struct Summary {
    double stepSeconds = 0.0;
    double residual = 0.0;
    bool switching = false;
    double switched = 0.0;
    double speedup = 0.0;
    std::uint64_t allocations = 0;
};

// "serial" or "multifrontal, 2 threads".
std::string factorName(unsigned int threads) {
    if (threads == 0) return "serial";
    return "multifrontal, " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
}

// "serial factorization" or "multifrontal factorization on 2 threads".
std::string factorDescription(unsigned int threads) {
    if (threads == 0) return "serial factorization";
    return "multifrontal factorization on " + std::to_string(threads) +
           (threads == 1 ? " thread" : " threads");
}

template <typename T>
void factor(Tamber& tamber, TamberData<T>& data) {
    if (data.useMultifrontal)
        tamber.factorMF(data);
    else
        tamber.factorSerial(data);
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

// Shape of an elimination tree (parent[j] > j for every non-root j, a root its own parent): roots, height
// (edges on the longest path to a root) and the mean depth of a node. The cost of switching an equation on or
// off grows with the depth of its block, the cost of a factorization does not.
struct TreeShape {
    unsigned long roots = 0;
    unsigned long height = 0;
    double meanDepth = 0.0;
};

TreeShape treeShape(const EliminationTree& tree) {
    TreeShape shape;
    const unsigned int n = tree.numNodes;
    std::vector<unsigned long> depth(n, 0);
    double sum = 0.0;
    for (unsigned int j = n; j-- > 0;) {
        const unsigned int p = tree.parent[j];
        depth[j] = p == j || p >= n ? 0 : depth[p] + 1;
        if (p == j) ++shape.roots;
        shape.height = std::max(shape.height, depth[j]);
        sum += static_cast<double>(depth[j]);
    }
    shape.meanDepth = n > 0 ? sum / n : 0.0;
    return shape;
}

Analysis::Problem analysisProblem(const scenes::BlockProblem& p) {
    Analysis::Problem a;
    a.numBlocks = p.numBlocks;
    a.firstConstraint = p.firstConstraint;
    a.colPointers = p.colPointers.data();
    a.rowIndices = p.rowIndices.data();
    a.blockSizes = p.blockSizes.data();
    return a;
}

// ---------------------------------------------------------------------------------------------------------
// Phases 1 and 2 in the precision T
// ---------------------------------------------------------------------------------------------------------

// Refinement of the solution x (factor order) of A·x = b, leaving the refined solution in w.xUser (the user's
// numbering, double). Double: the library's iterativeRefinement, which solves with solve<double> and
// therefore needs the factor made before; then the result is mapped to the user's numbering. Float: mixed
// precision by hand: the solution is kept in double, the residual r = b − A·x is computed in double against
// the double matrix of the problem, and only the correction A·δ = r is solved with the float factor; that is
// how a float factor reaches double accuracy. Work vectors are the caller's or the scratch pad's (a slot
// number of the demo's own), so nothing allocates after the first step.
struct RefineWork {
    const scenes::BlockProblem* problem;
    const Analysis::Analyzer* analyzer;
    const double* bUser;
    double* xUser;
    double* r;
    double* rowSums;
};

constexpr unsigned long kDemoScratchSlot = 0x300000;

void refine(Tamber& tamber, TamberData<double>& data, const double* b, double* x, RefineWork& w) {
    tamber.iterativeRefinement(data, b, x, kRefinementIterations);
    w.analyzer->unpermuteVector(x, w.xUser);
}

void refine(Tamber& tamber, TamberData<float>& data, const float*, float* x, RefineWork& w) {
    const unsigned long N = w.problem->scalarSize();
    float* correction = data.scratchPad.getFloatArray(kDemoScratchSlot, N);
    float* userCorrection = data.scratchPad.getFloatArray(kDemoScratchSlot + 1, N);
    w.analyzer->unpermuteVector(x, userCorrection);
    for (unsigned long k = 0; k < N; ++k) w.xUser[k] = userCorrection[k];
    for (int it = 0; it < kRefinementIterations; ++it) {
        scaledResidual(*w.problem, w.xUser, w.bUser, w.r, w.rowSums);  // r = b − A·x in double
        for (unsigned long k = 0; k < N; ++k) userCorrection[k] = static_cast<float>(w.r[k]);
        w.analyzer->permuteVector(userCorrection, correction);
        tamber.solve(data, correction);  // δ = A⁻¹·r with the float factor
        w.analyzer->unpermuteVector(correction, userCorrection);
        for (unsigned long k = 0; k < N; ++k) w.xUser[k] += userCorrection[k];  // x ← x + δ in double
    }
}

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

    std::printf("tamber-demo: %s (%s blocks, N = %s); %u steps, %s, %s\n\n",
                sceneDescription(scene, options, problem).c_str(), withSeparators(problem.numBlocks).c_str(),
                withSeparators(N).c_str(), options.steps, isFloat ? "float" : "double",
                factorDescription(options.threads).c_str());

    TamberData<T> data;
    Tamber tamber;
    Analysis::Analyzer analyzer;
    data.useMultifrontal = options.threads > 0 ? 1 : 0;
    data.numThreads = options.threads > 0 ? options.threads : 1;
    // The analysis runs kAnalysisRuns times on the same structure, so that its figures are medians too; each
    // run is a complete one (ordering, symbolic factorization, layout, work estimate, multifrontal split).
    Analysis::Report report;
    Series analyze, checks, ordering, symbolic, layout, estimate, preparation;
    unsigned int work = 0, fill = 0;
    Counters laterRuns{0, 0};
    for (Series* s : {&analyze, &checks, &ordering, &symbolic, &layout, &estimate, &preparation})
        s->reserve(kAnalysisRuns);
    for (unsigned int run = 0; run < kAnalysisRuns; ++run) {
        progress.show("phase 1", "analysis", run, kAnalysisRuns);
        const Counters c0 = readCounters();
        const std::uint64_t a0 = kiv::Timer::ticks();
        report = analyzer.analyze(analysisProblem(problem), demoAnalysisOptions(), data);
        const std::uint64_t a1 = kiv::Timer::ticks();
        if (!report.ok) {
            progress.done();
            std::fprintf(stderr, "tamber-demo: the analysis failed: %s\n", report.message.c_str());
            return 1;
        }
        fill = tamber.estimateWork(data, &work);
        const std::uint64_t a2 = kiv::Timer::ticks();
        if (data.useMultifrontal)
            data.multifront.prepare(data.skeleton, data.matrix.blockSizes, data.numThreads);
        const std::uint64_t a3 = kiv::Timer::ticks();
        const Counters c1 = readCounters();
        if (run >= 2) {
            laterRuns.library += c1.library - c0.library;
            laterRuns.news += c1.news - c0.news;
        }
        analyze.add(secondsBetween(a0, a1));
        checks.add(report.checkSeconds);
        ordering.add(report.orderSeconds);
        symbolic.add(report.symbolicSeconds);
        layout.add(report.layoutSeconds);
        estimate.add(secondsBetween(a1, a2));
        preparation.add(secondsBetween(a2, a3));
    }

    progress.done();
    std::printf("Phase 1 · analysis, once per structure (%u runs)\n", kAnalysisRuns);
    std::printf("  system        %s bodies and %s constraints in %s pattern entries\n",
                withSeparators(problem.firstConstraint).c_str(),
                withSeparators(problem.numBlocks - problem.firstConstraint).c_str(),
                withSeparators(problem.numEntries()).c_str());
    std::printf("  ordering      %s blocks placed by peeling chains and trees of bodies, the rest by %s",
                withSeparators(report.peeledBlocks).c_str(),
                report.usedNestedDissection ? "nested dissection" : "minimum degree");
    if (report.nestedDissectionFlops > 0.0)
        std::printf("\n                (predicted flops: minimum degree %.3g, nested dissection %.3g)",
                    report.minimumDegreeFlops, report.nestedDissectionFlops);
    const TreeShape shape = treeShape(data.etree);
    std::printf("\n  tree          %s %s, height %s, mean depth of a block %.1f\n",
                withSeparators(shape.roots).c_str(), shape.roots == 1 ? "root" : "roots",
                withSeparators(shape.height).c_str(), shape.meanDepth);
    std::printf(
        "  factor L      %s blocks (%s of them fill), %s scalar entries, %.3g flops per factorization\n",
        withSeparators(report.cost.blockEntries).c_str(), withSeparators(fill).c_str(),
        withSeparators(report.cost.scalarEntries).c_str(), report.cost.flops);
    std::printf("  %-*s %12s  %12s  %12s\n", kLabelWidth, "", "median", "min", "max");
    std::printf("%s\n", timeRow("analyze (Analyzer::analyze)", analyze, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("  checks and block graph", checks, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("  ordering", ordering, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("  symbolic factorization", symbolic, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("  layout of the matrix", layout, kLabelWidth).c_str());
    const std::string estimateLabel = "estimateWork (" + withSeparators(work) + " block ops)";
    std::printf("%s\n", timeRow(estimateLabel.c_str(), estimate, kLabelWidth).c_str());
    if (data.useMultifrontal) {
        const std::string label =
            "multifrontal split (" + std::to_string(data.multifront.numOwners) + " owners)";
        std::printf("%s\n", timeRow(label.c_str(), preparation, kLabelWidth).c_str());
    }
    std::printf(
        "  allocations in runs 3 to %u: %s (kiv allocator %s, operator new %s; the ordering libraries'\n"
        "  own calloc is not counted)\n\n",
        kAnalysisRuns, withSeparators(laterRuns.library + laterRuns.news).c_str(),
        withSeparators(laterRuns.library).c_str(), withSeparators(laterRuns.news).c_str());

    // ---- Phase 2: time steps.
    kiv::VectorPOD<double> bUser(N), xUser(N), r(N), rowSums(N);
    kiv::VectorPOD<T> bUserT(N), b(N), x(N), xT(N);
    Series assemble, factorTime, solve, refineTime, step, before, after, active;
    for (Series* s : {&assemble, &factorTime, &solve, &refineTime, &step, &before, &after, &active})
        s->reserve(options.steps);
    AllocationTally allocations;
    RefineWork w{&problem, &analyzer, bUser.data(), xUser.data(), r.data(), rowSums.data()};
    const double limit = isFloat ? kResidualLimitFloat : kResidualLimitDouble;

    for (unsigned int s = 0; s < options.steps; ++s) {
        progress.show("phase 2", "step", s, options.steps);
        const Counters c0 = readCounters();
        scene.step(kTimeStep);  // the scene moves (the box wall also switches contacts)
        if (wall) mask.fromContacts(problem, *wall);
        randomVector(1000 + s, bUser.data(), N);
        for (unsigned long k = 0; k < N; ++k) bUserT[k] = static_cast<T>(bUser[k]);
        analyzer.permuteVector(bUserT.data(), b.data());

        // Assemble: the scene's matrix of this step, inactive contacts as unit equations, into data.matrix.
        const std::uint64_t t0 = kiv::Timer::ticks();
        scene.build(problem);
        mask.apply(problem);
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());  // clears isFactored
        // Factor first: solve<double> does not factor by itself.
        const std::uint64_t t1 = kiv::Timer::ticks();
        factor(tamber, data);
        const std::uint64_t t2 = kiv::Timer::ticks();
        std::memcpy(x.data(), b.data(), N * sizeof(T));
        const std::uint64_t t3 = kiv::Timer::ticks();
        tamber.solve(data, x.data());
        const std::uint64_t t4 = kiv::Timer::ticks();

        analyzer.unpermuteVector(x.data(), xT.data());
        for (unsigned long k = 0; k < N; ++k) xUser[k] = xT[k];
        const double residualBefore =
            scaledResidual(problem, xUser.data(), bUser.data(), r.data(), rowSums.data());

        const std::uint64_t t5 = kiv::Timer::ticks();
        refine(tamber, data, b.data(), x.data(), w);  // the refined solution ends in xUser
        const std::uint64_t t6 = kiv::Timer::ticks();

        const double residualAfter =
            scaledResidual(problem, xUser.data(), bUser.data(), r.data(), rowSums.data());
        const Counters c1 = readCounters();

        assemble.add(secondsBetween(t0, t1));
        factorTime.add(secondsBetween(t1, t2));
        solve.add(secondsBetween(t3, t4));
        refineTime.add(secondsBetween(t5, t6));
        step.add(secondsBetween(t0, t2) + secondsBetween(t3, t4) + secondsBetween(t5, t6));
        before.add(residualBefore);
        after.add(residualAfter);
        active.add(static_cast<double>(mask.activeConstraintEquations(problem)));
        allocations.record(s, c0, c1);
        if (!(residualAfter <= limit)) {
            char text[160];
            std::snprintf(text, sizeof(text),
                          "phase 2, step %u: scaled residual %.3g after refinement (limit %.0e)", s + 1,
                          residualAfter, limit);
            failures.check(false, text);
        }
    }
    progress.done();

    const std::string factorLabel = "factor (" + factorName(options.threads) + ")";
    const std::string refineLabel =
        std::string(isFloat ? "refine (mixed precision, " : "refine (iterativeRefinement, ") +
        std::to_string(kRefinementIterations) + " it.)";
    std::printf("Phase 2 · time steps: assemble → factor → solve → refine (%u steps, %s)\n", options.steps,
                isFloat ? "float" : "double");
    std::printf("  %-*s %12s  %12s  %12s\n", kLabelWidth, "", "median", "min", "max");
    std::printf("%s\n", timeRow("assemble (build, setBlocks)", assemble, kLabelWidth).c_str());
    std::printf("%s\n", timeRow(factorLabel.c_str(), factorTime, kLabelWidth).c_str());
    std::printf(
        "%s\n",
        timeRow(isFloat ? "solve (solve<float>)" : "solve (solve<double>)", solve, kLabelWidth).c_str());
    std::printf("%s\n", timeRow(refineLabel.c_str(), refineTime, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("step (the four above)", step, kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual after solve", before, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual after refinement", after, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", countRow("active constraint equations", active, kLabelWidth).c_str());
    allocations.print(options.steps);
    std::printf(
        "  (residual: ‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞), recomputed by the demo in the scene's numbering)\n\n");
    failures.check(allocations.later() == 0, "phase 2 allocated after its first step");
    summary.stepSeconds = step.median();
    summary.residual = after.max();
    summary.allocations += allocations.later();
    return 0;
}

// ---------------------------------------------------------------------------------------------------------
// Phase 3: switching equations with RankMod against factoring again
// ---------------------------------------------------------------------------------------------------------

std::uint64_t mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

int runSwitching(const Options& options, scenes::Scene& scene, Failures& failures, Summary& summary) {
    scenes::BoxWall* wall = dynamic_cast<scenes::BoxWall*>(&scene);
    Progress progress(!options.quiet && isatty(STDOUT_FILENO));

    // The pose stays where phase 2 left it; the full matrix (every potential contact) goes into the data that
    // RankMod modifies, the masked one into the data that is factored again.
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
    Tamber tamber;
    Analysis::Analyzer analyzerU, analyzerR;
    TamberData<double> updated, fresh;
    const Analysis::Problem ap = analysisProblem(full);
    if (!analyzerU.analyze(ap, demoAnalysisOptions(), updated).ok ||
        !analyzerR.analyze(ap, demoAnalysisOptions(), fresh).ok) {
        progress.done();
        std::fprintf(stderr, "tamber-demo: the analysis of the switching phase failed\n");
        return 1;
    }
    // RankMod starts from a factor with every equation active.
    analyzerU.setBlocks(updated, full.values.data(), full.valuePointers.data());
    tamber.estimateWork(updated, nullptr);
    tamber.factorSerial(updated);
    RankMod mod;
    if (!mod.prepare(updated)) {
        progress.done();
        std::fprintf(stderr, "tamber-demo: RankMod::prepare refused the factored system\n");
        return 1;
    }
    fresh.useMultifrontal = options.threads > 0 ? 1 : 0;
    fresh.numThreads = options.threads > 0 ? options.threads : 1;
    tamber.estimateWork(fresh, nullptr);
    if (fresh.useMultifrontal) tamber.prepareMultifrontal(fresh);

    // The equations that are inactive now (the wall's inactive contacts) go off once, before the steps.
    RankMod::EquationList off, on;
    const unsigned long listCapacity = options.switchEquations + 64;
    off.reserve(listCapacity > N ? listCapacity : N);
    on.reserve(listCapacity);
    for (unsigned int blk = firstConstraint; blk < n; ++blk)
        for (unsigned int k = 0; k < full.blockSizes[blk]; ++k)
            if (!mask.isActive(full.blockOffsets[blk] + k)) off.push_back(factorEquation(analyzerU, blk, k));
    progress.note("phase 3: switching off the equations of the inactive contacts");
    const std::uint64_t i0 = kiv::Timer::ticks();
    const bool initialOk = mod.apply(updated, off, on, RankMod::batched);
    const std::uint64_t i1 = kiv::Timer::ticks();
    failures.check(initialOk, "phase 3: RankMod::apply failed on the initial switch-off");
    const unsigned long initiallyOff = off.size();

    kiv::VectorPOD<double> bUser(N), xU(N), xR(N), xUserU(N), xUserR(N), r(N), rowSums(N);
    kiv::VectorPOD<unsigned char> picked(n);
    Series update, solveU, assemble, refactor, solveR, speedup, switched, activeEq, residualU, residualR,
        difference;
    for (Series* s : {&update, &solveU, &assemble, &refactor, &solveR, &speedup, &switched, &activeEq,
                      &residualU, &residualR, &difference})
        s->reserve(options.steps);
    AllocationTally allocations;
    const unsigned int numConstraints = n - firstConstraint;

    for (unsigned int s = 0; s < options.steps; ++s) {
        progress.show("phase 3", "step", s, options.steps);
        const Counters c0 = readCounters();

        // Pick constraints at random and switch their equations (off when on, on when off) until
        // switchEquations equations have changed; the last one picked may change only in part.
        off.clear();
        on.clear();
        unsigned long count = 0, tries = 0;
        while (count < options.switchEquations && tries < 4ul * numConstraints + 64) {
            const unsigned int blk =
                firstConstraint +
                static_cast<unsigned int>(mix(0xC0FFEEull * (s + 1) + tries++) % numConstraints);
            if (picked[blk]) continue;
            picked[blk] = 1;
            for (unsigned int k = 0; k < full.blockSizes[blk] && count < options.switchEquations;
                 ++k, ++count) {
                const unsigned long q = full.blockOffsets[blk] + k;
                const bool nowOn = !mask.isActive(q);
                mask.set(q, nowOn);
                (nowOn ? on : off).push_back(factorEquation(analyzerU, blk, k));
            }
        }
        for (const RankMod::Equation& eq : off) picked[userBlockOf(analyzerU, eq)] = 0;
        for (const RankMod::Equation& eq : on) picked[userBlockOf(analyzerU, eq)] = 0;
        randomVector(5000 + s, bUser.data(), N);

        // The update: the factor follows the switch in place; then solve with it (solve<double> on a factor
        // that RankMod keeps current).
        const std::uint64_t t0 = kiv::Timer::ticks();
        const bool ok = mod.apply(updated, off, on, RankMod::batched);
        const std::uint64_t t1 = kiv::Timer::ticks();
        analyzerU.permuteVector(bUser.data(), xU.data());
        const std::uint64_t t2 = kiv::Timer::ticks();
        tamber.solve(updated, xU.data());
        const std::uint64_t t3 = kiv::Timer::ticks();

        // The reference: assemble the masked matrix and factor it again, then solve.
        const std::uint64_t t4 = kiv::Timer::ticks();
        scene.build(masked);
        mask.apply(masked);
        analyzerR.setBlocks(fresh, masked.values.data(), masked.valuePointers.data());
        const std::uint64_t t5 = kiv::Timer::ticks();
        factor(tamber, fresh);
        const std::uint64_t t6 = kiv::Timer::ticks();
        analyzerR.permuteVector(bUser.data(), xR.data());
        const std::uint64_t t7 = kiv::Timer::ticks();
        tamber.solve(fresh, xR.data());
        const std::uint64_t t8 = kiv::Timer::ticks();

        analyzerU.unpermuteVector(xU.data(), xUserU.data());
        analyzerR.unpermuteVector(xR.data(), xUserR.data());
        const double resU = scaledResidual(masked, xUserU.data(), bUser.data(), r.data(), rowSums.data());
        const double resR = scaledResidual(masked, xUserR.data(), bUser.data(), r.data(), rowSums.data());
        const double diff = relativeDifference(xUserU.data(), xUserR.data(), N);
        const Counters c1 = readCounters();

        update.add(secondsBetween(t0, t1));
        solveU.add(secondsBetween(t2, t3));
        assemble.add(secondsBetween(t4, t5));
        refactor.add(secondsBetween(t5, t6));
        solveR.add(secondsBetween(t7, t8));
        speedup.add(secondsBetween(t5, t6) / std::max(secondsBetween(t0, t1), 1e-9));
        switched.add(static_cast<double>(off.size() + on.size()));
        activeEq.add(static_cast<double>(mask.activeConstraintEquations(full)));
        residualU.add(resU);
        residualR.add(resR);
        difference.add(diff);
        allocations.record(s, c0, c1);
        char text[200];
        std::snprintf(text, sizeof(text), "phase 3, step %u: RankMod::apply returned false", s + 1);
        failures.check(ok, text);
        std::snprintf(
            text, sizeof(text),
            "phase 3, step %u: scaled residual %.3g with the updated factor, %.3g with the new one, "
            "solutions differ by %.3g",
            s + 1, resU, resR, diff);
        failures.check(
            resU <= kResidualLimitDouble && resR <= kResidualLimitDouble && diff <= kDifferenceLimit, text);
    }
    progress.done();

    std::printf(
        "Phase 3 · switching: RankMod updates the factor vs assemble and factor again (%u steps, double)\n",
        options.steps);
    if (initiallyOff > 0)
        std::printf(
            "  %s equations of inactive contacts switched off once before the steps: %.3f ms, the time of "
            "%.1f factorizations\n",
            withSeparators(initiallyOff).c_str(), 1e3 * secondsBetween(i0, i1),
            secondsBetween(i0, i1) / std::max(refactor.median(), 1e-12));
    std::printf("  %-*s %12s  %12s  %12s\n", kLabelWidth, "", "median", "min", "max");
    std::printf("%s\n", countRow("equations switched per step", switched, kLabelWidth).c_str());
    std::printf("%s\n", countRow("active constraint equations", activeEq, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("update (RankMod::apply, batched)", update, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("solve with the updated factor", solveU, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("assemble again (build, setBlocks)", assemble, kLabelWidth).c_str());
    const std::string factorLabel = "factor again (" + factorName(options.threads) + ")";
    std::printf("%s\n", timeRow(factorLabel.c_str(), refactor, kLabelWidth).c_str());
    std::printf("%s\n", timeRow("solve with the new factor", solveR, kLabelWidth).c_str());
    std::printf("%s\n", valueRow("speedup: factor again / update", speedup, "%.1f×", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual, updated factor", residualU, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("residual, new factor", residualR, "%.1e", kLabelWidth).c_str());
    std::printf("%s\n", valueRow("‖x_update − x_new‖ / ‖x_new‖", difference, "%.1e", kLabelWidth).c_str());
    allocations.print(options.steps);
    failures.check(allocations.later() == 0, "phase 3 allocated after its first step");
    std::printf("\n");
    summary.switching = true;
    summary.switched = switched.median();
    summary.speedup = speedup.median();
    summary.allocations += allocations.later();
    summary.residual = std::max(summary.residual, std::max(residualU.max(), residualR.max()));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    options.threads = defaultThreads();
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
    std::printf("Summary (medians): a time step (assemble, factor, solve, refine) takes %.3f ms",
                1e3 * summary.stepSeconds);
    if (summary.switching && summary.speedup >= 1.0)
        std::printf("; switching %.0f equations by updating the factor is %.1f× faster than factoring again",
                    summary.switched, summary.speedup);
    if (summary.switching && summary.speedup < 1.0)
        std::printf("; switching %.0f equations by updating the factor is %.1f× slower than factoring again",
                    summary.switched, 1.0 / std::max(summary.speedup, 1e-9));
    std::printf("; largest residual %.1e; %s allocations in the steps after the first.\n", summary.residual,
                withSeparators(summary.allocations).c_str());
    if (failures.any()) {
        failures.print();
        return 1;
    }
    return 0;
}
