#include "HalvoPlatform/Daemon.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "HalvoPlatform/Fatal.hpp"

namespace halvo {

void prepareDaemon() {
    std::set_new_handler([] { fatal("Memory ran out"); });
    // open(2) gives the lowest free number, so this fills the gaps and stops past 2.
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO) {
        close(descriptor);
    }
    constexpr mode_t usual = 022;
    umask(usual);
    // Root can always enter "/"; for another user the folder may stay, which does no harm.
    [[maybe_unused]] const int result = chdir("/");
}

bool runsAsRoot() { return getuid() == 0; }

}  // namespace halvo
