// Tick counter and its scale to seconds.
//
// ticks() reads the processor's time-stamp counter: a few cycles, no system
// call, monotonic on the invariant-TSC processors this runtime targets. The
// scale is calibrated once per process against the monotonic system clock.
#pragma once

#include <cstdint>

namespace kiv {

class Timer {
public:
    // Current value of the tick counter.
    static std::uint64_t ticks() noexcept;

    // Seconds per tick. The first call calibrates (about 20 ms); later calls
    // return the cached value. Thread-safe.
    static double clockSpeed() noexcept;

    // Seconds between two tick readings.
    static double seconds(std::uint64_t start, std::uint64_t end) noexcept {
        return static_cast<double>(end - start) * clockSpeed();
    }
};

}  // namespace kiv
