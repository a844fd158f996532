// What doctor looks at on Linux.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelper/Linux/CallerRules.hpp"
#include "tools/Halvoctl/Linux/Systemd.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// What `name` could not be looked at for: systemd did not answer, as `problem` says.
Check noAnswer(const std::string& name, const std::string& problem);

// The helper's units.
Checks checkUnits(const HelperIdentity& identity, const std::expected<Units, std::string>& units);

// The socket at `path`. `isExpected`: systemd listens, or should, or a helper that runs. `remedy`:
// what makes it anew.
Check checkSocket(const std::string& path, bool isExpected, const std::string& remedy);

// The files of the bundle at `app` that the helper judges a caller by, and the mount below them.
Check checkAppFiles(const std::string& app);

// The group that the executable of the bundle at `app` carries, if it carries one.
std::optional<gid_t> groupOfApp(const std::string& app);

// The app's private group. The helper refuses an app whose group others could have.
Check checkGroup(const GroupFacts& facts);

// Whether the file system of the bundle at `app` has the flag, and can be written. `mayLock`: root
// in this machine or container may set it (CAP_LINUX_IMMUTABLE, capabilities(7)).
Check checkFlagSupport(const std::string& app, bool mayLock);

// Whether the helper can lock the bundle at `app` from within `sandbox`.
Check checkSandbox(const HelperIdentity& identity, const std::string& app, const Sandbox& sandbox);

// The folders of `sandbox` in which the helper can lock bundles; without a strict one, those of
// homeApplications().
std::vector<std::string> lockableFolders(const Sandbox& sandbox);

// The journal's socket at `path`.
Check checkLog(const std::string& path);

// The socket at `path` of a person's own systemd manager.
Check checkUserManager(const std::string& path);

}  // namespace halvo::control
