#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using records::printable;

// Checked from the bundle downwards: only root can move such a folder into the one above it, and
// only root can move one that is locked.
bool isAppsOwn(const std::string& path, const HelperIdentity& identity) {
    const Bundle bundle(path);
    return AppLocation::mayLock(path) &&
           !RootOwnedPath::problem(bundle.infoPath(), RootOwnedPath::Item::file, path) &&
           HelperIdentity::ofBundle(bundle.info()) == identity;
}

std::vector<std::string> installedApps(Machine& machine) {
    std::vector<std::string> folders = machine.service->otherApplications();
    // A folder of another user's could be exchanged between two accesses.
    std::erase_if(folders, [](const std::string& folder) {
        return RootOwnedPath::problem(folder, RootOwnedPath::Item::folder).has_value();
    });
    folders.push_back(machine.applications);
    std::set<std::string> found;
    for (const std::string& folder : folders) {
        std::error_code ignored;
        for (fs::directory_iterator item(folder, ignored), end; item != end;
             item.increment(ignored)) {
            const std::string path = folder + "/" + item->path().filename().string();
            const auto info = AppLocation::isBundlePath(path) ? Bundle(path).info() : std::nullopt;
            if (infoString(info, HelperIdentity::bundleIDKey) == machine.identity.appBundleID) {
                found.insert(path);
            }
        }
    }
    return {found.begin(), found.end()};
}

Check checkLocation(const std::string& app) {
    return firstOf(
        "app's place",
        {{!AppLocation::mayLock(app),
          printable(app) + " is not a folder directly inside one named Applications, so the "
                           "helper does not lock it",
          "Install the app into /Applications."}},
        printable(app));
}

Check checkRunning(const Machine& machine, const Observation& seen) {
    std::string remedy = "Continue it: kill -CONT";
    for (const pid_t process : seen.stopped) {
        remedy += " " + std::to_string(process);
    }
    const std::string& restart = machine.service->restartCommand;
    return firstOf(
        "helper",
        {{!seen.stopped.empty(), "is stopped (SIGSTOP), and does nothing: " + pidText(seen.stopped),
          remedy + (restart.empty() ? "" : "; or start another: " + restart)},
         {seen.helpers.empty() && seen.isStored(),
          "something is stored, and no helper runs that would hold it",
          "Start it: " + machine.service->startCommand}},
        seen.helpers.empty() ? "does not run; " + machine.service->whatStarts()
                             : "runs, " + pidText(seen.helpers));
}

// The session at the console, which is the user `uid`'s.
Check checkSession(const Machine& machine, const Observation& seen, std::uint32_t uid) {
    const std::string user = userText(machine, uid) + " is at the console";
    const bool isOpen = std::ranges::any_of(
        seen.apps, [&](const AppFlag& app) { return machine.session.isAppRunning(app.path, uid); });
    const bool isBound = seen.commitment && seen.commitment->uid == uid && seen.isLive();
    return firstOf("session",
                   {{isBound && !isOpen, user + " and bound, but the app does not run for them",
                     "A helper that runs opens it within 15 seconds. If it does not come up, look "
                     "into the helper's log, and start the app as that person."}},
                   user + (isOpen ? "; the app runs for them" : "; the app does not run for them"));
}

}  // namespace

