// For the administrator: what holds, whether all is well, and the way out.

#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>

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

// This machine.
struct LiveMachine {
    HelperIdentity identity;
    std::string helper;
    control::Waiter waiter;
    SystemHelperClock clock;
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
    FileCommitmentStore store{identity.stateFolder()};
    LiveSessionProbe session;
    std::unique_ptr<control::HelperProcesses> processes = control::liveProcesses(helper);
    std::unique_ptr<control::Service> service =
        control::liveService(identity, helper, *processes, waiter);
    control::Machine machine{.identity = identity,
                             .helper = helper,
                             .stateFile = store.path(),
                             .releaseLock = control::releaseLockPath(identity),
                             .isRoot = geteuid() == 0,
                             .clock = clock,
                             .flags = flags,
                             .store = store,
                             .session = session,
                             .processes = *processes,
                             .service = *service,
                             .waiter = waiter,
                             .userName = userName};
};

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

int runTool(const std::vector<std::string>& words) {
    std::optional<LiveMachine> live;
    const control::FindMachine find =
        [&]() -> std::expected<std::reference_wrapper<control::Machine>, std::string> {
        const Bundle bundle = Bundle::main();
        const auto identity = HelperIdentity::helper(bundle.info());
        if (!identity) {
            return std::unexpected(records::printable(bundle.infoPath()) +
                                   " names no team or no app");
        }
        // The helper's executable and its Info.plist lie with ours.
        live.emplace(*identity,
                     control::folderOf(bundle.executablePath().value_or("/")) + "/HalvoHelper");
        return live->machine;
    };
    const control::Outcome outcome = control::run(words, find, GregorianCalendar::system());
    std::cout << outcome.output << std::flush;
    std::cerr << outcome.errors << std::flush;
    if (!std::cout) {
        std::cerr << "halvoctl: The output could not be written.\n" << std::flush;
        return control::ExitStatus::outputLost;
    }
    return outcome.status;
}

}  // namespace

int main(int count, char** words) {
    try {
        // A reader that goes away shows as a write that fails.
        std::signal(SIGPIPE, SIG_IGN);
        const std::vector<std::string> list(words + (count > 0 ? 1 : 0), words + count);
        if (!list.empty() && list.front() == "release") {
            holdSignals();
        }
        return runTool(list);
    } catch (const std::exception&) {
        std::fputs("halvoctl: There is not enough memory.\n", stderr);
        return control::ExitStatus::system;
    }
}
