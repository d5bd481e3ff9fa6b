// Cost of one ThreadTask::execute() with an empty callback: the dispatch to
// N−1 pool workers, the caller's own (empty) share and the wait for the
// workers. Arguments: N, and the spin budget in microseconds (0 = workers and
// caller sleep at once; polling is off anyway when N exceeds the processor
// count). Each case runs 9 times and reports mean, median and spread.
#include <benchmark/benchmark.h>
#include <kiv/ThreadTask.h>

#include <atomic>
#include <chrono>

namespace {

void emptyBody(void*) {}

void BM_ExecuteEmpty(benchmark::State& state) {
    const unsigned n = static_cast<unsigned>(state.range(0));
    const unsigned saved = kiv::ThreadTask::spinMicroseconds();
    kiv::ThreadTask::setSpinMicroseconds(static_cast<unsigned>(state.range(1)));
    kiv::ThreadTask task("empty", &emptyBody, nullptr, n);
    task.execute();  // grows the pool outside the timed loop
    for (auto _ : state) task.execute();
    kiv::ThreadTask::setSpinMicroseconds(saved);
    state.counters["threads"] = n;
}
BENCHMARK(BM_ExecuteEmpty)
    ->ArgNames({"N", "spin_us"})
    ->Args({1, 50})
    ->Args({2, 0})
    ->Args({2, 50})
    ->Args({2, 100})
    ->Args({4, 0})
    ->Args({4, 50})
    ->Args({4, 100})
    ->UseRealTime()
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

// Serial work of `gap_us` microseconds on the calling thread before each
// execute(), as between two factorizations: when the gap exceeds the spin
// budget the workers have gone to sleep and execute() pays the wake-up. The
// time per iteration includes the gap.
void BM_ExecuteAfterSerialWork(benchmark::State& state) {
    const unsigned n = static_cast<unsigned>(state.range(0));
    const auto gap = std::chrono::microseconds(state.range(1));
    const unsigned saved = kiv::ThreadTask::spinMicroseconds();
    kiv::ThreadTask::setSpinMicroseconds(static_cast<unsigned>(state.range(2)));
    kiv::ThreadTask task("empty", &emptyBody, nullptr, n);
    task.execute();
    for (auto _ : state) {
        const auto until = std::chrono::steady_clock::now() + gap;
        while (std::chrono::steady_clock::now() < until) {
        }
        task.execute();
    }
    kiv::ThreadTask::setSpinMicroseconds(saved);
}
BENCHMARK(BM_ExecuteAfterSerialWork)
    ->ArgNames({"N", "gap_us", "spin_us"})
    ->Args({2, 10, 0})
    ->Args({2, 10, 20})
    ->Args({2, 40, 20})
    ->Args({2, 40, 50})
    ->Args({2, 100, 50})
    ->Args({2, 100, 200})
    ->UseRealTime()
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

// A task with a little work per worker (a sum over a private counter), as a
// rough model of a small factorization: shows how much of the dispatch cost
// hides behind work.
void BM_ExecuteSmallWork(benchmark::State& state) {
    const unsigned n = static_cast<unsigned>(state.range(0));
    struct Work {
        std::atomic<unsigned long> sink{0};
        static void body(void* self) {
            unsigned long s = 0;
            for (unsigned long i = 0; i < 20000; ++i) {
                s += i * i;
                benchmark::DoNotOptimize(s);
            }
            static_cast<Work*>(self)->sink.fetch_add(s, std::memory_order_relaxed);
        }
    } work;
    kiv::ThreadTask task("work", &Work::body, &work, n);
    task.execute();
    for (auto _ : state) task.execute();
    state.counters["threads"] = n;
}
BENCHMARK(BM_ExecuteSmallWork)
    ->ArgName("N")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->UseRealTime()
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
