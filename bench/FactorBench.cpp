// Serial factorization and solve times on the scene systems (chain, ragdolls, cloth) at about 1,000,
// 10,000 and 50,000 blocks, in the natural safe order (bodies in user order, each constraint right after
// its last body; no fill reduction).
//
// Usage: FactorBench [runs (default 7)] [largest block count (default 50000)] [scene name ...]
// Prints one table row per system; times are medians over `runs` repetitions, in milliseconds.
//    or: FactorBench --steps [runs (default 51)] [block count (default 10000)] [scene name ...]
// for factorSerial alone in tamber-bench's order (our analysis with block merging), with and without L·D and
// by the row loop without the factorization plan, interleaved; FACTORBENCH_SHAPES=1 also lists the row shapes
// and the distances i − j of the entries.
//    or: FactorBench --assembly [runs (default 51)] [block count (default 10000)] [scene name ...]
// for setBlocks + factorSerial against setBlocksAndFactor in the same order, interleaved, with a check that
// both give the same L; FACTORBENCH_SOLVE=1 also times the solve and the refinement step that follow each
// (an effect of either form on the caches the solve finds shows there), and FACTORBENCH_POLLUTE=1 writes
// 64 MB before each step, as the other work of a time step would.
#include <kiv/Timer.h>

#include <algorithm>
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

// Floating-point operations of the left-looking block factorization on the filled pattern S (rows of L,
// ascending, diagonal last) with block sizes s:
//   Σ_i [ Σ_{j<i in row i} ( Σ_{k<j in rows i and j} 2·s_i·s_j·s_k + s_i·s_j² )
//         + Σ_{k<i in row i} 2·s_i²·s_k + s_i³/3 ].
// Also returns the 64-bit count of block operations (off-diagonal entries plus common columns).
double factorFlops(const SkeletonMatrix& S, const unsigned int* s, unsigned long& blockOps) {
    double flops = 0;
    blockOps = 0;
    for (unsigned long i = 0; i < S.n; ++i) {
        const unsigned int begin = S.colPointers[i], end = S.colPointers[i + 1] - 1;  // off-diagonal part
        const double si = s[i];
        for (unsigned int q = begin; q < end; ++q) {
            const unsigned int j = S.rowIndices[q];
            const double sj = s[j];
            unsigned int a = begin, b = S.colPointers[j];
            const unsigned int bEnd = S.colPointers[j + 1] - 1;
            double common = 0;  // Σ s_k over the common columns k < j
            while (a < q && b < bEnd) {
                if (S.rowIndices[a] < S.rowIndices[b]) {
                    ++a;
                } else if (S.rowIndices[a] > S.rowIndices[b]) {
                    ++b;
                } else {
                    common += s[S.rowIndices[a]];
                    ++blockOps;
                    ++a;
                    ++b;
                }
            }
            flops += 2.0 * si * sj * common + si * sj * sj;
            flops += 2.0 * si * si * sj;  // its update of the diagonal block
            ++blockOps;
        }
        flops += si * si * si / 3.0;
    }
    return flops;
}

struct Row {
    const char* scene;
    unsigned long blocks, N, nnzL, fill, blockOps;
    unsigned int work;
    double flops, factorD, factorF, solveD, solveF, residualD, residualF;
};

// ‖A‖∞ of the problem (the row sums of |A| do not depend on the numbering).
double normInf(const BlockProblem& p) {
    std::vector<double> rowSum(p.scalarSize(), 0.0);
    for (unsigned int j = 0; j < p.numBlocks; ++j)
        for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e) {
            const unsigned int i = p.rowIndices[e], si = p.blockSizes[i], sj = p.blockSizes[j];
            const double* a = p.entryValues(e);
            for (unsigned int r = 0; r < si; ++r)
                for (unsigned int c = 0; c < sj; ++c) {
                    rowSum[p.blockOffsets[i] + r] += std::fabs(a[r * sj + c]);
                    if (i != j) rowSum[p.blockOffsets[j] + c] += std::fabs(a[r * sj + c]);
                }
        }
    return rowSum.empty() ? 0.0 : *std::max_element(rowSum.begin(), rowSum.end());
}

// ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞), all in the factor's order.
template <typename T>
double scaledResidual(const TamberData<T>& data, double normA, const std::vector<double>& b,
                      const std::vector<T>& x) {
    const std::size_t N = b.size();
    std::vector<T> ax(N);
    data.matrix.multiply(x.data(), ax.data());
    double r = 0, nx = 0, nb = 0;
    for (std::size_t k = 0; k < N; ++k) {
        r = std::max(r, std::fabs(static_cast<double>(ax[k]) - b[k]));
        nx = std::max(nx, std::fabs(static_cast<double>(x[k])));
        nb = std::max(nb, std::fabs(b[k]));
    }
    return r / (normA * nx + nb);
}

template <typename T>
void timeSystem(TamberData<T>& data, int runs, double normA, const std::vector<double>& b, double& factor,
                double& solve, double& residual) {
    Tamber tamber;
    std::vector<double> times;
    for (int r = 0; r < runs; ++r) {
        data.isFactored = 0;
        const std::uint64_t start = kiv::Timer::ticks();
        tamber.factorSerial(data);
        times.push_back(seconds(start));
    }
    factor = median(times);
    if (std::getenv("FACTORBENCH_ALL")) {
        for (double t : times) std::fprintf(stderr, " %.3f", t * 1e3);
        std::fprintf(stderr, "\n");
    }
    times.clear();
    std::vector<T> x(b.size());
    for (int r = 0; r < runs; ++r) {
        std::copy(b.begin(), b.end(), x.begin());
        const std::uint64_t start = kiv::Timer::ticks();
        if constexpr (sizeof(T) == sizeof(double)) {
            TamberSolve::solve(data, x.data());
        } else {
            tamber.solve(data, x.data());
        }
        times.push_back(seconds(start));
    }
    solve = median(times);
    residual = scaledResidual(data, normA, b, x);
}

// The scenes of the --steps and --assembly modes.
struct Kind {
    SceneKind kind;
    const char* name;
};
constexpr Kind kStepKinds[] = {{SceneKind::chain, "chain"},
                               {SceneKind::ragdolls, "ragdolls"},
                               {SceneKind::cloth, "cloth"},
                               {SceneKind::boxWall, "boxwall"}};

// Whether the scene `name` was asked for (all when no name was given).
bool wanted(const char* name, int argc, char** argv, int firstScene) {
    bool any = argc <= firstScene;
    for (int a = firstScene; a < argc; ++a) any |= std::strcmp(argv[a], name) == 0;
    return any;
}

// The scene of `kind` at about `target` blocks, analysed as tamber-bench's "ours" rows (our order, block
// merging) and laid out; false when the analysis fails.
bool setUpScene(SceneKind kind, unsigned long target, BlockProblem& problem, Analysis::Analyzer& analyzer,
                TamberData<double>& data, Tamber& tamber) {
    auto scene = makeScene(kind, sizeForBlockCount(kind, target));
    scene->step(0.01);
    scene->build(problem);
    Analysis::Options options;
    options.mergeBlocks = true;
    if (!analyzer.analyze(problem.pattern(), options, data).ok) return false;
    tamber.estimateWork(data, nullptr);
    return true;
}

