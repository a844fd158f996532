#include "HalvoHelperCore/ItemFlags.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>

#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// One flag in the three spellings: BSD's, the inode's and statx(2)'s.
struct FlagName {
    std::uint32_t item;
    std::uint64_t inode;
    std::uint64_t attribute;
};

constexpr std::array flagNames{
    FlagName{ItemFlag::systemImmutable, FS_IMMUTABLE_FL, STATX_ATTR_IMMUTABLE},
    FlagName{ItemFlag::systemAppendOnly, FS_APPEND_FL, STATX_ATTR_APPEND},
    FlagName{ItemFlag::noDump, FS_NODUMP_FL, STATX_ATTR_NODUMP},
};

// The BSD flags of those in `flags`, which are spelled as `spelling` says.
std::uint32_t itemFlagsOf(std::uint64_t flags, std::uint64_t FlagName::* spelling) {
    std::uint32_t result = 0;
    for (const FlagName& name : flagNames) {
        result |= (flags & name.*spelling) != 0 ? name.item : 0;
    }
    return result;
}

// Gives 0 or the errno.
int change(int item, std::uint32_t wanted) {
    unsigned flags = 0;
    if (ioctl(item, FS_IOC_GETFLAGS, &flags) != 0) {
        return errno;
    }
    for (const FlagName& name : flagNames) {
        const auto inode = static_cast<unsigned>(name.inode);
        flags = (wanted & name.item) != 0 ? flags | inode : flags & ~inode;
    }
    if (itemFlagsOf(flags, &FlagName::inode) != wanted) {
        return EOPNOTSUPP;
    }
    if (ioctl(item, FS_IOC_SETFLAGS, &flags) == 0) {
        return 0;
    }
    const int code = errno;
    // An overlay can refuse the change and carry it out all the same: what counts is what is so.
    unsigned after = 0;
    const bool asWanted =
        ioctl(item, FS_IOC_GETFLAGS, &after) == 0 && itemFlagsOf(after, &FlagName::inode) == wanted;
    return asWanted ? 0 : code;
}

}  // namespace

std::optional<std::uint32_t> itemFlags(const std::string& path) {
    struct statx status{};
    // STATX_TYPE because something must be asked for; the attributes come with anything.
    // The kernel would take a path with a zero byte inside for what stands before it.
    if (hasZeroByte(path) ||
        statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status) != 0) {
        return std::nullopt;
    }
    return itemFlagsOf(status.stx_attributes, &FlagName::attribute);
}

FlagsChange setItemFlags(const std::string& path, std::uint32_t wanted) {
    // The ioctl needs a descriptor that is open for reading (O_PATH gives EBADF). O_NONBLOCK: a
    // pipe in the item's place must not make the helper wait.
    const Descriptor item(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const int refused = item.isOpen() ? change(item.get(), wanted) : errno;
    return {refused, refused == 0 ? syncToDisk(item.get()) : 0};
}

}  // namespace halvo
