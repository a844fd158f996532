// The running commitment: a budget of time, and the arithmetic on it. Pure functions; nothing here
// reads a clock.
#pragma once

#include <cstdint>
#include <string>

#include "HalvoHelperCore/HelperClock.hpp"

namespace halvo {

struct HelperCommitment {
    // The longest that any commitment may run from its start.
    static constexpr Seconds maximum{86400};

    // The app bundle that is held.
    std::string appPath;
    // The user bound: the only one who can extend, end or query it.
    std::uint32_t uid{};
    // When it started; an extension keeps it.
    WallDate startedWall;
    // What remains of the requested time, as of `checkpoint`.
    Seconds remaining{};
    // What remains of `maximum`, as of `checkpoint`.
    Seconds capRemaining{};
    // When the two were last updated.
    ClockReading checkpoint;
    // The helper set the lock on `appPath` and owes its removal.
    bool locked{};

    bool operator==(const HelperCommitment&) const = default;

    // The time passed between `checkpoint` and `now`. By the monotonic clock while it can be
    // trusted: within one boot, and never backwards. Otherwise the larger of the wall clock's span
    // and the time since the new boot, never negative, so that neither a reboot nor a clock that is
    // set back shortens what is charged.
    [[nodiscard]] Seconds elapsed(const ClockReading& now) const;

    // The budget left at `now`, zero or negative once spent. Where the monotonic clock cannot be
    // trusted, it ends `maximum` after `startedWall` at the latest.
    [[nodiscard]] Seconds timeLeft(const ClockReading& now) const;

    // Whether any budget is left at `now`.
    [[nodiscard]] bool isLive(const ClockReading& now) const;

    // The wall-clock instant at which the budget will be spent, as `now` sees it.
    [[nodiscard]] WallDate ends(const ClockReading& now) const;

    // The same commitment with the time up to `now` charged and `checkpoint` moved there. The wall
    // cap of an untrusted span lands in `capRemaining` alone.
    [[nodiscard]] HelperCommitment rebased(const ClockReading& now) const;
};

}  // namespace halvo

template <>
struct std::hash<halvo::HelperCommitment> {
    std::size_t operator()(const halvo::HelperCommitment& value) const {
        return halvo::hashOf(value.appPath, value.uid, halvo::secondsSince1970(value.startedWall),
                             value.remaining.count(), value.capRemaining.count(), value.checkpoint,
                             value.locked);
    }
};
