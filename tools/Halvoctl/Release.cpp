#include "tools/Halvoctl/Release.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <expected>
#include <optional>
#include <string>
#include <variant>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Log.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Observation.hpp"
#include "tools/Halvoctl/ReleaseLock.hpp"
#include "tools/Halvoctl/Status.hpp"

namespace halvo::control {
namespace {

using records::printable;
using records::zonedDate;

enum class Presence { there, gone, unknown };

// Whether something is at `path`. What the system cannot look at may be there.
Presence presence(const std::string& path) {
    struct stat status{};
    if (lstat(path.c_str(), &status) == 0) {
        return Presence::there;
    }
    const bool isGone =
        errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return isGone ? Presence::gone : Presence::unknown;
}

constexpr const char* ifGone = "If the bundle is gone for good: halvoctl release --bundle-gone";

// Takes the lock off the bundle at `path`. Fails with what to do; `keeps` says what comes of it.
std::expected<void, std::string> unlock(Machine& machine, const std::string& path,
                                        const std::string& keeps) {
    if (machine.flags.setLocked(false, path)) {
        return {};
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
std::expected<std::string, std::string> settle(Machine& machine, const std::string& path,
                                               bool isGone) {
    const std::string shown = printable(path);
    if (AppLocation::mayLock(path)) {
        const auto flag = unlock(machine, path, keepsRecord);
        return flag ? std::expected<std::string, std::string>(shown + " is unlocked")
                    : std::unexpected(flag.error());
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

    // What was done, as sentences, or what failed and what to do.
    std::expected<std::string, std::string> letGo() {
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
        const auto flags = orphans(stored);
        return flags ? std::expected<std::string, std::string>("Nothing was held" + *flags + ".")
                     : flags;
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
    std::expected<std::string, std::string> settled(const std::optional<std::string>& app,
                                                    bool isOwed, const StoredCommitment& stored) {
        std::string said;
        // The helper locks nothing else.
        if (app && isOwed && AppLocation::isLockablePath(*app)) {
            const auto flag = settle(machine_, *app, isBundleGone_);
            if (!flag) {
                return flag;
            }
            said = "; " + *flag;
        }
        const auto more = orphans(stored);
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
    std::expected<std::string, std::string> orphans(const StoredCommitment& stored) {
        std::string said;
        for (const std::string& path : orphanedLocks(machine_, stored)) {
            const bool isStored = !std::holds_alternative<NoCommitment>(stored);
            if (const auto flag = unlock(machine_, path, isStored ? keepsRecord : ""); !flag) {
                return std::unexpected(flag.error());
            }
            said += "; " + printable(path) + " carried a lock that no record owed, and is unlocked";
            HALVO_LOG_DEFAULT(helperLog, "An administrator took off a lock that no record owed");
        }
        for (const std::string& path : installedApps(machine_)) {
            if (machine_.flags.state(path) == LockState::locked) {
                said += "; " + leftAlone(machine_, path);
            }
        }
        return said;
    }

    std::expected<std::string, std::string> forget(
        const std::string& what, const std::expected<std::string, std::string>& flags) {
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

}  // namespace

Outcome release(Machine& machine, const Release& command, const GregorianCalendar& calendar,
                const Progress& progress) {
    Outcome outcome;
    const auto fail = [&outcome](const std::string& problem) {
        outcome.status = ExitStatus::system;
        outcome.errors += "halvoctl: " + problem + "\n";
    };
    // Another release may take a minute.
    const auto lock = ReleaseLock::take(
        machine.releaseLock,
        {Seconds{60},
         [&progress] { progress("Waiting for another halvoctl release, at most a minute."); }});
    if (!lock) {
        fail(lock.error());
        return outcome;
    }
    // A helper that runs would undo the rest: it locks again, and stores what it remembers.
    if (const auto stopped = machine.service.stop(progress); !stopped) {
        fail(stopped.error());
    } else if (const auto done = Releaser(machine, calendar, command.isBundleGone).letGo(); !done) {
        fail(done.error());
    } else {
        outcome.output = line(machine.identity.appBundleID + ": " + *done);
        if (command.staysStopped) {
            return outcome;
        }
    }
    if (const auto resumed = machine.service.resume(progress); !resumed) {
        fail(resumed.error());
    } else {
        outcome.output += line(*resumed);
    }
    return outcome;
}

}  // namespace halvo::control
