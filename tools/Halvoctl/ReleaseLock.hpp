// One release at a time.
#pragma once

#include <expected>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tools/Halvoctl/Programs.hpp"

namespace halvo::control {

// Held for as long as it lives: two releases at once would each start what the other has stopped. A
// lock file (LockFile.hpp) of root's, which is removed in the end.
class ReleaseLock {
  public:
    // Takes the lock at `path`. Waits for another release as `patience` says. Fails with sentences
    // that say what to do.
    static std::expected<ReleaseLock, std::string> take(const std::string& path,
                                                        const Patience& patience);

    ~ReleaseLock();
    ReleaseLock(ReleaseLock&&) noexcept = default;
    ReleaseLock(const ReleaseLock&) = delete;
    ReleaseLock& operator=(const ReleaseLock&) = delete;
    ReleaseLock& operator=(ReleaseLock&&) = delete;

  private:
    ReleaseLock(std::string path, Descriptor file);

    std::string path_;
    Descriptor file_;
};

// Where the releases of `identity` have it, in a folder that a boot empties. One source per system.
std::string releaseLockPath(const HelperIdentity& identity);

}  // namespace halvo::control
