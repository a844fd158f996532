#include "tests/Support/PrivateMount.hpp"

#include <sched.h>

namespace halvo::testing {
namespace {

// Once for the whole process. Whether it worked.
bool enterOwnNamespace() {
    static const bool entered =
        unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return entered;
}

}  // namespace

PrivateMount::PrivateMount(const char* type, const std::string& source, const std::string& path,
                           unsigned long flags, const std::string& options)
    : path_(path),
      mounted_(enterOwnNamespace() &&
               mount(source.c_str(), path.c_str(), type, flags, options.c_str()) == 0) {}

PrivateMount::~PrivateMount() {
    if (mounted_) {
        umount2(path_.c_str(), MNT_DETACH);
    }
}

bool PrivateMount::makeReadOnly() const {
    return mounted_ &&
           mount(nullptr, path_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

}  // namespace halvo::testing
