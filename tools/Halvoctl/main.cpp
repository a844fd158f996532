// For the administrator: what holds, whether all is well, and the way out.

#include <pwd.h>
#include <unistd.h>

#include <csignal>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace {

using namespace halvo;

std::optional<std::string> userName(std::uint32_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry == nullptr ? std::nullopt : std::optional<std::string>(entry->pw_name);
}

// A release that has begun is finished: what is typed or sent meanwhile ends the program after it.
// It waits for nothing without end.
void holdSignals() {
    sigset_t signals{};
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

// On this machine.
control::Outcome runTool(const std::vector<std::string>& words) {
    if (!words.empty() && words.front() == "release") {
        holdSignals();
    }
    const auto calendar = GregorianCalendar::system();
    const Bundle bundle = Bundle::main();
    const auto identity = HelperIdentity::helper(bundle.info());
    if (!identity) {
        return control::run(
            words,
            std::unexpected(records::printable(bundle.infoPath()) + " names no team or no app"),
            calendar);
    }
    // The helper's executable and its Info.plist lie with ours.
    const std::string helper =
        control::folderOf(bundle.executablePath().value_or("/")) + "/HalvoHelper";
    control::Waiter waiter;
    SystemHelperClock clock;
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
    FileCommitmentStore store{identity->stateFolder()};
    const auto session = makeLiveSessionProbe();
    const auto processes = control::liveProcesses(helper);
    const auto service = control::liveService({*identity, helper, *processes, waiter});
    control::Machine machine{.identity = *identity,
                             .helper = helper,
                             .stateFile = store.path(),
                             .releaseLock = control::releaseLockPath(*identity),
                             .isRoot = geteuid() == 0,
                             .clock = clock,
                             .flags = flags,
                             .store = store,
                             .session = *session,
                             .processes = *processes,
                             .service = *service,
                             .waiter = waiter,
                             .userName = userName};
    return control::run(words, &machine, calendar);
}

}  // namespace

int main(int count, char** words) { return tools::runProgram("halvoctl", count, words, runTool); }
