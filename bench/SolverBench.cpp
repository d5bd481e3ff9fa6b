// The cost of the solver object over the best hand-written sequence of low-level calls, per time step.
//
// For each demo scene at about 10,000 blocks (the box wall with its active contacts), one time step is run
// many times on the same values in three ways, the repetitions interleaved (the order rotates):
//  - Solver: setValues (bodies and the Jacobians J(c, b) as the physics holds them), factor(), solve() with
//    the default refinement (one step against the true matrix, best iterate kept);
//  - by hand: Analyzer::setBlocks from the scene's arrays, Tamber::factorSerial (or factorMF when the Solver
//    chose it, on the same threads), Analyzer::permuteVector, TamberSolve::solve,
//    Tamber::iterativeRefinement with one step, Analyzer::unpermuteVector; the same analysis (standard
//    ordering with block merging);
//  - best by hand: the low-level sequence doing the work the Solver's refinement promises: the correction is
//    kept only when the residual after it (one more product with A) is smaller, so that the result is never
//    worse than the plain solve. Solver against it is the cost of the object itself (its ‖A‖∞ and scaled
//    residual for the report, its bookkeeping); best by hand against by hand is the cost of the guarantee.
// Printed per scene: sizes, the median step of the Solver and by hand with their parts (assemble, factor,
// solve with refinement), the median step of the best by hand, the ratios of the medians (Solver / by hand,
// Solver / best by hand), the median of the per-repetition ratios Solver / by hand, and the largest
// relative difference of the Solver's and the hand-written solutions; the machine's load (/proc/loadavg)
// before and after. Timings on a shared machine are noisy: instruction counts are the steadier figure.
//
// With --step, the two forms of the Solver's values-and-factor step instead, on one thread (the path on
// which they differ): setValues followed by factor(), and factor(bodies, jacobians, couplings), which writes
// each block column just before the serial factorization reads it. Each form has its own Solver (so the
// other's step runs between two steps of one, as another system of a time step would); the repetitions
// alternate which goes first. Printed per scene: sizes, the medians of both forms (and of setValues alone),
// the ratio of the medians two calls / one call, the median of the per-repetition ratios, and whether
// the two solvers' solutions agree bit for bit. Without --scene and --blocks: chain and ragdolls at 10,000
// and 50,000 blocks.
//
// Usage: SolverBench [--blocks N] [--reps R] [--scene chain|ragdolls|cloth|boxes]
//                    [--only solver|lowlevel|best|twocall|onecall] [--step]
// (defaults 10000, 41, every scene, every way). --only twocall / onecall run one form of --step alone
// (callgrind: '*twoCallStep*', '*oneCallStep*'). --only runs one way alone, for instruction counts per step,
// (count with --reps 4 − count with --reps 1) / 3, counted inside the step function only, e.g.
//   valgrind --tool=callgrind --toggle-collect='*solverStep*' SolverBench --scene cloth --only solver --reps
//   4
// with '*lowLevelStep*' for --only lowlevel and '*lowLevelBestStep*' for --only best.
#include <kiv/Timer.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Solver.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "demo/SceneSystem.h"
#include "scenes/Scenes.h"

using namespace kivTamber;

namespace {

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string line;
    std::getline(in, line);
    return line.empty() ? "unknown" : line;
}

struct Parts {
    double assemble = 0, factor = 0, solve = 0;
    double total() const { return assemble + factor + solve; }
};

// Everything one scene needs for both ways.
struct Bench {
    scenes::BlockProblem problem;
    demo::SceneSystem<double> system;
    Solver<double> solver;

    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    bool multifrontal = false;

    std::vector<double> b, xSolver, xLow, xBest, bp, xp, r, d, x1;
};

// One step through the object. noinline: the symbol callgrind's --toggle-collect names.
__attribute__((noinline)) Parts solverStep(Bench& w) {
    Parts t;
    const std::uint64_t t0 = kiv::Timer::ticks();
    w.system.setValues(w.solver, w.problem);
    const std::uint64_t t1 = kiv::Timer::ticks();
    const Status fs = w.solver.factor();
    const std::uint64_t t2 = kiv::Timer::ticks();
    const Status ss = w.solver.solve(w.b.data(), w.xSolver.data());
    const std::uint64_t t3 = kiv::Timer::ticks();
    if (!fs || !ss) {
        std::fprintf(stderr, "SolverBench: %s\n", (!fs ? fs : ss).message.c_str());
        std::exit(1);
    }
    t.assemble = kiv::Timer::seconds(t0, t1);
    t.factor = kiv::Timer::seconds(t1, t2);
    t.solve = kiv::Timer::seconds(t2, t3);
    return t;
}

