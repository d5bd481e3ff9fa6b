// The analysis (ordering, symbolic factorization, matrix layout) on the physics scenes: chain, ragdolls,
// cloth and box wall at about 1,000, 10,000 and 50,000 blocks, and on 3-D box piles (pattern only). For each
// system and ordering: the median time of each phase over `runs` repetitions, the size of the factor
// (nnz(L), scalar entries with the unit diagonal) and its cost in flops (Analysis::FactorCost), and the
// flops relative to symamd + zero-leaf swap + repair.
//
// Orderings:
//   standard     peel, csymamd with bodies first, nested dissection when predicted > 5e7 flops
//   symamd+rep   symamd, Reordering::zeroLeafSwap, then the repair of the rule (moved = constraints moved)
//   symamd+swap  the same without the repair, straight through the Reordering functions (its order usually
//                breaks the rule, so the analysis would refuse it: cost from Analysis::predictCost only)
//   natural      the user's numbering: bodies, then constraints
// The standard row also times the assembly of all values (setBlocks) and a permuteVector/unpermuteVector.
//
// Usage: AnalysisBench [runs (default 5)] [largest block count (default 50000)]
//        AnalysisBench --one SCENE BLOCKS RUNS   one scene's default analysis and estimateWork (profiling)
//        AnalysisBench --fingerprint             hashes of orders, groups and patterns (a change of results)
//        AnalysisBench --fit                     the factorization-time model's least-squares fit
#include <kiv/Timer.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Reordering.h"
#include "Tamber.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using namespace kivTamber::scenes;

