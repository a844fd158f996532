// Writing to where the reader may be gone.
#pragma once

#include <csignal>

namespace halvo {

// While it lives, a write(2) of this thread to a pipe or socket without a reader fails with EPIPE
// and raises no SIGPIPE: the signal is blocked (pthread_sigmask(3)), and one that came meanwhile is
// taken. The signal's disposition, which is the whole process's, is left alone. Any thread; keeps
// errno.
class SIGPIPEGuard {
  public:
    SIGPIPEGuard();
    ~SIGPIPEGuard();
    SIGPIPEGuard(const SIGPIPEGuard&) = delete;
    SIGPIPEGuard& operator=(const SIGPIPEGuard&) = delete;

  private:
    sigset_t maskBefore_{};
    bool wasPending_;
};

}  // namespace halvo
