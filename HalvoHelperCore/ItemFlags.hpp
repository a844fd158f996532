// The flags of one item in the file system, in BSD terms whatever the system. The one place that
// asks or tells the kernel; one source per system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace halvo {

// File flags as <sys/stat.h> of BSD systems numbers them. (Not by their names there, which are
// macros on macOS.)
struct ItemFlag {
    // SF_IMMUTABLE: only root sets and clears it. Nobody renames, removes or moves the item, nor
    // adds or removes entries of a folder.
    static constexpr std::uint32_t systemImmutable = 0x20000;
    // UF_IMMUTABLE: the same, but the owner may clear it. Not used by the helper.
    static constexpr std::uint32_t userImmutable = 0x2;
    // SF_APPEND and UF_NODUMP: not used by the helper, but kept where it finds them.
    static constexpr std::uint32_t systemAppendOnly = 0x40000;
    static constexpr std::uint32_t noDump = 0x1;
};

// The flags of the item at `path` itself (a symbolic link is not followed), or nothing when its
// status cannot be read. On macOS they are those of lstat(2); on Linux only the three flags of
// ItemFlag exist, read with statx(2); an item on a file system without flags has none set.
std::optional<std::uint32_t> itemFlags(const std::string& path);

// What became of a change of flags, as errno has it; 0 is success.
struct FlagsChange {
    // Why the system refused it; nothing is changed then.
    int refused{};
    // Why it may not be on the disk (syncToDisk() in HalvoPlatform/Files.hpp).
    int unsynced{};
};

// Gives the item at `path` itself the flags `wanted`, and syncs it. On macOS that is lchflags(2),
// and the item is opened for the sync alone; a symbolic link can be flagged, but not be synced
// (ELOOP). On Linux the item is opened once for both. There a refusal counts only when the flags,
// read back, are not as wanted, and all inode flags without a counterpart in ItemFlag are kept
// (FS_IOC_SETFLAGS, ioctl_iflags(2)); a symbolic link is refused with ELOOP, a flag without a
// counterpart with EOPNOTSUPP.
FlagsChange setItemFlags(const std::string& path, std::uint32_t wanted);

}  // namespace halvo