Observation observe(Machine& machine) {
    Observation seen;
    const auto exists = [&] { return fs::exists(statusOf(machine.stateFile)); };
    // The helper may write or remove the file meanwhile: unreadable is one that existed throughout.
    const bool existed = exists();
    const StoredCommitment stored = machine.store.load();
    seen.file = existed && exists() ? StateFile::unreadable : StateFile::none;
    if (const auto* whole = std::get_if<HelperCommitment>(&stored)) {
        seen.file = StateFile::whole;
        seen.commitment = *whole;
        seen.record = {whole->appPath, whole->locked};
    } else if (const auto* damaged = std::get_if<UnreadableCommitment>(&stored)) {
        seen.file = StateFile::damaged;
        seen.record = *damaged;
    }
    const auto& named = seen.record.appPath;
    if (named && seen.record.locked && AppLocation::isLockablePath(*named)) {
        seen.owed = named;
    }
    seen.installed = installedApps(machine);
    for (const std::string& path : named ? std::vector{*named} : seen.installed) {
        seen.apps.push_back({path, machine.flags.state(path)});
    }
    for (const std::string& path : seen.installed) {
        if (machine.flags.state(path) == LockState::locked && seen.owed != path &&
            isAppsOwn(path, machine.identity)) {
            seen.orphans.push_back(path);
            if (std::ranges::find(seen.apps, path, &AppFlag::path) == seen.apps.end()) {
                seen.apps.push_back({path, LockState::locked});
            }
        }
    }
    seen.helpers = machine.processes.running();
    std::ranges::copy_if(seen.helpers, std::back_inserter(seen.stopped),
                         [&](pid_t process) { return machine.processes.isStopped(process); });
    seen.now = machine.clock.reading();
    return seen;
}

Check checkLock(const Machine& machine, const Observation& seen, const AppFlag& app) {
    const std::string& start = machine.service->startCommand;
    const auto& named = seen.record.appPath;
    const bool isNamed = named == app.path || (!named && seen.file == StateFile::damaged);
    const bool isOwed = seen.owed == app.path;
    const bool isLive = seen.isLive();
    const bool isLocked = app.state == LockState::locked;
    const bool isRunning = !seen.helpers.empty();
    const bool isOrphan = std::ranges::find(seen.orphans, app.path) != seen.orphans.end();
    const std::string unlock =
        isOrphan ? std::string("halvoctl release") + (isLive ? " (which also ends what holds)" : "")
                 : clearCommand(app.path);
    const std::string end = isRunning
                                ? "The helper ends the commitment within 2 seconds, unless it no "
                                  "longer has the record in memory."
                                : "The helper ends the commitment when it starts next: " + start;
    const std::string missing = "There is nothing at " + printable(app.path);
    const std::string unnamed = "The bundle is locked, but no record says that the helper did it";
    const std::string unlocked = "The bundle is not locked";
    constexpr auto ok = Verdict::ok;
    return firstOf(
        "lock",
        {{app.state == LockState::missing, missing,
          isOwed ? "The helper locks no other in its place." : "", isOwed ? Verdict::problem : ok},
         {!isNamed && !isLocked, unlocked, "", ok},
         {!isNamed && isRunning && !named, unnamed,
          "If the helper that runs holds something all the same, it writes the record anew within "
          "a minute. Else to unlock the bundle: " +
              unlock},
         {!isNamed, unnamed, "To unlock it: " + unlock},
         {!isLive && isLocked && !isOwed,
          "The bundle is locked, but the record does not say that the helper did it",
          "It stays locked. To unlock it: " + unlock},
         {!isLive, isLocked ? "The bundle is still locked" : unlocked, end, ok},
         {isOwed && isLocked, "The bundle is locked, as the record says",
          isRunning ? "" : "No helper runs that would keep it so: " + start, ok},
         {isOwed, unlocked + ", but should be",
          isRunning ? "The helper sets it back within 2 seconds."
                    : "The helper locks it when it starts: " + start},
         {isLocked, "The bundle carries a lock that the helper did not set",
          "It stays when the commitment ends. To unlock the bundle: " + unlock,
          isOrphan ? Verdict::problem : ok},
         {AppLocation::mayLock(app.path),
          "The commitment holds without a lock, though the bundle may be locked",
          "The helper's log says why it could not. It tries again when the app begins or extends a "
          "commitment."}},
        "The commitment holds without a lock: the helper does not lock a bundle there");
}

