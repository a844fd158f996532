#include "HalvoHelperCore/ChflagsFileFlags.hpp"

#include "HalvoPlatform/Log.hpp"

namespace halvo {

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
    const auto [refused, unsynced] = setItemFlags(path, wanted);
    if (refused != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't %{public}s Halvo: errno %d",
                        locked ? "lock" : "unlock", refused);
    }
    // A cleared flag that came back after a loss of power would be owed by no record.
    if (unsynced != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't sync Halvo: errno %d", unsynced);
    }
    return refused == 0;
}

void ChflagsFileFlags::sync(const std::string& path) {
    if (const auto flags = itemFlags(path)) {
        const auto [refused, unsynced] = setItemFlags(path, *flags);
        if (refused != 0 || unsynced != 0) {
            HALVO_LOG_ERROR(helperLog, "Couldn't sync Halvo: errno %d",
                            refused != 0 ? refused : unsynced);
        }
    }
}

}  // namespace halvo
