#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using records::printable;
using records::zonedDate;

const char* nameOf(StateFile file) {
    return std::array{"whole", "damaged", "none", "unreadable"}.at(static_cast<std::size_t>(file));
}

const char* nameOf(LockState state) {
    return std::array{"locked", "unlocked", "missing"}.at(static_cast<std::size_t>(state));
}

// Looked at from the bundle downwards: nobody but root can put a folder of root's with that inside
// into the one above it, nor move one that is locked.
bool isAppsOwn(const std::string& path, const HelperIdentity& identity) {
    const Bundle bundle(path);
    return AppLocation::mayLock(path) &&
           !RootOwnedPath::problem(bundle.infoPath(), RootOwnedPath::Item::file, path) &&
           HelperIdentity::ofBundle(bundle.info()) == identity;
}

std::string headline(const Machine& machine, const Observation& seen) {
    if (seen.file == StateFile::damaged) {
        return "The state file is damaged: what it held cannot be told.";
    }
    if (seen.file == StateFile::unreadable) {
        return "The state file cannot be read; the helper takes that for nothing.";
    }
    const HelperCommitment* commitment = seen.commitment();
    if (commitment == nullptr) {
        return "Nothing holds.";
    }
    const std::string whose = person(machine, commitment->uid);
    return seen.live() != nullptr ? "Ultra Hard mode holds for " + whose + ", for another " +
                                        records::countdown(commitment->timeLeft(seen.now)) + "."
                                  : "Nothing holds: the time of " + whose +
                                        " has run out, but the record is still there.";
}

// `value`, or null where it is absent.
Json orNull(const std::optional<std::string>& value) { return value ? Json(*value) : Json(); }

Json date(WallDate date) {
    std::string text;
    return InternetDate::append(date, text) ? Json(text) : Json();
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
            if (info && infoString(*info, "CFBundleIdentifier") == machine.identity.appBundleID) {
                paths.insert(path);
            }
        }
        found.insert(found.end(), paths.begin(), paths.end());
    }
    return found;
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

std::string person(const Machine& machine, std::uint32_t uid) {
    const auto name = machine.userName(uid);
    const std::string number = "uid " + std::to_string(uid);
    return name ? printable(*name) + " (" + number + ")" : number;
}

std::string statusText(const Machine& machine, const Observation& seen) {
    std::vector<std::vector<std::string>> rows;
    if (const HelperCommitment* commitment = seen.commitment()) {
        rows.push_back({seen.live() != nullptr ? "until" : "until then",
                        zonedDate(commitment->ends(seen.now), machine.calendar)});
        rows.push_back({"started", zonedDate(commitment->startedWall, machine.calendar)});
    }
    std::string notes;
    for (const AppFlag& app : seen.apps) {
        rows.push_back({"app", printable(app.path) + ", " + nameOf(app.state)});
        const Check lock = judge(machine, seen, app);
        notes += (seen.apps.size() > 1 ? printable(app.path) + ": " : "") + lock.finding + "." +
                 (lock.advice.empty() ? "" : " ") + lock.advice + "\n";
    }
    if (seen.apps.empty()) {
        rows.push_back({"app", "none in " + machine.applications});
    }
    const std::string stopped =
        seen.stopped.empty() ? "" : "; stopped (SIGSTOP): " + named(seen.stopped);
    rows.push_back({"helper", seen.helpers.empty()
                                  ? "does not run; " + machine.service->whatStarts()
                                  : "runs, " + named(seen.helpers) + stopped});
    const std::string file = printable(machine.stateFile);
    rows.push_back({"state file", seen.file == StateFile::none ? "none (" + file + ")"
                                                               : file + ", " + nameOf(seen.file)});
    rows.push_back({"version", version});
    return machine.identity.appBundleID + ": " + headline(machine, seen) + "\n" +
           records::table(rows, "  ") + notes;
}

std::string statusJSON(const Machine& machine, const Observation& seen) {
    Json root{{"apps", Json::array()},
              {"commitment", nullptr},
              {"helper",
               {{"executable", machine.helper},
                {"identifier", machine.identity.helperBundleID()},
                {"pids", seen.helpers},
                {"starts", seen.helpers.empty() ? Json(machine.service->whatStarts()) : Json()},
                {"stopped", seen.stopped}}},
              {"now", date(seen.now.wall)},
              {"salvaged", nullptr},
              {"stateFile", {{"condition", nameOf(seen.file)}, {"path", machine.stateFile}}},
              {"version", version}};
    for (const AppFlag& app : seen.apps) {
        const Check lock = judge(machine, seen, app);
        root["apps"].push_back({{"agrees", lock.verdict == Verdict::ok},
                                {"finding", lock.finding + "."},
                                {"flag", nameOf(app.state)},
                                {"next", lock.advice},
                                {"path", app.path}});
    }
    if (const HelperCommitment* commitment = seen.commitment()) {
        root["commitment"] = {{"app", commitment->appPath},
                              {"holds", seen.live() != nullptr},
                              {"left", commitment->timeLeft(seen.now).count()},
                              {"locked", commitment->locked},
                              {"started", date(commitment->startedWall)},
                              {"uid", commitment->uid},
                              {"until", date(commitment->ends(seen.now))},
                              {"user", orNull(machine.userName(commitment->uid))}};
    }
    if (const auto* damaged = seen.salvaged()) {
        root["salvaged"] = {{"app", orNull(damaged->appPath)}, {"locked", damaged->locked}};
    }
    return records::indented(root.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace halvo::control
