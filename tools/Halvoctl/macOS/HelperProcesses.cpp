#include <libproc.h>
#include <sys/proc.h>
#include <sys/proc_info.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "HalvoHelper/macOS/ProcessList.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

// The open-as-user mode, which is root's for a moment in the same executable, counts here: libproc
// does not tell the words of a process.
class ListedProcesses final : public HelperProcesses {
  public:
    explicit ListedProcesses(std::string executable) : executable_(std::move(executable)) {}

    std::vector<pid_t> running() override {
        std::vector<pid_t> found;
        listProcesses(processes_);
        for (const pid_t process : processes_) {
            if (isHelper(process)) {
                found.push_back(process);
            }
        }
        std::ranges::sort(found);
        return found;
    }

    bool isStopped(pid_t process) override {
        proc_bsdshortinfo info{};
        constexpr int size = sizeof info;
        return proc_pidinfo(process, PROC_PIDT_SHORTBSDINFO, 0, &info, size) == size &&
               info.pbsi_status == SSTOP;
    }

    void terminate(pid_t process) override {
        if (isHelper(process)) {
            kill(process, SIGTERM);
        }
    }

  private:
    bool isHelper(pid_t process) {
        return process > 0 && isProcessOf(0, process) &&
               executablePath(process, path_) == executable_;
    }

    std::string executable_;
    std::vector<pid_t> processes_;
    PathBuffer path_{};
};

}  // namespace

std::unique_ptr<HelperProcesses> liveProcesses(const std::string& executable) {
    return std::make_unique<ListedProcesses>(executable);
}

}  // namespace halvo::control
