#include <kiv/Abort.h>
#include <kiv/ThreadTask.h>
#include <kiv/Timer.h>
#include <pthread.h>
#include <x86intrin.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace kiv {

namespace {

// Worker index of the running thread; constant on a pool thread, 0 elsewhere
// except while a one-thread task runs inline.
thread_local unsigned t_index = 0;
// Set while the thread runs its share of a task dispatched to the pool.
thread_local bool t_inPoolTask = false;

std::atomic<ThreadTask::DeleteHandler> g_deleteHandler{nullptr};
std::atomic<std::uint64_t> g_threadsCreated{0};

// About the cost of a sleep and wake-up on the machines measured (tens of
// microseconds): polling longer than that cannot win more than it wastes.
constexpr unsigned kDefaultSpinMicroseconds = 50;
std::atomic<unsigned> g_spinMicroseconds{kDefaultSpinMicroseconds};
// The same budget in tick-counter units; computed when the pool is made and
// whenever the budget changes (the clock scale is calibrated once, ~20 ms).
std::atomic<std::uint64_t> g_spinTicks{0};

std::uint64_t ticksFor(unsigned microseconds) noexcept {
    return static_cast<std::uint64_t>(1e-6 * microseconds / Timer::clockSpeed());
}

// Polls `done` for at most `budget` ticks, with a pause between reads and a
// yield of the processor every few reads (so that a thread being waited for
// that shares this processor gets to run); returns whether it became true.
template <typename Done>
bool spinUntil(Done done, std::uint64_t budget) noexcept {
    if (done()) return true;
    if (budget == 0) return false;
    const std::uint64_t start = Timer::ticks();
    for (;;) {
        for (int i = 0; i < 32; ++i) {
            _mm_pause();
            if (done()) return true;
        }
        if (Timer::ticks() - start > budget) return false;
        std::this_thread::yield();
        if (done()) return true;
    }
}

}  // namespace

// Process-wide pool of worker threads, shared by all callers without a queue: an execution with N workers
// claims N−1 idle pool threads (starting the missing ones, once) and a completion record, runs, and hands
// them back, so that executions from different threads run at the same time, each on pool threads of its
// own. A claim is a short critical section; the task itself runs outside of it.
// Protocol: the caller writes each claimed worker's assignment (task, index, record, polling budget), then
// stores a new generation into the worker's word (under the worker's mutex, then a notify). A worker that
// sees its word change reads its assignment, runs the task and counts the record's `remaining` down; the one
// that reaches zero notifies the record's condition. The caller's acquire load of remaining == 0 orders
// every worker's writes before execute() returns. Workers go back to the idle list last in, first out, so
// that a thread that executes repeatedly gets the same pool threads again.
class ThreadPool {
public:
    static ThreadPool& instance();

    void execute(ThreadTask& task);
    void shutdown() noexcept;
    unsigned size() const noexcept { return size_.load(std::memory_order_relaxed); }

    // Makes a fresh empty pool the current one in a forked child, whose copy
    // of the old pool refers to threads that do not exist there.
    static void forkChild() noexcept;
    // Shuts the current pool down, if one was ever made.
    static void shutdownCurrent() noexcept;
    // Size of the current pool, 0 if none was made.
    static unsigned currentSize() noexcept;

private:
    static constexpr std::uint64_t kStop = ~std::uint64_t{0};

    struct Worker;

    // The completion record of one execution. Owned by the pool and never freed (a worker may still take
    // its mutex after the caller has returned); reused by later executions.
    struct alignas(64) Team {
        std::atomic<unsigned> remaining{0};
        std::mutex doneMutex;
        std::condition_variable done;
        std::vector<Worker*> members;  // the claimed workers; capacity grows only
    };

    // One cache line or more per worker, so that polling one worker's word
    // never contends with another's.
    struct alignas(64) Worker {
        std::atomic<std::uint64_t> generation{0};  // written under mutex
        std::mutex mutex;
        std::condition_variable wake;
        std::thread thread;
        // The assignment of the current generation, written by the claiming caller before it publishes the
        // generation.
        ThreadTask* task = nullptr;
        Team* team = nullptr;
        unsigned index = 0;
        std::uint64_t spinTicks = 0;
    };

    void startWorkers(unsigned count);
    void workerLoop(Worker* worker) noexcept;
    void waitForWorkers(Team& team, std::uint64_t spinTicks) noexcept;

    std::mutex claim_;  // guards the lists below, growth and shutdown
    std::vector<std::unique_ptr<Worker>> workers_;
    std::vector<Worker*> idle_;
    std::vector<std::unique_ptr<Team>> teams_;
    std::vector<Team*> idleTeams_;
    std::atomic<unsigned> size_{0};
    // Threads running tasks of the pool now (callers and workers): polling only pays when every one of them
    // has a processor of its own.
    std::atomic<unsigned> busy_{0};
    const unsigned processors_ = std::thread::hardware_concurrency();
    ThreadPool* abandoned_ = nullptr;  // pool of the parent process, kept reachable

