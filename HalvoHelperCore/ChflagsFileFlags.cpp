#include "HalvoHelperCore/ChflagsFileFlags.hpp"

#include <fcntl.h>

#include <cerrno>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/DiskSync.hpp"
#include "HalvoPlatform/Log.hpp"

namespace halvo {
namespace {

// Gives 0 or the errno.
int syncItem(const std::string& path) {
    const Descriptor item(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return item.isOpen() ? syncToDisk(item.get()) : errno;
}

}  // namespace

LockState ChflagsFileFlags::state(const std::string& path) {
    const auto flags = itemFlags(path);
    if (!flags) {
        return LockState::missing;
    }
    return (*flags & flag_) != 0 ? LockState::locked : LockState::unlocked;
}

bool ChflagsFileFlags::setLocked(bool locked, const std::string& path) {
    const auto flags = itemFlags(path);
    if (!flags) {
        return false;
    }
    const std::uint32_t wanted = locked ? *flags | flag_ : *flags & ~flag_;
    if (wanted == *flags) {
        return true;
    }
    if (const int code = setItemFlags(path, wanted); code != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't %{public}s Halvo: errno %d",
                        locked ? "lock" : "unlock", code);
        return false;
    }
    // A cleared flag must not come back once nobody remembers it.
    if (const int code = syncItem(path); code != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't sync Halvo: errno %d", code);
    }
    return true;
}

}  // namespace halvo
