// Standard error: the end of the process when going on would break a promise, and plain lines.
#pragma once

#include <string_view>

namespace halvo {

// Prints `message` as one line on standard error and aborts (SIGABRT). For broken invariants only:
// whatever the outside world can cause is a value that the caller handles. Any thread.
[[noreturn]] void fatal(std::string_view message) noexcept;

// Writes `text` to `descriptor`. Neither does a pipe or socket without a reader end the process,
// nor a terminal in whose background it runs stop it: SIGPIPE and SIGTTOU are blocked meanwhile for
// this thread (pthread_sigmask(3)), and a SIGPIPE that it raised is taken; the signals'
// dispositions, which are the whole process's, are left alone. A failure is ignored. Any thread.
void writeUndisturbed(int descriptor, std::string_view text) noexcept;

}  // namespace halvo
