// The world of a test, and the kernel's interfaces: clocks, sysctl(3), processes (libproc.h) and
// the image of the program, dyld(3).
#include <libproc.h>
#include <mach-o/dyld.h>
#include <mach-o/getsect.h>
#include <sys/proc.h>
#include <sys/proc_info.h>
#include <sys/sysctl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "../FakeDarwin.hpp"
#include "../ObjectiveC/Runtime.hpp"
#include "../Parts.hpp"

namespace fake {
namespace {

std::vector<std::string> texts(bool areErrors) {
    std::vector<std::string> found;
    for (const LogEntry& entry : world().log) {
        if (entry.isError == areErrors) {
            found.push_back(entry.text);
        }
    }
    return found;
}

const Process* processOf(int pid) {
    const auto found = std::ranges::find(world().processes, pid, &Process::pid);
    if (found == world().processes.end()) {
        errno = ESRCH;
        return nullptr;
    }
    return &*found;
}

}  // namespace

World& world() {
    static auto& only = *new World;
    return only;
}

void reset() {
    resetDispatch();
    resetXPC();
    resetMainBundle();
    world() = World{};
}

std::vector<std::string> errors() { return texts(true); }

std::vector<std::string> notices() { return texts(false); }

using std::chrono::system_clock;

// Replaces system_clock::now() (ld(1), --wrap).
system_clock::time_point now() __asm__("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

system_clock::time_point now() {
    const std::chrono::duration<double> atBoot(world().bootedAt);
    const std::chrono::nanoseconds sinceBoot(world().sinceBoot);
    return system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(atBoot) +
                                    sinceBoot);
}

}  // namespace fake

using namespace fake;

struct mach_header {};

extern "C" {

std::uint64_t clock_gettime_nsec_np(clockid_t clock) {
    // The other clocks stop during sleep, or can be set.
    if (clock != CLOCK_MONOTONIC) {
        objc::fail("clock_gettime_nsec_np() of a clock that does not count sleep");
    }
    return world().sinceBoot;
}

int sysctlbyname(const char* name, void* value, std::size_t* size, void*, std::size_t) {
    ++world().sysctlCalls;
    const bool isKnown = std::string_view(name) == "kern.bootsessionuuid" && world().bootSession;
    const std::string bytes = world().bootSession.value_or("");
    if (!isKnown || (value != nullptr && (world().bootSessionReadFails || *size < bytes.size()))) {
        errno = isKnown ? ENOMEM : ENOENT;
        return -1;
    }
    if (value != nullptr) {
        std::ranges::copy(bytes, static_cast<char*>(value));
    }
    *size = bytes.size();
    return 0;
}

int proc_listallpids(void* buffer, int size) {
    const int count = static_cast<int>(world().processes.size());
    if (buffer == nullptr) {
        return world().announcedProcesses.value_or(count);
    }
    const int told = std::min(count, size / static_cast<int>(sizeof(pid_t)));
    std::ranges::transform(world().processes.begin(), world().processes.begin() + told,
                           static_cast<pid_t*>(buffer), &Process::pid);
    return world().listedProcesses.value_or(told);
}

int proc_pidinfo(int pid, int flavor, std::uint64_t, void* buffer, int size) {
    ++world().infoCalls;
    const Process* found = processOf(pid);
    if (found == nullptr || flavor != PROC_PIDT_SHORTBSDINFO) {
        return 0;
    }
    proc_bsdshortinfo info{};
    static_assert(sizeof info == 64);
    info.pbsi_pid = static_cast<std::uint32_t>(pid);
    info.pbsi_uid = found->uid;
    info.pbsi_status = found->isStopped ? SSTOP : SRUN;
    const int told = std::min(found->infoSize, size);
    std::memcpy(buffer, &info, static_cast<std::size_t>(std::clamp(told, 0, 64)));
    return told;
}

int proc_pidpath(int pid, void* buffer, std::uint32_t size) {
    ++world().pathCalls;
    const Process* found = processOf(pid);
    if (found == nullptr || found->path.empty()) {
        return 0;
    }
    const std::size_t told = std::min<std::size_t>(found->path.size(), size);
    std::memcpy(buffer, found->path.data(), told);
    return found->pathSize.value_or(static_cast<int>(told));
}

// Only the main program, which is image 0.
const mach_header* _dyld_get_image_header(std::uint32_t index) {
    static const mach_header program;
    return index == 0 ? &program : nullptr;
}

std::uint8_t* getsectiondata(const mach_header_64* image, const char* segment, const char* section,
                             unsigned long* size) {
    auto& info = world().carriedInfo;
    if (static_cast<const void*>(image) != _dyld_get_image_header(0) ||
        std::string_view(segment) != "__TEXT" || std::string_view(section) != "__info_plist" ||
        !info) {
        return nullptr;
    }
    *size = info->size();
    return reinterpret_cast<std::uint8_t*>(info->data());
}
}
