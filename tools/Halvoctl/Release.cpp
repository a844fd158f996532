#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <variant>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Log.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

using records::printable;
using records::zonedDate;

// What was done, in words, or what failed and what to do.
using Result = std::expected<std::string, std::string>;

constexpr const char* ifGone = "If the bundle is gone for good: halvoctl release --bundle-gone";

// Takes the lock off the bundle at `path`, and returns what `done` says of it; `keeps` says what
// comes of a failure.
Result unlock(Machine& machine, const std::string& path, const std::string& done,
              const std::string& keeps) {
    if (machine.flags.setLocked(false, path)) {
        return printable(path) + done;
    }
    return std::unexpected(
        "The lock of " + printable(path) + " cannot be taken off" + keeps +
        ". The helper's log says why. Is its file system mounted read-only, or does this container "
        "lack CAP_LINUX_IMMUTABLE? Mend that and try again.");
}

constexpr const char* keepsRecord = ", so the commitment stays stored";

// Of a bundle whose lock the record does not owe, and that is not the app's own.
std::string leftAlone(Machine& machine, const std::string& path) {
    const std::string shown = printable(path);
    return machine.flags.state(path) == LockState::locked
               ? shown + " keeps a lock that the helper did not set (to take it off: " +
                     clearCommand(path) + ")"
               : shown + " was not locked";
}

// Takes the lock off the bundle at `path` that a record says it owes. A lock outlives that its
// bundle is out of reach: another file system may lie over it, or its own not be mounted.
Result settle(Machine& machine, const std::string& path, bool isGone) {
    const std::string shown = printable(path);
    if (AppLocation::mayLock(path)) {
        return unlock(machine, path, " is unlocked", keepsRecord);
    }
    if (isGone) {
        return "the lock of " + shown + " is forgotten with the bundle, which is not there";
    }
    if (presence(path) == Presence::unknown) {
        return std::unexpected(shown +
                               " cannot be looked at, so the commitment stays stored. Mend its "
                               "disk and try again. " +
                               ifGone);
    }
    return std::unexpected(
        "The bundle that the helper locked is not at " + shown +
        ", so its lock cannot be taken off, and the commitment stays stored. If it lies on a disk "
        "that is not mounted, or below another mount, make it reachable and run halvoctl release "
        "again. " +
        ifGone);
}

class Releaser {
  public:
    Releaser(Machine& machine, const GregorianCalendar& calendar, bool isBundleGone)
        : machine_(machine), calendar_(calendar), isBundleGone_(isBundleGone) {}

    Result letGo() {
        const auto [file, stored] = readState(machine_);
        if (file == StateFile::unreadable) {
            return forget("Removed a state file that could not be read",
                          settled(std::nullopt, false, NoCommitment{}));
        }
        if (const auto* commitment = std::get_if<HelperCommitment>(&stored)) {
            return forget(described(*commitment),
                          settled(commitment->appPath, commitment->locked, stored));
        }
        if (const auto* unreadable = std::get_if<UnreadableCommitment>(&stored)) {
            return forget("Removed a damaged state file",
                          settled(unreadable->appPath, unreadable->locked, stored));
        }
        const Result flags = orphans(stored);
        return flags ? "Nothing was held" + *flags + "." : flags;
    }

  private:
    [[nodiscard]] std::string described(const HelperCommitment& commitment) const {
        const ClockReading now = machine_.clock.reading();
        return "Let go of the commitment of " + person(machine_, commitment.uid) + " that " +
               (commitment.isLive(now) ? "held until " : "had run out at ") +
               zonedDate(commitment.ends(now), calendar_);
    }

    // Takes off the lock of the bundle that the record names, if it owes that, and those that it
    // does not owe. What to say of them, each after a "; ".
    Result settled(const std::optional<std::string>& app, bool isOwed,
                   const StoredCommitment& stored) {
        std::string said;
        // The helper locks nothing else.
        if (app && isOwed && AppLocation::isLockablePath(*app)) {
            const Result flag = settle(machine_, *app, isBundleGone_);
            if (!flag) {
                return flag;
            }
            said = "; " + *flag;
        }
        const Result more = orphans(stored);
        if (!more) {
            return more;
        }
        said += *more;
        if (said.empty()) {
            said = "; " + (app ? leftAlone(machine_, *app) : "no lock is known that it owed");
        }
        return said;
    }

