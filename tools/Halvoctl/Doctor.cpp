#include "tools/Halvoctl/Doctor.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

using records::printable;

void append(Checks& checks, const Checks& more) {
    checks.insert(checks.end(), more.begin(), more.end());
}

std::string known(const std::optional<std::string>& text) {
    return text ? records::inQuotes(*text) : "nothing";
}

const char* nameOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::ok:
            return "ok";
        case Verdict::problem:
            return "problem";
        case Verdict::notApplicable:
            return "not applicable";
        case Verdict::needsRoot:
            return "needs root";
    }
    return "";
}

Check checkLocation(const std::string& app) {
    const std::string name = "app's place";
    return AppLocation::mayLock(app)
               ? isOk(name, printable(app))
               : isProblem(name,
                           printable(app) +
                               " is no folder directly in one named Applications, so "
                               "the helper does not lock it",
                           "Install the app into /Applications.");
}

Check checkLock(const Observation& seen, const AppFlag& app, const std::string& startCommand) {
    const std::string name = "lock";
    Agreement agreement = judge(seen, app, startCommand);
    if (agreement.finding.ends_with('.')) {
        agreement.finding.pop_back();
    }
    return agreement.isGiven ? isOk(name, agreement.finding)
                             : isProblem(name, agreement.finding, agreement.next);
}

Check checkRunning(Machine& machine, const Observation& seen) {
    const std::string name = "helper";
    if (!seen.stopped.empty()) {
        std::string advice = "Let it go on: kill -CONT";
        for (const pid_t process : seen.stopped) {
            advice += " " + std::to_string(process);
        }
        const std::string restart = machine.service.restartCommand();
        return isProblem(name, "is stopped (SIGSTOP), and does nothing: " + named(seen.stopped),
                         advice + (restart.empty() ? "" : "; or start another: " + restart));
    }
    if (!seen.helpers.empty()) {
        return isOk(name, "runs, " + named(seen.helpers));
    }
    const bool isNeeded = seen.file == StateFile::damaged || seen.file == StateFile::whole;
    return isNeeded ? isProblem(name, "something is stored, and no helper runs that would hold it",
                                "Start it: " + machine.service.startCommand())
                    : isOk(name, "does not run; " + machine.service.whatStarts());
}

Check checkOpen(Machine& machine, const Observation& seen,
                const std::optional<std::uint32_t>& console) {
    const std::string name = "session";
    if (!console) {
        return isNotApplicable(name, "nobody is at the console, so the app is opened for nobody");
    }
    const std::string whose = person(machine, *console) + " is at the console";
    const auto runs = [&](const AppFlag& app) {
        return machine.session.isAppRunning(app.path, *console);
    };
    if (std::ranges::any_of(seen.apps, runs)) {
        return isOk(name, whose + "; the app runs for them");
    }
    const HelperCommitment* commitment = seen.commitment();
    const bool isBound =
        commitment != nullptr && commitment->uid == *console && commitment->isLive(seen.now);
    return isBound
               ? isProblem(name, whose + " and bound, but the app does not run for them",
                           "A helper that runs opens it within 15 seconds. If it does not come up, "
                           "look into the helper's log, and start the app as that person.")
               : isOk(name, whose + "; the app does not run for them");
}

}  // namespace

Check checkHelperFiles(const HelperFiles& files) {
    const std::string name = "helper files";
    for (const std::string& path : files.paths) {
        if (const auto problem =
                RootOwnedPath::problem(path, RootOwnedPath::Item::file, files.top)) {
            return isProblem(name, printable(*problem),
                             files.risk +
                                 " Install it again, in folders of root that nobody else can "
                                 "write.");
        }
    }
    return isOk(name, "root's alone, in " + printable(folderOf(files.paths.front())));
}

Check checkState(const std::string& file, StateFile condition) {
    const std::string name = "state";
    const std::string folder = folderOf(file);
    struct stat status{};
    if (lstat(folder.c_str(), &status) != 0 && errno == ENOENT) {
        return isOk(name, "nothing is stored, in " + printable(folder));
    }
    if (const auto problem = RootOwnedPath::problem(folder, RootOwnedPath::Item::folder)) {
        return isProblem(name, printable(*problem),
                         "Whoever can change what is stored decides what holds. Give it to root, "
                         "and take the right to write from all others.");
    }
    constexpr mode_t others = 077;
    if ((status.st_mode & others) != 0) {
        return isProblem(name, "others than root can look into " + printable(folder),
                         "chmod 700 " + shellWord(folder));
    }
    switch (condition) {
        case StateFile::damaged:
            return isProblem(
                name, printable(file) + " is damaged",
                "The helper lets go of it when it starts next; halvoctl release does so "
                "now.");
        case StateFile::unreadable:
            return isProblem(
                name, printable(file) + " cannot be read",
                "Look into the kernel's log for the disk; remove what lies there if it is no "
                "file.");
        case StateFile::whole:
            return isOk(name, "whole, in " + printable(folder));
        case StateFile::none:
            break;
    }
    return isOk(name, "nothing is stored, in " + printable(folder));
}

