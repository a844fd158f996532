// For the administrator: what holds, whether all is well, and the way out.

#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Programs.hpp"
#include "tools/Halvoctl/ReleaseLock.hpp"
#include "tools/Halvoctl/Service.hpp"
#include "tools/Halvoctl/Tool.hpp"

namespace {

using namespace halvo;

std::optional<std::string> userName(std::uint32_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry == nullptr ? std::nullopt : std::optional<std::string>(entry->pw_name);
}

// This machine. The helper's executable and its Info.plist lie with ours.
class LiveMachine {
  public:
    LiveMachine(const HelperIdentity& identity, const std::string& folder)
        : store_(identity.stateFolder()),
          processes_(control::liveProcesses(folder + "/HalvoHelper")),
          service_(control::liveService(identity, folder + "/HalvoHelper", *processes_, programs_)),
          machine_{.identity = identity,
                   .helper = folder + "/HalvoHelper",
                   .stateFile = store_.path(),
                   .releaseLock = control::releaseLockPath(identity),
                   .isRoot = geteuid() == 0,
                   .clock = clock_,
                   .flags = flags_,
                   .store = store_,
                   .session = session_,
                   .service = *service_,
                   .programs = programs_,
                   .userName = userName} {}

    control::Machine& get() { return machine_; }

  private:
    SystemHelperClock clock_;
    ChflagsFileFlags flags_{ItemFlag::systemImmutable};
    FileCommitmentStore store_;
    LiveSessionProbe session_;
    control::LivePrograms programs_;
    std::unique_ptr<control::HelperProcesses> processes_;
    std::unique_ptr<control::Service> service_;
    control::Machine machine_;
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
    const auto machine = [&]() -> control::MachineOr {
        const Bundle bundle = Bundle::main();
        const auto identity = HelperIdentity::helper(bundle.info());
        if (!identity) {
            return std::unexpected(records::printable(bundle.infoPath()) +
                                   " names no team or no app");
        }
        const std::string executable = bundle.executablePath().value_or("/");
        live.emplace(*identity, executable.substr(0, executable.find_last_of('/')));
        return live->get();
    };
    const auto progress = [](const std::string& line) { std::cerr << line + "\n" << std::flush; };
    const control::Outcome outcome =
        control::run(words, machine, GregorianCalendar::system(), progress);
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
