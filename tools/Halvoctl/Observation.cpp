#include "tools/Halvoctl/Observation.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <variant>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {

namespace fs = std::filesystem;

namespace {

// The bundle that the record names, whole or not.
std::optional<std::string> appOf(const StoredCommitment& stored) {
    if (const auto* commitment = std::get_if<HelperCommitment>(&stored)) {
        return commitment->appPath;
    }
    const auto* unreadable = std::get_if<UnreadableCommitment>(&stored);
    return unreadable != nullptr ? unreadable->appPath : std::nullopt;
}

// Whether the record owes the unlock of the bundle at `path`.
bool owesLock(const StoredCommitment& stored, const std::string& path) {
    if (const auto* commitment = std::get_if<HelperCommitment>(&stored)) {
        return commitment->locked && commitment->appPath == path;
    }
    const auto* unreadable = std::get_if<UnreadableCommitment>(&stored);
    return unreadable != nullptr && lockOwed(*unreadable) == path;
}

// The command with which root takes the lock off a bundle that no record owes it.
std::string unlockCommand(const Observation& seen, const AppFlag& app) {
    if (!seen.isOrphan(app)) {
        return clearCommand(app.path);
    }
    const HelperCommitment* commitment = seen.commitment();
    return commitment != nullptr && commitment->isLive(seen.now)
               ? "halvoctl release (which also ends what holds)"
               : "halvoctl release";
}

// Of a bundle that no record names.
Agreement ofNoRecord(const Observation& seen, const AppFlag& app, bool mayBeWritten) {
    if (app.state != LockState::locked) {
        return {true, "The bundle is not locked.", ""};
    }
    return {false, "The bundle is locked, but no record says that the helper did it.",
            (mayBeWritten
                 ? "If the helper that runs holds something all the same, it writes the record "
                   "anew within a minute. Else to unlock the bundle: "
                 : "To unlock it: ") +
                unlockCommand(seen, app)};
}

// Of a record that is still to be let go of.
Agreement ofRemains(const Observation& seen, const AppFlag& app, const std::string& start) {
    const bool isLocked = app.state == LockState::locked;
    if (isLocked && !owesLock(seen.stored, app.path)) {
        return {false, "The bundle is locked, but the record does not say that the helper did it.",
                "It stays locked. To unlock it: " + unlockCommand(seen, app)};
    }
    return {true, isLocked ? "The bundle is still locked." : "The bundle is not locked.",
            !seen.helpers.empty()
                ? "The helper lets go of it within 2 seconds, unless it has forgotten the record."
                : "The helper lets go of it when it starts next: " + start};
}

}  // namespace

Presence presence(const std::string& path) {
    struct stat status{};
    if (lstat(path.c_str(), &status) == 0) {
        return Presence::there;
    }
    const bool isGone =
        errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return isGone ? Presence::gone : Presence::unknown;
}

Stored readState(Machine& machine) {
    const auto isThere = [&] { return presence(machine.stateFile) == Presence::there; };
    const bool wasThere = isThere();
    StoredCommitment stored = machine.store.load();
    if (std::holds_alternative<HelperCommitment>(stored)) {
        return {StateFile::whole, std::move(stored)};
    }
    if (std::holds_alternative<UnreadableCommitment>(stored)) {
        return {StateFile::damaged, std::move(stored)};
    }
    return {wasThere && isThere() ? StateFile::unreadable : StateFile::none, stored};
}

namespace {

// The bundles directly in `folder` whose Info.plist carries the app's identifier.
std::vector<std::string> appsIn(const std::string& folder, const HelperIdentity& identity) {
    std::vector<std::string> found;
    std::error_code ignored;
    for (fs::directory_iterator item(folder, ignored), end; item != end; item.increment(ignored)) {
        const std::string path = folder + "/" + item->path().filename().string();
        if (!AppLocation::isBundlePath(path)) {
            continue;
        }
        const auto info = Bundle(path).info();
        if (info && infoString(*info, "CFBundleIdentifier") == identity.appBundleID) {
            found.push_back(path);
        }
    }
    std::ranges::sort(found);
    return found;
}

// Looked at from the bundle downwards: nobody but root can put a folder of root's with that inside
// into the one above it, nor move one that is locked.
bool isAppsOwn(const std::string& path, const HelperIdentity& identity) {
    const Bundle bundle(path);
    if (!AppLocation::mayLock(path) ||
        RootOwnedPath::problem(bundle.infoPath(), RootOwnedPath::Item::file, path)) {
        return false;
    }
    const auto info = bundle.info();
    return info && HelperIdentity::app(info, infoString(*info, "CFBundleIdentifier")) == identity;
}

}  // namespace