Check checkIdentity(const std::string& app, const HelperIdentity& identity) {
    const std::string name = "app's identity";
    const Bundle bundle(app);
    const auto info = bundle.info();
    if (!info) {
        return isProblem(name, printable(bundle.infoPath()) + " cannot be read",
                         "Install the app again.");
    }
    const auto identifier = infoString(*info, "CFBundleIdentifier");
    const auto team = infoString(*info, HelperIdentity::teamKey);
    if (HelperIdentity::app(info, identifier) == identity) {
        return isOk(name, identity.appBundleID + " of team " + identity.teamID);
    }
    return isProblem(name,
                     printable(bundle.infoPath()) + " has the CFBundleIdentifier " +
                         known(identifier) + " and the " + HelperIdentity::teamKey + " " +
                         known(team) + ", but the helper serves " + identity.appBundleID +
                         " of team " + identity.teamID,
                     "Install the app and the helper that were built for each other.");
}

Checks examine(Machine& machine, const std::optional<std::string>& app) {
    Checks checks{checkHelperFiles(helperFiles(machine.helper))};
    Observation seen = observe(machine);
    if (app) {
        seen.apps = {{*app, machine.flags.state(*app)}};
    }
    checks.push_back(machine.isRoot ? checkRunning(machine, seen) : needsRoot("helper"));
    append(checks, machine.service.examine());
    checks.push_back(machine.isRoot ? checkState(machine.stateFile, seen.file)
                                    : needsRoot("state"));
    if (seen.apps.empty()) {
        checks.push_back(isProblem(
            "app",
            "no bundle of " + machine.identity.appBundleID + " lies in " + machine.applications,
            "Install the app there, as root. One that lies elsewhere can be named: --app PATH"));
    }
    for (const AppFlag& each : seen.apps) {
        checks.push_back(checkLocation(each.path));
        checks.push_back(checkIdentity(each.path, machine.identity));
        append(checks, machine.service.examineApp(each.path, machine.isRoot));
        checks.push_back(machine.isRoot ? checkLock(seen, each, machine.service.startCommand())
                                        : needsRoot("lock"));
    }
    const auto console = machine.session.consoleUser();
    checks.push_back(checkOpen(machine, seen, console));
    if (console) {
        append(checks, machine.service.examineSession(*console));
    }
    return checks;
}

bool hasProblem(const Checks& checks) {
    return std::ranges::any_of(
        checks, [](const Check& check) { return check.verdict == Verdict::problem; });
}

std::string doctorText(const Checks& checks) {
    const auto count = [&checks](Verdict verdict) {
        return static_cast<std::size_t>(std::ranges::count(checks, verdict, &Check::verdict));
    };
    std::vector<std::vector<std::string>> rows;
    for (const Check& check : checks) {
        rows.push_back({nameOf(check.verdict), check.name, check.finding});
        if (!check.advice.empty()) {
            rows.push_back({"", "", "-> " + check.advice});
        }
    }
    const std::size_t problems = count(Verdict::problem);
    std::string text = records::table(rows, "") +
                       (problems == 0 ? "No problem" : records::counted(problems, "problem")) +
                       ".\n";
    if (count(Verdict::needsRoot) != 0) {
        text += "Some things only root can look at. Type: sudo halvoctl doctor\n";
    }
    return text;
}

std::string doctorJSON(const Checks& checks) {
    using Json = nlohmann::json;
    Json list = Json::array();
    for (const Check& check : checks) {
        list.push_back({{"advice", check.advice.empty() ? Json(nullptr) : Json(check.advice)},
                        {"finding", check.finding},
                        {"name", check.name},
                        {"verdict", nameOf(check.verdict)}});
    }
    const auto problems = std::ranges::count(checks, Verdict::problem, &Check::verdict);
    const Json root{{"checks", list}, {"problems", problems}};
    return records::indented(root.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace halvo::control
