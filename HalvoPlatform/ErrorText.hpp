// The system's error messages.
#pragma once

#include <string>
#include <system_error>

namespace halvo {

// The message for the errno `code`, as "No such file or directory". Any thread. strerror(3).
inline std::string errorText(int code) { return std::generic_category().message(code); }

}  // namespace halvo
