#include "HalvoHelperCore/HelperCommitment.hpp"

#include <algorithm>

namespace halvo {
namespace {

// Whether the monotonic clock measures the span between the two readings.
bool isTrusted(const ClockReading& from, const ClockReading& to) {
    return to.bootID == from.bootID && from.sinceBoot <= to.sinceBoot;
}

// What the wall clock leaves of the longest commitment.
Seconds wallCap(const HelperCommitment& commitment, const ClockReading& now) {
    return commitment.startedWall + HelperCommitment::maximum - now.wall;
}

}  // namespace

Seconds HelperCommitment::elapsed(const ClockReading& now) const {
    if (isTrusted(checkpoint, now)) {
        return now.sinceBoot - checkpoint.sinceBoot;
    }
    const Seconds sinceNewBoot = now.sinceBoot >= Seconds{0} ? now.sinceBoot : Seconds{0};
    return std::max(now.wall - checkpoint.wall, sinceNewBoot);
}

Seconds HelperCommitment::timeLeft(const ClockReading& now) const {
    const Seconds left = std::min(remaining, capRemaining) - elapsed(now);
    return isTrusted(checkpoint, now) ? left : std::min(left, wallCap(*this, now));
}

bool HelperCommitment::isLive(const ClockReading& now) const { return timeLeft(now) > Seconds{0}; }

WallDate HelperCommitment::ends(const ClockReading& now) const { return now.wall + timeLeft(now); }

HelperCommitment HelperCommitment::rebased(const ClockReading& now) const {
    const Seconds spent = elapsed(now);
    HelperCommitment result = *this;
    result.remaining -= spent;
    result.capRemaining -= spent;
    if (!isTrusted(checkpoint, now)) {
        result.capRemaining = std::min(result.capRemaining, wallCap(*this, now));
    }
    result.checkpoint = now;
    return result;
}

}  // namespace halvo
