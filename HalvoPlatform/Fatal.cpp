#include "HalvoPlatform/Fatal.hpp"

#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace halvo {
namespace {

bool isPending(int signal) {
    sigset_t pending{};
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

}  // namespace

void fatal(std::string_view message) noexcept {
    // Not as one string: there may be no memory left.
    for (const std::string_view part : {std::string_view("Fatal error: "), message, {"\n"}}) {
        writeUndisturbed(STDERR_FILENO, part);
    }
    std::abort();
}

void writeUndisturbed(int descriptor, std::string_view text) noexcept {
    // A signal that was pending before is not ours to consume.
    const bool wasPending = isPending(SIGPIPE);
    sigset_t blocked{};
    sigset_t before{};
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    sigaddset(&blocked, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    [[maybe_unused]] const ssize_t written = write(descriptor, text.data(), text.size());
    if (!wasPending && isPending(SIGPIPE)) {
        sigdelset(&blocked, SIGTTOU);
        int taken = 0;
        sigwait(&blocked, &taken);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace halvo
