// Mounts in a private mount namespace.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <string>

namespace halvo::testing {

// Mounts `source`, of file-system type `type`, on the folder `path` while it lives, in a private
// mount namespace of the process: no other process sees it, and it ends with the process.
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

    // False without the privileges that mount(2) needs.
    [[nodiscard]] bool isMounted() const { return mounted_; }

  private:
    // Once per process; false when it fails.
    static bool enterOwnNamespace() {
        static const bool entered = unshare(CLONE_NEWNS) == 0 &&
                                    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        return entered;
    }

    std::string path_;
    bool mounted_ = false;
};

}  // namespace halvo::testing
