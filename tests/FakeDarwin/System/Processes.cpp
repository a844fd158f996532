// libproc: the processes of the simulated machine.
#include <libproc.h>
#include <sys/proc.h>
#include <sys/proc_info.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "../FakeDarwin.hpp"

namespace {

const fake::Process* process(int pid) {
    const auto& all = fake::world().processes;
    const auto found = std::ranges::find(all, pid, &fake::Process::pid);
    return found == all.end() ? nullptr : &*found;
}

}  // namespace

extern "C" {

int proc_listallpids(void* buffer, int size) {
    const fake::World& world = fake::world();
    const int count = static_cast<int>(world.processes.size());
    if (buffer == nullptr) {
        return world.announcedProcesses.value_or(count);
    }
    const int room = size / static_cast<int>(sizeof(pid_t));
    const int told = std::min(count, room);
    for (int i = 0; i < told; ++i) {
        static_cast<pid_t*>(buffer)[i] = world.processes[static_cast<std::size_t>(i)].pid;
    }
    return world.listedProcesses.value_or(told);
}

int proc_pidinfo(int pid, int flavor, std::uint64_t, void* buffer, int size) {
    ++fake::world().infoCalls;
    const fake::Process* found = process(pid);
    if (found == nullptr || flavor != PROC_PIDT_SHORTBSDINFO) {
        errno = found == nullptr ? ESRCH : EINVAL;
        return 0;
    }
    proc_bsdshortinfo info{};
    static_assert(sizeof info == 64);
    info.pbsi_pid = static_cast<std::uint32_t>(pid);
    info.pbsi_uid = found->uid;
    info.pbsi_status = found->isStopped ? SSTOP : SRUN;
    const int told = std::min(found->infoSize, size);
    if (told > 0) {
        std::memcpy(buffer, &info, std::min(static_cast<std::size_t>(told), sizeof info));
    }
    return told;
}

int proc_pidpath(int pid, void* buffer, std::uint32_t size) {
    ++fake::world().pathCalls;
    const fake::Process* found = process(pid);
    if (found == nullptr || found->path.empty()) {
        errno = ESRCH;
        return 0;
    }
    const std::size_t told = std::min<std::size_t>(found->path.size(), size);
    std::memcpy(buffer, found->path.data(), told);
    return found->pathSize.value_or(static_cast<int>(told));
}
}
