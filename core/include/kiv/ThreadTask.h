// Named task that runs one callback on N threads at once and waits for all.
//
// The threads come from one process-wide pool: the calling thread serves as
// worker 0 and pool threads serve as workers 1 … N−1. An execution claims
// N−1 idle pool threads for its length and hands them back afterwards, so
// executions from different calling threads run at the same time, each on
// pool threads of its own (there is no queue). The pool starts empty, grows
// on demand to the most threads ever claimed at once and is reused by every
// later task, so that once it is large enough execute() neither starts an OS
// thread nor allocates: a dispatch is a claim under a short lock, a generation
// bump per worker, a wake of the sleeping ones and a countdown that the caller
// waits on. Idle workers poll for a short, bounded while after a task
// (catching back-to-back tasks without a wake-up, which costs tens of
// microseconds) and then sleep on a condition variable; they never burn CPU
// between tasks. Executions that would make the running threads outnumber the
// machine's processors never poll.
//
// execute() of a task with more than one thread from inside a running
// callback is fatal; a one-thread task runs inline and may be nested.
//
// The pool's threads are joined by a static destructor at process exit. A
// child process created by fork() starts with an empty pool.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

namespace kiv {

class ThreadTask {
public:
    // Callback of the cheap form: called as function(context) on every worker.
    using Function = void (*)(void* context);
    // Called by release() instead of `delete` when installed (see
    // setDeleteHandler); it owns the object from then on and must destroy it.
    using DeleteHandler = void (*)(ThreadTask* task);

    // Longest name kept; longer names are truncated.
    static constexpr unsigned kMaxNameLength = 63;

    // A task named `name` that calls function(context) on `numThreads` workers
    // (0 counts as 1). The reference count starts at 1, held by the creator.
    ThreadTask(const char* name, Function function, void* context, unsigned numThreads = 1);
    // Same with a callable (a lambda that captures at most two pointers is
    // stored without allocation by the standard library).
    ThreadTask(const char* name, std::function<void()> callback, unsigned numThreads = 1);

    // Binds a member function: the task calls (object->*Method)() on every
    // worker, without any allocation. Usage:
    //   new ThreadTask("name", ThreadTask::member<Obj, &Obj::run>, &obj, n)
    template <typename C, void (C::*Method)()>
    static void member(void* object) {
        (static_cast<C*>(object)->*Method)();
    }

    ThreadTask(const ThreadTask&) = delete;
    ThreadTask& operator=(const ThreadTask&) = delete;
    // Public so that a task may live on the stack or inside another object; a
    // task that is destroyed that way must never be released to zero.
    ~ThreadTask() = default;

    const char* name() const noexcept { return name_; }

    // Number of workers of the next execute(); 0 counts as 1.
    void setNumThreads(unsigned numThreads) noexcept { numThreads_ = numThreads == 0 ? 1 : numThreads; }
    unsigned numThreads() const noexcept { return numThreads_; }

    // Runs the callback on workers 0 … numThreads()−1 concurrently (worker 0 is
    // the calling thread) and returns when every one has returned. Inside the
    // callback currentThreadIndex() gives the worker's index. An exception
    // thrown on worker 0 is rethrown here after the other workers have
    // finished; an exception escaping a pool worker terminates the process.
    void execute();

    // Reference counting. addRef() and release() return the new count; the
    // release() that drops it to zero hands the object to the delete handler,
    // or deletes it when none is installed.
    unsigned addRef() noexcept { return refCount_.fetch_add(1, std::memory_order_relaxed) + 1; }
    unsigned release() noexcept;
    unsigned refCount() const noexcept { return refCount_.load(std::memory_order_relaxed); }

    // Installs the process-wide delete handler (nullptr restores plain delete).
    static void setDeleteHandler(DeleteHandler handler) noexcept;
    static DeleteHandler deleteHandler() noexcept;

    // Index of the calling thread within the task that it is running: 0 … N−1
    // inside a callback, 0 outside any task.
    static unsigned currentThreadIndex() noexcept;

    // OS threads the pool has started since the process began (never drops),
    // and the number of pool threads currently alive.
    static std::uint64_t threadsCreated() noexcept;
    static unsigned poolSize() noexcept;

    // How long an idle worker polls for the next task before it goes to
    // sleep, and how long the caller polls for its workers before it sleeps,
    // in microseconds (process-wide; 0 sleeps at once). Polling pauses the
    // processor between reads and yields it every microsecond or so.
    static void setSpinMicroseconds(unsigned microseconds) noexcept;
    static unsigned spinMicroseconds() noexcept;

private:
    friend class ThreadPool;
    void run() { function_(context_); }
    static void callStdFunction(void* self);

    char name_[kMaxNameLength + 1];
    Function function_;
    void* context_;
    std::function<void()> callback_;
    unsigned numThreads_;
    std::atomic<unsigned> refCount_{1};
};

}  // namespace kiv
