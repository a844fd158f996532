// What the system must know of a path. A path is a string of bytes as the kernel takes it; one with
// a zero byte inside names nothing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace halvo {

// Whether `path` names nothing for that reason; the kernel would take it for a shorter one.
bool hasZeroByte(const std::string& path);

// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isUTF8(std::string_view text);

// Whether the system would write the absolute `path`, which has no "//", "/./" or "/../", in the
// same way. One per system: on Linux always; on macOS not below "/private" where the path without
// that leads somewhere (NSURL, URLByStandardizingPath).
bool isStandardizedPath(const std::string& path);

// The path with every symbolic link, "." and ".." resolved by the kernel (realpath(3)), or nothing
// when some component does not exist or may not be searched.
std::optional<std::string> canonicalPath(const std::string& path);

// The same, or `path` unchanged where there is none.
std::string resolvedPath(const std::string& path);

// Whether `path` itself is a folder: lstat(2) succeeds and says so; a symbolic link is none.
bool isFolder(const std::string& path);

// Whether something exists at `path`, links followed (access(2), F_OK).
bool itemExists(const std::string& path);

}  // namespace halvo