namespace {

double seconds(std::uint64_t start) {
    return kiv::Timer::seconds(start, kiv::Timer::ticks());
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

// A 3-D pile of nx × ny × nz boxes (6×6 blocks) with 3-row contacts: each bottom box on the ground, each box
// on the one below, and each box against its +x and +y neighbours. Pattern only (values zero).
void buildBoxPile(unsigned int nx, unsigned int ny, unsigned int nz, BlockProblem& p) {
    const unsigned int boxes = nx * ny * nz;
    auto id = [=](unsigned int x, unsigned int y, unsigned int z) { return (z * ny + y) * nx + x; };
    std::vector<std::pair<unsigned int, unsigned int>> contacts;  // (a, b), b = noBlock for the ground
    for (unsigned int z = 0; z < nz; ++z) {
        for (unsigned int y = 0; y < ny; ++y) {
            for (unsigned int x = 0; x < nx; ++x) {
                const unsigned int a = id(x, y, z);
                contacts.emplace_back(a, z == 0 ? noBlock : id(x, y, z - 1));
                if (x + 1 < nx) contacts.emplace_back(a, id(x + 1, y, z));
                if (y + 1 < ny) contacts.emplace_back(a, id(x, y + 1, z));
            }
        }
    }
    const unsigned int n = boxes + static_cast<unsigned int>(contacts.size());
    p.reset(n, boxes);
    for (unsigned int b = 0; b < n; ++b) p.blockSizes[b] = b < boxes ? 6 : 3;
    for (unsigned int b = 0; b < boxes; ++b) p.addEntry(b, b);
    for (unsigned int c = 0; c < contacts.size(); ++c) {
        unsigned int a = contacts[c].first, b = contacts[c].second;
        if (b != noBlock && b < a) std::swap(a, b);
        p.addEntry(a, boxes + c);
        if (b != noBlock) p.addEntry(b, boxes + c);
        p.addEntry(boxes + c, boxes + c);
    }
    p.finish();
}

struct Timing {
    std::vector<double> check, order, symbolic, layout, assembly;
};

void printRow(const char* scene, const BlockProblem& p, const char* method, const Timing& t,
              const Analysis::FactorCost& cost, double reference, const std::string& note) {
    auto ms = [](const std::vector<double>& v) {
        char cell[16];
        if (v.empty()) {
            std::snprintf(cell, sizeof cell, "%8s", "-");
        } else {
            std::snprintf(cell, sizeof cell, "%8.2f", 1e3 * median(v));
        }
        return std::string(cell);
    };
    std::printf("%-10s %7u %8u  %-12s %s %s %s %s %s  %11lu %11.4g %7.3f  %s\n", scene, p.numBlocks,
                p.scalarSize(), method, ms(t.check).c_str(), ms(t.order).c_str(), ms(t.symbolic).c_str(),
                ms(t.layout).c_str(), ms(t.assembly).c_str(), cost.scalarEntries, cost.flops,
                reference > 0 ? cost.flops / reference : 0.0, note.c_str());
    std::fflush(stdout);
}

void runSystem(const char* scene, const BlockProblem& p, int runs) {
    Analysis::Problem problem{p.numBlocks, p.firstConstraint, p.colPointers.data(), p.rowIndices.data(),
                              p.blockSizes.data()};
    std::string message;
    if (!Analysis::checkProblem(problem, &message)) {
        std::printf("%-10s %7u  invalid problem: %s\n", scene, p.numBlocks, message.c_str());
        return;
    }

    // symamd + swap + repair first: it is the reference of the flop ratios.
    Analysis::Options repairOptions;
    repairOptions.ordering = Analysis::Ordering::symamdSwap;
    Analysis::Options standardOptions;
    Analysis::Options naturalOptions;
    naturalOptions.ordering = Analysis::Ordering::natural;

    struct Result {
        Timing timing;
        Analysis::Report report;
    };
    auto runAnalysis = [&](const Analysis::Options& options, bool assemble) {
        Result r;
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        std::vector<double> x(p.scalarSize()), y(p.scalarSize());
        for (int k = 0; k < runs; ++k) {
            r.report = analyzer.analyze(problem, options, data);
            if (!r.report.ok) return r;
            r.timing.check.push_back(r.report.checkSeconds);
            r.timing.order.push_back(r.report.orderSeconds);
            r.timing.symbolic.push_back(r.report.symbolicSeconds);
            r.timing.layout.push_back(r.report.layoutSeconds);
            if (assemble) {
                const std::uint64_t t = kiv::Timer::ticks();
                analyzer.setBlocks(data, p.values.data(), p.valuePointers.data());
                analyzer.permuteVector(x.data(), y.data());
                analyzer.unpermuteVector(y.data(), x.data());
                r.timing.assembly.push_back(seconds(t));
            }
        }
        return r;
    };

    const Result repaired = runAnalysis(repairOptions, false);
    const Result standard = runAnalysis(standardOptions, true);
    const Result natural = runAnalysis(naturalOptions, false);
    if (!repaired.report.ok || !standard.report.ok || !natural.report.ok) {
        std::printf("%-10s analysis failed: %s%s%s\n", scene, repaired.report.message.c_str(),
                    standard.report.message.c_str(), natural.report.message.c_str());
        return;
    }
    const double reference = repaired.report.cost.flops;

    char note[160];
    const Analysis::Report& sr = standard.report;
    if (sr.nestedDissectionFlops > 0) {
        std::snprintf(note, sizeof note, "peeled %lu, ND %s (md/nd = %.2f)", sr.peeledBlocks,
                      sr.usedNestedDissection ? "kept" : "tried",
                      sr.minimumDegreeFlops / sr.nestedDissectionFlops);
    } else {
        std::snprintf(note, sizeof note, "peeled %lu", sr.peeledBlocks);
    }
    printRow(scene, p, "standard", standard.timing, standard.report.cost, reference, note);
    std::snprintf(note, sizeof note, "moved %lu%s", repaired.report.movedConstraints,
                  repaired.report.swapFailed ? ", swap failed" : "");
    printRow(scene, p, "symamd+rep", repaired.timing, repaired.report.cost, reference, note);

    // The unrepaired path, straight through the orderings (its order may break the rule: cost only).
    {
        SkeletonMatrix S, T;
        EliminationTree tree;
        Permutation P;
        ScratchPad pad;
        S.resize(p.numBlocks, p.numEntries(), false);
        std::copy(p.colPointers.begin(), p.colPointers.end(), S.colPointers);
        std::copy(p.rowIndices.begin(), p.rowIndices.end(), S.rowIndices);
        Timing t;
        bool swapped = false;
        for (int k = 0; k < runs; ++k) {
            const std::uint64_t start = kiv::Timer::ticks();
            Reordering::computeSymamdPermutation(S, P, pad);
            swapped = Reordering::zeroLeafSwap(S, T, tree, p.firstConstraint, P, pad);
            t.order.push_back(seconds(start));
        }
        const Analysis::FactorCost cost = Analysis::predictCost(problem, P.forward);
        const bool legal = Analysis::checkOrder(problem, P.forward);
        std::snprintf(note, sizeof note, "%s%s", swapped ? "" : "swap failed, ",
                      legal ? "satisfies the rule" : "breaks the rule");
        printRow(scene, p, "symamd+swap", t, cost, reference, note);
    }
    printRow(scene, p, "natural", natural.timing, natural.report.cost, reference, "");
}

// --fit: the serial factorization time of many factors against their block columns, block operations and
// flops (Analysis::FactorCost), and the least-squares weights of the time model (relative errors).
struct FitPoint {
    double blocks, operations, flops, seconds;
};

void fitPoint(const char* scene, const BlockProblem& p, const char* label, const Analysis::Options& options,
              int runs, std::vector<FitPoint>& points) {
    const Analysis::Problem problem{p.numBlocks, p.firstConstraint, p.colPointers.data(), p.rowIndices.data(),
                                    p.blockSizes.data()};
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    const Analysis::Report r = analyzer.analyze(problem, options, data);
    if (!r.ok) return;
    tamber.estimateWork(data, nullptr);
    std::vector<double> times;
    for (int k = 0; k < runs; ++k) {
        analyzer.setBlocks(data, p.values.data(), p.valuePointers.data());
        const std::uint64_t t = kiv::Timer::ticks();
        tamber.factorSerial(data);
        times.push_back(seconds(t));
    }
    const FitPoint f{static_cast<double>(r.cost.blocks), r.cost.blockOperations, r.cost.flops, median(times)};
    points.push_back(f);
    std::printf("%-10s %7u %-14s %8.0f %11.4g %11.4g %9.3f ms  model %9.3f ms\n", scene, p.numBlocks, label,
                f.blocks, f.operations, f.flops, 1e3 * f.seconds, 1e3 * r.cost.modelFlops() * 0.17e-9);
    std::fflush(stdout);
}

void fitSystem(const char* scene, const BlockProblem& p, int runs, std::vector<FitPoint>& points) {
    for (int merge = 0; merge < 2; ++merge) {
        for (unsigned int maxSize : {16u, 48u}) {
            if (!merge && maxSize == 16) continue;
            Analysis::Options md;
            md.mergeBlocks = merge != 0;
            md.maxMergedSize = maxSize;
            md.nestedDissection = false;
            Analysis::Options nd = md;
            nd.nestedDissection = true;
            nd.nestedDissectionThreshold = 0.0;
            Analysis::Options swap = md;
            swap.ordering = Analysis::Ordering::symamdSwap;
            char label[32];
            std::snprintf(label, sizeof label, "md%s%u", merge ? " m" : " ", merge ? maxSize : 0);
            fitPoint(scene, p, label, md, runs, points);
            std::snprintf(label, sizeof label, "std%s%u", merge ? " m" : " ", merge ? maxSize : 0);
            fitPoint(scene, p, label, nd, runs, points);
            std::snprintf(label, sizeof label, "swap%s%u", merge ? " m" : " ", merge ? maxSize : 0);
            fitPoint(scene, p, label, swap, runs, points);
        }
    }
}

void fitModel(const std::vector<FitPoint>& points) {
    // Minimise Σ ((a·blocks + b·operations + c·flops) / seconds − 1)²: normal equations, 3 × 3.
    double M[3][4] = {};
    for (const FitPoint& f : points) {
        const double x[3] = {f.blocks / f.seconds, f.operations / f.seconds, f.flops / f.seconds};
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) M[i][j] += x[i] * x[j];
            M[i][3] += x[i];
        }
    }
    for (int i = 0; i < 3; ++i) {  // Gauss–Jordan without pivoting (the matrix is SPD)
        for (int j = 0; j < 3; ++j) {
            if (j == i) continue;
            const double f = M[j][i] / M[i][i];
            for (int k = 0; k < 4; ++k) M[j][k] -= f * M[i][k];
        }
    }
    const double a = M[0][3] / M[0][0], b = M[1][3] / M[1][1], c = M[2][3] / M[2][2];
    std::printf(
        "fit: %.3g ns per block column, %.3g ns per block operation, %.3g ns per flop; "
        "in flops: %.1f per block column, %.1f per block operation\n",
        1e9 * a, 1e9 * b, 1e9 * c, a / c, b / c);
    double worst = 0.0, sum = 0.0;
    for (const FitPoint& f : points) {
        const double e = std::abs((a * f.blocks + b * f.operations + c * f.flops) / f.seconds - 1.0);
        worst = std::max(worst, e);
        sum += e;
    }
    std::printf("relative error: mean %.3f, worst %.3f over %zu factors\n", sum / points.size(), worst,
                points.size());
}

}  // namespace