// The same step by hand, in the order the low-level calls need (the double solve does not factor).
__attribute__((noinline)) Parts lowLevelStep(Bench& w) {
    Parts t;
    const std::uint64_t t0 = kiv::Timer::ticks();
    w.analyzer.setBlocks(w.data, w.problem.values.data(), w.problem.valuePointers.data());
    const std::uint64_t t1 = kiv::Timer::ticks();
    if (w.multifrontal)
        w.tamber.factorMF(w.data);
    else
        w.tamber.factorSerial(w.data);
    const std::uint64_t t2 = kiv::Timer::ticks();
    const unsigned long N = w.b.size();
    w.analyzer.permuteVector(w.b.data(), w.bp.data());
    std::memcpy(w.xp.data(), w.bp.data(), N * sizeof(double));
    TamberSolve::solve(w.data, w.xp.data());
    w.tamber.iterativeRefinement(w.data, w.bp.data(), w.xp.data(), 1);
    w.analyzer.unpermuteVector(w.xp.data(), w.xLow.data());
    const std::uint64_t t3 = kiv::Timer::ticks();
    t.assemble = kiv::Timer::seconds(t0, t1);
    t.factor = kiv::Timer::seconds(t1, t2);
    t.solve = kiv::Timer::seconds(t2, t3);
    return t;
}

// By hand with the Solver's promise: one refinement step, kept only when it lowers ‖r‖∞.
__attribute__((noinline)) double lowLevelBestStep(Bench& w) {
    const std::uint64_t t0 = kiv::Timer::ticks();
    w.analyzer.setBlocks(w.data, w.problem.values.data(), w.problem.valuePointers.data());
    if (w.multifrontal)
        w.tamber.factorMF(w.data);
    else
        w.tamber.factorSerial(w.data);
    const unsigned long N = w.b.size();
    double* x = w.xp.data();
    double* r = w.r.data();
    double* d = w.d.data();
    double* x1 = w.x1.data();
    const double* bp = w.bp.data();
    w.analyzer.permuteVector(w.b.data(), w.bp.data());
    std::memcpy(x, bp, N * sizeof(double));
    TamberSolve::solve(w.data, x);
    w.data.matrix.multiply(x, r);
    double norm0 = 0.0;
    for (unsigned long k = 0; k < N; ++k) {
        r[k] = bp[k] - r[k];  // r = b − A·x
        norm0 = std::max(norm0, std::fabs(r[k]));
    }
    std::memcpy(d, r, N * sizeof(double));
    TamberSolve::solve(w.data, d);  // δ = A⁻¹·r
    for (unsigned long k = 0; k < N; ++k) x1[k] = x[k] + d[k];
    w.data.matrix.multiply(x1, r);
    double norm1 = 0.0;
    for (unsigned long k = 0; k < N; ++k) norm1 = std::max(norm1, std::fabs(bp[k] - r[k]));
    w.analyzer.unpermuteVector(norm1 < norm0 ? x1 : x, w.xBest.data());
    return kiv::Timer::seconds(t0, kiv::Timer::ticks());
}

// ---- --step: setValues + factor() against factor(values) ----

struct StepBench {
    scenes::BlockProblem problem;
    demo::SceneSystem<double> system;
    Solver<double> twoCall, oneCall;
};

struct StepTimes {
    double setValues = 0, total = 0;
};

__attribute__((noinline)) StepTimes twoCallStep(StepBench& w) {
    StepTimes t;
    const std::uint64_t t0 = kiv::Timer::ticks();
    const Status vs = w.system.setValues(w.twoCall, w.problem);
    const std::uint64_t t1 = kiv::Timer::ticks();
    const Status fs = w.twoCall.factor();
    const std::uint64_t t2 = kiv::Timer::ticks();
    if (!vs || !fs) {
        std::fprintf(stderr, "SolverBench: %s\n", (!vs ? vs : fs).message.c_str());
        std::exit(1);
    }
    t.setValues = kiv::Timer::seconds(t0, t1);
    t.total = kiv::Timer::seconds(t0, t2);
    return t;
}