    static std::atomic<ThreadPool*> current_;
};

std::atomic<ThreadPool*> ThreadPool::current_{nullptr};

namespace {

// Joins the pool's threads when the library is unloaded or the process exits.
// The pool object itself is never destroyed, so a worker or a late caller can
// never touch freed memory.
struct PoolShutdown {
    ~PoolShutdown() { ThreadPool::shutdownCurrent(); }
} g_shutdown;

std::mutex g_creation;

}  // namespace

ThreadPool& ThreadPool::instance() {
    ThreadPool* pool = current_.load(std::memory_order_acquire);
    if (pool) return *pool;
    std::lock_guard<std::mutex> lock(g_creation);
    pool = current_.load(std::memory_order_relaxed);
    if (!pool) {
        g_spinTicks.store(ticksFor(g_spinMicroseconds.load(std::memory_order_relaxed)),
                          std::memory_order_relaxed);
        pool = new ThreadPool;
        pthread_atfork(nullptr, nullptr, &ThreadPool::forkChild);
        current_.store(pool, std::memory_order_release);
    }
    return *pool;
}

void ThreadPool::forkChild() noexcept {
    ThreadPool* old = current_.load(std::memory_order_relaxed);
    ThreadPool* fresh = new (std::nothrow) ThreadPool;
    if (!fresh) return;
    fresh->abandoned_ = old;
    current_.store(fresh, std::memory_order_release);
}

void ThreadPool::shutdownCurrent() noexcept {
    if (ThreadPool* pool = current_.load(std::memory_order_acquire)) pool->shutdown();
}

unsigned ThreadPool::currentSize() noexcept {
    ThreadPool* pool = current_.load(std::memory_order_acquire);
    return pool ? pool->size() : 0;
}

// Under claim_: starts `count` more pool threads, all idle.
void ThreadPool::startWorkers(unsigned count) {
    workers_.reserve(workers_.size() + count);
    idle_.reserve(workers_.size() + count);
    for (unsigned k = 0; k < count; ++k) {
        auto worker = std::make_unique<Worker>();
        worker->thread = std::thread(&ThreadPool::workerLoop, this, worker.get());
        g_threadsCreated.fetch_add(1, std::memory_order_relaxed);
        idle_.push_back(worker.get());          // cannot throw: reserved
        workers_.push_back(std::move(worker));  // cannot throw: reserved
        size_.store(static_cast<unsigned>(workers_.size()), std::memory_order_relaxed);
    }
}

void ThreadPool::workerLoop(Worker* worker) noexcept {
    std::uint64_t seen = 0;
    std::uint64_t budget = 0;  // the last task's polling budget
    for (;;) {
        std::uint64_t g = seen;
        auto changed = [&] {
            g = worker->generation.load(std::memory_order_acquire);
            return g != seen;
        };
        if (!spinUntil(changed, budget)) {
            std::unique_lock<std::mutex> lock(worker->mutex);
            while (!changed()) worker->wake.wait(lock);
        }
        seen = g;
        if (g == kStop) return;
        ThreadTask* task = worker->task;
        Team* team = worker->team;
        budget = worker->spinTicks;
        t_index = worker->index;
        t_inPoolTask = true;
        task->run();
        t_inPoolTask = false;
        t_index = 0;
        if (team->remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            // Taking the mutex orders this notify after the caller's check of
            // remaining if it is about to sleep; nothing of the task or of this
            // worker's assignment is touched any more (the caller may have
            // returned and the worker may be claimed again already).
            { std::lock_guard<std::mutex> lock(team->doneMutex); }
            team->done.notify_one();
        }
    }
}

void ThreadPool::waitForWorkers(Team& team, std::uint64_t spinTicks) noexcept {
    auto finished = [&team] { return team.remaining.load(std::memory_order_acquire) == 0; };
    if (spinUntil(finished, spinTicks)) return;
    std::unique_lock<std::mutex> lock(team.doneMutex);
    while (!finished()) team.done.wait(lock);
}

