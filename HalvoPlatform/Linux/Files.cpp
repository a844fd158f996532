#include "HalvoPlatform/Files.hpp"

#include <unistd.h>

#include <cerrno>

namespace halvo {

int syncToDisk(int descriptor) { return fsync(descriptor) == 0 ? 0 : errno; }

}  // namespace halvo
