// The end of the process when going on would break a promise.
#pragma once

#include <string_view>

namespace halvo {

// Prints `message` as one line on standard error and aborts (SIGABRT). For broken invariants only:
// whatever the outside world can cause is a value that the caller handles. Any thread.
[[noreturn]] void fatal(std::string_view message) noexcept;

}  // namespace halvo
