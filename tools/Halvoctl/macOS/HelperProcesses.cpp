#include <sys/proc_info.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "HalvoHelper/macOS/ExecutablePath.hpp"
#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {
namespace {

// By libproc.h. The open-as-user mode, a moment of root in the same executable, counts: telling its
// words apart is not worth it.
class ListedProcesses final : public HelperProcesses {
  public:
    explicit ListedProcesses(std::string executable) : executable_(std::move(executable)) {}

    std::vector<pid_t> running() override {
        std::vector<pid_t> found;
        for (const pid_t process : all()) {
            if (process > 0 && isHelper(process)) {
                found.push_back(process);
            }
        }
        std::ranges::sort(found);
        return found;
    }

    void terminate(pid_t process) override {
        if (isHelper(process)) {
            kill(process, SIGTERM);
        }
    }

  private:
    // Room for those that start between the two calls.
    static constexpr int spare = 64;

    static std::vector<pid_t> all() {
        const int count = std::max(proc_listallpids(nullptr, 0), 0);
        std::vector<pid_t> processes(static_cast<std::size_t>(count) + spare);
        const int listed =
            proc_listallpids(processes.data(), static_cast<int>(processes.size() * sizeof(pid_t)));
        processes.resize(std::min(processes.size(), static_cast<std::size_t>(std::max(listed, 0))));
        return processes;
    }

    bool isHelper(pid_t process) {
        proc_bsdshortinfo info{};
        constexpr int size = sizeof info;
        return proc_pidinfo(process, PROC_PIDT_SHORTBSDINFO, 0, &info, size) == size &&
               info.pbsi_uid == 0 && executablePath(process, path_) == executable_;
    }

    std::string executable_;
    PathBuffer path_{};
};

}  // namespace

std::unique_ptr<HelperProcesses> liveProcesses(const std::string& executable) {
    return std::make_unique<ListedProcesses>(executable);
}

}  // namespace halvo::control
