// Fatal errors, and writing to standard error.
#pragma once

#include <string_view>

namespace halvo {

// Prints `message` as one line on standard error and aborts (SIGABRT). For broken invariants only:
// an error with an external cause is a value that the caller handles. Any thread.
[[noreturn]] void fatal(std::string_view message) noexcept;

// Writes `text` to `descriptor`, undisturbed by signals: a pipe or socket without a reader does not
// end the process, nor does a terminal stop it in the background. SIGPIPE and SIGTTOU are blocked
// meanwhile for this thread, and a SIGPIPE that the write raised is consumed; the signals'
// dispositions, which belong to the whole process, are left alone. A failure is ignored. Any
// thread. pthread_sigmask(3).
void writeUndisturbed(int descriptor, std::string_view text) noexcept;

}  // namespace halvo
