// The engine on the live system, ticking between marks that a trace of its system calls shows:
// access(2) to "/mark/NAME" and "/mark/end/ALLOCATIONS", which do not exist. Fails unless it holds
// an app that is locked and runs. Usage: TickProbe BUNDLE UID

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TestProcess.hpp"

namespace {

using namespace halvo;

void markedTick(HelperEngine& engine, const std::string& name) {
    access(("/mark/" + name).c_str(), F_OK);
    const std::size_t before = halvo::testing::mallocsMade();
    engine.tick();
    const std::size_t allocations = halvo::testing::mallocsMade() - before;
    access(("/mark/end/" + std::to_string(allocations)).c_str(), F_OK);
}

}  // namespace

int main(int count, char** words) {
    if (count != 3) {
        return EXIT_FAILURE;
    }
    const std::string bundle = words[1];
    const HelperPeer app{static_cast<std::uint32_t>(std::stoul(words[2])), bundle};
    SystemHelperClock clock;
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    FileCommitmentStore store("/tmp/tick");
    const auto session = makeLiveSessionProbe();
    // Of it only the opener, which opens nothing.
    halvo::testing::SimulatedWorld world;
    HelperEngine engine(clock, flags, store, *session, world.opener);
    engine.startup();
    const WallDate started = wallNow();
    const bool holds = engine.begin(bundle, started + Seconds{3600}, started, app);
    engine.tick();
    engine.heartbeat(false, app);
    markedTick(engine, "quiet");
    markedTick(engine, "quiet");
    // Silent, the app is looked for. The first time, the place of its executable is looked up.
    for (const char* search : {"first-search", "search"}) {
        halvo::testing::sleepFor(HelperEngine::Timing::silence + Seconds{0.2});
        markedTick(engine, search);
    }
    const bool locked = flags.state(bundle) == LockState::locked;
    engine.end(app);
    return holds && locked && world.opener.openings.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
