#include <fcntl.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// Gives 0 or the errno.
int change(int item, bool isImmutable) {
    unsigned flags = 0;
    if (ioctl(item, FS_IOC_GETFLAGS, &flags) != 0) {
        return errno;
    }
    constexpr unsigned immutable = FS_IMMUTABLE_FL;
    flags = isImmutable ? flags | immutable : flags & ~immutable;
    if (ioctl(item, FS_IOC_SETFLAGS, &flags) == 0) {
        return 0;
    }
    const int code = errno;
    // An overlay can report a failure and make the change all the same: the flag read back counts.
    unsigned after = 0;
    const bool asWanted =
        ioctl(item, FS_IOC_GETFLAGS, &after) == 0 && ((after & immutable) != 0) == isImmutable;
    return asWanted ? 0 : code;
}

}  // namespace

std::optional<std::uint32_t> itemFlags(const std::string& path) {
    struct statx status{};
    // STATX_TYPE because the mask must not be empty; the attributes come with any.
    if (hasZeroByte(path) ||
        statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status) != 0) {
        return std::nullopt;
    }
    return (status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0 ? ItemFlag::systemImmutable : 0;
}

FlagsChange setItemFlags(const std::string& path, std::uint32_t wanted) {
    if ((wanted & ~ItemFlag::systemImmutable) != 0) {
        return {.refused = EOPNOTSUPP};
    }
    // The ioctl needs a descriptor that is open for reading (O_PATH gives EBADF). O_NONBLOCK: a
    // pipe in the item's place must not make the helper wait.
    const Descriptor item(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const int refused = item.isOpen() ? change(item.get(), wanted != 0) : errno;
    return {refused, refused == 0 ? syncToDisk(item.get()) : 0};
}

}  // namespace halvo
