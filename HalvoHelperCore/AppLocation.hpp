// Where an app bundle may lie.
#pragma once

#include <optional>
#include <string>

namespace halvo::AppLocation {

// Whether `path` can be an app bundle's: absolute, ending in ".app", normalised (no "//", "/./" or
// "/../", and isStandardizedPath() of HalvoPlatform/Paths.hpp), and UTF-8 without a zero byte.
// Pure, except for a path below "/private" on macOS; so are isLockablePath() and bundlePath().
bool isBundlePath(const std::string& path);

// Whether a bundle at `path` could be locked: a bundle path, directly in a folder named
// "Applications".
bool isLockablePath(const std::string& path);

// Whether the bundle at `path` may be locked: isLockablePath(), and a folder is there, not a
// symbolic link.
bool mayLock(const std::string& path);

// The bundle in whose "Contents/MacOS" folder `executable` lies; nothing when it lies elsewhere or
// the folder is no bundle path.
std::optional<std::string> bundlePath(const std::string& executable);

// The default executable of the bundle at `bundlePath`, for one that names none, or none that
// exists.
std::string usualExecutable(const std::string& bundlePath);

}  // namespace halvo::AppLocation
