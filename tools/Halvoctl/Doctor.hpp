// halvoctl doctor.
#pragma once

#include <optional>
#include <string>

#include "tools/Halvoctl/Check.hpp"
#include "tools/Halvoctl/Machine.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {

// Looks at everything that the helper needs. `app`: the bundle that is meant; else that of the
// record, else those found. Changes nothing.
Checks examine(Machine& machine, const std::optional<std::string>& app);

// What has to do with this system alone: the service, and the app's bundles at `apps`. One source
// per system.
Checks examineService(Machine& machine);
Checks examineApp(Machine& machine, const std::string& app);
Checks examineSession(Machine& machine, std::uint32_t uid);

// The files that must be root's alone for the helper to be what it is, the first folder above them
// that counts, and what may happen where they are not, as a sentence. One source per system.
struct HelperFiles {
    std::vector<std::string> paths;
    std::string top;
    std::string risk = "Whoever can change the helper becomes root.";
};

HelperFiles helperFiles(const Machine& machine);

// The parts of it that are the same everywhere. What of them needs root is asked as root only.
Check checkHelperFiles(const HelperFiles& files);
Check checkState(const std::string& file, StateFile condition);
Check checkLocation(const std::string& app);
Check checkIdentity(const std::string& app, const HelperIdentity& identity);
Check checkLock(const Observation& seen, const AppFlag& app, const std::string& startCommand);
Check checkRunning(Machine& machine, const Observation& seen);
Check checkOpen(Machine& machine, const Observation& seen,
                const std::optional<std::uint32_t>& console);

// Whether there is a problem among `checks`.
bool hasProblem(const Checks& checks);

// For a person, and as the JSON object that `halvoctl doctor --help` describes.
std::string doctorText(const Checks& checks);
std::string doctorJSON(const Checks& checks);

}  // namespace halvo::control
