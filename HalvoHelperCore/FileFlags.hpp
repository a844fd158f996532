// The lock on the app bundle, as the engine sees it.
#pragma once

#include <string>

namespace halvo {

enum class LockState {
    // The item exists and carries the lock.
    locked,
    // The item exists and does not.
    unlocked,
    // Nothing is known of it: no such item, or it cannot be looked at.
    missing,
};

class FileFlags {
  public:
    virtual ~FileFlags() = default;

    // The state of the item at `path` itself; a symbolic link there is not followed.
    virtual LockState state(const std::string& path) = 0;

    // Sets or clears the lock on the item at `path` itself. True when the item's flags are as asked
    // afterwards. A failure is false, and logged by the implementation.
    virtual bool setLocked(bool locked, const std::string& path) = 0;

    // Brings the lock of the item at `path`, as it is, to the disk: another process that has
    // changed it may not have. A failure is logged by the implementation.
    virtual void sync(const std::string& path) = 0;
};

}  // namespace halvo
