// Cost of one ThreadTask::execute() with an empty callback: the dispatch to
// N−1 pool workers, the caller's own (empty) share and the wait for the
// workers. Arguments: N, and the spin budget in microseconds (0 = workers and
// caller sleep at once; polling is off anyway when N exceeds the processor
// count). Each case runs 9 times and reports mean, median and spread.
#include <benchmark/benchmark.h>
#include <kiv/ThreadTask.h>

#include <atomic>

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
    ->Args({1, 20})
    ->Args({2, 0})
    ->Args({2, 20})
    ->Args({2, 100})
    ->Args({4, 0})
    ->Args({4, 20})
    ->Args({4, 100})
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
