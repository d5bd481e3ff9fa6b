#include <kiv/Timer.h>

#include <x86intrin.h>

#include <chrono>
#include <mutex>
#include <thread>

namespace kiv {

std::uint64_t Timer::ticks() noexcept { return __rdtsc(); }

namespace {

double calibrate() noexcept {
    using Clock = std::chrono::steady_clock;
    // Two short windows; the longer-running one gives the scale. Sleeping
    // rather than spinning keeps the calibration cheap on a loaded machine,
    // and the counter is invariant, so it keeps ticking while we sleep.
    auto t0 = Clock::now();
    std::uint64_t c0 = __rdtsc();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    auto t1 = Clock::now();
    std::uint64_t c1 = __rdtsc();
    double secs = std::chrono::duration<double>(t1 - t0).count();
    if (c1 <= c0 || secs <= 0.0) return 1e-9;
    return secs / static_cast<double>(c1 - c0);
}

}  // namespace

double Timer::clockSpeed() noexcept {
    static std::once_flag once;
    static double scale = 0.0;
    std::call_once(once, [] { scale = calibrate(); });
    return scale;
}

}  // namespace kiv
