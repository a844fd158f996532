// What must be so, told from the rules and not from the engine.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {

using Lift = HelperEngine::Lift;

inline constexpr Seconds nothing{0};
inline constexpr Seconds day{24 * 60 * 60};
inline constexpr Seconds silence{6};
inline constexpr Seconds reopenGap{15};
inline constexpr Seconds sessionEndGrace{90};
inline constexpr int temporaryFailure = 75;

// By its text alone; the bundles of the simulation have no other traps in their paths.
inline bool isBundle(const std::string& path) {
    return path.starts_with('/') && path.ends_with(".app");
}

inline bool isInApplications(const std::string& path) {
    return std::filesystem::path(path).parent_path().filename() == "Applications";
}

// The commitment that must be held, with both budgets counted down as time passes.
struct ExpectedCommitment {
    std::string appPath;
    std::uint32_t uid{};
    WallDate startedWall;
    Seconds remaining{};
    Seconds cap{};
    bool locked{};

    [[nodiscard]] Seconds left() const { return std::min(remaining, cap); }

    [[nodiscard]] bool isLive() const { return left() > Seconds{0}; }

    // Whether `record`, as of `now`, is this commitment with this time left. Its lock is not
    // looked at.
    [[nodiscard]] bool matches(const HelperCommitment& record, const ClockReading& now) const;
};

// What a stored record is worth at `now`: within one boot the time since its checkpoint is charged.
// After a reboot it is the larger of what the wall clock says and the time that the machine has
// been up, and a day after the start by the wall clock everything is over.
inline ExpectedCommitment worthOf(const HelperCommitment& record, const ClockReading& now) {
    ExpectedCommitment worth{record.appPath,   record.uid,          record.startedWall,
                             record.remaining, record.capRemaining, record.locked};
    const bool sameBoot = record.checkpoint.bootID == now.bootID;
    const Seconds charged =
        sameBoot ? now.sinceBoot - record.checkpoint.sinceBoot
                 : std::max({now.wall - record.checkpoint.wall, now.sinceBoot, nothing});
    worth.remaining -= charged;
    worth.cap -= charged;
    if (!sameBoot) {
        worth.cap = std::min(worth.cap, record.startedWall + day - now.wall);
    }
    return worth;
}

inline bool ExpectedCommitment::matches(const HelperCommitment& record,
                                        const ClockReading& now) const {
    const ExpectedCommitment worth = worthOf(record, now);
    return worth.appPath == appPath && worth.uid == uid && worth.startedWall == startedWall &&
           worth.remaining == remaining && worth.cap == cap;
}

struct BeginRequest {
    std::string appPath;
    WallDate until;
    WallDate started;
    HelperPeer peer;
};

// Follows an engine through its operations and says what each must bring about. Reads the world as
// it is before the operation. Every time is exact: spans are multiples of an eighth of a second.
class Expectation {
  public:
    explicit Expectation(const SimulatedWorld& world) : world_(world) {}

    std::optional<ExpectedCommitment> held;
    std::optional<HelperEngine::Lift> lastLift;

    // Time passes within one boot, whether or not an engine runs.
    void timePasses(Seconds span) {
        if (held) {
            held->remaining -= span;
            held->cap -= span;
        }
    }

    void startup() {
        held.reset();
        lastLift.reset();
        started_ = now();
        consoleSince_ = now();
        console_ = world_.session.console;
        heard_ = seen_ = opened_ = announced_ = std::nullopt;
        if (const auto* record = world_.store.commitment()) {
            held = worthOf(*record, world_.clock.now());
            if (!held->isLive()) {
                lift(Lift::expiredAtStartup);
            }
        } else if (!world_.store.isEmpty()) {
            lastLift = Lift::unreadableAtStartup;
        }
    }

