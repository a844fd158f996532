// The lock by file flags.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "HalvoHelperCore/FileFlags.hpp"

namespace halvo {

// File flags as <sys/stat.h> of BSD systems numbers them. (Not by their names there, which are
// macros on macOS.)
struct ItemFlag {
    // SF_IMMUTABLE: only root sets and clears it. The item cannot be renamed, removed or moved, nor
    // can entries of a folder be added or removed.
    static constexpr std::uint32_t systemImmutable = 0x20000;
    // UF_IMMUTABLE: the same, but the owner may clear it. Not used by the helper.
    static constexpr std::uint32_t userImmutable = 0x2;
};

// The flags of the item at `path` itself (a symbolic link is not followed), or nothing when its
// status cannot be read. On macOS they are those of lstat(2); on Linux only systemImmutable exists,
// read with statx(2); an item on a file system without flags has none set.
std::optional<std::uint32_t> itemFlags(const std::string& path);

// The result of a change of flags, as errno values; 0 is success.
struct FlagsChange {
    // Why the system refused it, in which case nothing is changed.
    int refused{};
    // Why it may not be on the disk (syncToDisk() in HalvoPlatform/Files.hpp).
    int unsynced{};
};

// Gives the item at `path` itself the flags `wanted`, and syncs it. On macOS that is lchflags(2),
// and the item is opened for the sync alone; a symbolic link can be flagged, but not be synced
// (ELOOP). On Linux the item is opened once for both. There a refusal counts only when the flag,
// read back, is not as wanted, and all other flags of the inode are kept (FS_IOC_SETFLAGS,
// ioctl_iflags(2)); a symbolic link is refused with ELOOP, any flag but systemImmutable with
// EOPNOTSUPP.
FlagsChange setItemFlags(const std::string& path, std::uint32_t wanted);

// Locks an item by setting flag bits on the item itself: not recursive, no symbolic link is
// followed, and all other flags are kept. Stateless. Main queue only.
class ChflagsFileFlags final : public FileFlags {
  public:
    // `flag`: the bits that mean locked. An item with any of them is locked; locking sets all.
    explicit ChflagsFileFlags(std::uint32_t flag) : flag_(flag) {}

    LockState state(const std::string& path) override;

    // Succeeds without a change where the flags are already as asked. Returns false without a log
    // line when there is no item; false with "Couldn't %{public}s Halvo: errno %d" when the system
    // refuses. A change is on the disk when this returns; where the sync fails, "Couldn't sync
    // Halvo: errno %d" is logged and the change stands.
    bool setLocked(bool locked, const std::string& path) override;

    // Logs "Couldn't sync Halvo: errno %d" where that fails.
    void sync(const std::string& path) override;

  private:
    std::uint32_t flag_;
};

}  // namespace halvo
