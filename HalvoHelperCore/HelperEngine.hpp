// The engine of Ultra Hard mode.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "HalvoHelperCore/AppOpener.hpp"
#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"
#include "HalvoHelperCore/HelperClock.hpp"
#include "HalvoHelperCore/HelperCommitment.hpp"
#include "HalvoHelperCore/HelperPeer.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoHelperCore/SessionProbe.hpp"
#include "HalvoPlatform/Log.hpp"

namespace halvo {

// Holds at most one commitment, keeps it stored, keeps the app locked and open, and answers the
// requests. Borrows its five collaborators, which must outlive it. Throws nothing, and no failure
// of a collaborator stops it: the collaborator logs it, and the next tick acts on the actual state.
// The context of the log (Log.hpp) is the commitment held, up to the line of its end included. Main
// queue only; begin() checks that.
class HelperEngine {
  public:
    // Why a commitment was let go.
    enum class Lift { ended, deadline, expiredAtStartup, unreadableAtStartup };

    struct Timing {
        // Period of tick().
        static constexpr Seconds tick{2};
        // Least time between two saves made by tick().
        static constexpr Seconds checkpoint{60};
        // How long after an announced end of the session the app is not opened.
        static constexpr Seconds sessionEndGrace{90};
        // How long the app must have given no sign of life before its process is looked for.
        static constexpr Seconds silence{6};
        // Least time between two openings of the app.
        static constexpr Seconds reopenGap{15};
    };

    // What terminate() returns while a commitment is live (EX_TEMPFAIL).
    static constexpr int exitWhileHolding = 75;

    HelperEngine(HelperClock& clock, FileFlags& flags, CommitmentStore& store,
                 SessionProbe& session, AppOpener& opener);

    // Resumes the stored commitment, or lets it go when it has expired or its record is damaged.
    // Called once, before any request.
    void startup();

    // Whether `appPath` is the caller's own bundle: the only one that it can commit.
    static bool isOwnBundle(const std::string& appPath, const HelperPeer& peer);

    // Commits `peer` to keep its own bundle `appPath` until `until`, counted from `started`, and
    // never longer than a day from the first start. True when a commitment is now held for the
    // caller. An `until` in the past, however far, ends the caller's running commitment and is
    // false. Both dates are finite, and `started` not so far ahead that the day after it cannot be
    // counted in whole seconds (see wholeSeconds()).
    bool begin(const std::string& appPath, WallDate until, WallDate started,
               const HelperPeer& peer);

    // A sign of life of the app; `sessionEnding` announces that the person's session is about to
    // end, which keeps the app closed for a while. True while the caller's commitment is live.
    bool heartbeat(bool sessionEnding, const HelperPeer& peer);

    // Lets the caller's commitment go. Returns whether there was one.
    bool end(const HelperPeer& peer);

    // What is held for the caller. Changes nothing.
    [[nodiscard]] HelperStatus status(const HelperPeer& peer) const;

    // The periodic check: lets an expired commitment go, saves the budget, restores the lock, opens
    // the app. Allocates nothing while there is nothing to do; with nothing held it does not even
    // read the clock.
    void tick();

    // Saves the commitment and removes the lock for as long as no helper runs. Returns the exit
    // status. The engine is not used afterwards.
    int terminate();

    // Whether no commitment is held.
    [[nodiscard]] bool isIdle() const { return !commitment_; }

    // The commitment held, and why the last one was let go. For tests and reports.
    [[nodiscard]] const std::optional<HelperCommitment>& commitment() const { return commitment_; }

    [[nodiscard]] std::optional<Lift> lastLift() const { return lastLift_; }

  private:
    void lift(Lift reason);
    void save(const HelperCommitment& commitment);
    void tryToLock(HelperCommitment& next);
    void relockIfNeeded(const HelperCommitment& commitment);
    void keepAppOpen(Seconds now, const HelperCommitment& commitment);
    bool isCommittedPersonPresent(Seconds now, std::uint32_t uid);
    bool isSessionEnding(Seconds now);

    std::optional<HelperCommitment> commitment_;
    std::optional<Lift> lastLift_;
    HelperClock& clock_;
    FileFlags& flags_;
    CommitmentStore& store_;
    SessionProbe& session_;
    AppOpener& opener_;
    Logger log_ = helperLog;

    // All of these are times since boot; an event that never happened is infinitely long ago.
    static constexpr Seconds never{-std::numeric_limits<double>::infinity()};

    // When things last happened to the commitment that is held.
    struct Watch {
        Seconds heartbeat = never;
        Seconds seenRunning = never;
        Seconds sessionEnding = never;
        Seconds opening = never;
        Seconds checkpoint = never;
    };

    Watch watch_;
    Seconds startedAt_;
    std::optional<std::uint32_t> console_;
    Seconds consoleSince_;
};

}  // namespace halvo
