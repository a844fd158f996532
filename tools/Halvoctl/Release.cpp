#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Log.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

using records::printable;
using std::filesystem::file_type;

// What was done, in words; or what failed and what to do.
using Result = std::expected<std::string, std::string>;

// Why the lock is kept that the record owes to the missing bundle at `path`: another file system
// may be mounted over it, or its own may not be mounted.
std::string outOfReach(const std::string& path) {
    const std::string shown = printable(path);
    return (statusOf(path).type() == file_type::none
                ? shown +
                      " cannot be looked at, so the commitment stays stored. Repair its disk and "
                      "try again."
                : "The bundle that the helper locked is not at " + shown +
                      ", so its lock cannot be cleared, and the commitment stays stored. If it "
                      "lies on a disk that is not mounted, or below another mount, make it "
                      "reachable and run halvoctl release again.") +
           " If the bundle is gone for good: halvoctl release --bundle-gone";
}

// Describes a bundle that was not to be unlocked.
std::string leftAlone(Machine& machine, const std::string& path) {
    return printable(path) + (machine.flags.state(path) == LockState::locked
                                  ? " keeps a lock that the helper did not set (to clear it: " +
                                        clearCommand(path) + ")"
                                  : " was not locked");
}

// Unlocks the bundle that the record owes, and the orphans; other bundles stay as they are. Returns
// a description of each, with "; " in front.
Result unlockAll(Machine& machine, const Observation& seen, bool isGone) {
    const std::string stays = seen.isStored() ? ", so the commitment stays stored" : "";
    std::string done;
    std::vector<std::string> locked = seen.orphans;
    if (seen.owed && AppLocation::mayLock(*seen.owed)) {
        locked.insert(locked.begin(), *seen.owed);
    } else if (seen.owed && isGone) {
        done = "; the lock of " + printable(*seen.owed) +
               " is forgotten with the bundle, which is not there";
    } else if (seen.owed) {
        return std::unexpected(outOfReach(*seen.owed));
    }
    for (const std::string& path : locked) {
        if (!machine.flags.setLocked(false, path)) {
            return std::unexpected(
                "The lock of " + printable(path) + " cannot be cleared" + stays +
                ". The helper's log says why. Is its file system mounted read-only, or does this "
                "container lack CAP_LINUX_IMMUTABLE? Fix that and try again.");
        }
        done += "; " + printable(path);
        if (path == seen.owed) {
            done += " is unlocked";
        } else {
            done += " carried a lock that no record owed, and is unlocked";
            HALVO_LOG_DEFAULT(helperLog, "An administrator cleared a lock that no record owed");
        }
    }
    for (const std::string& path : seen.installed) {
        if (machine.flags.state(path) == LockState::locked) {
            done += "; " + leftAlone(machine, path);
        }
    }
    if (done.empty() && seen.file != StateFile::none) {
        const auto& app = seen.record.appPath;
        done = "; " + (app ? leftAlone(machine, *app) : "no lock is known that it owed");
    }
    return done;
}

// Describes the state file that was removed.
std::string removedFile(const Machine& machine, const Observation& seen) {
    if (!seen.commitment) {
        return seen.file == StateFile::damaged ? "Removed a damaged state file"
                                               : "Removed a state file that could not be read";
    }
    return "Ended the commitment of " + userText(machine, seen.commitment->uid) + " that " +
           (seen.isLive() ? "held until " : "had run out at ") +
           records::zonedDate(seen.commitment->ends(seen.now), machine.calendar);
}

// Clears the locks, then removes the state file.
Result clear(Machine& machine, bool isGone) {
    const Observation seen = observe(machine);
    const Result flags = unlockAll(machine, seen, isGone);
    if (!flags) {
        return flags;
    }
    if (seen.file == StateFile::none) {
        return "Nothing was held" + *flags + ".";
    }
    machine.store.remove();
    if (statusOf(machine.stateFile).type() != file_type::not_found) {
        return std::unexpected(flags->substr(2) +
                               ", but the state file cannot be removed, and the helper would take "
                               "the commitment up again. Remove it: " +
                               printable(machine.stateFile));
    }
    HALVO_LOG_DEFAULT(helperLog, "An administrator ended the stored commitment");
    return removedFile(machine, seen) + *flags + ".";
}

}  // namespace

Outcome release(Machine& machine, const ReleaseOptions& options) {
    // Without the lock one release would start what another has stopped.
    std::expected<Descriptor, FileError> lock;
    const auto isTaken = [&] {
        lock = takeLockFile(machine.service->releaseLock);
        return lock || lock.error().code != EWOULDBLOCK;
    };
    // One that runs may take a minute.
    if (!machine.waiter.wait(isTaken, Seconds{60},
                             "Waiting for another halvoctl release, at most a minute.")) {
        return failure(ExitStatus::system,
                       "Another halvoctl release runs and does not end. Wait for it, or kill it, "
                       "and try again.");
    }
    if (!lock) {
        return failure(ExitStatus::system,
                       printable(machine.service->releaseLock) + " cannot be locked: " +
                           errorText(lock.error().code) + ". Fix that and try again.");
    }
    // A helper that runs would lock the bundle again, and store the commitment that it remembers.
    const auto stopped = machine.service->stop();
    const Result done =
        stopped ? clear(machine, options.isBundleGone) : std::unexpected(stopped.error());
    Outcome outcome{ExitStatus::fine,
                    machine.identity.appBundleID + ": " + done.value_or("") + "\n", ""};
    if (!done) {
        outcome = failure(ExitStatus::system, done.error());
    }
    if (!done || !options.staysStopped) {
        const Result resumed = machine.service->resume();
        if (!resumed) {
            outcome.status = ExitStatus::system;
            outcome.errors += failure(ExitStatus::system, resumed.error()).errors;
        } else if (!resumed->empty()) {
            outcome.output += *resumed + "\n";
        }
    }
    unlink(machine.service->releaseLock.c_str());
    return outcome;
}

}  // namespace halvo::control
