#include <nlohmann/json.hpp>
#include <variant>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

using Json = nlohmann::json;
using records::countdown;
using records::printable;
using records::zonedDate;

const char* nameOf(StateFile file) {
    switch (file) {
        case StateFile::whole:
            return "whole";
        case StateFile::damaged:
            return "damaged";
        case StateFile::none:
            return "none";
        case StateFile::unreadable:
            return "unreadable";
    }
    return "";
}

const char* nameOf(LockState state) {
    switch (state) {
        case LockState::locked:
            return "locked";
        case LockState::unlocked:
            return "unlocked";
        case LockState::missing:
            return "missing";
    }
    return "";
}

std::string headline(Machine& machine, const Observation& seen) {
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
    return commitment->isLive(seen.now) ? "Ultra Hard mode holds for " + whose + ", for another " +
                                              countdown(commitment->timeLeft(seen.now)) + "."
                                        : "Nothing holds: the time of " + whose +
                                              " has run out, but the record is still there.";
}

std::string helperText(Machine& machine, const Observation& seen) {
    return seen.helpers.empty()
               ? "does not run; " + machine.service.whatStarts()
               : "runs, " + named(seen.helpers) +
                     (seen.stopped.empty() ? "" : "; stopped (SIGSTOP): " + named(seen.stopped));
}

std::string fileText(const Machine& machine, const Observation& seen) {
    return seen.file == StateFile::none ? "none (" + machine.stateFile + ")"
                                        : printable(machine.stateFile) + ", " + nameOf(seen.file);
}

Json date(WallDate date) {
    std::string text;
    return InternetDate::append(date, text) ? Json(text) : Json(nullptr);
}

Json commitmentJSON(const Machine& machine, const Observation& seen) {
    const HelperCommitment* commitment = seen.commitment();
    if (commitment == nullptr) {
        return nullptr;
    }
    const auto name = machine.userName(commitment->uid);
    return {{"app", commitment->appPath},
            {"holds", commitment->isLive(seen.now)},
            {"left", commitment->timeLeft(seen.now).count()},
            {"locked", commitment->locked},
            {"started", date(commitment->startedWall)},
            {"uid", commitment->uid},
            {"until", date(commitment->ends(seen.now))},
            {"user", name ? Json(*name) : Json(nullptr)}};
}

Json salvagedJSON(const Observation& seen) {
    const auto* unreadable = std::get_if<UnreadableCommitment>(&seen.stored);
    if (unreadable == nullptr) {
        return nullptr;
    }
    return {{"app", unreadable->appPath ? Json(*unreadable->appPath) : Json(nullptr)},
            {"locked", unreadable->locked}};
}

}  // namespace

std::string statusText(Machine& machine, const Observation& seen,
                       const GregorianCalendar& calendar) {
    std::vector<std::vector<std::string>> rows;
    if (const HelperCommitment* commitment = seen.commitment()) {
        const bool isLive = commitment->isLive(seen.now);
        rows.push_back(
            {isLive ? "until" : "until then", zonedDate(commitment->ends(seen.now), calendar)});
        rows.push_back({"started", zonedDate(commitment->startedWall, calendar)});
    }
    std::string notes;
    for (const AppFlag& app : seen.apps) {
        rows.push_back({"app", printable(app.path) + ", " + nameOf(app.state)});
        const Agreement agreement = judge(seen, app, machine.service.startCommand());
        notes += (seen.apps.size() > 1 ? printable(app.path) + ": " : "") + agreement.finding +
                 (agreement.next.empty() ? "" : " " + agreement.next) + "\n";
    }
    if (seen.apps.empty()) {
        rows.push_back({"app", "none in " + machine.applications});
    }
    rows.push_back({"helper", helperText(machine, seen)});
    rows.push_back({"state file", fileText(machine, seen)});
    rows.push_back({"version", version});
    return machine.identity.appBundleID + ": " + headline(machine, seen) + "\n" +
           records::table(rows, "  ") + notes;
}

std::string statusJSON(Machine& machine, const Observation& seen) {
    Json apps = Json::array();
    for (const AppFlag& app : seen.apps) {
        const Agreement agreement = judge(seen, app, machine.service.startCommand());
        apps.push_back({{"agrees", agreement.isGiven},
                        {"finding", agreement.finding},
                        {"flag", nameOf(app.state)},
                        {"next", agreement.next},
                        {"path", app.path}});
    }
    const Json root{
        {"apps", apps},
        {"commitment", commitmentJSON(machine, seen)},
        {"helper",
         {{"executable", machine.helper},
          {"identifier", machine.identity.helperBundleID()},
          {"pids", seen.helpers},
          {"stopped", seen.stopped},
          {"starts", seen.helpers.empty() ? Json(machine.service.whatStarts()) : Json(nullptr)}}},
        {"now", date(seen.now.wall)},
        {"salvaged", salvagedJSON(seen)},
        {"stateFile", {{"condition", nameOf(seen.file)}, {"path", machine.stateFile}}},
        {"version", version},
    };
    return records::indented(root.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace halvo::control
