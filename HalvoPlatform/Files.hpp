// Whole files, read and replaced so that nobody ever sees half of one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

namespace halvo {

// Why a file operation failed: the errno of the call that did, and what a person is told.
struct FileError {
    int code;
    // "PATH: what the system says", without a full stop.
    std::string message;

    bool operator==(const FileError&) const = default;
};

// The whole content of the regular file at `path`, links followed. Fails with the errno of the
// call that failed; with EFBIG, without reading on, when the file is longer than `limit` bytes;
// with EINVAL when it is no regular file (a pipe would make the caller wait), or the path has a
// zero byte.
std::expected<std::string, FileError> readFile(const std::string& path, std::size_t limit);

// Makes the folder `path`, with the permissions `mode` whatever the umask, and the folders above it
// that are missing (0755, less the umask). Each that it made is on the disk (DiskSync.hpp), in the
// folder above, when this returns; one that cannot be synced is taken back. A folder that is there
// already, also behind a symbolic link, keeps its permissions.
std::expected<void, FileError> createFolder(const std::string& path, mode_t mode);

// Removes the item at `path`, a folder with all that is in it, and syncs the folder that it was in.
// No symbolic link is followed: it goes, what it leads to stays. Nothing at `path` is no failure.
// Stops at the first item that cannot be removed.
std::expected<void, FileError> removeItem(const std::string& path);

// Puts `bytes` in the place of `folder`/`name`, in one step: a reader, and a machine that loses
// power at any moment, has the old file whole or the new one whole. The new file has the
// permissions `mode` from the start, whatever the umask, and both it and the folder are on the disk
// (DiskSync.hpp) when this returns. The temporary file beside it has a fixed name, so that a
// process killed half-way leaves at most one, which the next call replaces; after a failure none
// stays. Two writers of one file at a time must each give a name of their own, `writer`, which
// becomes a part of the temporary file's.
std::expected<void, FileError> replaceFile(const std::string& folder, const std::string& name,
                                           std::string_view bytes, mode_t mode,
                                           const std::string& writer = "");

}  // namespace halvo
