// The rules of where an app may lie.
#pragma once

#include <optional>
#include <string>

namespace halvo::AppLocation {

// Whether `path` can be an app bundle's: absolute, ending in ".app", in its plainest form (no "//",
// "/./" or "/../", and as isStandardizedPath() in HalvoPlatform/Paths.hpp has it), and text (UTF-8
// without a zero byte). Looks at the text only, but for a path below "/private" on macOS, as do
// isLockablePath() and bundlePath().
bool isBundlePath(const std::string& path);

// Whether a bundle at `path` could be locked: a bundle path, directly in a folder named
// "Applications".
bool isLockablePath(const std::string& path);

// Whether the bundle at `path` may be locked: such a path, at which there is a folder and no
// symbolic link.
bool mayLock(const std::string& path);

// The bundle in whose "Contents/MacOS" folder the executable at `path` lies; nothing when it lies
// elsewhere or that is no bundle path.
std::optional<std::string> bundlePath(const std::string& executable);

// The executable of the bundle at `bundlePath` that does not name one itself, or one that exists.
std::string usualExecutable(const std::string& bundlePath);

}  // namespace halvo::AppLocation
