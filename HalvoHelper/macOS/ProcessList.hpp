// The processes of this Mac; libproc.h.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace halvo {

// Makes `processes` hold the ids of all that run, the kernel's own (0) perhaps among them; empty
// when the system does not tell. Allocates only while there are more than `processes` has had room
// for. Any thread.
void listProcesses(std::vector<pid_t>& processes);

// Whether the effective user of `process` is `uid`. False for one that has ended. Allocates
// nothing. Any thread.
bool isProcessOf(std::uint32_t uid, pid_t process);

}  // namespace halvo