// The step of tamber-bench's "ours" rows: each scene analysed with block merging in our order, then
// factorSerial alone, repeated `runs` times; per scene the median in ms and ns per block row.
// FACTORBENCH_REPEAT=k repeats the factorization k times per run and FACTORBENCH_LEAN times only the form
// without L·D (for instruction counts under callgrind).
int runSteps(int runs, unsigned long target, int argc, char** argv, int firstScene) {
    const char* repeatText = std::getenv("FACTORBENCH_REPEAT");
    const int repeat = repeatText ? std::max(1, std::atoi(repeatText)) : 1;
    const bool leanOnly = std::getenv("FACTORBENCH_LEAN") != nullptr;  // only the lean form (callgrind)
    std::printf(
        "factorSerial in our merged order, median of %d runs; LD written / not written (planned), and not\n"
        "written by the row loop (factorPlan.use = 0) with its time over the planned one\n",
        runs);
    std::printf("%-9s %7s %8s %10s %10s %10s %10s %10s %7s\n", "scene", "blocks", "rows", "LD ms", "ns/row",
                "lean ms", "ns/row", "loop ns/r", "ratio");
    for (const Kind& kind : kStepKinds) {
        if (!wanted(kind.name, argc, argv, firstScene)) continue;
        BlockProblem problem;
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        Tamber tamber;
        if (!setUpScene(kind.kind, target, problem, analyzer, data, tamber)) return 1;
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
        if (std::getenv("FACTORBENCH_SHAPES")) {  // row shapes: s_i and the sizes of its columns
            std::map<std::string, int> shapes;
            const SkeletonMatrix& S = data.skeleton;
            for (unsigned long i = 0; i < S.n; ++i) {
                std::string key = std::to_string(data.matrix.blockSizes[i]) + ":";
                for (unsigned int e = S.colPointers[i]; e + 1 < S.colPointers[i + 1]; ++e)
                    key += " " + std::to_string(data.matrix.blockSizes[S.rowIndices[e]]);
                ++shapes[key];
            }
            for (const auto& kv : shapes) std::fprintf(stderr, "%6d  %s\n", kv.second, kv.first.c_str());
            std::map<long, int> gaps;  // i − j of the entries: 1 means row i needs row i − 1 finished
            for (unsigned long i = 0; i < S.n; ++i)
                for (unsigned int e = S.colPointers[i]; e + 1 < S.colPointers[i + 1]; ++e)
                    ++gaps[std::min(static_cast<long>(i) - static_cast<long>(S.rowIndices[e]), 10L)];
            for (const auto& kv : gaps)
                std::fprintf(stderr, "gap %ld%s: %d\n", kv.first, kv.first == 10 ? "+" : "", kv.second);
        }
        // Interleaved: with L·D written (writeScaledFactor = 1) and without it (0, the Solver's form), both
        // through the factorization plan; then the lean form by the row loop (factorPlan.use = 0).
        std::vector<double> times[3];
        for (int r = 0; r < runs; ++r) {
            for (int form = 0; form < 3; ++form) {
                if (leanOnly && form != 1) continue;
                data.writeScaledFactor = form == 0 ? 1 : 0;
                data.factorPlan.use = form == 2 ? 0 : 1;
                const std::uint64_t start = kiv::Timer::ticks();
                for (int k = 0; k < repeat; ++k) tamber.factorSerial(data);
                times[form].push_back(seconds(start) / repeat);
            }
        }
        data.factorPlan.use = 1;
        const double rows = static_cast<double>(data.skeleton.n);
        const double t1 = leanOnly ? 0.0 : median(times[0]), t0 = median(times[1]);
        const double loop = leanOnly ? 0.0 : median(times[2]);
        std::printf("%-9s %7u %8lu %10.3f %10.1f %10.3f %10.1f %10.1f %7.2f\n", kind.name, problem.numBlocks,
                    data.skeleton.n, t1 * 1e3, t1 * 1e9 / rows, t0 * 1e3, t0 * 1e9 / rows, loop * 1e9 / rows,
                    loop / t0);
        std::fflush(stdout);
    }
    return 0;
}

