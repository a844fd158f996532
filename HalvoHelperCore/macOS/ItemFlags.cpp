#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {

std::optional<std::uint32_t> itemFlags(const std::string& path) {
    struct stat status{};
    if (hasZeroByte(path) || lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(status.st_flags);
}

FlagsChange setItemFlags(const std::string& path, std::uint32_t wanted) {
    if (lchflags(path.c_str(), wanted) != 0) {
        return {.refused = errno};
    }
    // O_NONBLOCK: a pipe in the item's place must not make the helper wait.
    const Descriptor item(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return {.unsynced = item.isOpen() ? syncToDisk(item.get()) : errno};
}

}  // namespace halvo