    bool begin(const BeginRequest& request) {
        unlockedPath_.clear();
        if (!isBundle(request.appPath) || request.peer.bundlePath != request.appPath) {
            return false;
        }
        if (held && !held->isLive()) {
            lift(Lift::deadline);
        }
        if (held && held->uid != request.peer.uid) {
            return false;
        }
        const WallDate wall = world_.clock.now().wall;
        ExpectedCommitment next{request.appPath,
                                request.peer.uid,
                                request.started,
                                request.until - wall,
                                request.started + day - wall,
                                false};
        if (held) {
            next.startedWall = held->startedWall;
            next.cap = std::min(next.cap, held->cap);
        }
        if (!next.isLive()) {
            if (held) {
                lift(Lift::ended);
            }
            return false;
        }
        const bool keepsLock = held && held->locked && held->appPath == next.appPath;
        next.locked = keepsLock || wouldLock(next.appPath);
        held = next;
        heard_ = now();
        announced_.reset();
        return true;
    }

    bool end(std::uint32_t uid) {
        if (!held || held->uid != uid) {
            return false;
        }
        lift(Lift::ended);
        return true;
    }

    bool heartbeat(bool sessionEnding, std::uint32_t uid) {
        if (!held || held->uid != uid) {
            return false;
        }
        if (!held->isLive()) {
            lift(Lift::deadline);
            return false;
        }
        heard_ = now();
        announced_ = sessionEnding ? heard_ : std::nullopt;
        return true;
    }

    std::optional<Opening> tick() {
        if (!held) {
            return std::nullopt;
        }
        if (!held->isLive()) {
            lift(Lift::deadline);
            return std::nullopt;
        }
        return openingDue();
    }

    HelperStatus status(std::uint32_t uid) const {
        if (!held || held->uid != uid || !held->isLive()) {
            return {};
        }
        return {true, world_.clock.now().wall + held->left(), held->locked};
    }

  private:
    void lift(Lift reason) {
        if (held->locked && !world_.flags.failsToUnlock) {
            unlockedPath_ = held->appPath;
        }
        held.reset();
        lastLift = reason;
        heard_ = seen_ = opened_ = announced_ = std::nullopt;
    }

    bool wouldLock(const std::string& path) const {
        const bool isFree = !world_.flags.isSet(path) || path == unlockedPath_;
        return isInApplications(path) && world_.flags.exists(path) && isFree &&
               !world_.flags.failsToLock && !world_.store.failsToSave && !world_.store.failsToSync;
    }

    std::optional<Opening> openingDue() {
        const auto& person = world_.session.console;
        if (person != console_) {
            console_ = person;
            consoleSince_ = now();
            if (person != held->uid) {
                announced_.reset();
            }
        }
        if (person != held->uid || isAnnounced()) {
            return std::nullopt;
        }
        // Absent times are the smallest optionals there are.
        const std::optional<Seconds> lastSign = std::max(heard_, seen_);
        const Seconds quietSince = std::max({started_, consoleSince_, lastSign.value_or(started_)});
        if (now() < quietSince + silence) {
            return std::nullopt;
        }
        if (world_.session.runs(held->appPath, held->uid)) {
            seen_ = now();
            return std::nullopt;
        }
        if (opened_ && now() < *opened_ + reopenGap) {
            return std::nullopt;
        }
        opened_ = now();
        const bool afterQuit = lastSign && *lastSign >= consoleSince_;
        return Opening{held->appPath, held->uid, afterQuit, now()};
    }

    bool isAnnounced() {
        if (announced_ && now() >= *announced_ + sessionEndGrace) {
            announced_.reset();
        }
        return announced_.has_value();
    }

    int terminate() { return held && held->isLive() ? temporaryFailure : 0; }

    [[nodiscard]] Seconds now() const { return world_.clock.now().sinceBoot; }

    const SimulatedWorld& world_;

    // A flag that the operation clears before it looks at the flags again.
    std::string unlockedPath_;

    // When each thing that keeps the app from being opened last happened.
    Seconds started_{};
    std::optional<Seconds> heard_;
    std::optional<Seconds> seen_;
    std::optional<Seconds> opened_;
    std::optional<Seconds> announced_;
    std::optional<std::uint32_t> console_;
    Seconds consoleSince_{};
};

}  // namespace halvo::testing
