// File systems of a test's own.
#pragma once

#include <sys/mount.h>

#include <string>

namespace halvo::testing {

// Mounts `source` of file system `type` on the folder `path` while it lives, in a mount namespace
// of the process's own: nobody else sees it, and nothing is left of it when the process is killed.
class PrivateMount {
  public:
    PrivateMount(const char* type, const std::string& source, const std::string& path,
                 unsigned long flags = 0, const std::string& options = "");
    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;
    ~PrivateMount();

    // Whether the system let us.
    [[nodiscard]] bool isMounted() const { return mounted_; }

    // Makes the mount read-only from now on. Whether that worked.
    [[nodiscard]] bool makeReadOnly() const;

  private:
    std::string path_;
    bool mounted_ = false;
};

}  // namespace halvo::testing
