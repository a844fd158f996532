// Reading, replacing, locking and syncing whole files.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo {

// Why a file operation failed: the errno of the call that did, and a message.
struct FileError {
    int code;
    // "PATH: No such file or directory", without a full stop.
    std::string message;

    bool operator==(const FileError&) const = default;
};

// The whole content of the regular file at `path`, symbolic links followed. Fails with the errno of
// the call that failed; with EFBIG, without reading on, when the file is longer than `limit` bytes;
// with EINVAL when it is no regular file (a pipe would block the caller), or the path contains a
// zero byte.
std::expected<std::string, FileError> readFile(const std::string& path, std::size_t limit);

// Creates the folder `path`, with the permissions `mode` whatever the umask, and the missing
// folders above it (0755, less the umask). Each that it creates is on the disk (syncToDisk()), in
// the folder above, when this returns; one that cannot be synced is removed again. A folder that
// exists already, also behind a symbolic link, keeps its permissions. Fails with the errno of the
// call that failed; with ENOTDIR where something else exists at `path`.
std::expected<void, FileError> createFolder(const std::string& path, mode_t mode);

// Syncs the folder that the item at `path` is in. Fails with the errno of the call that failed.
std::expected<void, FileError> syncAbove(const std::string& path);

// Removes the item at `path`, a folder recursively, and syncs the folder that it was in. A symbolic
// link is removed, never followed. A missing item is no failure. Stops at the first item that
// cannot be removed, and fails with its errno.
std::expected<void, FileError> removeItem(const std::string& path);

// Replaces the file `folder`/`name` by one with `bytes`, atomically: a reader, and a machine that
// loses power at any moment, has the whole old file or the whole new one. The new file has the
// permissions `mode` from the start, whatever the umask, and both it and the folder are on the disk
// (syncToDisk()) when this returns. `writer`: distinguishes concurrent writers of one file, as a
// part of the temporary file's name. That name is fixed, so that a killed process leaves at most
// one, which the next call replaces; a failure leaves none. Fails with the errno of the call that
// failed; with EINVAL where the path contains a zero byte.
std::expected<void, FileError> replaceFile(const std::string& folder, const std::string& name,
                                           std::string_view bytes, mode_t mode,
                                           const std::string& writer = "");

// Locks the file at `path` exclusively, without waiting, and creates it (0600) when it is missing;
// a symbolic link is refused. The lock is held while the result is open, and the kernel releases it
// with the process. The holder may remove the file before closing it: the locked file is always the
// one at `path`. Fails with the errno of the call that failed, which is EWOULDBLOCK while another
// process holds the lock. flock(2).
std::expected<Descriptor, FileError> takeLockFile(const std::string& path);

// Waits until all that was written to `descriptor`, a file or folder, is on the disk itself.
// Returns 0 or the errno. Any thread. On Linux fsync(2); on macOS F_FULLFSYNC (fcntl(2)), since
// fsync(2) there leaves the bytes in the drive's cache, or fsync(2) where the file system does not
// support that (ENOTSUP, ENOTTY, EINVAL). One source per system.
int syncToDisk(int descriptor);

}  // namespace halvo
