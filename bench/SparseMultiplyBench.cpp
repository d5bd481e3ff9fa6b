// Symmetric block-sparse product y = A·x (SparseMatrix<T>::multiply) on a chain-like saddle-point pattern of
// about 10,000 blocks: bodies of size 6 alternating with joints of size 3, each joint coupling the bodies on
// both sides, plus random couplings inside a band, stored in the upper form (diagonal last) or in a lower
// arrangement (diagonal first) that takes the general loop.
//
// Flops: an off-diagonal s_i × s_j block does two products of 2·s_i·s_j flops each; a diagonal block one full
// symmetric product of 2·s² flops. Reported as GFLOP/s with the block and scalar counts; the run repeats 10
// times and prints mean, median and spread.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "SparseTypes.h"

namespace {

using kivTamber::SparseMatrix;

constexpr unsigned int kNumBlocks = 4000;  // block columns
constexpr unsigned int kBand = 24;         // random couplings reach at most this many blocks back
constexpr double kExtraCoupling = 0.02;    // probability of a random coupling inside the band

template <typename T>
unsigned int stride(unsigned int s) {
    return sizeof(T) == sizeof(double) ? (s + 1) / 2 * 2 : s;
}

struct Pattern {
    std::vector<unsigned int> sizes;
    std::vector<std::vector<unsigned int>> upper;  // per column j the rows i < j, ascending
    unsigned long N = 0;
    double flops = 0;
    unsigned long blocks = 0;
};

Pattern makePattern() {
    Pattern p;
    std::mt19937 rng(12345);
    std::bernoulli_distribution extra(kExtraCoupling);
    p.upper.resize(kNumBlocks);
    for (unsigned int j = 0; j < kNumBlocks; ++j) {
        p.sizes.push_back(j % 2 == 0 ? 6u : 3u);  // even positions are bodies, odd ones joints
        p.N += p.sizes.back();
        if (j > 0) p.upper[j].push_back(j - 1);  // the chain: joint j couples bodies j-1 and j+1
        for (unsigned int i = j > kBand ? j - kBand : 0; i + 1 < j; ++i) {
            if (extra(rng)) p.upper[j].push_back(i);
        }
        std::sort(p.upper[j].begin(), p.upper[j].end());
    }
    for (unsigned int j = 0; j < kNumBlocks; ++j) {
        const double sj = p.sizes[j];
        p.flops += 2.0 * sj * sj;
        for (unsigned int i : p.upper[j]) p.flops += 4.0 * p.sizes[i] * sj;
        p.blocks += p.upper[j].size() + 1;
    }
    return p;
}

// Fills `m` with random values: upper form (column j: blocks i < j, then the diagonal) when `upper`, else the
// mirrored lower arrangement (column j: the diagonal, then blocks (i, j) with i > j).
template <typename T>
void build(const Pattern& p, bool upper, SparseMatrix<T>& m) {
    std::vector<std::vector<unsigned int>> columns(kNumBlocks);
    for (unsigned int j = 0; j < kNumBlocks; ++j) {
        if (upper) {
            columns[j] = p.upper[j];
            columns[j].push_back(j);
        } else {
            columns[j].insert(columns[j].begin(), j);
            for (unsigned int i : p.upper[j]) columns[i].push_back(j);
        }
    }
    unsigned long values = 0;
    for (unsigned int j = 0; j < kNumBlocks; ++j) {
        for (unsigned int i : columns[j]) values += stride<T>(p.sizes[i]) * stride<T>(p.sizes[j]);
    }
    m.setSize(kNumBlocks, kNumBlocks, p.blocks, values);
    std::mt19937 rng(99);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (unsigned int j = 0; j < kNumBlocks; ++j) {
        for (unsigned int i : columns[j]) {
            T* tile = m.acquireBlock(j, i, p.sizes[j], p.sizes[i]);
            for (unsigned int c = 0; c < p.sizes[j]; ++c)
                for (unsigned int r = 0; r < p.sizes[i]; ++r) tile[c * stride<T>(p.sizes[i]) + r] = T(u(rng));
        }
    }
}

template <typename T>
void BM_Multiply(benchmark::State& state) {
    static const Pattern pattern = makePattern();
    const bool upper = state.range(0) == 0;
    SparseMatrix<T> m;
    build(pattern, upper, m);
    std::vector<T> x(pattern.N), y(pattern.N);
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (auto& v : x) v = T(u(rng));

    for (auto _ : state) {
        m.multiply(x.data(), y.data());
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(upper ? "upper form" : "general loop");
    state.counters["blocks"] = double(m.numBlocks);
    state.counters["N"] = double(pattern.N);
    state.counters["GFLOP/s"] =
        benchmark::Counter(pattern.flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK_TEMPLATE(BM_Multiply, double)->Arg(0)->Arg(1)->Repetitions(10)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Multiply, float)->Arg(0)->Arg(1)->Repetitions(10)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
