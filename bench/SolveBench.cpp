// Double solves on the scene systems (chain, ragdolls, cloth, box wall; analysed with block merging, as
// tamber-bench does): the passes over the factor's tiles (forwardSolve, diagSolve, backwardTSolve) against
// the planned solve (TamberSolve::solve over data.solvePlan), the planned solve of 4 right-hand sides per
// vector, the cost of making the plan, and the forward, diagonal and backward passes apart. Everything is
// interleaved in one loop with a factorization, so that the load of a shared machine falls on all of them
// alike; medians are printed. The solves exclude the permutations of b and x that tamber-bench's solve
// column includes; they are timed apart (Analyzer::permuteVector and unpermuteVector).
//
// Usage: SolveBench [blocks per scene, default 10000] [tile | planned | both | refine, default both]
//        [repetitions] [scene name: only that scene]
// `refine` runs tamber-bench's paired round instead (setBlocks and factorSerial, a solve with the
// permutations of b and x, one refinement step, a second solve) and prints the median of the per-round
// ratios refinement step / second solve, the goal's figure, and beside it A·x alone in the refinement's place
// (every other round).
// With `tile` or `planned` only that solve runs, for instruction counts, e.g.
//   valgrind --tool=callgrind --toggle-collect='*TamberSolve::solve*' ./SolveBench 10000 planned 20 chain
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using kivTamber::scenes::SceneKind;

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

double medianMs(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2] * 1e3;
}

