#include <libproc.h>
#include <sys/proc.h>
#include <sys/proc_info.h>

#include <algorithm>
#include <csignal>

#include "HalvoHelper/macOS/ProcessList.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

std::vector<pid_t> HelperProcesses::running() {
    std::vector<pid_t> processes;
    listProcesses(processes);
    std::erase_if(processes, [this](pid_t process) { return !isHelper(process); });
    std::ranges::sort(processes);
    return processes;
}

bool HelperProcesses::isStopped(pid_t process) {
    proc_bsdshortinfo info{};
    constexpr int size = sizeof info;
    return proc_pidinfo(process, PROC_PIDT_SHORTBSDINFO, 0, &info, size) == size &&
           info.pbsi_status == SSTOP;
}

void HelperProcesses::terminate(pid_t process) {
    if (isHelper(process)) {
        kill(process, SIGTERM);
    }
}

// Counts processes in open-as-user mode, which run the same executable as root for a moment:
// libproc does not report the arguments of a process.
bool HelperProcesses::isHelper(pid_t process) const {
    PathBuffer path{};
    return process > 0 && isProcessOf(0, process) && executablePath(process, path) == executable_;
}

}  // namespace halvo::control
