// File systems of a test's own.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <string>

namespace halvo::testing {

// Mounts `source` of file system `type` on the folder `path` while it lives, in a mount namespace
// of the process's own: nobody else sees it, and nothing is left of it when the process is killed.
class PrivateMount {
  public:
    PrivateMount(const char* type, const std::string& source, const std::string& path,
                 unsigned long flags = 0, const std::string& options = "")
        : path_(path),
          mounted_(enterOwnNamespace() &&
                   mount(source.c_str(), path.c_str(), type, flags, options.c_str()) == 0) {}

    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;

    ~PrivateMount() {
        if (mounted_) {
            umount2(path_.c_str(), MNT_DETACH);
        }
    }

    // Whether the system let us.
    [[nodiscard]] bool isMounted() const { return mounted_; }

    // Makes the mount read-only from now on. Whether that worked.
    [[nodiscard]] bool makeReadOnly() const {
        return mounted_ && mount(nullptr, path_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY,
                                 nullptr) == 0;
    }

  private:
    // Once for the whole process. Whether it worked.
    static bool enterOwnNamespace() {
        static const bool entered = unshare(CLONE_NEWNS) == 0 &&
                                    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        return entered;
    }

    std::string path_;
    bool mounted_ = false;
};

}  // namespace halvo::testing
