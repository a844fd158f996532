#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {
namespace {

std::optional<std::string> linkAt(const std::string& path) {
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
    if (length < 1 || static_cast<std::size_t>(length) >= buffer.size()) {
        return std::nullopt;
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

// Whether both paths lead to the same item.
bool isSame(const std::string& path, const std::string& other) {
    struct stat one{};
    struct stat two{};
    return stat(path.c_str(), &one) == 0 && stat(other.c_str(), &two) == 0 &&
           one.st_dev == two.st_dev && one.st_ino == two.st_ino;
}

// The second word of the command line; proc_pid_cmdline(5).
std::string firstArgument(const std::string& process) {
    const Descriptor file(open((process + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = file.isOpen() ? read(file.get(), buffer.data(), buffer.size()) : 0;
    const std::string_view words(buffer.data(),
                                 static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    const std::size_t end = words.find('\0');
    if (end == std::string_view::npos) {
        return "";
    }
    const std::string_view rest = words.substr(end + 1);
    return std::string(rest.substr(0, rest.find('\0')));
}

// By /proc; proc(5).
class ProcProcesses final : public HelperProcesses {
  public:
    explicit ProcProcesses(std::string executable) : executable_(std::move(executable)) {}

    std::vector<pid_t> running() override {
        std::vector<pid_t> found;
        const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
        while (const dirent* entry = proc == nullptr ? nullptr : readdir(proc.get())) {
            const char* end = entry->d_name + std::strlen(entry->d_name);
            pid_t process = 0;
            const auto parsed = std::from_chars(entry->d_name, end, process);
            if (parsed.ec == std::errc{} && parsed.ptr == end && isHelper(process)) {
                found.push_back(process);
            }
        }
        std::ranges::sort(found);
        return found;
    }

    // proc_pid_status(5).
    bool isStopped(pid_t process) override {
        const Descriptor file(
            open(("/proc/" + std::to_string(process) + "/status").c_str(), O_RDONLY | O_CLOEXEC));
        std::array<char, 256> buffer{};
        const ssize_t length = file.isOpen() ? read(file.get(), buffer.data(), buffer.size()) : 0;
        const std::string_view status(buffer.data(),
                                      static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return status.contains("\nState:\tT") || status.contains("\nState:\tt");
    }

    // By a descriptor, which cannot come to mean another process; pidfd_open(2).
    void terminate(pid_t process) override {
        const Descriptor pidfd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
        if (pidfd.isOpen() && isHelper(process)) {
            syscall(SYS_pidfd_send_signal, pidfd.get(), SIGTERM, nullptr, 0);
        }
    }

  private:
    [[nodiscard]] bool isHelper(pid_t process) const {
        const std::string folder = "/proc/" + std::to_string(process);
        const std::string exe = folder + "/exe";
        const auto program = linkAt(exe);
        // The kernel's mark for a file that is no longer at its path; proc_pid_exe(5).
        const bool isReplaced = program == executable_ + " (deleted)";
        if (!isReplaced && (program != executable_ || !isSame(exe, executable_))) {
            return false;
        }
        struct stat status{};
        // A container's own helper, or the machine's where this is a change root, may have the same
        // path. The sandbox of the unit keeps the root folder; proc_pid_root(5).
        return stat(folder.c_str(), &status) == 0 && status.st_uid == 0 &&
               isSame(folder + "/root", "/") &&
               linkAt(folder + "/ns/pid") == linkAt("/proc/self/ns/pid") &&
               firstArgument(folder) != OpenAsUser::modeWord;
    }

    std::string executable_;
};

}  // namespace

std::unique_ptr<HelperProcesses> liveProcesses(const std::string& executable) {
    return std::make_unique<ProcProcesses>(executable);
}

}  // namespace halvo::control