// --fingerprint: one line per scene and ordering with a hash of the order, the groups, the filled pattern and
// the reported costs, to show that a change of the code changes no result.
unsigned long mix(unsigned long h, unsigned long v) {
    return (h ^ v) * 1099511628211ul;
}

void fingerprint(const char* scene, const BlockProblem& p) {
    const Analysis::Problem problem{p.numBlocks, p.firstConstraint, p.colPointers.data(), p.rowIndices.data(),
                                    p.blockSizes.data()};
    const Analysis::Ordering orderings[] = {Analysis::Ordering::standard, Analysis::Ordering::symamdSwap,
                                            Analysis::Ordering::natural, Analysis::Ordering::centroid};
    for (const Analysis::Ordering ordering : orderings) {
        for (int merge = 0; merge < 2; ++merge) {
            Analysis::Options options;
            options.ordering = ordering;
            options.mergeBlocks = merge != 0;
            Analysis::Analyzer analyzer;
            TamberData<double> data;
            const Analysis::Report r = analyzer.analyze(problem, options, data);
            unsigned long h = 14695981039346656037ul;
            for (unsigned int k = 0; k < p.numBlocks && r.ok; ++k) h = mix(h, analyzer.order()[k]);
            for (unsigned int g = 0; g <= analyzer.numFactorBlocks() && r.ok; ++g)
                h = mix(h, analyzer.groupStarts()[g]);
            for (unsigned long e = 0; e < data.skeleton.numEntries(); ++e)
                h = mix(h, data.skeleton.rowIndices[e]);
            std::printf("%-10s %u %u %d %016lx %lu %lu %.17g %.17g %lu %d\n", scene, p.numBlocks,
                        static_cast<unsigned int>(ordering), merge, h, r.cost.scalarEntries, r.explicitZeros,
                        r.cost.flops, r.cost.blockOperations, r.mergedBlocks, r.usedNestedDissection ? 1 : 0);
        }
    }
}