__attribute__((noinline)) double oneCallStep(StepBench& w) {
    const std::uint64_t t0 = kiv::Timer::ticks();
    const Status fs = w.oneCall.factor(w.system.bodies(), w.system.jacobians(),
                                       w.system.couplingBlocks() > 0 ? w.system.couplings() : nullptr);
    const std::uint64_t t1 = kiv::Timer::ticks();
    if (!fs) {
        std::fprintf(stderr, "SolverBench: %s\n", fs.message.c_str());
        std::exit(1);
    }
    return kiv::Timer::seconds(t0, t1);
}

const char* sceneName(scenes::SceneKind kind);
std::string milliseconds(double s);

int runStep(scenes::SceneKind kind, unsigned long blocks, unsigned int reps, const std::string& only) {
    std::unique_ptr<StepBench> w(new StepBench);
    std::unique_ptr<scenes::Scene> scene = scenes::makeScene(kind, scenes::sizeForBlockCount(kind, blocks));
    scene->setTime(0.5);
    scene->build(w->problem);
    w->system.describe(w->problem);
    if (w->system.general()) {
        std::fprintf(stderr, "SolverBench: %s is not a body/constraint system\n", sceneName(kind));
        return 1;
    }
    SolverOptions options;
    options.threads = 1;
    for (Solver<double>* s : {&w->twoCall, &w->oneCall}) {
        Status st = s->setOptions(options);
        if (st) st = w->system.analyze(*s, w->problem);
        if (!st) {
            std::fprintf(stderr, "SolverBench: %s: %s\n", sceneName(kind), st.message.c_str());
            return 1;
        }
    }
    w->system.gather(w->problem);
    const bool two = only != "onecall", one = only != "twocall";
    if (two) twoCallStep(*w);  // first-call sizing
    if (one) oneCallStep(*w);
    std::vector<double> twoTotal, twoValues, oneTotal, ratios;
    for (unsigned int rep = 0; rep < reps; ++rep) {
        StepTimes t;
        double o = 0;
        if (rep % 2 == 0) {
            if (two) t = twoCallStep(*w);
            if (one) o = oneCallStep(*w);
        } else {
            if (one) o = oneCallStep(*w);
            if (two) t = twoCallStep(*w);
        }
        twoTotal.push_back(t.total);
        twoValues.push_back(t.setValues);
        oneTotal.push_back(o);
        if (o > 0) ratios.push_back(t.total / o);
    }
    const unsigned long N = w->problem.scalarSize();
    bool same = true;
    if (two && one) {
        std::vector<double> b(N), x(N), y(N);
        for (unsigned long k = 0; k < N; ++k) b[k] = std::sin(0.37 * static_cast<double>(k) + 1.0);
        same = w->twoCall.solve(b.data(), x.data()) && w->oneCall.solve(b.data(), y.data()) &&
               std::memcmp(x.data(), y.data(), N * sizeof(double)) == 0;
    }
    const SolverReport& report = w->oneCall.report();
    std::printf("%-9s %7u %8lu %8lu  %-9s %9s %9s %9s | %7.3f %7.3f  %s\n", sceneName(kind),
                w->problem.numBlocks, N, report.factorBlocks, report.path.c_str(),
                milliseconds(median(twoTotal)).c_str(), milliseconds(median(twoValues)).c_str(),
                milliseconds(median(oneTotal)).c_str(),
                median(oneTotal) > 0 ? median(twoTotal) / median(oneTotal) : 0.0, median(ratios),
                same ? "yes" : "NO");
    std::fflush(stdout);
    return same ? 0 : 1;
}

const char* sceneName(scenes::SceneKind kind) {
    switch (kind) {
        case scenes::SceneKind::chain:
            return "chain";
        case scenes::SceneKind::ragdolls:
            return "ragdolls";
        case scenes::SceneKind::cloth:
            return "cloth";
        case scenes::SceneKind::boxWall:
            return "boxes";
    }
    return "";
}

std::string milliseconds(double s) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", 1e3 * s);
    return text;
}

