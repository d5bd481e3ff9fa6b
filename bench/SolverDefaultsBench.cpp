// The solver object with its defaults against every hand-set option, on the large high-fill scenes: is the
// road a user gets without tuning the fastest one?
//
//     SolverDefaultsBench [--cloth SIDE] [--wall SIDE] [--reps K]
//
// For each scene (cloth of SIDE × SIDE particles, default 128; box wall of SIDE × SIDE boxes, default 87,
// about 7,500 boxes) and each configuration (the defaults, then each ordering with merging on and off), one
// Solver is analysed and loaded with the scene's values; then K rounds (default 7) each factor every
// configuration once, in turn, so that the machine's slow and fast phases fall on all of them alike. Printed
// per configuration: the analysis time, the ordering and merge groups the report names, the predicted flops,
// the median, minimum and maximum factorization time, and its ratio to the defaults' median.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Solver.h"
#include "scenes/Scenes.h"

namespace {

using namespace kivTamber;

struct Config {
    const char* name;
    bool defaults;
    OrderingMethod ordering;
    bool merge;
    unsigned int threads;
};

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void run(const char* title, scenes::Scene& scene, unsigned int reps) {
    scenes::BlockProblem problem;
    scene.build(problem);
    Analysis::Problem p = problem.pattern();
    const Config configs[] = {
        {"defaults", true, OrderingMethod::automatic, true, 0},
        {"automatic, merged, serial", false, OrderingMethod::automatic, true, 1},
        {"automatic, merged, 2 thr.", false, OrderingMethod::automatic, true, 2},
        {"automatic, unmerged", false, OrderingMethod::automatic, false, 1},
        {"minimum degree, merged", false, OrderingMethod::minimumDegree, true, 1},
        {"minimum degree, unmerged", false, OrderingMethod::minimumDegree, false, 1},
        {"natural, merged", false, OrderingMethod::natural, true, 1},
    };
    const unsigned int count = sizeof configs / sizeof configs[0];
    std::vector<std::unique_ptr<Solver<double>>> solvers;
    std::vector<std::vector<double>> times(count);
    std::printf("\n%s: %u blocks, N = %u; load average %s\n", title, problem.numBlocks,
                problem.blockOffsets[problem.numBlocks], loadAverage().c_str());
    for (const Config& c : configs) {
        solvers.emplace_back(new Solver<double>());
        Solver<double>& s = *solvers.back();
        if (!c.defaults) {
            SolverOptions o;
            o.ordering = c.ordering;
            o.mergeBlocks = c.merge;
            o.threads = c.threads;
            s.setOptions(o);
        }
        Status st = s.analyze(p);
        if (!st) {
            std::fprintf(stderr, "%s: %s\n", c.name, st.message.c_str());
            std::exit(1);
        }
        s.setPatternValues(problem.values.data(), problem.valuePointers.data());
    }
    for (unsigned int r = 0; r < reps; ++r) {
        for (unsigned int k = 0; k < count; ++k) {
            Status st = solvers[k]->factor();
            if (!st) {
                std::fprintf(stderr, "%s: %s\n", configs[k].name, st.message.c_str());
                std::exit(1);
            }
            times[k].push_back(solvers[k]->report().factorSeconds * 1e3);
        }
    }
    const double base = median(times[0]);
    std::printf("%-26s %10s %9s %9s %9s %9s %7s  %s\n", "configuration", "analyze ms", "groups", "flops",
                "median ms", "min-max", "ratio", "ordering (path)");
    for (unsigned int k = 0; k < count; ++k) {
        const SolverReport& r = solvers[k]->report();
        const double m = median(times[k]);
        char range[40];
        std::snprintf(range, sizeof range, "%.1f-%.1f", *std::min_element(times[k].begin(), times[k].end()),
                      *std::max_element(times[k].begin(), times[k].end()));
        std::printf("%-26s %10.1f %9lu %9.2e %9.2f %9s %7.2f  %s (%s, %u thread%s)\n", configs[k].name,
                    r.analyzeSeconds * 1e3, r.factorBlocks, r.flops, m, range, m / base, r.ordering.c_str(),
                    r.path.c_str(), r.threads, r.threads == 1 ? "" : "s");
    }
}

}  // namespace

int main(int argc, char** argv) {
    unsigned int cloth = 128, wall = 87, reps = 7;
    for (int k = 1; k + 1 < argc; k += 2) {
        const unsigned int v = static_cast<unsigned int>(std::strtoul(argv[k + 1], nullptr, 10));
        if (std::strcmp(argv[k], "--cloth") == 0)
            cloth = v;
        else if (std::strcmp(argv[k], "--wall") == 0)
            wall = v;
        else if (std::strcmp(argv[k], "--reps") == 0)
            reps = std::max(1u, v);
    }
    std::printf(
        "Factorization through the Solver: defaults against hand-set options (medians of %u interleaved "
        "rounds)\n",
        reps);
    if (cloth > 0) {
        scenes::Cloth scene(cloth);
        char title[64];
        std::snprintf(title, sizeof title, "cloth %u x %u", cloth, cloth);
        run(title, scene, reps);
    }
    if (wall > 0) {
        scenes::BoxWall scene(wall, wall);
        char title[64];
        std::snprintf(title, sizeof title, "box wall %u x %u", wall, wall);
        run(title, scene, reps);
    }
    return 0;
}
