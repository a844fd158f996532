// What is so at one moment: the record, the flag, the helper. Looking changes nothing.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/ClockReading.hpp"
#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"
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
    // The bundle that the record names; without one, those of the app in the folder for them.
    std::vector<AppFlag> apps;
    // The processes of the helper.
    std::vector<pid_t> helpers;

    // The record, if it is whole.
    [[nodiscard]] const HelperCommitment* commitment() const {
        return std::get_if<HelperCommitment>(&stored);
    }
};

Observation observe(Machine& machine);

// What is stored, and in which condition its file is.
struct Stored {
    StateFile file{};
    StoredCommitment commitment;
};

Stored readState(Machine& machine);

// The bundles directly in the machine's folder for them whose Info.plist carries the app's
// identifier, in the order of their names.
std::vector<std::string> installedApps(const Machine& machine);

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

// The command with which root clears the flag of the bundle at `path`. One source per system.
std::string clearCommand(const std::string& path);

}  // namespace halvo::control
