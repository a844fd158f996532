// The flags of inodes, without the product's own code; ioctl_iflags(2).
#pragma once

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <optional>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo::testing {

// The flags of the item at `path` itself, as the kernel keeps them; nothing when they cannot be
// read.
inline std::optional<int> inodeFlags(const std::string& path) {
    const Descriptor item(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    int flags = 0;
    return ioctl(item.get(), FS_IOC_GETFLAGS, &flags) == 0 ? std::optional(flags) : std::nullopt;
}

// Whether the item has exactly `flags` now.
inline bool setInodeFlags(const std::string& path, int flags) {
    const Descriptor item(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return ioctl(item.get(), FS_IOC_SETFLAGS, &flags) == 0;
}

// Whether the immutable flag of the item is as wanted now; its other flags stay.
inline bool setImmutable(bool wanted, const std::string& path) {
    const auto flags = inodeFlags(path);
    return flags &&
           setInodeFlags(path, wanted ? *flags | FS_IMMUTABLE_FL : *flags & ~FS_IMMUTABLE_FL);
}

// Whether this process may lock the item at `path`, and its file system has such flags.
inline bool isLockable(const std::string& path) {
    return setImmutable(true, path) && setImmutable(false, path);
}

}  // namespace halvo::testing
