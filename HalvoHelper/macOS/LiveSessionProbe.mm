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
            // While nobody is logged in the login window has the console.
            if (name.length == 0 || [name isEqualToString:@"loginwindow"] || uid == 0) {
                return std::nullopt;
            }
            return uid;
        }
    }

    // Looks at all processes in one pass, with buffers that stay.
    bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) override {
        const std::string& executable = executableOf(bundlePath);
        listProcesses(processes_);
        return std::ranges::any_of(processes_, [&](pid_t process) {
            return process > 0 && isProcessOf(uid, process) &&
                   executablePath(process, path_) == executable;
        });
    }

  private:
    // The executable of the bundle last asked about. A bundle is looked into again only when
    // another one is asked about, or its executable is gone.
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
