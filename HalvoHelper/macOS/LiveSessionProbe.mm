#include "HalvoHelper/LiveSessionProbe.hpp"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <sys/types.h>

#include <algorithm>
#include <vector>

#include "HalvoHelper/macOS/ProcessList.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

class LiveSessionProbe final : public SessionProbe {
  public:
    std::optional<std::uint32_t> consoleUser() override {
        @autoreleasepool {
            uid_t uid = 0;
            NSString* name =
                CFBridgingRelease(SCDynamicStoreCopyConsoleUser(nullptr, &uid, nullptr));
            // Without a login session the console belongs to loginwindow.
            if (name.length == 0 || [name isEqualToString:@"loginwindow"] || uid == 0) {
                return std::nullopt;
            }
            return uid;
        }
    }

    // One pass over all processes, with buffers that are kept.
    bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) override {
        const std::string& executable = executableOf(bundlePath);
        listProcesses(processes_);
        return std::ranges::any_of(processes_, [&](pid_t process) {
            return process > 0 && isProcessOf(uid, process) &&
                   executablePath(process, path_) == executable;
        });
    }

  private:
    // The executable of the bundle last asked about, cached until another one is asked about or the
    // executable is removed.
    const std::string& executableOf(const std::string& bundlePath) {
        if (bundlePath != bundlePath_ || !itemExists(executable_)) {
            bundlePath_ = bundlePath;
            executable_ = Bundle(bundlePath)
                              .executablePath()
                              .value_or(AppLocation::usualExecutable(bundlePath));
        }
        return executable_;
    }

    std::string bundlePath_;
    std::string executable_;
    std::vector<pid_t> processes_;
    PathBuffer path_{};
};

}  // namespace

std::unique_ptr<SessionProbe> makeLiveSessionProbe() {
    return std::make_unique<LiveSessionProbe>();
}

}  // namespace halvo
