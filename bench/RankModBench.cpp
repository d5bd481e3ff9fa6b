// Switching constraint equations off and on with RankMod, against factoring again from scratch.
//
// Scenes: a hanging chain of rigid links (6×6 body blocks, 3-row ball joints) and a cloth (3×3 particle
// blocks, 1-row distance constraints), at about 1,000 / 10,000 / 50,000 blocks, loaded in a nested-dissection
// order of the bodies (recursive coordinate bisection with vertex separators, each constraint right after the
// last of its bodies: a valid pivot order with a shallow elimination tree). Per size:
//  - refactor: median time of Tamber::factorSerial on the loaded system;
//  - for k = 1, 10, 100 constraint equations (random ones; for 100 also a clustered run of consecutive
//    constraint equations, whose tree paths overlap): median times of RankMod::apply switching them off, and
//    switching them on again, with the single-equation and the batched operations; the ratio refactor / time;
//  - allocations counted by kiv::ByteAllocator during all timed apply calls after the first of each kind;
//  - the largest relative change of a pivot after all runs (every equation is back on, so the factor must be
//    the original one up to rounding).
// Usage: RankModBench [repetitions] [max blocks]   (defaults 11 and 50000).
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "RankMod.h"
#include "Tamber.h"
#include "scenes/Scenes.h"

using namespace kivTamber;

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// Nested dissection of the body graph (bodies joined by two-body constraints) by coordinate bisection: the
// bodies of one half that touch the other half form the separator, ordered after both halves.
class Dissection {
public:
    Dissection(const scenes::BlockProblem& problem, const scenes::Scene& scene) : problem_(problem) {
        const unsigned int bodies = problem.firstConstraint;
        position_.resize(3 * bodies);
        double rotation[9];
        for (unsigned int b = 0; b < bodies; ++b) scene.bodyPose(b, &position_[3 * b], rotation);
        neighbours_.resize(bodies);
        for (unsigned int c = bodies; c < problem.numBlocks; ++c) {
            const unsigned int first = problem.colPointers[c], last = problem.colPointers[c + 1] - 1;
            for (unsigned int e = first; e < last; ++e)
                for (unsigned int f = first; f < last; ++f)
                    if (e != f) neighbours_[problem.rowIndices[e]].push_back(problem.rowIndices[f]);
        }
        side_.assign(bodies, 0);
    }

    void order(Permutation& order) {
        const unsigned int n = problem_.numBlocks, bodies = problem_.firstConstraint;
        std::vector<unsigned int> all(bodies), bodyOrder;
        for (unsigned int b = 0; b < bodies; ++b) all[b] = b;
        split(all, bodyOrder);
        std::vector<unsigned int> place(bodies);
        for (unsigned int k = 0; k < bodies; ++k) place[bodyOrder[k]] = k;
        // Each constraint right after the last of its bodies.
        std::vector<std::vector<unsigned int>> after(bodies + 1);
        for (unsigned int c = bodies; c < n; ++c) {
            unsigned int last = bodies;
            for (unsigned int e = problem_.colPointers[c]; e + 1 < problem_.colPointers[c + 1]; ++e) {
                const unsigned int p = place[problem_.rowIndices[e]];
                last = last == bodies ? p : std::max(last, p);
            }
            after[last].push_back(c);
        }
        order.setSize(n);
        unsigned int k = 0;
        for (unsigned int p = 0; p <= bodies; ++p) {
            if (p < bodies) order.forward[k++] = bodyOrder[p];
            for (unsigned int c : after[p]) order.forward[k++] = c;
        }
        order.computeInverse();
    }

private:
    void split(std::vector<unsigned int>& set, std::vector<unsigned int>& out) {
        if (set.size() <= 8) {
            out.insert(out.end(), set.begin(), set.end());
            return;
        }
        double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
        for (unsigned int b : set)
            for (int a = 0; a < 3; ++a) {
                lo[a] = std::min(lo[a], position_[3 * b + a]);
                hi[a] = std::max(hi[a], position_[3 * b + a]);
            }
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (hi[a] - lo[a] > hi[axis] - lo[axis]) axis = a;
        const std::size_t half = set.size() / 2;
        std::nth_element(set.begin(), set.begin() + half, set.end(), [&](unsigned int x, unsigned int y) {
            return position_[3 * x + axis] < position_[3 * y + axis];
        });
        ++generation_;
        for (std::size_t k = half; k < set.size(); ++k) side_[set[k]] = generation_;  // the second half
        std::vector<unsigned int> first, second(set.begin() + half, set.end()), separator;
        for (std::size_t k = 0; k < half; ++k) {
            const unsigned int b = set[k];
            bool touches = false;
            for (unsigned int m : neighbours_[b]) touches = touches || side_[m] == generation_;
            (touches ? separator : first).push_back(b);
        }
        split(first, out);
        split(second, out);
        out.insert(out.end(), separator.begin(), separator.end());
    }

    const scenes::BlockProblem& problem_;
    std::vector<double> position_;
    std::vector<std::vector<unsigned int>> neighbours_;
    std::vector<unsigned int> side_;
    unsigned int generation_ = 0;
};

struct Timing {
    std::vector<double> off, on;
};

}  // namespace

