// For administrators: shows the commitment, checks the installation, and releases the app.

#include <pwd.h>
#include <unistd.h>

#include <csignal>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace {

using namespace halvo;

std::optional<std::string> userName(std::uint32_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry == nullptr ? std::nullopt : std::optional<std::string>(entry->pw_name);
}

control::Outcome runTool(const std::vector<std::string>& words) {
    // Signals do not interrupt a release. All its waits have limits.
    if (!words.empty() && words.front() == "release") {
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            std::signal(signal, SIG_IGN);
        }
    }
    const Bundle bundle = Bundle::main();
    const auto identity = HelperIdentity::helper(bundle.info());
    if (!identity) {
        return control::run(words, std::unexpected(records::printable(bundle.infoPath()) +
                                                   " names no team or no app"));
    }
    // The helper is installed beside this program.
    const std::string helper =
        control::folderOf(bundle.executablePath().value_or("/")) + "/HalvoHelper";
    control::Waiter waiter;
    control::HelperProcesses processes{helper};
    SystemHelperClock clock;
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
    FileCommitmentStore store{identity->stateFolder()};
    const auto session = makeLiveSessionProbe();
    control::Machine machine{.identity = *identity,
                             .helper = helper,
                             .stateFile = store.path(),
                             .isRoot = geteuid() == 0,
                             .clock = clock,
                             .calendar = GregorianCalendar::system(),
                             .flags = flags,
                             .store = store,
                             .session = *session,
                             .processes = processes,
                             .waiter = waiter,
                             .userName = userName};
    const auto service = control::liveService(machine);
    machine.service = service.get();
    return control::run(words, &machine);
}

}  // namespace

int main(int argc, char** argv) { return tools::runProgram("halvoctl", argc, argv, runTool); }
