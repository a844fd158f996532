// A file whose lock makes its holder the only one.
#pragma once

#include <expected>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Files.hpp"

namespace halvo {

// Takes the lock (flock(2)) of the file at `path`, which is made, for its owner alone, when it is
// missing; a symbolic link is refused. It is held for as long as the result is open, and the system
// gives it up with the process however that ends. Who holds it may remove the file before closing
// it: what is locked here is always what lies at `path`. Does not wait; fails with the errno of the
// call that failed, which is EWOULDBLOCK when somebody else holds it.
std::expected<Descriptor, FileError> takeLockFile(const std::string& path);

}  // namespace halvo
