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

// Makes `processes` hold the ids of all that run, the kernel's own (0) perhaps among them; empty
// when the system does not tell. Allocates only while there are more than `processes` has had room
// for.
void listProcesses(std::vector<pid_t>& processes);

// Whether the effective user of `process` is `uid`. False for one that has ended. Allocates
// nothing.
bool isProcessOf(std::uint32_t uid, pid_t process);

// Room for any path that the kernel tells.
using PathBuffer = std::array<char, PROC_PIDPATHINFO_MAXSIZE>;

// The path of the executable of `process` (proc_pidpath), written into `buffer`, which must outlive
// the result. Nothing when the kernel does not tell, as of a process that has ended. Allocates
// nothing.
std::optional<std::string_view> executablePath(pid_t process, PathBuffer& buffer);

}  // namespace halvo
