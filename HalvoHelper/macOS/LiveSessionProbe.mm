#include "HalvoHelper/LiveSessionProbe.hpp"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "HalvoHelper/macOS/ExecutablePath.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// The executable of the bundle last asked about. A bundle is looked into again only when another
// one is asked about, or its executable is gone.
class ExpectedExecutable {
  public:
    const std::string& of(const std::string& bundlePath) {
        if (bundlePath != bundlePath_ || !itemExists(executable_)) {
            bundlePath_ = bundlePath;
            executable_ =
                Bundle(bundlePath).executablePath().value_or(bundlePath + "/Contents/MacOS/Halvo");
        }
        return executable_;
    }

  private:
    std::string bundlePath_;
    std::string executable_;
};

// All processes (libproc.h), in one pass with buffers that stay.
class Processes {
  public:
    // Whether a process with the effective user `uid` runs the executable at the path `executable`.
    bool run(const std::string& executable, std::uint32_t uid) {
        list();
        return std::ranges::any_of(processes_, [&](pid_t process) {
            return process > 0 && isUsers(process, uid) &&
                   executablePath(process, path_) == executable;
        });
    }

  private:
    // Room for those that start between the two calls.
    static constexpr int spare = 64;

    void list() {
        const int count = proc_listallpids(nullptr, 0);
        if (count < 1) {
            processes_.clear();
            return;
        }
        processes_.assign(static_cast<std::size_t>(count) + spare, 0);
        const int listed = proc_listallpids(processes_.data(),
                                            static_cast<int>(processes_.size() * sizeof(pid_t)));
        processes_.resize(
            std::min(processes_.size(), static_cast<std::size_t>(std::max(listed, 0))));
    }

    static bool isUsers(pid_t process, std::uint32_t uid) {
        proc_bsdshortinfo info{};
        constexpr int size = sizeof info;
        return proc_pidinfo(process, PROC_PIDT_SHORTBSDINFO, 0, &info, size) == size &&
               info.pbsi_uid == uid;
    }

    std::vector<pid_t> processes_;
    PathBuffer path_{};
};

}  // namespace

class LiveSessionProbe::State {
  public:
    ExpectedExecutable executable;
    Processes processes;
};

LiveSessionProbe::LiveSessionProbe() : state_(std::make_unique<State>()) {}

LiveSessionProbe::~LiveSessionProbe() = default;

std::optional<std::uint32_t> LiveSessionProbe::consoleUser() {
    @autoreleasepool {
        uid_t uid = 0;
        NSString* name = CFBridgingRelease(SCDynamicStoreCopyConsoleUser(nullptr, &uid, nullptr));
        // While nobody is logged in the login window has the console.
        if (name.length == 0 || [name isEqualToString:@"loginwindow"] || uid == 0) {
            return std::nullopt;
        }
        return uid;
    }
}

bool LiveSessionProbe::isAppRunning(const std::string& bundlePath, std::uint32_t uid) {
    return state_->processes.run(state_->executable.of(bundlePath), uid);
}

}  // namespace halvo
