#include "HalvoClient/PrivateGroup.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include "HalvoPlatform/Fatal.hpp"

namespace halvo::PrivateGroup {
namespace {

// SYS_setresgid takes 16-bit groups on most 32-bit systems.
static_assert(sizeof(long) == 8);

// The system call; setresgid() of the C library changes all threads of the process.
bool setEffectiveOfThread(gid_t group) {
    constexpr long unchanged = -1;
    return syscall(SYS_setresgid, unchanged, group, unchanged) == 0;
}

}  // namespace

void setAside() {
    const gid_t real = getgid();
    const gid_t effective = getegid();
    if (effective != real && setresgid(real, real, effective) != 0) {
        fatal("The app's private group cannot be taken out of effect");
    }
}

InEffect::InEffect() {
    gid_t real{};
    gid_t effective{};
    gid_t saved{};
    // Fails only for invalid addresses.
    getresgid(&real, &effective, &saved);
    if (saved != effective && setEffectiveOfThread(saved)) {
        before_ = effective;
    }
}

InEffect::~InEffect() {
    if (before_ && !setEffectiveOfThread(*before_)) {
        fatal("The app's private group cannot be taken out of effect");
    }
}

}  // namespace halvo::PrivateGroup
