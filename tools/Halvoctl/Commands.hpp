// The commands of the program, apart from the process that it runs in.
#pragma once

#include <algorithm>

#include "tools/CommandLine.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

namespace ExitStatus = tools::ExitStatus;
using tools::Outcome;

// A failure with `status`, which `problem` describes in whole sentences.
inline Outcome failure(int status, const std::string& problem) {
    return {status, "", "halvoctl: " + problem + "\n"};
}

// Does what `words`, those after the program's own name, ask for. `machine`: the one to look at, or
// why there is none, as a sentence without a full stop; looked at only by a command that needs it.
// Main thread only. Throws std::bad_alloc alone.
Outcome run(const std::vector<std::string>& words,
            const std::expected<Machine*, std::string>& machine);

// ----------------------------------------------- what is so at one moment; looking changes nothing

enum class StateFile {
    // It holds a record.
    whole,
    // It is there, but holds none.
    damaged,
    // There is none.
    none,
    // It is there and cannot be read at all. The helper takes that for none.
    unreadable,
};

// A bundle and the flag on its folder.
struct AppFlag {
    std::string path;
    LockState state{};

    bool operator==(const AppFlag&) const = default;
};

struct Observation {
    ClockReading now;
    StateFile file{};
    // Never UnreadableCommitment but of a damaged file.
    StoredCommitment stored;
    // The bundles whose Info.plist carries the app's identifier: those directly in the machine's
    // folder for them, and in each other one that is root's alone; in the order of their paths
    // there.
    std::vector<std::string> installed;
    // Those of them that are the app's own, of the helper's identity in an Info.plist that is
    // root's alone, and that carry the lock although the record does not owe it.
    std::vector<std::string> orphans;
    // The bundle that the record names; without one, those installed. Then those of the orphans
    // that are not among them.
    std::vector<AppFlag> apps;
    // The processes of the helper.
    std::vector<pid_t> helpers;
    // Those of them that are stopped and so do nothing.
    std::vector<pid_t> stopped;

    // The record, if it is whole.
    [[nodiscard]] const HelperCommitment* commitment() const {
        return std::get_if<HelperCommitment>(&stored);
    }

    // The same, if it holds.
    [[nodiscard]] const HelperCommitment* live() const {
        return commitment() != nullptr && commitment()->isLive(now) ? commitment() : nullptr;
    }

    // What can be read of a damaged one.
    [[nodiscard]] const UnreadableCommitment* salvaged() const {
        return std::get_if<UnreadableCommitment>(&stored);
    }

    // The bundle that the record names, whole or not.
    [[nodiscard]] std::optional<std::string> named() const;

    // The same, where the record owes its unlock and the helper locks bundles there.
    [[nodiscard]] std::optional<std::string> owed() const;
};

Observation observe(Machine& machine);

enum class Presence { there, gone, unknown };

// Whether something is at `path`, links not followed. What the system cannot look at may be there.
Presence presence(const std::string& path);

// Whether record and flag of one of the bundles of `seen` agree, as the check "lock"; the advice is
// what happens next, or what to do, also where they do.
Check judge(const Machine& machine, const Observation& seen, const AppFlag& app);

// "ann (uid 1000)", or "uid 1000" when there is no such user.
std::string person(const Machine& machine, std::uint32_t uid);

// ------------------------------------------------------------------------------------ the commands

// halvoctl status: what `seen` is, with the calendar's clocks; and as the JSON object with sorted
// keys that `halvoctl status --help` describes, on lines of its own.
std::string statusText(const Machine& machine, const Observation& seen);
std::string statusJSON(const Machine& machine, const Observation& seen);

// halvoctl doctor: looks at everything that the helper needs. `app`: the bundle that is meant; else
// that of the record, else those found. Changes nothing.
Checks examine(Machine& machine, const std::optional<std::string>& app);

// Parts of it.
Check checkHelperFiles(const HelperFiles& files);
// The state file `file` and its folder.
Check checkState(const std::string& file, StateFile condition);
// What the Info.plist of the bundle at `app` says that it is.
Check checkIdentity(const std::string& app, const HelperIdentity& identity);

// How many problems there are among `checks`.
inline std::size_t problemsOf(const Checks& checks) {
    return static_cast<std::size_t>(std::ranges::count(checks, Verdict::problem, &Check::verdict));
}

// `checks` as lines of text, and as the JSON object that `halvoctl doctor --help` describes. Advice
// is given on problems only.
std::string doctorText(const Checks& checks);
std::string doctorJSON(const Checks& checks);

struct ReleaseOptions {
    // The bundle that is not at its place is gone for good, and no lock with it is left.
    bool isBundleGone{};
    // The helper stays stopped, and the app cannot call it.
    bool staysStopped{};
};

// halvoctl release: stops the helper, takes off the lock that the stored record owes, forgets the
// record, and lets the app call the helper again. The record goes only after the flag was cleared,
// so that it may be interrupted anywhere and be run again. What cannot be done leaves the record,
// and is said. One at a time: it waits for another that runs.
Outcome release(Machine& machine, const ReleaseOptions& options);

}  // namespace halvo::control
