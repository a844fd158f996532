#include "HalvoHelperCore/HelperEngine.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>
#include <variant>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {
namespace {

// The log's names of the reasons, in the order of Lift; unreadableAtStartup has its own message.
constexpr std::array liftNames{"ended", "deadline", "expiredAtStartup"};

// Makes `commitment` the context of the log.
void nameInLog(const HelperCommitment& commitment) {
    const LogContext context{commitment.uid, commitment.appPath,
                             commitment.ends(commitment.checkpoint)};
    setLogContext(&context);
}

}  // namespace

HelperEngine::HelperEngine(HelperClock& clock, FileFlags& flags, CommitmentStore& store,
                           SessionProbe& session, AppOpener& opener)
    : clock_(clock),
      flags_(flags),
      store_(store),
      session_(session),
      opener_(opener),
      startedAt_(clock.reading().sinceBoot),
      console_(session.consoleUser()),
      consoleSince_(startedAt_) {}

void HelperEngine::startup() {
    const ClockReading now = clock_.reading();
    const StoredCommitment stored = store_.load();
    if (const auto* unreadable = std::get_if<UnreadableCommitment>(&stored)) {
        if (const auto appPath = lockOwed(*unreadable)) {
            flags_.setLocked(false, *appPath);
        }
        store_.remove();
        lastLift_ = Lift::unreadableAtStartup;
        HALVO_LOG_ERROR(log_, "The state file couldn't be read; everything was lifted");
        return;
    }
    const auto* commitment = std::get_if<HelperCommitment>(&stored);
    if (commitment == nullptr) {
        return;
    }
    nameInLog(*commitment);
    if (!commitment->isLive(now)) {
        commitment_ = *commitment;
        lift(Lift::expiredAtStartup);
        return;
    }
    commitment_ = commitment->rebased(now);
    save(*commitment_);
    watch_.checkpoint = now.sinceBoot;
    if (commitment_->locked) {
        relockIfNeeded(*commitment_);
    }
    HALVO_LOG_DEFAULT(log_, "Holding Ultra Hard mode for another %{public}ld s",
                      long{wholeSeconds(commitment_->timeLeft(now))});
}

bool HelperEngine::isOwnBundle(const std::string& appPath, const HelperPeer& peer) {
    return AppLocation::isBundlePath(appPath) && peer.bundlePath == appPath;
}

bool HelperEngine::begin(const std::string& appPath, WallDate until, WallDate started,
                         const HelperPeer& peer) {
    assumeMainActor();
    const ClockReading now = clock_.reading();
    if (!isOwnBundle(appPath, peer)) {
        HALVO_LOG_ERROR(log_, "Refused a begin for a bundle that isn't the caller's own");
        return false;
    }
    if (commitment_ && !commitment_->isLive(now)) {
        lift(Lift::deadline);
    }
    const auto current = commitment_ ? std::optional(commitment_->rebased(now)) : std::nullopt;
    if (current && current->uid != peer.uid) {
        HALVO_LOG_ERROR(log_, "Refused a begin while another person's Ultra Hard mode runs");
        return false;
    }
    const Seconds requested = until - now.wall;
    Seconds cap = started + HelperCommitment::maximum - now.wall;
    WallDate startedWall = started;
    if (current) {
        // An extension moves the end, never the one-day cap of the first start.
        cap = std::min(cap, current->capRemaining);
        startedWall = current->startedWall;
    }
    const Seconds granted = std::min(requested, cap);
    if (granted <= Seconds{0}) {
        if (current) {
            lift(Lift::ended);
        }
        return false;
    }
    const bool staysLocked = current && current->locked && current->appPath == appPath;
    if (current && current->locked && !staysLocked) {
        flags_.setLocked(false, current->appPath);
    }
    HelperCommitment next{appPath, peer.uid, startedWall, requested, cap, now, staysLocked};
    if (!staysLocked) {
        tryToLock(next);
    }
    save(next);
    commitment_ = std::move(next);
    watch_.checkpoint = now.sinceBoot;
    watch_.heartbeat = now.sinceBoot;
    watch_.sessionEnding = never;
    HALVO_LOG_DEFAULT(log_, "Holding Ultra Hard mode for %{public}ld s",
                      long{wholeSeconds(granted)});
    return true;
}

// A bundle that carries the lock already is left alone: what the helper did not set it never
// clears.
void HelperEngine::tryToLock(HelperCommitment& next) {
    if (!AppLocation::mayLock(next.appPath) || flags_.state(next.appPath) != LockState::unlocked) {
        return;
    }
    // Saved before the flag is touched, so that a crash in between leaves a record that owes the
    // unlock.
    next.locked = true;
    save(next);
    if (!flags_.setLocked(true, next.appPath)) {
        next.locked = false;
        HALVO_LOG_ERROR(log_, "Couldn't lock Halvo's app");
    }
}

