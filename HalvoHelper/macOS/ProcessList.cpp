#include "HalvoHelper/macOS/ProcessList.hpp"

#include <sys/proc_info.h>

#include <algorithm>
#include <cstddef>

namespace halvo {

void listProcesses(std::vector<pid_t>& processes) {
    const int count = proc_listallpids(nullptr, 0);
    if (count < 1) {
        processes.clear();
        return;
    }
    // Room for those that start between the two calls.
    constexpr std::size_t spare = 64;
    processes.assign(static_cast<std::size_t>(count) + spare, 0);
    const int listed =
        proc_listallpids(processes.data(), static_cast<int>(processes.size() * sizeof(pid_t)));
    processes.resize(std::min(processes.size(), static_cast<std::size_t>(std::max(listed, 0))));
}

bool isProcessOf(std::uint32_t uid, pid_t process) {
    proc_bsdshortinfo info{};
    constexpr int size = sizeof info;
    return proc_pidinfo(process, PROC_PIDT_SHORTBSDINFO, 0, &info, size) == size &&
           info.pbsi_uid == uid;
}

std::optional<std::string_view> executablePath(pid_t process, PathBuffer& buffer) {
    buffer.fill('\0');
    const int length =
        proc_pidpath(process, buffer.data(), static_cast<std::uint32_t>(buffer.size()));
    if (length < 1) {
        return std::nullopt;
    }
    return std::string_view(buffer.data(),
                            std::min(buffer.size(), static_cast<std::size_t>(length)));
}

}  // namespace halvo