int main(int argc, char** argv) {
    const int reps = argc > 1 ? std::max(3, std::atoi(argv[1])) : 11;
    const unsigned long maxBlocks = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 50000;

    std::printf(
        "RankMod: switching constraint equations off and on again vs factorSerial; medians of %d runs\n",
        reps);
    std::printf("%-6s %6s %7s %9s | %-10s %4s | %10s %10s %7s %7s | %10s %10s %7s %7s | %6s\n", "scene",
                "blocks", "N", "refactor", "selection", "k", "single off", "single on", "ref/off", "ref/on",
                "batch off", "batch on", "ref/off", "ref/on", "allocs");

    const scenes::SceneKind kinds[] = {scenes::SceneKind::chain, scenes::SceneKind::cloth};
    const unsigned long sizes[] = {1000, 10000, 50000};
    for (scenes::SceneKind kind : kinds) {
        for (unsigned long blocks : sizes) {
            if (blocks > maxBlocks) continue;
            std::unique_ptr<scenes::Scene> scene =
                scenes::makeScene(kind, scenes::sizeForBlockCount(kind, blocks));
            scene->setTime(0.37);
            scenes::BlockProblem problem;
            scene->build(problem);
            Permutation order;
            Dissection(problem, *scene).order(order);
            TamberData<double> data;
            if (!scenes::loadIntoData(problem, order, data)) {
                std::printf("loading failed\n");
                return 1;
            }
            Tamber tamber;
            tamber.estimateWork(data, nullptr);
            std::vector<double> refactor;
            for (int r = 0; r < reps; ++r) {
                const auto t0 = Clock::now();
                tamber.factorSerial(data);
                refactor.push_back(seconds(t0, Clock::now()));
            }
            const double tRefactor = median(refactor);
            const unsigned long N = data.diagonal.size;
            const std::vector<double> pivots(data.diagonal.data, data.diagonal.data + N);

            RankMod mod;
            mod.prepare(data, 32);
            // The constraint equations in the factor's numbering, in factor order.
            std::vector<RankMod::Equation> constraints;
            for (unsigned int c = problem.firstConstraint; c < problem.numBlocks; ++c)
                for (unsigned int s = 0; s < problem.blockSizes[c]; ++s)
                    constraints.push_back(RankMod::toFactorNumbering(data, c, s));
            std::sort(constraints.begin(), constraints.end());

            struct Run {
                const char* name;
                unsigned int k;
                bool clustered;
            };
            const Run runs[] = {{"random", 1, false},
                                {"random", 10, false},
                                {"random", 100, false},
                                {"clustered", 100, true}};
            unsigned long allocations = 0;
            for (const Run& run : runs) {
                Timing timing[2];
                RankMod::EquationList off, none;
                off.reserve(run.k);
                for (int r = 0; r < reps + 1; ++r) {
                    std::mt19937_64 rng(1000 * r + run.k);
                    off.clear();
                    if (run.clustered) {
                        const unsigned long start = rng() % (constraints.size() - run.k);
                        for (unsigned int j = 0; j < run.k; ++j) off.push_back(constraints[start + j]);
                    } else {
                        while (off.size() < run.k) {
                            const RankMod::Equation eq = constraints[rng() % constraints.size()];
                            if (std::find(off.begin(), off.end(), eq) == off.end()) off.push_back(eq);
                        }
                    }
                    for (int m = 0; m < 2; ++m) {
                        const RankMod::Method method = m == 0 ? RankMod::singles : RankMod::batched;
                        const auto a0 = kiv::ByteAllocator::allocationCount();
                        const auto t0 = Clock::now();
                        mod.apply(data, off, none, method);
                        const auto t1 = Clock::now();
                        mod.apply(data, none, off, method);
                        const auto t2 = Clock::now();
                        if (r > 0) {  // the first run of each kind warms up
                            allocations += kiv::ByteAllocator::allocationCount() - a0;
                            timing[m].off.push_back(seconds(t0, t1));
                            timing[m].on.push_back(seconds(t1, t2));
                        }
                    }
                }
                const double so = median(timing[0].off), sn = median(timing[0].on);
                const double bo = median(timing[1].off), bn = median(timing[1].on);
                std::printf(
                    "%-6s %6u %7lu %8.2fms | %-10s %4u | %8.3fms %8.3fms %7.1f %7.1f | %8.3fms %8.3fms %7.1f "
                    "%7.1f | %6lu\n",
                    scene->name(), problem.numBlocks, N, 1e3 * tRefactor, run.name, run.k, 1e3 * so, 1e3 * sn,
                    tRefactor / so, tRefactor / sn, 1e3 * bo, 1e3 * bn, tRefactor / bo, tRefactor / bn,
                    allocations);
            }
            double drift = 0.0;
            for (unsigned long i = 0; i < N; ++i)
                drift = std::max(drift, std::fabs(data.diagonal.data[i] - pivots[i]) / std::fabs(pivots[i]));
            std::printf(
                "%-6s %6u: tree depth %u, pivots after all runs differ from the original by %.1e "
                "(relative)\n",
                scene->name(), problem.numBlocks,
                [&] {
                    unsigned int deepest = 0;
                    for (unsigned int b = 0; b < problem.numBlocks; ++b) {
                        unsigned int d = 0;
                        for (unsigned int x = b; data.etree.parent[x] != x; x = data.etree.parent[x]) ++d;
                        deepest = std::max(deepest, d);
                    }
                    return deepest;
                }(),
                drift);
            std::fflush(stdout);
        }
    }
    return 0;
}
