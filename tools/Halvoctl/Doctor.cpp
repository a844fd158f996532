#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <set>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using records::printable;

// Looked at from the bundle downwards: nobody but root can put a folder of root's with that inside
// into the one above it, nor move one that is locked.
bool isAppsOwn(const std::string& path, const HelperIdentity& identity) {
    const Bundle bundle(path);
    return AppLocation::mayLock(path) &&
           !RootOwnedPath::problem(bundle.infoPath(), RootOwnedPath::Item::file, path) &&
           HelperIdentity::ofBundle(bundle.info()) == identity;
}

StateFile conditionOf(const StoredCommitment& stored, bool isThere) {
    if (std::holds_alternative<NoCommitment>(stored)) {
        return isThere ? StateFile::unreadable : StateFile::none;
    }
    return std::holds_alternative<HelperCommitment>(stored) ? StateFile::whole : StateFile::damaged;
}

std::vector<std::string> installedApps(Machine& machine) {
    std::vector<std::string> folders{machine.applications};
    const std::vector<std::string> others = machine.service->otherApplications();
    for (const std::string& folder : std::set(others.begin(), others.end())) {
        // Whose folder it is could lead us astray between two looks.
        if (folder != machine.applications &&
            !RootOwnedPath::problem(folder, RootOwnedPath::Item::folder)) {
            folders.push_back(folder);
        }
    }
    std::vector<std::string> found;
    for (const std::string& folder : folders) {
        std::set<std::string> paths;
        std::error_code ignored;
        for (fs::directory_iterator item(folder, ignored), end; item != end;
             item.increment(ignored)) {
            const std::string path = folder + "/" + item->path().filename().string();
            const auto info = AppLocation::isBundlePath(path) ? Bundle(path).info() : std::nullopt;
            if (infoString(info, "CFBundleIdentifier") == machine.identity.appBundleID) {
                paths.insert(path);
            }
        }
        found.insert(found.end(), paths.begin(), paths.end());
    }
    return found;
}

Check checkLocation(const std::string& app) {
    return firstOf("app's place",
                   {{!AppLocation::mayLock(app),
                     printable(app) + " is no folder directly in one named Applications, so the "
                                      "helper does not lock it",
                     "Install the app into /Applications."}},
                   printable(app));
}

Check checkRunning(const Machine& machine, const Observation& seen) {
    std::string goOn = "Let it go on: kill -CONT";
    for (const pid_t process : seen.stopped) {
        goOn += " " + std::to_string(process);
    }
    const std::string& restart = machine.service->restartCommand;
    const bool isStored = !std::holds_alternative<NoCommitment>(seen.stored);
    return firstOf(
        "helper",
        {{!seen.stopped.empty(), "is stopped (SIGSTOP), and does nothing: " + named(seen.stopped),
          goOn + (restart.empty() ? "" : "; or start another: " + restart)},
         {seen.helpers.empty() && isStored,
          "something is stored, and no helper runs that would hold it",
          "Start it: " + machine.service->startCommand}},
        seen.helpers.empty() ? "does not run; " + machine.service->whatStarts()
                             : "runs, " + named(seen.helpers));
}

// The session of the user `uid`, who is at the console.
Check checkSession(const Machine& machine, const Observation& seen, std::uint32_t uid) {
    const std::string whose = person(machine, uid) + " is at the console";
    const bool isOpen = std::ranges::any_of(
        seen.apps, [&](const AppFlag& app) { return machine.session.isAppRunning(app.path, uid); });
    const bool isBound = seen.live() != nullptr && seen.live()->uid == uid;
    return firstOf(
        "session",
        {{isBound && !isOpen, whose + " and bound, but the app does not run for them",
          "A helper that runs opens it within 15 seconds. If it does not come up, look "
          "into the helper's log, and start the app as that person."}},
        whose + (isOpen ? "; the app runs for them" : "; the app does not run for them"));
}

}  // namespace

std::optional<std::string> Observation::named() const {
    if (commitment() != nullptr) {
        return commitment()->appPath;
    }
    return salvaged() != nullptr ? salvaged()->appPath : std::nullopt;
}

std::optional<std::string> Observation::owed() const {
    const bool isLocked = commitment() != nullptr ? commitment()->locked
                                                  : salvaged() != nullptr && salvaged()->locked;
    const auto path = named();
    return isLocked && path && AppLocation::isLockablePath(*path) ? path : std::nullopt;
}

Presence presence(const std::string& path) {
    struct stat status{};
    if (lstat(path.c_str(), &status) == 0) {
        return Presence::there;
    }
    const bool isGone =
        errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    return isGone ? Presence::gone : Presence::unknown;
}