bool HelperEngine::end(const HelperPeer& peer) {
    if (!commitment_ || commitment_->uid != peer.uid) {
        return false;
    }
    lift(Lift::ended);
    return true;
}

HelperStatus HelperEngine::status(const HelperPeer& peer) const {
    const ClockReading now = clock_.reading();
    if (!commitment_ || commitment_->uid != peer.uid || !commitment_->isLive(now)) {
        return HelperStatus::idle;
    }
    return {true, commitment_->ends(now), commitment_->locked};
}

bool HelperEngine::heartbeat(bool sessionEnding, const HelperPeer& peer) {
    const ClockReading now = clock_.reading();
    if (!commitment_ || commitment_->uid != peer.uid) {
        return false;
    }
    if (!commitment_->isLive(now)) {
        lift(Lift::deadline);
        return false;
    }
    watch_.heartbeat = now.sinceBoot;
    watch_.sessionEnding = sessionEnding ? now.sinceBoot : never;
    return true;
}

void HelperEngine::tick() {
    if (!commitment_) {
        return;
    }
    const ClockReading now = clock_.reading();
    if (!commitment_->isLive(now)) {
        lift(Lift::deadline);
        return;
    }
    if (now.sinceBoot - watch_.checkpoint >= Timing::checkpoint) {
        commitment_ = commitment_->rebased(now);
        save(*commitment_);
        watch_.checkpoint = now.sinceBoot;
    }
    if (commitment_->locked) {
        relockIfNeeded(*commitment_);
    }
    keepAppOpen(now.sinceBoot, *commitment_);
}

// A bundle that is missing is ignored. Logged even when setting the flag failed: the next tick
// tries again.
void HelperEngine::relockIfNeeded(const HelperCommitment& commitment) {
    if (flags_.state(commitment.appPath) == LockState::unlocked) {
        flags_.setLocked(true, commitment.appPath);
        HALVO_LOG_DEFAULT(log_, "Locked Halvo's app again");
    }
}

void HelperEngine::keepAppOpen(Seconds now, const HelperCommitment& commitment) {
    if (!isCommittedPersonPresent(now, commitment.uid) || isSessionEnding(now)) {
        return;
    }
    const Seconds heardOrSeen = std::max(watch_.heartbeat, watch_.seenRunning);
    const Seconds alive = std::max({heardOrSeen, consoleSince_, startedAt_});
    if (now - alive < Timing::silence) {
        return;
    }
    if (session_.isAppRunning(commitment.appPath, commitment.uid)) {
        watch_.seenRunning = now;
        return;
    }
    if (now - watch_.opening < Timing::reopenGap) {
        return;
    }
    watch_.opening = now;
    HALVO_LOG_DEFAULT(log_, "Halvo isn't running during Ultra Hard mode; opening it");
    const bool afterQuit = consoleSince_ <= heardOrSeen;
    opener_.open(commitment.appPath, commitment.uid, afterQuit);
}

// Updates the console user, and returns whether that is `uid`. A change away from that user
// discards an announced end of the session.
bool HelperEngine::isCommittedPersonPresent(Seconds now, std::uint32_t uid) {
    const std::optional<std::uint32_t> probe = session_.consoleUser();
    const bool present = probe == uid;
    if (probe != console_) {
        console_ = probe;
        consoleSince_ = now;
        if (!present) {
            watch_.sessionEnding = never;
        }
    }
    return present;
}

// Whether an announced end of the session is still within its grace time.
bool HelperEngine::isSessionEnding(Seconds now) {
    if (now - watch_.sessionEnding >= Timing::sessionEndGrace) {
        watch_.sessionEnding = never;
    }
    return watch_.sessionEnding != never;
}

// The only way from holding to idle.
void HelperEngine::lift(Lift reason) {
    if (!commitment_) {
        return;
    }
    if (commitment_->locked) {
        flags_.setLocked(false, commitment_->appPath);
    }
    commitment_.reset();
    store_.remove();
    lastLift_ = reason;
    watch_ = {};
    HALVO_LOG_DEFAULT(log_, "Ultra Hard mode let go: %{public}s",
                      liftNames.at(static_cast<std::size_t>(reason)));
    setLogContext(nullptr);
}

// The context first, so that the line of a failure has it too.
void HelperEngine::save(const HelperCommitment& commitment) {
    nameInLog(commitment);
    store_.save(commitment);
}

int HelperEngine::terminate() {
    if (!commitment_) {
        return 0;
    }
    const ClockReading now = clock_.reading();
    const HelperCommitment saved = commitment_->rebased(now);
    save(saved);
    // The record still owes the unlock, so that the next start sets the lock again.
    if (saved.locked) {
        flags_.setLocked(false, saved.appPath);
    }
    return saved.timeLeft(now) > Seconds{0} ? exitWhileHolding : 0;
}

}  // namespace halvo
