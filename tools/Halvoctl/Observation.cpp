#include "tools/Halvoctl/Observation.hpp"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <variant>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

bool isThere(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0;
}

// The bundle that the record names, whole or not.
std::optional<std::string> appOf(const StoredCommitment& stored) {
    if (const auto* commitment = std::get_if<HelperCommitment>(&stored)) {
        return commitment->appPath;
    }
    const auto* unreadable = std::get_if<UnreadableCommitment>(&stored);
    return unreadable != nullptr ? unreadable->appPath : std::nullopt;
}

bool owesLock(const StoredCommitment& stored) {
    if (const auto* commitment = std::get_if<HelperCommitment>(&stored)) {
        return commitment->locked;
    }
    const auto* unreadable = std::get_if<UnreadableCommitment>(&stored);
    return unreadable != nullptr && lockOwed(*unreadable).has_value();
}

// Of a record that is still to be let go of.
Agreement ofRemains(bool isRunning, bool isOwed, const AppFlag& app, const std::string& start) {
    const bool isLocked = app.state == LockState::locked;
    if (isLocked && !isOwed) {
        return {false, "The bundle is locked, but the record does not say that the helper did it.",
                "It stays locked. To unlock it: " + clearCommand(app.path)};
    }
    return {true, isLocked ? "The bundle is still locked." : "The bundle is not locked.",
            isRunning
                ? "The helper lets go of it within 2 seconds, unless it has forgotten the record."
                : "The helper lets go of it when it starts next: " + start};
}

}  // namespace

Stored readState(Machine& machine) {
    const bool isFile = isThere(machine.stateFile);
    StoredCommitment stored = machine.store.load();
    if (std::holds_alternative<HelperCommitment>(stored)) {
        return {StateFile::whole, std::move(stored)};
    }
    if (std::holds_alternative<UnreadableCommitment>(stored)) {
        return {StateFile::damaged, std::move(stored)};
    }
    return {isFile && isThere(machine.stateFile) ? StateFile::unreadable : StateFile::none, stored};
}

std::vector<std::string> installedApps(const Machine& machine) {
    std::vector<std::string> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(machine.applications.c_str()),
                                                     closedir);
    while (const dirent* entry = folder == nullptr ? nullptr : readdir(folder.get())) {
        const std::string path = machine.applications + "/" + entry->d_name;
        if (!AppLocation::isBundlePath(path)) {
            continue;
        }
        const auto info = Bundle(path).info();
        if (info && infoString(*info, "CFBundleIdentifier") == machine.identity.appBundleID) {
            found.push_back(path);
        }
    }
    std::ranges::sort(found);
    return found;
}

Observation observe(Machine& machine) {
    Observation seen;
    auto [file, stored] = readState(machine);
    seen.file = file;
    seen.stored = std::move(stored);
    const auto named = appOf(seen.stored);
    for (const std::string& path :
         named ? std::vector<std::string>{*named} : installedApps(machine)) {
        seen.apps.push_back({path, machine.flags.state(path)});
    }
    seen.helpers = machine.service.running();
    seen.now = machine.clock.reading();
    return seen;
}

Agreement judge(const Observation& observation, const AppFlag& app,
                const std::string& startCommand) {
    const bool isRunning = !observation.helpers.empty();
    const bool isLocked = app.state == LockState::locked;
    const bool isOwed = owesLock(observation.stored);
    if (app.state == LockState::missing) {
        return {!isOwed, "There is nothing at " + records::printable(app.path) + ".",
                isOwed ? "The helper locks no other in its place." : ""};
    }
    const HelperCommitment* commitment = observation.commitment();
    if (commitment == nullptr && observation.file != StateFile::damaged) {
        if (!isLocked) {
            return {true, "The bundle is not locked.", ""};
        }
        return {false, "The bundle is locked, but no record says that the helper did it.",
                (isRunning
                     ? "If the helper that runs holds something all the same, it writes the record "
                       "anew within a minute. Else to unlock the bundle: "
                     : "To unlock it: ") +
                    clearCommand(app.path)};
    }
    if (commitment == nullptr || !commitment->isLive(observation.now)) {
        return ofRemains(isRunning, isOwed, app, startCommand);
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
        return {
            true, "The bundle carries a lock that the helper did not set.",
            "It stays when the commitment ends. To unlock the bundle: " + clearCommand(app.path)};
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
