#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/RFC3339.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

using Json = nlohmann::json;
using records::printable;
using records::zonedDate;

constexpr const char* purpose =
    R"(For the administrator of a machine on which the Halvo helper is installed, the
root service that holds a person to Ultra Hard mode: their app stays locked and
open until the time is up.
)";

constexpr const char* footer =
    R"(COMMAND --help says more about a command. The app is the one named in the
Info.plist beside the program.

Exit status: 0 when it was done, 1 when doctor found a problem, 64 for a usage
error, 71 when the system refused, 74 when the output could not be written, 77
when it needs root, 78 when the Info.plist is missing or wrong.)";

constexpr const char* statusFooter =
    R"(Changes nothing. Needs root, since only root can read the state file. The time left is
counted as the helper counts it, also while none runs.

Members of the object; dates are ISO 8601 in UTC, spans are seconds:
  apps           the bundle of the record, else those found in /Applications; and
                 those of the app that carry a lock which no record owes:
                 "path"; "flag" is locked, unlocked or missing; "agrees" says
                 whether record and flag agree, "finding" and "next" in words how
  commitment     null, or "app" (its bundle), "holds" (false: it has run out and is
                 still stored), "left", "locked" (the helper locked the bundle and
                 owes the unlock), "started", "uid", "until", "user" (null when
                 there is no such user)
  helper         "identifier", "executable", "pids" of those that run, "starts":
                 in words what starts one, null while one runs; "stopped": the pids
                 of those that are stopped until SIGCONT
  now            when this was so
  salvaged       null, or what can be read of a damaged record: "app", "locked"
  stateFile      "path"; "condition" is whole, damaged, none, or unreadable, which
                 the helper treats as none
  version        of halvoctl and the helper that lies with it

Example: sudo halvoctl status --json | jq .commitment.until)";

constexpr const char* doctorFooter =
    R"(Looks at everything that the helper needs, from the rights on its own files to the
app's private group. Changes nothing. Names what cannot be looked at without root.
Without --app it looks at the bundle of what holds, else at those of the app found in
/Applications.

Members of the object: "problems" is how many there are, "checks" a list of objects
with "name"; "verdict", which is ok, problem, not applicable, or needs root;
"finding", in words; "advice", what to do, null where there is nothing.

Example: sudo halvoctl doctor --app /srv/Applications/Halvo.app)";

constexpr const char* releaseFooter =
    R"(Ends the commitment of any user: stops the helper, unlocks the app's bundle, removes
what is stored, and lets the app call the helper again. Where nothing holds it says
so, and that is no failure. When it is interrupted, run it again.

A lock that no record owes goes too, from each bundle in /Applications, or in another
folder of root's called Applications where the helper may lock, that is the app's own:
root's, not writable by others, of the app and team of the helper. The record of a
bundle that cannot be reached is kept without --bundle-gone: its disk may come back,
and the lock with it. When release fails, all is as without --and-stop.

Needs root, which a person bound by Ultra Hard mode should not have.)";

std::string problemOfBundlePath(const std::string& path) {
    return AppLocation::isBundlePath(path)
               ? ""
               : "the absolute path of a bundle is needed, as /Applications/Halvo.app, not '" +
                     path + "'";
}

const char* nameOf(StateFile file) {
    return std::array{"whole", "damaged", "none", "unreadable"}.at(static_cast<std::size_t>(file));
}

const char* nameOf(LockState state) {
    return std::array{"locked", "unlocked", "missing"}.at(static_cast<std::size_t>(state));
}

const char* nameOf(Verdict verdict) {
    return std::array{"ok", "problem", "not applicable", "needs root"}.at(
        static_cast<std::size_t>(verdict));
}

std::string headline(const Machine& machine, const Observation& seen) {
    if (seen.file == StateFile::damaged) {
        return "The state file is damaged: its commitment cannot be recovered.";
    }
    if (seen.file == StateFile::unreadable) {
        return "The state file cannot be read; the helper treats it as missing.";
    }
    if (!seen.commitment) {
        return "Nothing holds.";
    }
    const std::string user = userText(machine, seen.commitment->uid);
    return seen.isLive() ? "Ultra Hard mode holds for " + user + ", for another " +
                               records::countdown(seen.commitment->timeLeft(seen.now)) + "."
                         : "Nothing holds: the time of " + user +
                               " has run out, but the record is still there.";
}

// `value`, or null if it is absent.
Json orNull(const std::optional<std::string>& value) { return value ? Json(*value) : Json(); }

Json date(WallDate date) {
    std::string text;
    return RFC3339::append(date, text) ? Json(text) : Json();
}