Observation observe(Machine& machine) {
    Observation seen;
    // Only what is there before and after is there and cannot be read.
    const auto isThere = [&] { return presence(machine.stateFile) == Presence::there; };
    const bool wasThere = isThere();
    seen.stored = machine.store.load();
    seen.file = conditionOf(seen.stored, wasThere && isThere());
    seen.installed = installedApps(machine);
    const auto named = seen.named();
    for (const std::string& path : named ? std::vector{*named} : seen.installed) {
        seen.apps.push_back({path, machine.flags.state(path)});
    }
    for (const std::string& path : seen.installed) {
        if (machine.flags.state(path) == LockState::locked && seen.owed() != path &&
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

Check judge(const Machine& machine, const Observation& seen, const AppFlag& app) {
    const std::string& start = machine.service->startCommand;
    const auto named = seen.named();
    const bool isNamed = named == app.path || (!named && seen.file == StateFile::damaged);
    const bool isOwed = seen.owed() == app.path;
    const bool isLive = seen.live() != nullptr;
    const bool isLocked = app.state == LockState::locked;
    const bool isRunning = !seen.helpers.empty();
    const bool isOrphan = std::ranges::find(seen.orphans, app.path) != seen.orphans.end();
    const std::string unlock =
        isOrphan ? std::string("halvoctl release") + (isLive ? " (which also ends what holds)" : "")
                 : clearCommand(app.path);
    const std::string end =
        isRunning ? "The helper lets go of it within 2 seconds, unless it has forgotten the record."
                  : "The helper lets go of it when it starts next: " + start;
    const std::string unnamed = "The bundle is locked, but no record says that the helper did it";
    const std::string unlocked = "The bundle is not locked";
    constexpr auto ok = Verdict::ok;
    return firstOf(
        "lock",
        {{app.state == LockState::missing && isOwed, "There is nothing at " + printable(app.path),
          "The helper locks no other in its place."},
         {app.state == LockState::missing, "There is nothing at " + printable(app.path), "", ok},
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

Check checkHelperFiles(const HelperFiles& files) {
    std::vector<Case> flaws;
    for (const std::string& path : files.paths) {
        const auto problem = RootOwnedPath::problem(path, RootOwnedPath::Item::file, files.top);
        flaws.push_back(
            {problem.has_value(), printable(problem.value_or("")),
             files.risk + " Install it again, in folders of root that nobody else can write."});
    }
    return firstOf("helper files", flaws,
                   "root's alone, in " + printable(folderOf(files.paths.front())));
}

Check checkState(const std::string& file, StateFile condition) {
    const std::string folder = folderOf(file);
    const std::string shown = printable(folder);
    struct stat status{};
    if (lstat(folder.c_str(), &status) != 0 && errno == ENOENT) {
        return isOk("state", "nothing is stored, in " + shown);
    }
    const auto problem = RootOwnedPath::problem(folder, RootOwnedPath::Item::folder);
    constexpr mode_t others = 077;
    return firstOf(
        "state",
        {{problem.has_value(), printable(problem.value_or("")),
          "Whoever can change what is stored decides what holds. Give it to root, and take the "
          "right to write from all others."},
         {(status.st_mode & others) != 0, "others than root can look into " + shown,
          "chmod 700 " + shellWord(folder)},
         {condition == StateFile::damaged, printable(file) + " is damaged",
          "The helper lets go of it when it starts next; halvoctl release does so now."},
         {condition == StateFile::unreadable, printable(file) + " cannot be read",
          "Look into the kernel's log for the disk; remove what lies there if it is no file."}},
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
                     path + " has the " + shown("CFBundleIdentifier") + " and the " +
                         shown(HelperIdentity::teamKey) + ", but the helper serves " + served,
                     "Install the app and the helper that were built for each other."}},
                   served);
}

Checks examine(Machine& machine, const std::optional<std::string>& app) {
    Observation seen = observe(machine);
    if (app) {
        seen.apps = {{*app, machine.flags.state(*app)}};
    }
    Checks checks{checkHelperFiles(helperFiles(machine.helper))};
    const auto add = [&checks](const Checks& more) {
        checks.insert(checks.end(), more.begin(), more.end());
    };
    const auto addRoots = [&](const char* name, const auto& check) {
        checks.push_back(machine.isRoot
                             ? check()
                             : Check{name, Verdict::needsRoot, "only root can look at it", ""});
    };
    addRoots("helper", [&] { return checkRunning(machine, seen); });
    add(machine.service->examine());
    addRoots("state", [&] { return checkState(machine.stateFile, seen.file); });
    if (seen.apps.empty()) {
        checks.push_back(isProblem(
            "app",
            "no bundle of " + machine.identity.appBundleID + " lies in " + machine.applications,
            "Install the app there, as root. One that lies elsewhere can be named: --app PATH"));
    }
    for (const AppFlag& each : seen.apps) {
        add({checkLocation(each.path), checkIdentity(each.path, machine.identity)});
        add(machine.service->examineApp(each.path));
        addRoots("lock", [&] { return judge(machine, seen, each); });
    }
    if (const auto console = machine.session.consoleUser()) {
        checks.push_back(checkSession(machine, seen, *console));
        add(machine.service->examineSession(*console));
    } else {
        checks.push_back(isNotApplicable(
            "session", "nobody is at the console, so the app is opened for nobody"));
    }
    return checks;
}

}  // namespace halvo::control