std::vector<std::string> installedApps(Machine& machine) {
    auto found = appsIn(machine.applications, machine.identity);
    std::vector<std::string> others = machine.service.otherApplications();
    std::ranges::sort(others);
    others.erase(std::ranges::unique(others).begin(), others.end());
    for (const std::string& folder : others) {
        // Whose folder it is could lead us astray between two looks.
        if (folder != machine.applications &&
            !RootOwnedPath::problem(folder, RootOwnedPath::Item::folder)) {
            const auto more = appsIn(folder, machine.identity);
            found.insert(found.end(), more.begin(), more.end());
        }
    }
    return found;
}

std::vector<std::string> orphanedLocks(Machine& machine, const std::vector<std::string>& installed,
                                       const StoredCommitment& stored) {
    std::vector<std::string> orphans = installed;
    std::erase_if(orphans, [&](const std::string& path) {
        return machine.flags.state(path) != LockState::locked || owesLock(stored, path) ||
               !isAppsOwn(path, machine.identity);
    });
    return orphans;
}

Observation observe(Machine& machine) {
    Observation seen;
    auto [file, stored] = readState(machine);
    seen.file = file;
    seen.stored = std::move(stored);
    const auto named = appOf(seen.stored);
    const auto installed = installedApps(machine);
    for (const std::string& path : named ? std::vector<std::string>{*named} : installed) {
        seen.apps.push_back({path, machine.flags.state(path)});
    }
    seen.orphans = orphanedLocks(machine, installed, seen.stored);
    for (const std::string& path : seen.orphans) {
        if (std::ranges::find(seen.apps, path, &AppFlag::path) == seen.apps.end()) {
            seen.apps.push_back({path, LockState::locked});
        }
    }
    seen.helpers = machine.processes.running();
    std::ranges::copy_if(seen.helpers, std::back_inserter(seen.stopped),
                         [&](pid_t process) { return machine.processes.isStopped(process); });
    seen.now = machine.clock.reading();
    return seen;
}

Agreement judge(const Observation& observation, const AppFlag& app,
                const std::string& startCommand) {
    const bool isRunning = !observation.helpers.empty();
    const bool isLocked = app.state == LockState::locked;
    const bool isOwed = owesLock(observation.stored, app.path);
    if (app.state == LockState::missing) {
        return {!isOwed, "There is nothing at " + records::printable(app.path) + ".",
                isOwed ? "The helper locks no other in its place." : ""};
    }
    const HelperCommitment* commitment = observation.commitment();
    const auto named = appOf(observation.stored);
    if (observation.file == StateFile::none || observation.file == StateFile::unreadable ||
        (named && *named != app.path)) {
        return ofNoRecord(observation, app, isRunning && !named);
    }
    if (commitment == nullptr || !commitment->isLive(observation.now)) {
        return ofRemains(observation, app, startCommand);
    }
    if (isOwed && isLocked) {
        return {true, "The bundle is locked, as the record says.",
                isRunning ? "" : "No helper runs that would keep it so: " + startCommand};
    }
    if (isOwed) {
        return {false, "The bundle is not locked, but should be.",
                isRunning ? "The helper sets it back within 2 seconds."
                          : "The helper locks it when it starts: " + startCommand};
    }
    if (isLocked) {
        return {!observation.isOrphan(app),
                "The bundle carries a lock that the helper did not set.",
                "It stays when the commitment ends. To unlock the bundle: " +
                    unlockCommand(observation, app)};
    }
    if (AppLocation::mayLock(app.path)) {
        return {false, "The commitment holds without a lock, though the bundle may be locked.",
                "The helper's log says why it could not. It tries again when the app begins or "
                "extends a commitment."};
    }
    return {true, "The commitment holds without a lock: the helper does not lock a bundle there.",
            ""};
}

}  // namespace halvo::control
