// Whole files, read, replaced, locked and synced.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

#include "HalvoPlatform/Descriptor.hpp"

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
// that are missing (0755, less the umask). Each that it made is on the disk (syncToDisk()), in the
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
// (syncToDisk()) when this returns. The temporary file beside it has a fixed name, so that a
// process killed half-way leaves at most one, which the next call replaces; after a failure none
// stays. Two writers of one file at a time must each give a name of their own, `writer`, which
// becomes a part of the temporary file's.
std::expected<void, FileError> replaceFile(const std::string& folder, const std::string& name,
                                           std::string_view bytes, mode_t mode,
                                           const std::string& writer = "");

// Takes the lock (flock(2)) of the file at `path`, which is made, for its owner alone, when it is
// missing; a symbolic link is refused. It is held for as long as the result is open, and the system
// releases it with the process however that ends. The holder may remove the file before closing
// it: what is locked here is always what lies at `path`. Does not wait; fails with the errno of the
// call that failed, which is EWOULDBLOCK while another holds it.
std::expected<Descriptor, FileError> takeLockFile(const std::string& path);

// Waits until all that was written to `descriptor`, a file or folder, is on the disk itself.
// Returns 0 or the errno of the failure. Any thread. One source per system: on Linux that is
// fsync(2), on macOS F_FULLFSYNC (fcntl(2)), since fsync(2) there leaves the bytes in the drive's
// cache; where the file system does not know that (ENOTSUP, ENOTTY, EINVAL), it is fsync(2) there
// too.
int syncToDisk(int descriptor);

}  // namespace halvo
