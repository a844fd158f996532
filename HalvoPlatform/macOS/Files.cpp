#include "HalvoPlatform/Files.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace halvo {

int syncToDisk(int descriptor) {
    if (fcntl(descriptor, F_FULLFSYNC) == 0) {
        return 0;
    }
    // Network and foreign file systems do not know it; any other failure is one.
    if (errno != ENOTSUP && errno != ENOTTY && errno != EINVAL) {
        return errno;
    }
    return fsync(descriptor) == 0 ? 0 : errno;
}

}  // namespace halvo