Check checkHelperFiles(const std::vector<std::string>& paths, const std::string& top,
                       const std::string& risk) {
    std::vector<Case> flaws;
    for (const std::string& path : paths) {
        const auto problem = RootOwnedPath::problem(path, RootOwnedPath::Item::file, top);
        flaws.push_back({problem.has_value(), printable(problem.value_or("")),
                         risk + " Install it again, in folders that only root can write to."});
    }
    return firstOf("helper files", flaws, "root's alone, in " + printable(folderOf(paths.front())));
}

Check checkState(const std::string& file, StateFile condition) {
    const std::string folder = folderOf(file);
    const std::string shown = printable(folder);
    const fs::file_status status = statusOf(folder);
    const auto problem = RootOwnedPath::problem(folder, RootOwnedPath::Item::folder);
    constexpr auto others = fs::perms::group_all | fs::perms::others_all;
    return firstOf(
        "state",
        {{status.type() == fs::file_type::not_found, "nothing is stored, in " + shown, "",
          Verdict::ok},
         {problem.has_value(), printable(problem.value_or("")),
          "A user who can change it can end a commitment. Give it to root, and take the right to "
          "write from all others."},
         {(status.permissions() & others) != fs::perms::none,
          shown + " is accessible to users other than root", "chmod 700 " + shellWord(folder)},
         {condition == StateFile::damaged, printable(file) + " is damaged",
          "The helper removes it when it starts next; halvoctl release does so now."},
         {condition == StateFile::unreadable, printable(file) + " cannot be read",
          "Check the kernel log for I/O errors; if it is not a regular file, remove it."}},
        (condition == StateFile::whole ? "whole, in " : "nothing is stored, in ") + shown);
}

Check checkIdentity(const std::string& app, const HelperIdentity& identity) {
    const Bundle bundle(app);
    const auto info = bundle.info();
    const auto shown = [&](const std::string& key) {
        const auto text = infoString(info, key);
        return key + " " + (text ? records::inQuotes(*text) : "nothing");
    };
    const std::string path = printable(bundle.infoPath());
    const std::string served = identity.appBundleID + " of team " + identity.teamID;
    return firstOf("app's identity",
                   {{!info, path + " cannot be read", "Install the app again."},
                    {HelperIdentity::ofBundle(info) != identity,
                     path + " has the " + shown(HelperIdentity::bundleIDKey) + " and the " +
                         shown(HelperIdentity::teamKey) + ", but the helper serves " + served,
                     "Install the app and the helper that were built for each other."}},
                   served);
}

Checks examine(Machine& machine, const std::optional<std::string>& app) {
    Observation seen = observe(machine);
    if (app) {
        seen.apps = {{*app, machine.flags.state(*app)}};
    }
    Checks checks = machine.service->examine();
    const auto add = [&checks](const Checks& more) {
        checks.insert(checks.end(), more.begin(), more.end());
    };
    add({checkRunning(machine, seen), checkState(machine.stateFile, seen.file)});
    if (seen.apps.empty()) {
        add({isProblem(
            "app",
            "no bundle of " + machine.identity.appBundleID + " lies in " + machine.applications,
            "Install the app there, as root. One that lies elsewhere can be named: --app PATH")});
    }
    for (const AppFlag& each : seen.apps) {
        add({checkLocation(each.path), checkIdentity(each.path, machine.identity)});
        add(machine.service->examineApp(each.path));
        add({checkLock(machine, seen, each)});
    }
    if (const auto console = machine.session.consoleUser()) {
        add({checkSession(machine, seen, *console)});
        add(machine.service->examineSession(*console));
    } else {
        add({isNotApplicable("session", "no user is at the console, so the app is not opened")});
    }
    for (Check& each : checks) {
        if (!machine.isRoot &&
            std::set<std::string>{"helper", "state", "lock"}.contains(each.name)) {
            each = {each.name, Verdict::needsRoot, "only root can look at it", ""};
        }
    }
    return checks;
}

}  // namespace halvo::control
