#include "HalvoPlatform/Time.hpp"

#include <algorithm>
#include <ctime>
#include <mutex>

namespace halvo {
namespace {

// `count`, or the greatest that this process has read before. The kernel computes this clock from
// the wall clock and the boot time, which are adjusted one after the other when the clock is set: a
// reading may lie a little before the last one, which would be taken for another boot.
std::uint64_t neverBack(std::uint64_t count) {
    static std::mutex mutex;
    static std::uint64_t greatest;
    const std::scoped_lock lock(mutex);
    greatest = std::max(greatest, count);
    return greatest;
}

}  // namespace

Seconds sinceBoot() {
    constexpr double nanosecondsPerSecond = 1000000000.0;
    return Seconds{static_cast<double>(neverBack(clock_gettime_nsec_np(CLOCK_MONOTONIC))) /
                   nanosecondsPerSecond};
}

}  // namespace halvo
