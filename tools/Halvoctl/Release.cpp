#include <unistd.h>

#include <cerrno>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Log.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

using records::printable;

// What was done, in words, or what failed and what to do.
using Result = std::expected<std::string, std::string>;

// Takes the lock off the bundle at `path`, and returns what `done` says of it. `isStored`: a
// failure keeps a record.
Result unlock(Machine& machine, const std::string& path, const std::string& done, bool isStored) {
    if (machine.flags.setLocked(false, path)) {
        return printable(path) + done;
    }
    return std::unexpected(
        "The lock of " + printable(path) + " cannot be taken off" +
        (isStored ? ", so the commitment stays stored" : "") +
        ". The helper's log says why. Is its file system mounted read-only, or does this container "
        "lack CAP_LINUX_IMMUTABLE? Mend that and try again.");
}

// Of a bundle whose lock the record does not owe, and that is not the app's own.
std::string leftAlone(Machine& machine, const std::string& path) {
    return printable(path) + (machine.flags.state(path) == LockState::locked
                                  ? " keeps a lock that the helper did not set (to take it off: " +
                                        clearCommand(path) + ")"
                                  : " was not locked");
}

// Takes the lock off the bundle at `path` that a record says it owes. A lock outlives that its
// bundle is out of reach: another file system may lie over it, or its own not be mounted.
Result settle(Machine& machine, const std::string& path, bool isGone) {
    if (AppLocation::mayLock(path)) {
        return unlock(machine, path, " is unlocked", true);
    }
    const std::string shown = printable(path);
    if (isGone) {
        return "the lock of " + shown + " is forgotten with the bundle, which is not there";
    }
    return std::unexpected(
        (presence(path) == Presence::unknown
             ? shown +
                   " cannot be looked at, so the commitment stays stored. Mend its disk and try "
                   "again."
             : "The bundle that the helper locked is not at " + shown +
                   ", so its lock cannot be taken off, and the commitment stays stored. If it lies "
                   "on a disk that is not mounted, or below another mount, make it reachable and "
                   "run halvoctl release again.") +
        " If the bundle is gone for good: halvoctl release --bundle-gone");
}

// Takes off the lock that the record owes, and those of the app's own bundles that it does not owe;
// a lock that another bundle has stays. What to say of them, each after a "; ".
Result unlockAll(Machine& machine, const Observation& seen, bool isGone) {
    std::string said;
    if (const auto owed = seen.owed()) {
        const Result flag = settle(machine, *owed, isGone);
        if (!flag) {
            return flag;
        }
        said = "; " + *flag;
    }
    for (const std::string& path : seen.orphans) {
        const Result flag =
            unlock(machine, path, " carried a lock that no record owed, and is unlocked",
                   !std::holds_alternative<NoCommitment>(seen.stored));
        if (!flag) {
            return flag;
        }
        said += "; " + *flag;
        HALVO_LOG_DEFAULT(helperLog, "An administrator took off a lock that no record owed");
    }
    for (const std::string& path : seen.installed) {
        if (machine.flags.state(path) == LockState::locked) {
            said += "; " + leftAlone(machine, path);
        }
    }
    if (said.empty() && seen.file != StateFile::none) {
        const auto app = seen.named();
        said = "; " + (app ? leftAlone(machine, *app) : "no lock is known that it owed");
    }
    return said;
}

// What it means that the record is forgotten.
std::string meaning(const Machine& machine, const Observation& seen) {
    const HelperCommitment* commitment = seen.commitment();
    if (commitment == nullptr) {
        return seen.file == StateFile::damaged ? "Removed a damaged state file"
                                               : "Removed a state file that could not be read";
    }
    return "Let go of the commitment of " + person(machine, commitment->uid) + " that " +
           (seen.live() != nullptr ? "held until " : "had run out at ") +
           records::zonedDate(commitment->ends(seen.now), machine.calendar);
}

Result letGo(Machine& machine, bool isGone) {
    const Observation seen = observe(machine);
    const Result flags = unlockAll(machine, seen, isGone);
    if (!flags) {
        return flags;
    }
    if (seen.file == StateFile::none) {
        return "Nothing was held" + *flags + ".";
    }
    machine.store.remove();
    if (presence(machine.stateFile) != Presence::gone) {
        return std::unexpected(flags->substr(2) +
                               ", but the state file cannot be removed, and the helper would take "
                               "the commitment up again. Remove it: " +
                               printable(machine.stateFile));
    }
    HALVO_LOG_DEFAULT(helperLog, "An administrator let go of what was stored");
    return meaning(machine, seen) + *flags + ".";
}

// The same as release(), by the one that holds the lock.
Outcome releaseAlone(Machine& machine, const ReleaseOptions& options) {
    Outcome outcome;
    // A helper that runs would undo the rest: it locks again, and stores what it remembers.
    if (const auto stopped = machine.service->stop(); !stopped) {
        outcome = failure(ExitStatus::system, stopped.error());
    } else if (const auto done = letGo(machine, options.isBundleGone); !done) {
        outcome = failure(ExitStatus::system, done.error());
    } else {
        outcome.output = machine.identity.appBundleID + ": " + *done + "\n";
        if (options.staysStopped) {
            return outcome;
        }
    }
    if (const auto resumed = machine.service->resume(); !resumed) {
        outcome.status = ExitStatus::system;
        outcome.errors += failure(ExitStatus::system, resumed.error()).errors;
    } else if (!resumed->empty()) {
        outcome.output += *resumed + "\n";
    }
    return outcome;
}

}  // namespace

// Two at once would each start what the other has stopped.
Outcome release(Machine& machine, const ReleaseOptions& options) {
    std::expected<Descriptor, FileError> lock;
    const auto isOver = [&] {
        lock = takeLockFile(machine.releaseLock);
        return lock || lock.error().code != EWOULDBLOCK;
    };
    // The other one may take a minute.
    if (!machine.waiter.wait(isOver, Seconds{60},
                             "Waiting for another halvoctl release, at most a minute.")) {
        return failure(ExitStatus::system,
                       "Another halvoctl release runs and does not end. Wait for it, or kill it, "
                       "and try again.");
    }
    if (!lock) {
        return failure(ExitStatus::system, printable(machine.releaseLock) + " cannot be locked: " +
                                               errorText(lock.error().code) +
                                               ". Mend that and try again.");
    }
    Outcome outcome = releaseAlone(machine, options);
    unlink(machine.releaseLock.c_str());
    return outcome;
}

}  // namespace halvo::control
