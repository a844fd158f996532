// Time that nobody can set, for timers and budgets.
#pragma once

#include <algorithm>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

// Time since boot, which counts while the machine sleeps, and which within a process never goes
// back. One source per system: on Linux CLOCK_BOOTTIME (clock_gettime(2)), on macOS CLOCK_MONOTONIC
// (clock_gettime_nsec_np(3)), whose steps back are held up. Any thread.
Seconds sinceBoot();

// `delay` as any timer takes it: none where it is negative or not-a-number, a century at most.
inline Seconds withinACentury(Seconds delay) {
    constexpr Seconds century = std::chrono::years{100};
    const bool isDelay = delay > Seconds{0};
    return isDelay ? std::min(delay, century) : Seconds{0};
}

}  // namespace halvo
