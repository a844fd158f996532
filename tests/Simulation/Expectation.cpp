#include "tests/Simulation/Expectation.hpp"

#include <filesystem>

namespace halvo::testing {
namespace {

using Lift = HelperEngine::Lift;

constexpr Seconds nothing{0};
constexpr Seconds day{24 * 60 * 60};
constexpr Seconds silence{6};
constexpr Seconds reopenGap{15};
constexpr Seconds sessionEndGrace{90};
constexpr int temporaryFailure = 75;

// By its text alone; the bundles of the simulation have no other traps in their paths.
bool isBundle(const std::string& path) { return path.starts_with('/') && path.ends_with(".app"); }

bool isInApplications(const std::string& path) {
    return std::filesystem::path(path).parent_path().filename() == "Applications";
}

}  // namespace

bool ExpectedCommitment::matches(const HelperCommitment& record, const ClockReading& now) const {
    const ExpectedCommitment worth = worthOf(record, now);
    return worth.appPath == appPath && worth.uid == uid && worth.startedWall == startedWall &&
           worth.remaining == remaining && worth.cap == cap;
}

ExpectedCommitment worthOf(const HelperCommitment& record, const ClockReading& now) {
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

void Expectation::timePasses(Seconds span) {
    if (held) {
        held->remaining -= span;
        held->cap -= span;
    }
}

void Expectation::startup() {
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

void Expectation::lift(Lift reason) {
    if (held->locked && !world_.flags.failsToUnlock) {
        unlockedPath_ = held->appPath;
    }
    held.reset();
    lastLift = reason;
    heard_ = seen_ = opened_ = announced_ = std::nullopt;
}

bool Expectation::wouldLock(const std::string& path) const {
    const bool isFree = !world_.flags.isSet(path) || path == unlockedPath_;
    return isInApplications(path) && world_.flags.exists(path) && isFree &&
           !world_.flags.failsToLock && !world_.store.failsToSave && !world_.store.failsToSync;
}

bool Expectation::begin(const BeginRequest& request) {
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

bool Expectation::end(std::uint32_t uid) {
    if (!held || held->uid != uid) {
        return false;
    }
    lift(Lift::ended);
    return true;
}

bool Expectation::heartbeat(bool sessionEnding, std::uint32_t uid) {
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

std::optional<Opening> Expectation::tick() {
    if (!held) {
        return std::nullopt;
    }
    if (!held->isLive()) {
        lift(Lift::deadline);
        return std::nullopt;
    }
    return openingDue();
}

std::optional<Opening> Expectation::openingDue() {
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

bool Expectation::isAnnounced() {
    if (announced_ && now() >= *announced_ + sessionEndGrace) {
        announced_.reset();
    }
    return announced_.has_value();
}

int Expectation::terminate() { return held && held->isLive() ? temporaryFailure : 0; }

HelperStatus Expectation::status(std::uint32_t uid) const {
    if (!held || held->uid != uid || !held->isLive()) {
        return {};
    }
    return {true, world_.clock.now().wall + held->left(), held->locked};
}

}  // namespace halvo::testing
