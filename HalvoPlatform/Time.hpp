// Spans and instants.
#pragma once

#include <chrono>
#include <cstdint>

namespace halvo {

// A span, or a time since boot, in seconds with the fraction kept.
using Seconds = std::chrono::duration<double>;

// A wall-clock instant. Its own type, so that it never mixes with a span or a time since boot.
using WallDate = std::chrono::sys_time<Seconds>;

// The instant `seconds` after 1970-01-01 00:00:00 UTC, leap seconds not counted. Accepts any
// double, not-a-number and the infinities included.
constexpr WallDate wallDate(double seconds) { return WallDate{Seconds{seconds}}; }

// The inverse of wallDate(), to the same bits.
constexpr double secondsSince1970(WallDate date) { return date.time_since_epoch().count(); }

// The present wall-clock instant, which jumps when the clock is set. Any thread.
WallDate wallNow();

// Time since boot, which counts while the machine sleeps, cannot be set, and never goes back within
// a process. Any thread. On Linux CLOCK_BOOTTIME (clock_gettime(2)), on macOS CLOCK_MONOTONIC
// (clock_gettime_nsec_np(3)), whose steps back are suppressed. One source per system.
Seconds sinceBoot();

// `span`, which is not negative, in whole microseconds, rounded down: as systemd's libraries count.
constexpr std::uint64_t microseconds(Seconds span) {
    using Microseconds = std::chrono::duration<std::uint64_t, std::micro>;
    return std::chrono::duration_cast<Microseconds>(span).count();
}

// `span` as a whole number of seconds, truncated toward zero. A span that is not finite, or lies
// outside the signed 64-bit range, is a fatal error (see Fatal.hpp).
std::int64_t wholeSeconds(Seconds span);

}  // namespace halvo
