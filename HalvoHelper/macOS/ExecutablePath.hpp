// Which program a process runs.
#pragma once

#include <libproc.h>
#include <sys/types.h>

#include <array>
#include <optional>
#include <string_view>

namespace halvo {

// Room for any path that the kernel tells.
using PathBuffer = std::array<char, PROC_PIDPATHINFO_MAXSIZE>;

// The path of the executable of `process` (proc_pidpath in libproc.h), written into `buffer`, which
// must outlive the result. Nothing when the kernel does not tell, as of a process that has ended.
// Allocates nothing. Any thread.
std::optional<std::string_view> executablePath(pid_t process, PathBuffer& buffer);

}  // namespace halvo