int runScene(scenes::SceneKind kind, unsigned long blocks, unsigned int reps, const std::string& only) {
    std::unique_ptr<Bench> w(new Bench);
    std::unique_ptr<scenes::Scene> scene = scenes::makeScene(kind, scenes::sizeForBlockCount(kind, blocks));
    scene->setTime(0.5);
    scene->build(w->problem);
    const unsigned long N = w->problem.scalarSize();

    w->system.describe(w->problem);
    Status st = w->system.analyze(w->solver, w->problem);
    if (!st) {
        std::fprintf(stderr, "SolverBench: %s: %s\n", sceneName(kind), st.message.c_str());
        return 1;
    }
    w->system.gather(w->problem);

    Analysis::Options options;
    options.mergeBlocks = true;
    const Analysis::Problem p = w->problem.pattern();
    const Analysis::Report r = w->analyzer.analyze(p, options, w->data);
    if (!r.ok) {
        std::fprintf(stderr, "SolverBench: %s: %s\n", sceneName(kind), r.message.c_str());
        return 1;
    }
    w->tamber.estimateWork(w->data, nullptr);

    w->b.resize(N);
    for (unsigned long k = 0; k < N; ++k) w->b[k] = std::sin(0.37 * static_cast<double>(k) + 1.0);
    w->xSolver.assign(N, 0.0);
    w->xLow.assign(N, 0.0);
    w->xBest.assign(N, 0.0);
    w->r.assign(N, 0.0);
    w->d.assign(N, 0.0);
    w->x1.assign(N, 0.0);
    w->bp.assign(N, 0.0);
    w->xp.assign(N, 0.0);

    // Warm-up (first-call sizing of both ways); the low level follows the Solver's choice of path.
    if (only == "" || only == "solver") {
        solverStep(*w);
    } else {
        w->system.setValues(w->solver, w->problem);  // only to learn the path the Solver chooses
        w->solver.factor();
    }
    const SolverReport& report = w->solver.report();
    w->multifrontal = report.path == "multifrontal";
    w->data.useMultifrontal = w->multifrontal ? 1 : 0;
    w->data.numThreads = w->multifrontal ? report.threads : 1;
    if (only == "" || only == "lowlevel") lowLevelStep(*w);
    if (only == "" || only == "best") lowLevelBestStep(*w);

    std::vector<double> sTotal, sAssemble, sFactor, sSolve, lTotal, lAssemble, lFactor, lSolve, best, ratios;
    for (unsigned int rep = 0; rep < reps; ++rep) {
        Parts s, l;
        double bestSeconds = 0.0;
        if (only == "solver") {
            s = solverStep(*w);
        } else if (only == "lowlevel") {
            l = lowLevelStep(*w);
        } else if (only == "best") {
            bestSeconds = lowLevelBestStep(*w);
        } else if (rep % 3 == 0) {
            s = solverStep(*w);
            l = lowLevelStep(*w);
            bestSeconds = lowLevelBestStep(*w);
        } else if (rep % 3 == 1) {
            l = lowLevelStep(*w);
            bestSeconds = lowLevelBestStep(*w);
            s = solverStep(*w);
        } else {
            bestSeconds = lowLevelBestStep(*w);
            s = solverStep(*w);
            l = lowLevelStep(*w);
        }
        best.push_back(bestSeconds);
        sTotal.push_back(s.total());
        sAssemble.push_back(s.assemble);
        sFactor.push_back(s.factor);
        sSolve.push_back(s.solve);
        lTotal.push_back(l.total());
        lAssemble.push_back(l.assemble);
        lFactor.push_back(l.factor);
        lSolve.push_back(l.solve);
        if (l.total() > 0) ratios.push_back(s.total() / l.total());
    }

    double difference = 0.0, norm = 0.0;
    for (unsigned long k = 0; k < N; ++k) {
        difference = std::max(difference, std::fabs(w->xSolver[k] - w->xLow[k]));
        norm = std::max(norm, std::fabs(w->xLow[k]));
    }
    const double ratio = median(lTotal) > 0 ? median(sTotal) / median(lTotal) : 0.0;
    const double ratioBest = median(best) > 0 ? median(sTotal) / median(best) : 0.0;
    std::printf("%-9s %7u %8lu  %-13s %9s %9s %9s %9s | %9s %9s %9s %9s | %9s | %7.3f %7.3f %7.3f  %.1e\n",
                sceneName(kind), w->problem.numBlocks, N,
                (report.path + "/" + std::to_string(report.threads)).c_str(),
                milliseconds(median(sTotal)).c_str(), milliseconds(median(sAssemble)).c_str(),
                milliseconds(median(sFactor)).c_str(), milliseconds(median(sSolve)).c_str(),
                milliseconds(median(lTotal)).c_str(), milliseconds(median(lAssemble)).c_str(),
                milliseconds(median(lFactor)).c_str(), milliseconds(median(lSolve)).c_str(),
                milliseconds(median(best)).c_str(), ratio, ratioBest, median(ratios),
                only.empty() ? (norm > 0 ? difference / norm : difference) : 0.0);
    std::fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long blocks = 10000;
    unsigned int reps = 41;
    std::string only, sceneArg;
    bool step = false, blocksGiven = false;
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        const char* value = a + 1 < argc ? argv[a + 1] : nullptr;
        if (arg == "--blocks" && value) {
            blocks = std::strtoul(value, nullptr, 10), blocksGiven = true, ++a;
        } else if (arg == "--reps" && value) {
            reps = static_cast<unsigned int>(std::strtoul(value, nullptr, 10)), ++a;
        } else if (arg == "--only" && value) {
            only = value, ++a;
        } else if (arg == "--scene" && value) {
            sceneArg = value, ++a;
        } else if (arg == "--step") {
            step = true;
        } else {
            std::fprintf(stderr,
                         "usage: SolverBench [--blocks N] [--reps R] [--scene chain|ragdolls|cloth|boxes] "
                         "[--only solver|lowlevel|best|twocall|onecall] [--step]\n");
            return 2;
        }
    }
    const bool stepOnly = only == "twocall" || only == "onecall";
    if (blocks == 0 || reps == 0 || (step ? !(only.empty() || stepOnly) : stepOnly) ||
        (!step && only != "" && only != "solver" && only != "lowlevel" && only != "best")) {
        std::fprintf(stderr,
                     "SolverBench: bad --blocks, --reps or --only (twocall and onecall with --step)\n");
        return 2;
    }
    kiv::Timer::clockSpeed();
    const scenes::SceneKind kinds[] = {scenes::SceneKind::chain, scenes::SceneKind::ragdolls,
                                       scenes::SceneKind::cloth, scenes::SceneKind::boxWall};
    if (step) {
        std::printf(
            "SolverBench --step: setValues + factor() against factor(values), one thread, %u interleaved "
            "repetitions, medians in ms\n",
            reps);
        std::printf("load average before: %s\n", loadAverage().c_str());
        std::printf("%-9s %7s %8s %8s  %-9s %9s %9s %9s | %7s %7s  %s\n", "scene", "blocks", "N", "L blocks",
                    "path", "two calls", "setValues", "one call", "ratio", "med.r", "same bits");
        int status = 0;
        for (scenes::SceneKind kind : kinds) {
            if (sceneArg.empty() && kind != scenes::SceneKind::chain && kind != scenes::SceneKind::ragdolls)
                continue;
            if (!sceneArg.empty() && sceneArg != sceneName(kind)) continue;
            for (unsigned long n : {10000ul, 50000ul}) {
                if (blocksGiven && n != 10000ul) continue;
                status |= runStep(kind, blocksGiven ? blocks : n, reps, only);
            }
        }
        std::printf("load average after:  %s\n", loadAverage().c_str());
        std::printf(
            "ratio: median of setValues + factor() / median of factor(values); med.r: median of the "
            "per-repetition ratios\n");
        return status;
    }
    std::printf(
        "SolverBench: one time step through the Solver, by hand and best by hand, %u interleaved "
        "repetitions, "
        "medians in ms\n",
        reps);
    std::printf("load average before: %s\n", loadAverage().c_str());
    std::printf("%-9s %7s %8s  %-13s %9s %9s %9s %9s | %9s %9s %9s %9s | %9s | %7s %7s %7s  %s\n", "scene",
                "blocks", "N", "path/threads", "Solver", "assemble", "factor", "solve", "by hand", "assemble",
                "factor", "solve", "best", "ratio", "r.best", "med.r", "‖Δx‖/‖x‖");
    int status = 0;
    for (scenes::SceneKind kind : kinds) {
        if (!sceneArg.empty() && sceneArg != sceneName(kind)) continue;
        status |= runScene(kind, blocks, reps, only);
    }
    std::printf("load average after:  %s\n", loadAverage().c_str());
    std::printf(
        "ratio: median Solver step / median step by hand; r.best: / median step of the best by hand; med.r: "
        "median of the per-repetition ratios Solver / by hand\n");
    return status;
}
