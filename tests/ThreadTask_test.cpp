#include <gtest/gtest.h>
#include <kiv/ThreadTask.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>

// Program-wide count of operator new calls: a dispatch through a large enough pool allocates nothing.
static std::atomic<std::uint64_t> g_news{0};

// GCC sees free() in a replaced operator delete as a mismatch; it pairs the malloc() above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t bytes) {
    g_news.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(bytes ? bytes : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
#pragma GCC diagnostic pop

namespace {

constexpr unsigned kMaxThreads = 16;
const auto kNoop = [] {};

// Per-execute record: runs and OS thread per index, and a rendezvous all N workers must reach together.
struct Probe {
    unsigned n = 0;
    std::atomic<unsigned> runs[kMaxThreads];
    std::thread::id ids[kMaxThreads];
    std::atomic<unsigned> arrived{0};
    std::atomic<bool> rendezvousFailed{false};

    void reset(unsigned numThreads) {
        n = numThreads;
        for (auto& r : runs) r.store(0);
        arrived.store(0);
    }
    static void body(void* self) { static_cast<Probe*>(self)->run(); }
    void run() {
        const unsigned t = kiv::ThreadTask::currentThreadIndex();
        ASSERT_LT(t, kMaxThreads);
        runs[t].fetch_add(1);
        ids[t] = std::this_thread::get_id();
        arrived.fetch_add(1);  // all must arrive before any leaves: a pool running them in turn never does
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (arrived.load() < n && !rendezvousFailed.load()) {
            if (std::chrono::steady_clock::now() > deadline) rendezvousFailed.store(true);
            std::this_thread::yield();
        }
    }

    void expectEachIndexOnce() const {
        for (unsigned t = 0; t < kMaxThreads; ++t)
            EXPECT_EQ(runs[t].load(), t < n ? 1u : 0u) << "index " << t << " of " << n;
        EXPECT_FALSE(rendezvousFailed.load()) << n << " workers did not run concurrently";
        EXPECT_EQ(ids[0], std::this_thread::get_id()) << "worker 0 is the calling thread";
        for (unsigned a = 0; a < n; ++a)
            for (unsigned b = a + 1; b < n; ++b) EXPECT_NE(ids[a], ids[b]) << a << " and " << b;
    }
};

TEST(ThreadTask, EveryIndexRunsOnceOnDistinctConcurrentThreads) {
    Probe probe;
    kiv::ThreadTask task("probe", &Probe::body, &probe);
    for (unsigned n : {1u, 2u, 3u, 4u, 8u, 16u, 3u, 1u}) {
        SCOPED_TRACE(n);
        task.setNumThreads(n);
        EXPECT_EQ(task.numThreads(), n);
        for (int repeat = 0; repeat < 3; ++repeat) {
            probe.reset(n);
            task.execute();
            probe.expectEachIndexOnce();
        }
    }
    EXPECT_GE(kiv::ThreadTask::poolSize(), 15u);
}

// Workers write plain (non-atomic) cells the caller reads after execute(): a missed dispatch leaves a
// stale value, a missing happens-before edge is a data race for ThreadSanitizer.
TEST(ThreadTask, ThousandsOfExecutesPublishWorkerResults) {
    struct Cells {
        unsigned long value[kMaxThreads] = {};
        unsigned long iteration = 0;
        static void body(void* self) {
            auto* c = static_cast<Cells*>(self);
            c->value[kiv::ThreadTask::currentThreadIndex()] = c->iteration * 31 + 7;
        }
    } cells;
    kiv::ThreadTask task("cells", &Cells::body, &cells);
    for (unsigned n : {2u, 4u, 3u}) {
        task.setNumThreads(n);
        for (unsigned long it = 1; it <= 3000; ++it) {
            cells.iteration = it;
            task.execute();
            for (unsigned t = 0; t < n; ++t)
                ASSERT_EQ(cells.value[t], it * 31 + 7)
                    << "worker " << t << " of " << n << ", iteration " << it;
        }
    }
}

TEST(ThreadTask, PoolThreadsAreReusedAndExecuteDoesNotAllocate) {
    Probe probe;
    kiv::ThreadTask task("reuse", &Probe::body, &probe, 6);
    probe.reset(6);
    task.execute();  // grows the pool to at least 5 threads if needed
    const std::uint64_t created = kiv::ThreadTask::threadsCreated();
    const unsigned pool = kiv::ThreadTask::poolSize();
    ASSERT_GE(pool, 5u);
    const std::uint64_t news = g_news.load();
    for (int i = 0; i < 200; ++i) {
        task.setNumThreads(1 + static_cast<unsigned>(i) % 6);
        probe.reset(task.numThreads());
        task.execute();
    }
    EXPECT_EQ(g_news.load(), news) << "execute() allocated";
    EXPECT_EQ(kiv::ThreadTask::threadsCreated(), created);
    probe.expectEachIndexOnce();

    // Growing to N workers starts exactly the missing N-1-pool threads.
    const unsigned bigger = pool + 3 > kMaxThreads ? kMaxThreads : pool + 3;
    task.setNumThreads(bigger);
    probe.reset(bigger);
    task.execute();
    probe.expectEachIndexOnce();
    EXPECT_EQ(kiv::ThreadTask::threadsCreated(), created + (bigger - 1 > pool ? bigger - 1 - pool : 0));
}

TEST(ThreadTask, CallbackFormsAndNestedOneThreadTask) {
    struct Counter {
        std::atomic<unsigned> sum{0};
        void run() { sum.fetch_add(kiv::ThreadTask::currentThreadIndex() + 1); }
    } counter;
    kiv::ThreadTask member("member", kiv::ThreadTask::member<Counter, &Counter::run>, &counter, 4);
    member.execute();
    EXPECT_EQ(counter.sum.load(), 1u + 2u + 3u + 4u);
    // std::function; inside worker t a nested one-thread task sees index 0, and t again after it.
    std::atomic<unsigned> mask{0}, bad{0};
    auto body = [&] {
        const unsigned t = kiv::ThreadTask::currentThreadIndex();
        mask.fetch_or(1u << t);
        auto innerBody = [&bad] { bad += kiv::ThreadTask::currentThreadIndex() != 0; };
        kiv::ThreadTask inner("inner", innerBody, 1);
        inner.execute();
        bad += kiv::ThreadTask::currentThreadIndex() != t;
    };
    kiv::ThreadTask("lambda", body, 5).execute();
    EXPECT_EQ(mask.load(), 0x1Fu);
    EXPECT_EQ(bad.load(), 0u);
}

TEST(ThreadTask, ExceptionOnCallingThreadWaitsForTheOthers) {
    std::atomic<unsigned> finished{0};
    auto body = [&finished] {
        if (kiv::ThreadTask::currentThreadIndex() == 0) throw std::runtime_error("worker 0 failed");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        finished.fetch_add(1);
    };
    kiv::ThreadTask task("throws", body, 4);
    for (unsigned round = 1; round <= 2; ++round) {  // the pool stays usable after the throw
        EXPECT_THROW(task.execute(), std::runtime_error);
        EXPECT_EQ(finished.load(), 3u * round);
    }
}

TEST(ThreadTask, ConcurrentCallersRunAtOnceWithoutNewThreadsOnceThePoolIsLarge) {
    // Two callers whose tasks can only finish together: every worker of both waits until all 2 + 3 have
    // arrived, which a pool that ran one execution after the other would never allow.
    std::atomic<unsigned> arrived{0};
    std::atomic<bool> failed{false};
    auto body = [&] {
        arrived.fetch_add(1);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (arrived.load() < 5 && !failed.load()) {
            if (std::chrono::steady_clock::now() > deadline) failed.store(true);
            std::this_thread::yield();
        }
    };
    auto caller = [&body](unsigned n) {
        kiv::ThreadTask task("together", body, n);
        task.execute();
    };
    std::thread a(caller, 2u), b(caller, 3u);
    a.join();
    b.join();
    EXPECT_FALSE(failed.load()) << "the two executions did not run at the same time";
    EXPECT_EQ(arrived.load(), 5u);
    EXPECT_GE(kiv::ThreadTask::poolSize(), 3u);

    // The pool now holds enough threads for both: repeating starts none and indices stay distinct.
    const std::uint64_t created = kiv::ThreadTask::threadsCreated();
    std::atomic<unsigned> errors{0};
    auto repeat = [&errors](unsigned n) {
        std::atomic<unsigned> mask{0};
        auto indices = [&mask] { mask.fetch_or(1u << kiv::ThreadTask::currentThreadIndex()); };
        kiv::ThreadTask task("repeat", indices, n);
        for (int i = 0; i < 300; ++i, mask.store(0)) {
            task.execute();
            errors += mask.load() != (1u << n) - 1;
        }
    };
    std::thread c(repeat, 2u), d(repeat, 2u);
    c.join();
    d.join();
    EXPECT_EQ(errors.load(), 0u);
    EXPECT_EQ(kiv::ThreadTask::threadsCreated(), created);
}

TEST(ThreadTask, ConcurrentCallersSeeOnlyTheirOwnWorkers) {
    // Two threads execute their own tasks; each must always see all of its own workers and nobody else's.
    std::atomic<unsigned> errors{0};
    auto caller = [&errors](unsigned n) {
        std::atomic<unsigned> count{0};
        auto body = [&count] { count.fetch_add(1); };
        kiv::ThreadTask task("caller", body, n);
        for (int i = 0; i < 300; ++i, count.store(0)) {
            task.execute();
            errors += count.load() != n;
        }
    };
    std::thread a(caller, 3u), b(caller, 2u);
    a.join();
    b.join();
    EXPECT_EQ(errors.load(), 0u);
}

// Delete handler: records the task and deletes it.
std::atomic<kiv::ThreadTask*> g_handed{nullptr};
void recordingDelete(kiv::ThreadTask* task) {
    g_handed.store(task);
    delete task;
}

TEST(ThreadTask, ReferenceCountingAndDeleteHandler) {
    auto* task = new kiv::ThreadTask("counted", kNoop, 2);
    EXPECT_EQ(task->addRef(), 2u);
    kiv::ThreadTask::setDeleteHandler(&recordingDelete);
    EXPECT_TRUE(task->release() == 1u && g_handed.load() == nullptr);
    EXPECT_EQ(task->release(), 0u);
    EXPECT_EQ(g_handed.load(), task);
    // Without a handler the last release deletes (a leak or double free shows under AddressSanitizer).
    kiv::ThreadTask::setDeleteHandler(nullptr);
    g_handed.store(nullptr);
    auto* plain = new kiv::ThreadTask("plain", kNoop, 1);
    plain->addRef();
    std::thread([plain] { plain->release(); }).join();
    EXPECT_EQ(plain->release(), 0u);
    EXPECT_EQ(g_handed.load(), nullptr);
}

TEST(ThreadTaskDeathTest, SeveralThreadsFromInsideATaskAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto innerTask = [] { kiv::ThreadTask("inner", kNoop, 2).execute(); };
    auto nested = [&innerTask] { kiv::ThreadTask("outer", innerTask, 2).execute(); };
    EXPECT_DEATH(nested(), "kivAbort: A task with several threads executed from inside a task!");
}

#if !defined(__SANITIZE_THREAD__)  // ThreadSanitizer does not support threads after a threaded fork
TEST(ThreadTask, ForkedChildGetsAFreshPool) {
    kiv::ThreadTask("warm", kNoop, 3).execute();
    std::fflush(stdout);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        Probe probe;
        kiv::ThreadTask task("child", &Probe::body, &probe, 3);
        probe.reset(3);
        task.execute();
        const bool ok =
            probe.runs[0] == 1 && probe.runs[1] == 1 && probe.runs[2] == 1 && !probe.rendezvousFailed;
        std::exit(ok ? 0 : 3);  // exit(), not _exit(): the pool's shutdown must not hang
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
#endif

}  // namespace