// tamber-bench's paired refinement figure for each scene (see the usage above).
int pairedRefinement(unsigned long target, int runs, const std::string& only) {
    std::printf("| scene | blocks | refinement step / solve | A·x / solve |\n|---|---|---|---|\n");
    for (SceneKind kind : {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall}) {
        scenes::BlockProblem problem;
        auto scene = scenes::makeScene(kind, scenes::sizeForBlockCount(kind, target));
        scene->step(0.01);
        if (!only.empty() && only != scene->name()) continue;
        scene->build(problem);
        Analysis::Options options;
        options.mergeBlocks = true;
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        data.writeScaledFactor = 0;  // as tamber-bench and the Solver: the double solves read only L and D
        Tamber tamber;
        if (!analyzer.analyze(problem.pattern(), options, data).ok) return 1;
        tamber.estimateWork(data, nullptr);
        const unsigned int n = static_cast<unsigned int>(data.matrix.numBlockCols);
        const unsigned int N = data.matrix.blockSizes[n];
        std::vector<double> b(N), pb(N), px(N), x(N), y(N), ratios, products;
        for (unsigned int k = 0; k < N; ++k) b[k] = std::sin(0.37 * k + 1.0);
        analyzer.permuteVector(b.data(), pb.data());
        for (int r = 0; r < runs; ++r) {
            analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
            tamber.factorSerial(data);
            analyzer.permuteVector(b.data(), px.data());
            TamberSolve::solve(data, px.data());
            analyzer.unpermuteVector(px.data(), x.data());
            // Odd rounds time the product A·x alone in the refinement's place.
            const Clock::time_point t0 = Clock::now();
            if (r % 2 == 0) {
                tamber.iterativeRefinement(data, pb.data(), px.data(), 1);
                analyzer.unpermuteVector(px.data(), x.data());
            } else {
                data.matrix.multiply(px.data(), y.data());
            }
            const Clock::time_point t1 = Clock::now();
            analyzer.permuteVector(b.data(), px.data());
            TamberSolve::solve(data, px.data());
            analyzer.unpermuteVector(px.data(), x.data());
            (r % 2 == 0 ? ratios : products).push_back(seconds(t0, t1) / seconds(t1, Clock::now()));
        }
        std::printf("| %s | %u | %.3f | %.3f |\n", scene->name(), n, medianMs(ratios) / 1e3,
                    medianMs(products) / 1e3);
        std::fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned long target = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10000;
    const std::string mode = argc > 2 ? argv[2] : "both";
    const int runs = argc > 3 ? std::atoi(argv[3]) : (target > 20000 ? 41 : 301);
    const std::string only = argc > 4 ? argv[4] : "";
    if (mode != "both" && mode != "tile" && mode != "planned" && mode != "refine") {
        std::fprintf(stderr,
                     "usage: SolveBench [blocks] [tile | planned | both | refine] [repetitions] [scene]\n");
        return 2;
    }
    if (mode == "refine") return pairedRefinement(target, runs, only);
    std::printf(
        "| scene | blocks | N | tiles | tile solve ms | planned solve ms | tile / planned | "
        "planned, per vector of 4, ms | making the plan ms | factor ms | forward ms | diagonal ms | "
        "backward ms | permutations of b and x ms | A·x ms | refinement step ms |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (SceneKind kind : {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall}) {
        scenes::BlockProblem problem;
        auto scene = scenes::makeScene(kind, scenes::sizeForBlockCount(kind, target));
        scene->step(0.01);
        if (!only.empty() && only != scene->name()) continue;
        scene->build(problem);
        const Analysis::Problem p = problem.pattern();
        Analysis::Options options;
        options.mergeBlocks = true;
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        Tamber tamber;
        if (!analyzer.analyze(p, options, data).ok) {
            std::fprintf(stderr, "%s: analysis failed\n", scene->name());
            return 1;
        }
        tamber.estimateWork(data, nullptr);
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
        tamber.factorSerial(data);
        const unsigned int n = static_cast<unsigned int>(data.factor.numBlockCols);
        const unsigned int N = data.factor.blockSizes[n];
        const unsigned long tiles = data.factor.numBlocks;

        std::vector<double> b(N), x1(N), x2(N), xs(4 * N);
        for (unsigned int k = 0; k < N; ++k) b[k] = std::sin(0.37 * k + 1.0);
        std::vector<double> tile, planned, many, make, factor, forward, diagonal, backward, permutations,
            product, refinement;
        bool same = true;
        for (int r = 0; r < runs; ++r) {
            if (mode != "planned") {
                x1 = b;
                const Clock::time_point t0 = Clock::now();
                TamberSolve::forwardSolve(data.factor, x1.data());
                TamberSolve::diagSolve(data.diagonal, x1.data());
                TamberSolve::backwardTSolve(data.factor, x1.data());
                tile.push_back(seconds(t0, Clock::now()));
            }
            if (mode != "tile") {
                x2 = b;
                const Clock::time_point t0 = Clock::now();
                TamberSolve::solve(data, x2.data());
                planned.push_back(seconds(t0, Clock::now()));
            }
            if (mode != "both") continue;
            same = same && std::memcmp(x1.data(), x2.data(), N * sizeof(double)) == 0;
            for (unsigned int v = 0; v < 4; ++v) std::copy(b.begin(), b.end(), xs.begin() + v * N);
            Clock::time_point t0 = Clock::now();
            TamberSolve::solveMany(data, xs.data(), 4, N);
            many.push_back(seconds(t0, Clock::now()) / 4);
            t0 = Clock::now();
            data.solvePlan.make(data.factor);
            make.push_back(seconds(t0, Clock::now()));
            x1 = b;
            t0 = Clock::now();
            TamberSolve::forwardSolve(data.factor, x1.data());
            Clock::time_point t1 = Clock::now();
            TamberSolve::diagSolve(data.diagonal, x1.data());
            Clock::time_point t2 = Clock::now();
            TamberSolve::backwardTSolve(data.factor, x1.data());
            Clock::time_point t3 = Clock::now();
            forward.push_back(seconds(t0, t1));
            diagonal.push_back(seconds(t1, t2));
            backward.push_back(seconds(t2, t3));
            t0 = Clock::now();
            data.matrix.multiply(b.data(), x1.data());
            product.push_back(seconds(t0, Clock::now()));
            x2 = b;
            t0 = Clock::now();
            tamber.iterativeRefinement(data, b.data(), x2.data(), 1);
            refinement.push_back(seconds(t0, Clock::now()));
            t0 = Clock::now();
            analyzer.permuteVector(b.data(), x1.data());
            analyzer.unpermuteVector(x1.data(), x2.data());
            permutations.push_back(seconds(t0, Clock::now()));
            t0 = Clock::now();
            tamber.factorSerial(data);
            factor.push_back(seconds(t0, Clock::now()));
        }
        const double t = medianMs(tile), q = medianMs(planned);
        std::printf(
            "| %s | %u | %u | %lu | %.4f | %.4f | %.2f | %.4f | %.4f | %.4f | %.4f | %.4f | %.4f | %.4f | "
            "%.4f | "
            "%.4f |%s\n",
            scene->name(), n, N, tiles, t, q, q > 0.0 ? t / q : 0.0, medianMs(many), medianMs(make),
            medianMs(factor), medianMs(forward), medianMs(diagonal), medianMs(backward),
            medianMs(permutations), medianMs(product), medianMs(refinement), same ? "" : " DIFFERENT BITS");
    }
    return 0;
}