void ThreadPool::execute(ThreadTask& task) {
    const unsigned n = task.numThreads();
    Team* team;
    {
        std::lock_guard<std::mutex> lock(claim_);
        if (idleTeams_.empty()) {
            teams_.reserve(teams_.size() + 1);
            idleTeams_.reserve(teams_.size() + 1);
            teams_.push_back(std::make_unique<Team>());
            idleTeams_.push_back(teams_.back().get());
        }
        team = idleTeams_.back();
        idleTeams_.pop_back();
        if (idle_.size() < n - 1) startWorkers(n - 1 - static_cast<unsigned>(idle_.size()));
        team->members.reserve(n - 1);
        team->members.clear();
        for (unsigned k = 0; k + 1 < n; ++k) {
            team->members.push_back(idle_.back());  // cannot throw: reserved
            idle_.pop_back();
        }
    }
    const unsigned busy = busy_.fetch_add(n, std::memory_order_relaxed) + n;
    const std::uint64_t spinTicks =
        processors_ != 0 && busy > processors_ ? 0 : g_spinTicks.load(std::memory_order_relaxed);
    team->remaining.store(n - 1, std::memory_order_relaxed);
    for (unsigned k = 0; k + 1 < n; ++k) {
        Worker& worker = *team->members[k];
        worker.task = &task;
        worker.team = team;
        worker.index = k + 1;
        worker.spinTicks = spinTicks;
        {
            std::lock_guard<std::mutex> workerLock(worker.mutex);
            worker.generation.store(worker.generation.load(std::memory_order_relaxed) + 1,
                                    std::memory_order_release);
        }
        worker.wake.notify_one();
    }
    auto handBack = [this, team, n] {
        busy_.fetch_sub(n, std::memory_order_relaxed);
        std::lock_guard<std::mutex> lock(claim_);
        for (unsigned k = n - 1; k-- > 0;) idle_.push_back(team->members[k]);  // capacity: every worker
        idleTeams_.push_back(team);                                            // capacity: every record
    };
    t_inPoolTask = true;
    try {
        task.run();
    } catch (...) {
        t_inPoolTask = false;
        waitForWorkers(*team, spinTicks);
        handBack();
        throw;
    }
    t_inPoolTask = false;
    waitForWorkers(*team, spinTicks);
    handBack();
}

void ThreadPool::shutdown() noexcept {
    std::lock_guard<std::mutex> lock(claim_);
    for (auto& worker : workers_) {
        {
            std::lock_guard<std::mutex> workerLock(worker->mutex);
            worker->generation.store(kStop, std::memory_order_release);
        }
        worker->wake.notify_one();
    }
    for (auto& worker : workers_) worker->thread.join();
    workers_.clear();
    idle_.clear();
    size_.store(0, std::memory_order_relaxed);
}

ThreadTask::ThreadTask(const char* name, Function function, void* context, unsigned numThreads)
    : function_(function), context_(context), numThreads_(numThreads == 0 ? 1 : numThreads) {
    std::strncpy(name_, name ? name : "", kMaxNameLength);
    name_[kMaxNameLength] = '\0';
}

ThreadTask::ThreadTask(const char* name, std::function<void()> callback, unsigned numThreads)
    : ThreadTask(name, &ThreadTask::callStdFunction, nullptr, numThreads) {
    callback_ = std::move(callback);
    context_ = this;
}

void ThreadTask::callStdFunction(void* self) {
    static_cast<ThreadTask*>(self)->callback_();
}

void ThreadTask::execute() {
    if (numThreads_ == 1) {
        // Inline, as worker 0; allowed inside another task's callback.
        const unsigned outer = t_index;
        t_index = 0;
        try {
            run();
        } catch (...) {
            t_index = outer;
            throw;
        }
        t_index = outer;
        return;
    }
    if (t_inPoolTask) {
        abortAt("ThreadTask.cpp", __LINE__, "A task with several threads executed from inside a task!");
    }
    ThreadPool::instance().execute(*this);
}

unsigned ThreadTask::release() noexcept {
    const unsigned left = refCount_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        DeleteHandler handler = g_deleteHandler.load(std::memory_order_acquire);
        if (handler) {
            handler(this);
        } else {
            delete this;
        }
    }
    return left;
}

void ThreadTask::setDeleteHandler(DeleteHandler handler) noexcept {
    g_deleteHandler.store(handler, std::memory_order_release);
}

ThreadTask::DeleteHandler ThreadTask::deleteHandler() noexcept {
    return g_deleteHandler.load(std::memory_order_acquire);
}

unsigned ThreadTask::currentThreadIndex() noexcept {
    return t_index;
}

std::uint64_t ThreadTask::threadsCreated() noexcept {
    return g_threadsCreated.load(std::memory_order_relaxed);
}

unsigned ThreadTask::poolSize() noexcept {
    return ThreadPool::currentSize();
}

void ThreadTask::setSpinMicroseconds(unsigned microseconds) noexcept {
    g_spinMicroseconds.store(microseconds, std::memory_order_relaxed);
    g_spinTicks.store(ticksFor(microseconds), std::memory_order_relaxed);
}

unsigned ThreadTask::spinMicroseconds() noexcept {
    return g_spinMicroseconds.load(std::memory_order_relaxed);
}

}  // namespace kiv
