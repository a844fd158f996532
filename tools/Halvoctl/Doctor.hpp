// Parts of doctor that are the same on every system.
#pragma once

#include <string>
#include <vector>

#include "tools/Halvoctl/Machine.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {

// The files that must be root's alone for the helper to be what it is, the first folder above them
// that counts, and what may happen where they are not, as a sentence.
struct HelperFiles {
    std::vector<std::string> paths;
    std::string top;
    std::string risk = "Whoever can change the helper becomes root.";
};

// Those of the helper at `helper`. One source per system.
HelperFiles helperFiles(const std::string& helper);

Check checkHelperFiles(const HelperFiles& files);

// The state file `file` and its folder.
Check checkState(const std::string& file, StateFile condition);

// What the Info.plist of the bundle at `app` says that it is.
Check checkIdentity(const std::string& app, const HelperIdentity& identity);

}  // namespace halvo::control
