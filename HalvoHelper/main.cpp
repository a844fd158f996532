// The helper's process: chooses the mode, builds what the service needs of the system, and serves.

#include <sysexits.h>

#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoHelper/LiveOpener.hpp"
#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelper/OpenAsUser.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Daemon.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Version.hpp"

namespace {

void runService(const char* firstWord) {
    using namespace halvo;
    prepareDaemon();
    logToTerminalToo();
    if (!runsAsRoot()) {
        HALVO_LOG_ERROR(helperLog, "The helper runs only as root, from launchd");
        if (const auto advice = startAdvice(Bundle::main().executablePath().value_or(firstWord))) {
            HALVO_LOG_ERROR(helperLog, "%{public}s", advice->c_str());
        }
        std::exit(EX_NOPERM);
    }
    const Bundle bundle = Bundle::main();
    const auto identity = HelperIdentity::helper(bundle.info());
    if (!identity) {
        HALVO_LOG_ERROR(helperLog, "The helper has no team or app identifier in its Info.plist");
        std::exit(EX_CONFIG);
    }
    MainQueue& queue = liveMainQueue();
    // All this lives as long as the process, so not on the stack of the main thread, which
    // dispatch_main(3) may end.
    auto& listener = *makeListener(*identity).release();
    HALVO_LOG_DEFAULT(helperLog, "Halvo helper %{public}s started", version);
    auto& clock = *new SystemHelperClock;
    auto& flags = *new ChflagsFileFlags(ItemFlag::systemImmutable);
    auto& files = *new FileCommitmentStore(identity->stateFolder());
    auto& locks = *new RecordedLocks(files, flags);
    auto& session = *makeLiveSessionProbe().release();
    auto& opener = *new LiveOpener(bundle.executablePath().value_or(firstWord));
    auto& service =
        *new HelperService(HelperEngine(clock, locks, locks, session, opener), listener, queue);
    service.start();
    queue.run();
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (!arguments.empty() && arguments.front() == halvo::OpenAsUser::modeWord) {
        halvo::OpenAsUser::run(std::span(arguments).subspan(1));
    }
    runService(argc > 0 ? argv[0] : "");
}