int main(int argc, char** argv) {
    // --one SCENE BLOCKS RUNS: only the standard analysis (default options) of one scene, RUNS times, for
    // profilers and instruction counts.
    if (argc > 4 && std::string(argv[1]) == "--one") {
        const std::string name = argv[2];
        const SceneKind kind = name == "chain"      ? SceneKind::chain
                               : name == "ragdolls" ? SceneKind::ragdolls
                               : name == "cloth"    ? SceneKind::cloth
                                                    : SceneKind::boxWall;
        BlockProblem p;
        if (name == "cloth128") {
            Cloth cloth(128);
            cloth.build(p);
        } else {
            std::unique_ptr<Scene> scene =
                makeScene(kind, sizeForBlockCount(kind, std::strtoul(argv[3], nullptr, 10)));
            scene->build(p);
        }
        const Analysis::Problem problem{p.numBlocks, p.firstConstraint, p.colPointers.data(),
                                        p.rowIndices.data(), p.blockSizes.data()};
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        std::vector<double> t;
        Analysis::Report r;
        for (int k = 0; k < std::atoi(argv[4]); ++k) {
            r = analyzer.analyze(problem, Analysis::Options(), data);
            t.push_back(r.checkSeconds + r.orderSeconds + r.symbolicSeconds + r.layoutSeconds);
        }
        Tamber tamber;
        std::vector<double> e;
        for (int k = 0; k < std::atoi(argv[4]); ++k) {
            const std::uint64_t start = kiv::Timer::ticks();
            tamber.estimateWork(data, nullptr);
            e.push_back(seconds(start));
        }
        std::printf(
            "%s %u blocks: analysis %.3f ms (order %.3f, symbolic %.3f), estimateWork %.3f ms, %s, %lu "
            "groups, model %.4g\n",
            name.c_str(), p.numBlocks, 1e3 * median(t), 1e3 * r.orderSeconds, 1e3 * r.symbolicSeconds,
            1e3 * median(e), r.usedNestedDissection ? "nd" : "md", r.mergedBlocks, r.cost.modelFlops());
        return 0;
    }
    if (argc > 1 && std::string(argv[1]) == "--fingerprint") {
        BlockProblem problem;
        const SceneKind kinds[] = {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth,
                                   SceneKind::boxWall};
        const char* names[] = {"chain", "ragdolls", "cloth", "boxwall"};
        for (int k = 0; k < 4; ++k) {
            for (unsigned long blocks : {1000ul, 10000ul}) {
                std::unique_ptr<Scene> scene = makeScene(kinds[k], sizeForBlockCount(kinds[k], blocks));
                scene->build(problem);
                fingerprint(names[k], problem);
            }
        }
        buildBoxPile(16, 16, 4, problem);
        fingerprint("pile16x4", problem);
        return 0;
    }
    if (argc > 1 && std::string(argv[1]) == "--fit") {
        std::vector<FitPoint> points;
        BlockProblem problem;
        const struct {
            SceneKind kind;
            const char* name;
        } kinds[] = {{SceneKind::chain, "chain"},
                     {SceneKind::ragdolls, "ragdolls"},
                     {SceneKind::cloth, "cloth"},
                     {SceneKind::boxWall, "boxwall"}};
        for (const auto& k : kinds) {
            for (unsigned long blocks : {10000ul, 50000ul}) {
                std::unique_ptr<Scene> scene = makeScene(k.kind, sizeForBlockCount(k.kind, blocks));
                scene->build(problem);
                fitSystem(k.name, problem, 3, points);
            }
        }
        for (unsigned int side : {32u, 72u, 128u}) {
            Cloth cloth(side);
            cloth.build(problem);
            fitSystem(side == 32 ? "cloth32" : side == 72 ? "cloth72" : "cloth128", problem, 3, points);
        }
        fitModel(points);
        return 0;
    }
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const unsigned long largest = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 50000;

    std::printf(
        "Analysis of saddle-point block systems; times in ms (median of %d runs), nnz(L) in scalars "
        "with the diagonal, flops of L·D·Lᵀ, ratio = flops / flops(symamd+rep)\n",
        runs);
    std::printf("%-10s %7s %8s  %-12s %8s %8s %8s %8s %8s  %11s %11s %7s  %s\n", "scene", "blocks", "N",
                "ordering", "check", "order", "symbolic", "layout", "assembly", "nnz(L)", "flops", "ratio",
                "notes");

    const struct {
        SceneKind kind;
        const char* name;
    } kinds[] = {{SceneKind::chain, "chain"},
                 {SceneKind::ragdolls, "ragdolls"},
                 {SceneKind::cloth, "cloth"},
                 {SceneKind::boxWall, "boxwall"}};
    BlockProblem problem;
    for (const auto& k : kinds) {
        for (unsigned long blocks : {1000ul, 10000ul, 50000ul}) {
            if (blocks > largest) continue;
            std::unique_ptr<Scene> scene = makeScene(k.kind, sizeForBlockCount(k.kind, blocks));
            scene->build(problem);
            runSystem(k.name, problem, runs);
        }
    }
    // Reference systems of known shape: cloth 32×32 and 128×128 particles, 3-D box piles.
    for (unsigned int side : {32u, 128u}) {
        if ((2ul * side - 1) * (2ul * side - 1) > 2 * largest) continue;
        Cloth cloth(side);
        cloth.build(problem);
        runSystem(side == 32 ? "cloth32" : "cloth128", problem, runs);
    }
    buildBoxPile(16, 16, 4, problem);
    runSystem("pile16x4", problem, runs);
    if (largest >= 30000) {
        buildBoxPile(25, 25, 12, problem);
        runSystem("pile25x12", problem, runs);
    }
    return 0;
}