// The values and the factorization of tamber-bench's "ours" step (lean, as the Solver factors): setBlocks
// then factorSerial, against setBlocksAndFactor, which writes each block column just before the
// factorization reads it; interleaved, medians of `runs`, and the two L factors compared.
int runAssembly(int runs, unsigned long target, int argc, char** argv, int firstScene) {
    std::printf(
        "setBlocks + factorSerial (two passes) against setBlocksAndFactor (one), lean, our merged\n"
        "order, median of %d interleaved runs\n",
        runs);
    std::printf("%-9s %7s %8s %12s %12s %7s %6s\n", "scene", "blocks", "rows", "two ms", "one ms", "ratio",
                "same");
    for (const Kind& kind : kStepKinds) {
        if (!wanted(kind.name, argc, argv, firstScene)) continue;
        BlockProblem problem;
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        Tamber tamber;
        if (!setUpScene(kind.kind, target, problem, analyzer, data, tamber)) return 1;
        data.writeScaledFactor = 0;
        const double* values = problem.values.data();
        const unsigned long* pointers = problem.valuePointers.data();
        analyzer.setBlocks(data, values, pointers);
        tamber.factorSerial(data);
        std::vector<double> times[2], solveTimes[2], refineTimes[2];
        const bool withSolve = std::getenv("FACTORBENCH_SOLVE") != nullptr;
        const bool pollute = std::getenv("FACTORBENCH_POLLUTE") != nullptr;
        std::vector<double> junk(pollute ? (64u << 20) / 8 : 0);
        const unsigned long N = data.matrix.blockSizes[data.matrix.numBlockCols];
        std::vector<double> b(N, 1.0), pb(N), x(N), y(N);
        analyzer.permuteVector(b.data(), pb.data());
        bool same = true;
        std::vector<double> first;
        for (int r = 0; r < runs; ++r) {
            for (int form = 0; form < 2; ++form) {
                if (pollute) {
                    for (std::size_t k = 0; k < junk.size(); k += 8) junk[k] += 1.0;
                }
                const std::uint64_t start = kiv::Timer::ticks();
                if (form == 0) {
                    analyzer.setBlocks(data, values, pointers);
                    tamber.factorSerial(data);
                } else {
                    analyzer.setBlocksAndFactor(tamber, data, values, pointers);
                }
                times[form].push_back(seconds(start));
                if (withSolve) {
                    const std::uint64_t solveStart = kiv::Timer::ticks();
                    analyzer.permuteVector(b.data(), x.data());
                    TamberSolve::solve(data, x.data());
                    analyzer.unpermuteVector(x.data(), y.data());
                    solveTimes[form].push_back(seconds(solveStart));
                    const std::uint64_t refineStart = kiv::Timer::ticks();
                    tamber.iterativeRefinement(data, pb.data(), x.data(), 1);
                    refineTimes[form].push_back(seconds(refineStart));
                }
                const SparseMatrix<double>& L = data.factor;
                const unsigned long count =
                    static_cast<unsigned long>(L.blockPointers[L.numBlocks - 1] - L.values) + 1;
                if (r == 0 && form == 0) first.assign(L.values, L.values + count);
                if (r == 0 && form == 1)
                    same = std::memcmp(first.data(), L.values, count * sizeof(double)) == 0;
            }
        }
        const double two = median(times[0]), one = median(times[1]);
        if (withSolve)
            std::printf(
                "  then a solve: after two %.3f ms, after one %.3f ms; a refinement step: %.3f, %.3f ms\n",
                median(solveTimes[0]) * 1e3, median(solveTimes[1]) * 1e3, median(refineTimes[0]) * 1e3,
                median(refineTimes[1]) * 1e3);
        std::printf("%-9s %7u %8lu %12.3f %12.3f %7.2f %6s\n", kind.name, problem.numBlocks, data.skeleton.n,
                    two * 1e3, one * 1e3, two / one, same ? "yes" : "NO");
        std::fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--assembly") == 0) {
        const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 51;
        const unsigned long target = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 10000;
        return runAssembly(runs, target, argc, argv, 4);
    }
    if (argc > 1 && std::strcmp(argv[1], "--steps") == 0) {
        const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 51;
        const unsigned long target = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 10000;
        return runSteps(runs, target, argc, argv, 4);
    }
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const unsigned long largest = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 50000;
    struct Kind {
        SceneKind kind;
        const char* name;
    };
    const Kind kinds[] = {
        {SceneKind::chain, "chain"}, {SceneKind::ragdolls, "ragdolls"}, {SceneKind::cloth, "cloth"}};
    const unsigned long targets[] = {1000, 10000, 50000};

    std::printf("Serial block L·D·Lᵀ on scene systems, natural safe order, median of %d runs (ms).\n", runs);
    std::printf(
        "flops = Σ_i [ Σ_{j<i in row i of L} ( Σ_{k<j in rows i and j} 2·s_i·s_j·s_k + s_i·s_j² )\n"
        "              + Σ_{k<i in row i} 2·s_i²·s_k + s_i³/3 ]   (block products, triangular solves\n"
        "        with the unit diagonal blocks, diagonal-block updates, dense diagonal L·D·Lᵀ)\n");
    std::printf("work = estimateWork count (32-bit); blockOps = the same count in 64 bits\n");
    std::printf("res = ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) of the solve, double / float\n\n");
    std::printf("%-9s %7s %8s %10s %9s %12s %12s %10s %10s %10s %10s %9s %9s %8s %8s\n", "scene", "blocks",
                "N", "nnz(L)", "fill", "work", "blockOps", "MFlop", "factor d", "factor f", "solve d",
                "solve f", "GFlop/s d", "res d", "res f");

    for (const Kind& kind : kinds) {
        if (argc > 3) {
            bool wanted = false;
            for (int a = 3; a < argc; ++a) wanted |= std::strcmp(argv[a], kind.name) == 0;
            if (!wanted) continue;
        }
        for (unsigned long target : targets) {
            if (target > largest) continue;
            auto scene = makeScene(kind.kind, sizeForBlockCount(kind.kind, target));
            scene->step(0.01);
            BlockProblem problem;
            scene->build(problem);
            Permutation order;
            naturalSafeOrder(problem, order);

            Row row{};
            row.scene = kind.name;
            row.blocks = problem.numBlocks;
            row.N = problem.scalarSize();
            std::vector<double> b(row.N), pb(row.N);
            for (std::size_t k = 0; k < row.N; ++k) b[k] = std::sin(0.37 * k + 1.0);
            permuteVector(problem, order, b.data(), pb.data());
            const double normA = normInf(problem);
            {
                TamberData<double> data;
                loadIntoData(problem, order, data);
                Tamber tamber;
                row.fill = tamber.estimateWork(data, &row.work);
                row.nnzL = data.skeleton.numEntries();
                std::vector<unsigned int> sizes(row.blocks);
                for (unsigned long k = 0; k < row.blocks; ++k) sizes[k] = data.matrix.blockSizes[k];
                row.flops = factorFlops(data.skeleton, sizes.data(), row.blockOps);
                timeSystem(data, runs, normA, pb, row.factorD, row.solveD, row.residualD);
            }
            {
                TamberData<float> data;
                loadIntoData(problem, order, data);
                Tamber tamber;
                tamber.estimateWork(data, nullptr);
                timeSystem(data, runs, normA, pb, row.factorF, row.solveF, row.residualF);
            }
            std::printf(
                "%-9s %7lu %8lu %10lu %9lu %12u %12lu %10.1f %10.3f %10.3f %10.3f %10.3f %9.2f %8.1e %8.1e\n",
                row.scene, row.blocks, row.N, row.nnzL, row.fill, row.work, row.blockOps, row.flops * 1e-6,
                row.factorD * 1e3, row.factorF * 1e3, row.solveD * 1e3, row.solveF * 1e3,
                row.flops / row.factorD * 1e-9, row.residualD, row.residualF);
            std::fflush(stdout);
        }
    }
    return 0;
}
