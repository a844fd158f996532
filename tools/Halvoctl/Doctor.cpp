#include <sys/stat.h>

#include <array>
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

const char* nameOf(Verdict verdict) {
    return std::array{"ok", "problem", "not applicable", "needs root"}.at(
        static_cast<std::size_t>(verdict));
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
        const auto text = info ? infoString(*info, key) : std::nullopt;
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

std::string doctorText(const Checks& checks) {
    std::vector<std::vector<std::string>> rows;
    for (const Check& check : checks) {
        rows.push_back({nameOf(check.verdict), check.name, check.finding});
        if (check.verdict == Verdict::problem) {
            rows.push_back({"", "", "-> " + check.advice});
        }
    }
    const std::size_t problems = problemsOf(checks);
    const bool needsRoot = std::ranges::count(checks, Verdict::needsRoot, &Check::verdict) != 0;
    return records::table(rows, "") +
           (problems == 0 ? "No problem" : records::counted(problems, "problem")) + ".\n" +
           (needsRoot ? "Some things only root can look at. Type: sudo halvoctl doctor\n" : "");
}

std::string doctorJSON(const Checks& checks) {
    using Json = nlohmann::json;
    Json root{{"checks", Json::array()}, {"problems", problemsOf(checks)}};
    for (const auto& [name, verdict, finding, advice] : checks) {
        root["checks"].push_back({{"advice", verdict == Verdict::problem ? Json(advice) : Json()},
                                  {"finding", finding},
                                  {"name", name},
                                  {"verdict", nameOf(verdict)}});
    }
    return records::indented(root.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace halvo::control