std::string linesOf(const Json& root) {
    return records::indented(root.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string statusText(const Machine& machine, const Observation& seen) {
    std::vector<std::vector<std::string>> rows;
    if (const auto& commitment = seen.commitment) {
        rows.push_back({seen.isLive() ? "until" : "until then",
                        zonedDate(commitment->ends(seen.now), machine.calendar)});
        rows.push_back({"started", zonedDate(commitment->startedWall, machine.calendar)});
    }
    std::string notes;
    for (const AppFlag& app : seen.apps) {
        rows.push_back({"app", printable(app.path) + ", " + nameOf(app.state)});
        const Check lock = checkLock(machine, seen, app);
        notes += (seen.apps.size() > 1 ? printable(app.path) + ": " : "") + lock.finding + "." +
                 (lock.advice.empty() ? "" : " ") + lock.advice + "\n";
    }
    if (seen.apps.empty()) {
        rows.push_back({"app", "none in " + machine.applications});
    }
    const std::string stopped =
        seen.stopped.empty() ? "" : "; stopped (SIGSTOP): " + pidText(seen.stopped);
    rows.push_back({"helper", seen.helpers.empty()
                                  ? "does not run; " + machine.service->whatStarts()
                                  : "runs, " + pidText(seen.helpers) + stopped});
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
        const Check lock = checkLock(machine, seen, app);
        root["apps"].push_back({{"agrees", lock.verdict == Verdict::ok},
                                {"finding", lock.finding + "."},
                                {"flag", nameOf(app.state)},
                                {"next", lock.advice},
                                {"path", app.path}});
    }
    if (const auto& commitment = seen.commitment) {
        root["commitment"] = {{"app", commitment->appPath},
                              {"holds", seen.isLive()},
                              {"left", commitment->timeLeft(seen.now).count()},
                              {"locked", commitment->locked},
                              {"started", date(commitment->startedWall)},
                              {"uid", commitment->uid},
                              {"until", date(commitment->ends(seen.now))},
                              {"user", orNull(machine.userName(commitment->uid))}};
    }
    if (seen.file == StateFile::damaged) {
        root["salvaged"] = {{"app", orNull(seen.record.appPath)}, {"locked", seen.record.locked}};
    }
    return linesOf(root);
}

}  // namespace

Outcome report(const Checks& checks, bool asJSON) {
    Json root{{"checks", Json::array()}};
    std::vector<std::vector<std::string>> rows;
    for (const auto& [name, verdict, finding, advice] : checks) {
        const bool isProblem = verdict == Verdict::problem;
        root["checks"].push_back({{"advice", isProblem ? Json(advice) : Json()},
                                  {"finding", finding},
                                  {"name", name},
                                  {"verdict", nameOf(verdict)}});
        rows.push_back({nameOf(verdict), name, finding});
        if (isProblem) {
            rows.push_back({"", "", "-> " + advice});
        }
    }
    const auto count = [&](Verdict verdict) {
        return static_cast<std::size_t>(std::ranges::count(checks, verdict, &Check::verdict));
    };
    const std::size_t problems = count(Verdict::problem);
    root["problems"] = problems;
    const std::string text =
        records::table(rows, "") +
        (problems == 0 ? "No problem" : records::counted(problems, "problem")) + ".\n" +
        (count(Verdict::needsRoot) == 0
             ? ""
             : "Some things only root can look at. Type: sudo halvoctl doctor\n");
    return {problems == 0 ? ExitStatus::fine : ExitStatus::problem, asJSON ? linesOf(root) : text,
            ""};
}

Outcome run(const std::vector<std::string>& words,
            const std::expected<Machine*, std::string>& machine) {
    bool asJSON = false;
    std::optional<std::string> app;
    ReleaseOptions releaseOptions;
    CLI::App parser{purpose, "halvoctl"};
    parser.set_help_flag("-h,--help", "print this text");
    parser.set_version_flag("--version", std::string("halvoctl ") + version, "print the version");
    parser.require_subcommand(1);
    parser.footer(footer);
    parser.get_formatter()->label("SUBCOMMAND", "COMMAND");
    parser.get_formatter()->column_width(17);
    const auto add = [&](const char* name, const char* description, const char* more) {
        return parser.add_subcommand(name, description)->group("Commands")->footer(more);
    };
    CLI::App* status = add("status", "say what holds, for whom and until when", statusFooter);
    CLI::App* doctor =
        add("doctor", "look whether everything is installed as it must be", doctorFooter);
    CLI::App* release = add("release", "end the commitment, as root", releaseFooter);
    for (CLI::App* command : {status, doctor}) {
        command->add_flag("--json", asJSON, "print one JSON object, with its keys sorted");
    }
    doctor->add_option("--app", app, "the app's bundle")
        ->type_name("PATH")
        ->check(problemOfBundlePath);
    release->add_flag("--and-stop", releaseOptions.staysStopped,
                      "leave the helper stopped: before it is removed");
    release->add_flag("--bundle-gone", releaseOptions.isBundleGone,
                      "forget the lock of a bundle that is gone for good");
    if (const auto end = tools::parse(parser, words)) {
        return *end;
    }

    if (doctor->parsed()) {
        return report(machine ? examine(**machine, app)
                              : Checks{isProblem("helper files", machine.error(),
                                                 "Install the helper again.")},
                      asJSON);
    }
    if (!machine) {
        return failure(ExitStatus::config, machine.error() + ". Install the helper again.");
    }
    if (!(*machine)->isRoot) {
        return failure(ExitStatus::noPermission,
                       release->parsed()
                           ? "Only root can end the commitment. Type: sudo halvoctl release"
                           : "The state can only be read as root. Type: sudo halvoctl status");
    }
    if (release->parsed()) {
        return control::release(**machine, releaseOptions);
    }
    const Observation seen = observe(**machine);
    return {ExitStatus::fine, asJSON ? statusJSON(**machine, seen) : statusText(**machine, seen),
            ""};
}

}  // namespace halvo::control
