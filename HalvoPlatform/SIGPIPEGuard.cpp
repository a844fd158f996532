#include "HalvoPlatform/SIGPIPEGuard.hpp"

#include <cerrno>

namespace halvo {
namespace {

sigset_t onlySIGPIPE() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool isPending() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

SIGPIPEGuard::SIGPIPEGuard() : wasPending_(isPending()) {
    const sigset_t set = onlySIGPIPE();
    pthread_sigmask(SIG_BLOCK, &set, &maskBefore_);
}

SIGPIPEGuard::~SIGPIPEGuard() {
    const int error = errno;
    // One that waited before is for whoever had it blocked.
    if (!wasPending_ && isPending()) {
        const sigset_t set = onlySIGPIPE();
        int taken = 0;
        sigwait(&set, &taken);
    }
    pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
    errno = error;
}

}  // namespace halvo
