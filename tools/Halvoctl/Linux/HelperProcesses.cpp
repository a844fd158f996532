#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tools/Halvoctl/Machine.hpp"

// Reads /proc; proc(5).
namespace halvo::control {
namespace {

namespace fs = std::filesystem;

std::string processFolder(pid_t process) { return "/proc/" + std::to_string(process); }

// Whether both paths lead to the same file.
bool isSame(const std::string& path, const std::string& other) {
    std::error_code ignored;
    return fs::equivalent(path, other, ignored);
}

}  // namespace

std::vector<pid_t> HelperProcesses::running() {
    std::vector<pid_t> found;
    std::error_code ignored;
    for (fs::directory_iterator item("/proc", ignored), end; item != end; item.increment(ignored)) {
        // Only the names of processes begin with a digit.
        const std::string name = item->path().filename();
        pid_t process = 0;
        std::from_chars(name.data(), name.data() + name.size(), process);
        if (process > 0 && isHelper(process)) {
            found.push_back(process);
        }
    }
    std::ranges::sort(found);
    return found;
}

// proc_pid_status(5).
bool HelperProcesses::isStopped(pid_t process) {
    std::ifstream file(processFolder(process) + "/status");
    std::string line;
    while (std::getline(file, line) && !line.starts_with("State:")) {
    }
    return line.starts_with("State:\tT") || line.starts_with("State:\tt");
}

// By a descriptor, since the id may be reused; pidfd_open(2).
void HelperProcesses::terminate(pid_t process) {
    const Descriptor pidfd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    if (pidfd.isOpen() && isHelper(process)) {
        syscall(SYS_pidfd_send_signal, pidfd.get(), SIGTERM, nullptr, 0);
    }
}

bool HelperProcesses::isHelper(pid_t process) const {
    const std::string folder = processFolder(process);
    std::error_code ignored;
    const fs::path program = fs::read_symlink(folder + "/exe", ignored);
    // The kernel's mark of a file that was unlinked; proc_pid_exe(5).
    const bool isReplaced = program == executable_ + " (deleted)";
    if (!isReplaced && (program != executable_ || !isSame(folder + "/exe", executable_))) {
        return false;
    }
    // The second word of the command line; proc_pid_cmdline(5).
    std::ifstream file(folder + "/cmdline");
    std::string word;
    std::getline(std::getline(file, word, '\0'), word, '\0');
    struct stat status{};
    // The helper of a container, or of the host of this chroot, may have the same path. The unit's
    // sandbox keeps the root folder; proc_pid_root(5).
    return stat(folder.c_str(), &status) == 0 && status.st_uid == 0 &&
           isSame(folder + "/root", "/") && isSame(folder + "/ns/pid", "/proc/self/ns/pid") &&
           word != OpenAsUser::modeWord;
}

}  // namespace halvo::control
