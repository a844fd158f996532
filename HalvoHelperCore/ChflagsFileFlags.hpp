// The lock by file flags.
#pragma once

#include <cstdint>

#include "HalvoHelperCore/FileFlags.hpp"
#include "HalvoHelperCore/ItemFlags.hpp"

namespace halvo {

// Locks an item by setting flag bits on it, and only on it: nothing is recursive, no symbolic link
// is followed, and all other flags are kept. Keeps no state. Main queue only.
class ChflagsFileFlags final : public FileFlags {
  public:
    // `flag`: the bits that mean locked. Any one of them makes an item locked; locking sets all.
    explicit ChflagsFileFlags(std::uint32_t flag) : flag_(flag) {}

    LockState state(const std::string& path) override;

    // Makes no change, and succeeds, where the flags are as asked already. False without a word
    // when there is no item; false with "Couldn't %{public}s Halvo: errno %d" in the log when the
    // system refuses. A change is on the disk when this returns; where it cannot be brought there,
    // "Couldn't sync Halvo: errno %d" is logged and the change stands.
    bool setLocked(bool locked, const std::string& path) override;

  private:
    std::uint32_t flag_;
};

}  // namespace halvo
