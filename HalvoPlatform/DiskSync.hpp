// Bytes that outlive a loss of power.
#pragma once

namespace halvo {

// Waits until all that was written to `descriptor`, a file or folder, is on the disk itself.
// Returns 0 or the errno of the failure. Any thread. One source per system: on Linux that is
// fsync(2), on macOS F_FULLFSYNC (fcntl(2)), since fsync(2) there leaves the bytes in the drive's
// cache; where the file system does not know that (ENOTSUP, ENOTTY, EINVAL), it is fsync(2) there
// too.
int syncToDisk(int descriptor);

}  // namespace halvo
