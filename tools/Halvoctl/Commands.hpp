// The commands of the program, apart from the process that it runs in.
#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/Halvoctl/Machine.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {

// Those of sysexits(3), but for `problem`.
namespace ExitStatus {

inline constexpr int fine = 0;
// doctor found a problem.
inline constexpr int problem = 1;
inline constexpr int usage = 64;
// The system refused, or something did not end in time.
inline constexpr int system = 71;
inline constexpr int outputLost = 74;
inline constexpr int noPermission = 77;
// The helper's own Info.plist is missing or wrong.
inline constexpr int config = 78;

}  // namespace ExitStatus

// How the program ends.
struct Outcome {
    int status = ExitStatus::fine;
    // For standard output and standard error: nothing, or whole lines. UTF-8, and nothing in it
    // that a terminal obeys.
    std::string output;
    std::string errors;

    bool operator==(const Outcome&) const = default;
};

// Returns the machine to look at, or why there is none: the helper's Info.plist, as a sentence
// without a full stop.
using FindMachine = std::function<std::expected<std::reference_wrapper<Machine>, std::string>()>;

// Does what `words`, those after the program's own name, ask for. Calls `findMachine` once, and
// only for a command that needs it. Main thread only. Throws std::bad_alloc alone.
Outcome run(const std::vector<std::string>& words, const FindMachine& findMachine,
            const GregorianCalendar& calendar);

// halvoctl status: what `seen` is, with the calendar's clocks; and as the JSON object with sorted
// keys that `halvoctl status --help` describes, on lines of its own.
std::string statusText(Machine& machine, const Observation& seen,
                       const GregorianCalendar& calendar);
std::string statusJSON(Machine& machine, const Observation& seen);

// halvoctl doctor: looks at everything that the helper needs. `app`: the bundle that is meant; else
// that of the record, else those found. Changes nothing.
Checks examine(Machine& machine, const std::optional<std::string>& app);

// Whether there is a problem among `checks`.
bool hasProblem(const Checks& checks);

// `checks` as lines of text, and as the JSON object that `halvoctl doctor --help` describes.
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
Outcome release(Machine& machine, const ReleaseOptions& options, const GregorianCalendar& calendar);

}  // namespace halvo::control
