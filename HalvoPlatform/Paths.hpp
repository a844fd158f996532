// Questions about paths. A path is a string of bytes as the kernel takes it; one that contains a
// zero byte names nothing.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace halvo {

// Whether `path` contains a zero byte: the kernel would take it for a shorter one.
bool hasZeroByte(const std::string& path);

// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isUTF8(std::string_view text);

// Whether the system's standard form of the absolute `path`, which has no "//", "/./" or "/../", is
// `path` itself. On Linux always; on macOS not below "/private" where the path without that exists
// (NSURL, URLByStandardizingPath). One source per system.
bool isStandardizedPath(const std::string& path);

// The target of the symbolic link at `path`, as it stands there (readlink(2)). Fails with the
// errno; with ENAMETOOLONG when it is as long as PATH_MAX.
std::expected<std::string, int> linkTarget(const std::string& path);

// The path with every symbolic link, "." and ".." resolved; nothing when a component does not exist
// or may not be searched. realpath(3).
std::optional<std::string> canonicalPath(const std::string& path);

// canonicalPath(), or `path` unchanged where that is nothing.
std::string resolvedPath(const std::string& path);

// Whether `path` itself is a folder, not a symbolic link to one; lstat(2).
bool isFolder(const std::string& path);

// Whether an item exists at `path`, symbolic links followed; access(2).
bool itemExists(const std::string& path);

}  // namespace halvo
