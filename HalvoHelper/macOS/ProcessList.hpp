// The processes of this Mac; libproc.h. Any thread.
#pragma once

#include <libproc.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace halvo {

// Fills `processes` with the ids of all processes, perhaps with the kernel's (0); leaves it empty
// when the system gives none. Allocates only when they exceed the capacity of `processes`.
void listProcesses(std::vector<pid_t>& processes);

// Whether the effective user of `process` is `uid`. False for one that has ended. Allocates
// nothing.
bool isProcessOf(std::uint32_t uid, pid_t process);

// Large enough for any path that the kernel returns.
using PathBuffer = std::array<char, PROC_PIDPATHINFO_MAXSIZE>;

// The path of the executable of `process` (proc_pidpath), in `buffer`, which must outlive the
// result. Nothing when the call fails, as for a process that has ended. Allocates nothing.
std::optional<std::string_view> executablePath(pid_t process, PathBuffer& buffer);

}  // namespace halvo
