// What doctor looks at on Linux.
#pragma once

#include <expected>
#include <optional>
#include <string>

#include "tools/Halvoctl/Check.hpp"
#include "tools/Halvoctl/Linux/Units.hpp"

namespace halvo::control {

// The helper's units.
Checks checkUnits(const HelperIdentity& identity, const std::expected<Units, std::string>& units);

// The socket at `path`. `isExpected`: somebody listens, or should: systemd, or a helper that runs.
// `remedy`: what makes it anew.
Check checkSocket(const std::string& path, bool isExpected, const std::string& remedy);

// The files of the bundle at `app` that the helper judges a caller by, and the mount below them.
Check checkAppFiles(const std::string& app);

// Whether the file system of the bundle at `app` has the flag, and can be written. `mayLock`: root
// in this machine or container may set it (CAP_LINUX_IMMUTABLE, capabilities(7)).
Check checkFlagSupport(const std::string& app, bool mayLock);

// The journal's socket at `path`.
Check checkLog(const std::string& path);

// The socket at `path` of a person's own systemd manager.
Check checkUserManager(const std::string& path);

// The group that the executable of the bundle at `app` carries, if it carries one.
std::optional<unsigned> groupOfApp(const std::string& app);

}  // namespace halvo::control
