// The assembly of a time step's values into the factor's order (Analyzer::setBlocks), against the bound of
// a plain copy of the same values (memcpy of the scene's value array into a buffer of the same size) and
// against the serial factorization that follows it.
//
// For each scene at about N blocks (default 10,000): the standard analysis with block merging, then R rounds
// of (setBlocks, memcpy, factorSerial, setBlocks + factorSerial), interleaved. Printed: sizes (blocks, scalar
// N, values copied, MB moved), the medians in ms, setBlocks / memcpy and setBlocks / (setBlocks + factor),
// and the machine's load (/proc/loadavg) before and after.
//
// With --cold, the caches are evicted before each timed part (a 64 MB buffer is walked), as in a time step
// that follows the rest of a simulation; without it the parts run back to back on warm caches.
//
// Usage: AssemblyBench [--blocks N] [--reps R] [--scene chain|ragdolls|cloth|boxwall] [--cold]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Tamber.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using Clock = std::chrono::steady_clock;

namespace {

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n == 0 ? 0.0 : n % 2 == 1 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string line;
    std::getline(in, line);
    return line.substr(0, line.find(' ', line.find(' ', line.find(' ') + 1) + 1));
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Evicts the caches (writes and reads a buffer larger than the last-level cache share of a core) so that the
// next timed part starts cold, as a time step does after the rest of the simulation ran.
void evict(std::vector<double>& buffer) {
    double sum = 0;
    for (std::size_t k = 0; k < buffer.size(); k += 8) sum += (buffer[k] += 1.0);
    if (sum == 0.5) std::printf(" ");
}

void run(scenes::SceneKind kind, const char* name, unsigned long blocks, int reps, bool cold) {
    std::unique_ptr<scenes::Scene> scene = scenes::makeScene(kind, scenes::sizeForBlockCount(kind, blocks));
    scenes::BlockProblem problem;
    scene->build(problem);
    const Analysis::Problem p = problem.pattern();
    Analysis::Options options;
    options.mergeBlocks = true;
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    if (!analyzer.analyze(p, options, data).ok) {
        std::printf("%s: analysis failed\n", name);
        return;
    }
    tamber.estimateWork(data, nullptr);
    const unsigned long count = problem.values.size();
    std::vector<double> copy(count);
    std::vector<double> tAssemble, tCopy, tStep, tFactor;
    std::vector<double> flush(cold ? (64ul << 20) / sizeof(double) : 0);
    for (int r = 0; r < reps; ++r) {
        if (cold) evict(flush);
        Clock::time_point start = Clock::now();
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
        tAssemble.push_back(msSince(start));
        if (cold) evict(flush);
        start = Clock::now();
        std::memcpy(copy.data(), problem.values.data(), count * sizeof(double));
        tCopy.push_back(msSince(start));
        if (cold) evict(flush);
        start = Clock::now();
        tamber.factorSerial(data);
        tFactor.push_back(msSince(start));
        if (cold) evict(flush);
        start = Clock::now();
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
        tamber.factorSerial(data);
        tStep.push_back(msSince(start));
    }
    const double a = median(tAssemble), c = median(tCopy), s = median(tStep), f = median(tFactor);
    std::printf(
        "%-9s %7u blocks  N %7u  values %9lu (%6.2f MB in)  setBlocks %7.3f ms  memcpy %7.3f ms  "
        "ratio %5.2f  factor %7.3f ms  setBlocks+factor %7.3f ms  share %4.2f\n",
        name, problem.numBlocks, problem.blockOffsets[problem.numBlocks], count, count * sizeof(double) / 1e6,
        a, c, a / c, f, s, a / s);
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long blocks = 10000;
    int reps = 41;
    std::string only;
    bool cold = false;
    for (int k = 1; k < argc; k += 2) {
        const std::string flag = argv[k];
        if (flag == "--cold") {
            cold = true;
            --k;
        } else if (k + 1 >= argc) {
            std::fprintf(stderr, "%s needs a value\n", flag.c_str());
            return 2;
        } else if (flag == "--blocks")
            blocks = std::strtoul(argv[k + 1], nullptr, 10);
        else if (flag == "--reps")
            reps = std::max(1, std::atoi(argv[k + 1]));
        else if (flag == "--scene")
            only = argv[k + 1];
        else {
            std::fprintf(stderr, "usage: AssemblyBench [--blocks N] [--reps R] [--scene NAME] [--cold]\n");
            return 2;
        }
    }
    std::printf("load before: %s\n", loadAverage().c_str());
    const struct {
        scenes::SceneKind kind;
        const char* name;
    } all[] = {{scenes::SceneKind::chain, "chain"},
               {scenes::SceneKind::ragdolls, "ragdolls"},
               {scenes::SceneKind::cloth, "cloth"},
               {scenes::SceneKind::boxWall, "boxwall"}};
    for (const auto& s : all)
        if (only.empty() || only == s.name) run(s.kind, s.name, blocks, reps, cold);
    std::printf("load after: %s\n", loadAverage().c_str());
    return 0;
}
