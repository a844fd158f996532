#include <array>
#include <nlohmann/json.hpp>

#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/RFC3339.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

using Json = nlohmann::json;
using records::printable;
using records::zonedDate;

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
    return RFC3339::append(date, text) ? Json(text) : Json();
}

std::string linesOf(const Json& root) {
    return records::indented(root.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

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
    return linesOf(root);
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
    Json root{{"checks", Json::array()}, {"problems", problemsOf(checks)}};
    for (const auto& [name, verdict, finding, advice] : checks) {
        root["checks"].push_back({{"advice", verdict == Verdict::problem ? Json(advice) : Json()},
                                  {"finding", finding},
                                  {"name", name},
                                  {"verdict", nameOf(verdict)}});
    }
    return linesOf(root);
}

}  // namespace halvo::control
