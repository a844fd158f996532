#include "HalvoClient/PrivateGroup.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include "HalvoPlatform/Fatal.hpp"

namespace halvo::PrivateGroup {
namespace {

struct Groups {
    gid_t real;
    gid_t effective;
    gid_t saved;
};

Groups currentGroups() {
    Groups groups{};
    // Fails only for bad addresses.
    getresgid(&groups.real, &groups.effective, &groups.saved);
    return groups;
}

// SYS_setresgid takes groups of 16 bits on most 32-bit systems.
static_assert(sizeof(long) == 8);

// The system call itself: glibc's setresgid() changes all threads of the process.
bool setEffectiveOfThread(gid_t group) {
    constexpr long unchanged = -1;
    return syscall(SYS_setresgid, unchanged, group, unchanged) == 0;
}

}  // namespace

void setAside() {
    const Groups groups = currentGroups();
    if (groups.effective != groups.real &&
        setresgid(groups.real, groups.real, groups.effective) != 0) {
        fatal("The app's private group cannot be taken out of effect");
    }
}

InEffect::InEffect() {
    const Groups groups = currentGroups();
    if (groups.saved != groups.effective && setEffectiveOfThread(groups.saved)) {
        before_ = groups.effective;
    }
}

InEffect::~InEffect() {
    if (before_ && !setEffectiveOfThread(*before_)) {
        fatal("The app's private group cannot be taken out of effect");
    }
}

}  // namespace halvo::PrivateGroup