    // Takes off the locks of the app's own bundles that `stored` does not owe; a lock that another
    // bundle has stays. What to say of them, each after a "; ".
    Result orphans(const StoredCommitment& stored) {
        const auto installed = installedApps(machine_);
        const bool isStored = !std::holds_alternative<NoCommitment>(stored);
        std::string said;
        for (const std::string& path : orphanedLocks(machine_, installed, stored)) {
            const Result flag =
                unlock(machine_, path, " carried a lock that no record owed, and is unlocked",
                       isStored ? keepsRecord : "");
            if (!flag) {
                return flag;
            }
            said += "; " + *flag;
            HALVO_LOG_DEFAULT(helperLog, "An administrator took off a lock that no record owed");
        }
        for (const std::string& path : installed) {
            if (machine_.flags.state(path) == LockState::locked) {
                said += "; " + leftAlone(machine_, path);
            }
        }
        return said;
    }

    Result forget(const std::string& what, const Result& flags) {
        if (!flags) {
            return flags;
        }
        machine_.store.remove();
        if (presence(machine_.stateFile) != Presence::gone) {
            return std::unexpected(flags->substr(2) +
                                   ", but the state file cannot be removed, and the helper would "
                                   "take the commitment up again. Remove it: " +
                                   printable(machine_.stateFile));
        }
        HALVO_LOG_DEFAULT(helperLog, "An administrator let go of what was stored");
        return what + *flags + ".";
    }

    Machine& machine_;
    const GregorianCalendar& calendar_;
    bool isBundleGone_;
};

std::string line(const std::string& sentences) { return sentences.empty() ? "" : sentences + "\n"; }

Outcome failure(const std::string& problem) {
    return {ExitStatus::system, "", "halvoctl: " + problem + "\n"};
}

// The same, by the one that holds the lock.
Outcome releaseAlone(Machine& machine, const ReleaseOptions& options,
                     const GregorianCalendar& calendar) {
    Outcome outcome;
    // A helper that runs would undo the rest: it locks again, and stores what it remembers.
    if (const auto stopped = machine.service.stop(); !stopped) {
        outcome = failure(stopped.error());
    } else if (const auto done = Releaser(machine, calendar, options.isBundleGone).letGo(); !done) {
        outcome = failure(done.error());
    } else {
        outcome.output = line(machine.identity.appBundleID + ": " + *done);
        if (options.staysStopped) {
            return outcome;
        }
    }
    if (const auto resumed = machine.service.resume(); resumed) {
        outcome.output += line(*resumed);
    } else {
        const Outcome failed = failure(resumed.error());
        outcome.status = failed.status;
        outcome.errors += failed.errors;
    }
    return outcome;
}

}  // namespace

// Two at once would each start what the other has stopped.
Outcome release(Machine& machine, const ReleaseOptions& options,
                const GregorianCalendar& calendar) {
    std::expected<Descriptor, FileError> lock;
    const auto isOver = [&] {
        lock = takeLockFile(machine.releaseLock);
        return lock || lock.error().code != EWOULDBLOCK;
    };
    // The other one may take a minute.
    if (!machine.waiter.wait(isOver, Seconds{60},
                             "Waiting for another halvoctl release, at most a minute.")) {
        return failure(
            "Another halvoctl release runs and does not end. Wait for it, or kill it, and try "
            "again.");
    }
    if (!lock) {
        return failure(printable(machine.releaseLock) +
                       " cannot be locked: " + std::generic_category().message(lock.error().code) +
                       ". Mend that and try again.");
    }
    Outcome outcome = releaseAlone(machine, options, calendar);
    unlink(machine.releaseLock.c_str());
    return outcome;
}

}  // namespace halvo::control
