// Standard error: the end of the process when going on would break a promise, and plain lines.
#pragma once

#include <string_view>

namespace halvo {

// Prints `message` as one line on standard error and aborts (SIGABRT). For broken invariants only:
// whatever the outside world can cause is a value that the caller handles. Any thread.
[[noreturn]] void fatal(std::string_view message) noexcept;

// Writes `text` to standard error. A pipe or socket without a reader does not end the process:
// SIGPIPE is blocked meanwhile for this thread (pthread_sigmask(3)), and one that it raised is
// taken; the signal's disposition, which is the whole process's, is left alone. A failure is
// ignored. Any thread.
void writeToStandardError(std::string_view text) noexcept;

}  // namespace halvo
