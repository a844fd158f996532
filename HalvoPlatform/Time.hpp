// Spans and instants as the whole system counts them.
#pragma once

#include <chrono>
#include <cstdint>

namespace halvo {

// A span, or a time since boot, in seconds with the fraction kept.
using Seconds = std::chrono::duration<double>;

// A wall-clock instant. Its own type, so that it never mixes with a span or a time since boot.
using WallDate = std::chrono::sys_time<Seconds>;

// The instant `seconds` after 1970-01-01 00:00:00 UTC, leap seconds not counted. Any double is
// taken as it is, not-a-number and the infinities included.
constexpr WallDate wallDate(double seconds) { return WallDate{Seconds{seconds}}; }

// The inverse of wallDate(); gives back the same bits.
constexpr double secondsSince1970(WallDate date) { return date.time_since_epoch().count(); }

// The present wall-clock instant. It jumps when somebody sets the clock. Any thread.
WallDate wallNow();

// Time since boot, which counts while the machine sleeps, which nobody can set, and which within a
// process never goes back. One source per system: on Linux CLOCK_BOOTTIME (clock_gettime(2)), on
// macOS CLOCK_MONOTONIC (clock_gettime_nsec_np(3)), whose steps back are held up. Any thread.
Seconds sinceBoot();

// `span` as a whole number of seconds, truncated toward zero. A span that is not finite, or lies
// outside the signed 64-bit range, is a fatal error (see Fatal.hpp).
std::int64_t wholeSeconds(Seconds span);

}  // namespace halvo
