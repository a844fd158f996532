// What is so at one moment: the record, the flag, the helper. Looking changes nothing.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"
#include "HalvoHelperCore/HelperClock.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

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
    // The bundle that the record names; without one, those of the app in the folders for them.
    // Then those of the orphans that are not among them.
    std::vector<AppFlag> apps;
    // The app's own bundles whose lock no record owes.
    std::vector<std::string> orphans;
    // The processes of the helper.
    std::vector<pid_t> helpers;
    // Those of them that are stopped and so do nothing.
    std::vector<pid_t> stopped;

    // The record, if it is whole.
    [[nodiscard]] const HelperCommitment* commitment() const {
        return std::get_if<HelperCommitment>(&stored);
    }

    [[nodiscard]] bool isOrphan(const AppFlag& app) const {
        return std::ranges::find(orphans, app.path) != orphans.end();
    }
};

Observation observe(Machine& machine);

// What is stored, and in which condition its file is.
struct Stored {
    StateFile file{};
    StoredCommitment commitment;
};

Stored readState(Machine& machine);

enum class Presence { there, gone, unknown };

// Whether something is at `path`, links not followed. What the system cannot look at may be there.
Presence presence(const std::string& path);

// The bundles whose Info.plist carries the app's identifier: those directly in the machine's folder
// for them, and in each other one that is root's alone; in the order of their paths there.
std::vector<std::string> installedApps(Machine& machine);

// Those of `installed` that are the app's own, of this identity in an Info.plist that is root's
// alone, and that carry the lock although `stored` does not owe it.
std::vector<std::string> orphanedLocks(Machine& machine, const std::vector<std::string>& installed,
                                       const StoredCommitment& stored);

// Whether record and flag agree, and what comes of it.
struct Agreement {
    bool isGiven{};
    // A sentence on how things stand.
    std::string finding;
    // What happens next, or what to do, as sentences; empty when nothing does.
    std::string next;

    bool operator==(const Agreement&) const = default;
};

// Judges one of the observation's bundles. `startCommand` is what starts a helper now.
Agreement judge(const Observation& observation, const AppFlag& app,
                const std::string& startCommand);

// The shell command with which root clears the flag of the bundle at `path`. One source per system.
std::string clearCommand(const std::string& path);

}  // namespace halvo::control
